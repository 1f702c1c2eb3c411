// The plug-in as a daemon loads it: dlopen with RTLD_NOW from a process that has the host
// library, entry points resolved by name, a detector driven through handler records.
#include <dlfcn.h>
#include <gtest/gtest.h>

#include <typeinfo>

#include "support/testenv.h"
#include "twhost/eventlog.h"
#include "twhost/plugin.h"
#include "twhost/streamfifo.h"

namespace {

using tw::host::PluginModule;

TEST(Loader, PluginIsNotInTheProcessBeforeItIsOpened) {
    EXPECT_EQ(dlopen(TW_PLUGIN_PATH, RTLD_NOW | RTLD_NOLOAD), nullptr);
}

TEST(Loader, OpensWithImmediateBindingAndResolvesEveryEntryPoint) {
    std::string error;
    std::unique_ptr<PluginModule> module = PluginModule::Load(TW_PLUGIN_PATH, error);
    ASSERT_NE(module, nullptr) << error;
    EXPECT_NE(dlopen(TW_PLUGIN_PATH, RTLD_NOW | RTLD_NOLOAD), nullptr);
    EXPECT_STREQ(module->ImgDiffDetHandlerName(), "ImgDiffDetHandler");
    EXPECT_STREQ(module->DetectorHandlerName(), "DetectorHandler");
    EXPECT_STREQ(module->LiveCamDetHandlerName(), "LiveCamDetHandler");
    std::map<int, MemFuncBase*>* table = module->GetTWMdFuncTable();
    ASSERT_NE(table, nullptr);
    EXPECT_EQ(table->size(), 5u);
}

TEST(Loader, MissingLibraryIsReportedByPath) {
    std::string error;
    EXPECT_EQ(PluginModule::Load("/nonexistent/libtwdevplugin.so", error), nullptr);
    EXPECT_NE(error.find("/nonexistent/libtwdevplugin.so"), std::string::npos) << error;
}

TEST(Loader, LibraryWithoutEntryPointsIsRefusedNamingTheSymbol) {
    std::string error;
    EXPECT_EQ(PluginModule::Load(TW_HOST_LIB_PATH, error), nullptr);
    EXPECT_NE(error.find("TWMotionDetFactory"), std::string::npos) << error;
}

TEST(Loader, DetectorIsCreatedBoundStartedStoppedAndReleasedThroughRecords) {
    tw::test::ScopedLogCapture capture;
    std::string error;
    std::unique_ptr<PluginModule> module = PluginModule::Load(TW_PLUGIN_PATH, error);
    ASSERT_NE(module, nullptr) << error;

    Camera camera = tw::test::AddCamera(81, VIDEO_CODEC_H264, tw::host::DetSettingValues());
    EventBuf events(81);
    StreamFifo fifo;
    tw::host::SetFifoFormat(fifo, VIDEO_CODEC_H264, 640, 360, {});

    DPObjectBase* det = module->TWMotionDetFactory(&camera, &events, &fifo, nullptr);
    ASSERT_NE(det, nullptr);
    // The object's class information comes from the plug-in and matches across the boundary.
    EXPECT_STREQ(typeid(*det).name(), "11TWMotionDet");

    std::unique_ptr<tw::host::DetectorHandlerProxy> handler = module->NewDetectorHandler();
    handler->SetDetector(det, 2);
    EXPECT_EQ(handler->GetDetType(), 2);
    ASSERT_NE(handler->Record(0), nullptr);
    EXPECT_EQ(handler->Record(0)->pObject, det);
    EXPECT_EQ(handler->Record(0)->pFunctor, (*module->GetTWMdFuncTable())[0]);

    EXPECT_FALSE(handler->IsActivated());
    EXPECT_FALSE(handler->IsShareEnabled());
    handler->SetDetParam({{1, "90"}, {3, "5"}, {9, "0"}});
    EXPECT_EQ(handler->Start(), 0);
    EXPECT_TRUE(handler->IsActivated());
    EXPECT_EQ(handler->Start(), -1);
    EXPECT_EQ(handler->Stop(), 0);
    EXPECT_FALSE(handler->IsActivated());
    EXPECT_EQ(handler->Stop(), -1);

    std::vector<tw::host::EventRecord> history = tw::host::GetEventHistory(events);
    ASSERT_FALSE(history.empty());
    EXPECT_FALSE(history.back().motion);
    EXPECT_EQ(history.back().value, 0);

    handler->Release();
    EXPECT_EQ(handler->Get()->GetObject(), nullptr);
    // No functor reported a failed cast or a missing registration.
    for (const tw::host::LogRecord& r : capture->Records()) EXPECT_FALSE(r.blNullCategory) << r.message;
}

}  // namespace

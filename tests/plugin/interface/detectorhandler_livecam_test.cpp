// The live-cam detector behind the detector handler: its table, its handler name, its
// factory and release, and calls that reach the wrong kind of object.
#include <gtest/gtest.h>

#include <map>
#include <memory>
#include <string>
#include <vector>

#include "camera/livecamdetector.h"
#include "camera/ssmotiondet.h"
#include "interface/detectorhandler.h"
#include "interface/handlerutils.h"
#include "plugin/camera/livecam_access.h"
#include "plugin/camera/livecam_testutil.h"
#include "support/testenv.h"
#include "twhost/eventlog.h"
#include "twhost/hostdetector.h"

namespace {

using tw::host::LogRecord;
using tw::test::ScopedLogCapture;
using tw::test::livecam::FakeMobiled;
using tw::test::livecam::PathExists;
using tw::test::livecam::SocketPath;

constexpr DetectorType kLiveCam = static_cast<DetectorType>(9);
const char kDowncast[] = "Error: Failed to downcast DPObjectBase.\n";
typedef MemFuncInterface<void, int, const std::map<int, std::string>&, int> SetDetParamFunc;

class LiveCamHandler : public ::testing::Test {
protected:
    void SetUp() override { tw::host::DbgLogConfig::Uninstall(); }
    ScopedLogCapture m_Log;
    Camera m_Camera = tw::host::MakeCamera(9400, VIDEO_CODEC_H264);
    EventBuf m_Events{9400};
};

TEST_F(LiveCamHandler, TableHoldsTheFiveDetectorFunctionsWithTheirSignatures) {
    TWFuncTable* table = GetLiveCamDetectorFuncTable();
    ASSERT_NE(table, nullptr);
    EXPECT_EQ(GetLiveCamDetectorFuncTable(), table);
    EXPECT_NE(table, GetTWMdFuncTable());
    ASSERT_EQ(table->size(), 5u);
    EXPECT_NE(dynamic_cast<MemFuncInterface<int>*>(table->at(0)), nullptr);
    EXPECT_NE(dynamic_cast<MemFuncInterface<int>*>(table->at(1)), nullptr);
    EXPECT_NE(dynamic_cast<MemFuncInterface<bool>*>(table->at(2)), nullptr);
    EXPECT_NE(dynamic_cast<MemFuncInterface<bool>*>(table->at(3)), nullptr);
    EXPECT_NE(dynamic_cast<SetDetParamFunc*>(table->at(4)), nullptr);
    // Functors of the live-cam class, not of the motion detector's.
    EXPECT_NE((dynamic_cast<MemFunc<int, LiveCamDetector>*>(table->at(0))), nullptr);
    EXPECT_NE((dynamic_cast<MemFunc<bool, LiveCamDetector>*>(table->at(2))), nullptr);
}

TEST_F(LiveCamHandler, FactoryBuildsAStoppedLiveCamDetectorOnTheGivenRecords) {
    DPObjectBase* obj = LiveCamDetectorFactory(&m_Camera, &m_Events);
    auto* det = dynamic_cast<LiveCamDetector*>(obj);
    ASSERT_NE(det, nullptr);
    EXPECT_FALSE(det->IsActivated());
    EXPECT_EQ(LiveCamDetectorAccess::GetCamera(*det), &m_Camera);
    EXPECT_EQ(LiveCamDetectorAccess::GetEventBuf(*det), &m_Events);
    ReleaseLiveCamDetector(obj);
    EXPECT_EQ(obj, nullptr);
    EXPECT_TRUE(m_Log->Records().empty());
}

TEST_F(LiveCamHandler, TypeNineBindsTheLiveCamTableUnderItsHandlerName) {
    DPObjectBase* det = LiveCamDetectorFactory(&m_Camera, &m_Events);
    DetectorHandler handler;
    handler.SetDetector(det, kLiveCam);
    EXPECT_EQ(handler.GetDetType(), 9);
    EXPECT_EQ(handler.GetObject(), det);
    TWFuncTable& table = *GetLiveCamDetectorFuncTable();
    for (int id = 0; id <= 4; ++id) {
        FunctorBase* record = handler.GetRecord(id);
        ASSERT_NE(record, nullptr) << id;
        EXPECT_EQ(record->pFunctor, table[id]) << id;
        EXPECT_EQ(record->pObject, det) << id;
        EXPECT_STREQ(record->szHandlerName, "LiveCamDetHandler") << id;
    }
    // The host-only IDs exist as records, with nothing behind them.
    for (int id = 5; id <= 6; ++id) {
        ASSERT_NE(handler.GetRecord(id), nullptr) << id;
        EXPECT_EQ(handler.GetRecord(id)->pFunctor, nullptr) << id;
        EXPECT_STREQ(handler.GetRecord(id)->szHandlerName, "LiveCamDetHandler") << id;
    }
    handler.Release();
    EXPECT_EQ(handler.GetObject(), nullptr);
}

TEST_F(LiveCamHandler, RecordsDriveTheDetectorByFunctionId) {
    // Without a camera the worker ends at once, so this stays quick.
    DPObjectBase* det = LiveCamDetectorFactory(nullptr, &m_Events);
    DetectorHandler handler;
    handler.SetDetector(det, kLiveCam);
    FunctorBase& start = *handler.GetRecord(0);
    FunctorBase& stop = *handler.GetRecord(1);
    FunctorBase& isActivated = *handler.GetRecord(2);
    FunctorBase& isShareEnabled = *handler.GetRecord(3);
    EXPECT_FALSE(RunFunctor<bool>(isActivated));
    EXPECT_FALSE(RunFunctor<bool>(isShareEnabled));
    EXPECT_EQ(RunFunctor<int>(start), 0);
    EXPECT_TRUE(RunFunctor<bool>(isActivated));
    EXPECT_FALSE(RunFunctor<bool>(isShareEnabled));
    EXPECT_EQ(RunFunctor<int>(start), -1);
    EXPECT_EQ(RunFunctor<int>(stop), 0);
    EXPECT_FALSE(RunFunctor<bool>(isActivated));
    EXPECT_EQ(RunFunctor<int>(stop), -1);

    const std::map<int, std::string> params = {{1, "70"}};
    RunFunctor<void, int, const std::map<int, std::string>&, int>(*handler.GetRecord(4), 0, params, 0);
    std::vector<LogRecord> r = m_Log->Find("Live Cam has no parameter to set.\n");
    ASSERT_EQ(r.size(), 1u);
    EXPECT_EQ(r[0].category, "livecam");
    EXPECT_EQ(r[0].function, "SetDetParam");
    EXPECT_EQ(m_Log->Records().size(), 1u);
    handler.Release();
}

TEST_F(LiveCamHandler, NullObjectInALiveCamRecordNamesTheHandler) {
    DetectorHandler handler;
    handler.SetDetector(nullptr, kLiveCam);
    EXPECT_EQ(RunFunctor<int>(*handler.GetRecord(0)), 0);
    // Even for an ID the table lacks, the null object is what is reported.
    EXPECT_EQ(RunFunctor<int>(*handler.GetRecord(5)), 0);
    EXPECT_EQ(m_Log->Count("[LiveCamDetHandler] Error: Failed to run functor with DPObjectBase as NULL.\n"), 2u);
    EXPECT_EQ(m_Log->Records().size(), 2u);
}

TEST_F(LiveCamHandler, MissingOrMismatchedFunctorNamesTheHandler) {
    DPObjectBase* det = LiveCamDetectorFactory(&m_Camera, &m_Events);
    DetectorHandler handler;
    handler.SetDetector(det, kLiveCam);
    const char text[] =
        "[LiveCamDetHandler] Error: Some Functor is not registered properly. Check the template argument list and "
        "Function ID.\n";
    EXPECT_EQ(RunFunctor<int>(*handler.GetRecord(5)), 0);   // no functor for the host's ID
    EXPECT_EQ(RunFunctor<int>(*handler.GetRecord(2)), 0);   // IsActivated answers bool, not int
    EXPECT_EQ(m_Log->Count(text), 2u);
    auto* live = dynamic_cast<LiveCamDetector*>(det);
    ASSERT_NE(live, nullptr);
    EXPECT_FALSE(live->IsActivated());
    handler.Release();
}

TEST_F(LiveCamHandler, LiveCamIsActivatedOnAMotionDetectorPrintsTheDowncastErrorAndYieldsFalse) {
    Camera camera = tw::test::AddCamera(9401, VIDEO_CODEC_H264, tw::host::DetSettingValues());
    EventBuf events(9401);
    TWMotionDet motion(&camera, &events, nullptr, nullptr);
    auto* isActivated = dynamic_cast<MemFuncInterface<bool>*>((*GetLiveCamDetectorFuncTable())[2]);
    ASSERT_NE(isActivated, nullptr);
    EXPECT_FALSE((*isActivated)(&motion));
    std::vector<LogRecord> r = m_Log->Find(kDowncast);
    ASSERT_EQ(r.size(), 1u);
    EXPECT_EQ(r[0].type, 0);
    EXPECT_TRUE(r[0].blNullCategory);
    EXPECT_TRUE(r[0].blNullLevel);
    EXPECT_EQ(r[0].file, "interface/handlerutils.h");
    EXPECT_EQ(r[0].function, "operator()");
    EXPECT_EQ(m_Log->Records().size(), 1u);
}

TEST_F(LiveCamHandler, MotionDetectorBoundAsLiveCamIsNeverEntered) {
    Camera camera = tw::test::AddCamera(9402, VIDEO_CODEC_H264, tw::host::DetSettingValues());
    EventBuf events(9402);
    TWMotionDet motion(&camera, &events, nullptr, nullptr);
    DetectorHandler handler;
    handler.SetDetector(&motion, kLiveCam);
    EXPECT_EQ(RunFunctor<int>(*handler.GetRecord(0)), 0);
    EXPECT_FALSE(RunFunctor<bool>(*handler.GetRecord(2)));
    EXPECT_EQ(m_Log->Count(kDowncast), 2u);
    // Start did not reach the motion detector.
    EXPECT_FALSE(motion.IsActivated());
}

TEST_F(LiveCamHandler, LiveCamFunctorOnANullObjectPrintsTheDowncastError) {
    auto* start = dynamic_cast<MemFuncInterface<int>*>((*GetLiveCamDetectorFuncTable())[0]);
    ASSERT_NE(start, nullptr);
    EXPECT_EQ((*start)(nullptr), 0);
    auto* set = dynamic_cast<SetDetParamFunc*>((*GetLiveCamDetectorFuncTable())[4]);
    ASSERT_NE(set, nullptr);
    const std::map<int, std::string> params;
    (*set)(nullptr, 0, params, 0);
    EXPECT_EQ(m_Log->Count(kDowncast), 2u);
    // SetDetParam's own message would show that it was entered.
    EXPECT_EQ(m_Log->Count("Live Cam has no parameter to set.\n"), 0u);
}

TEST_F(LiveCamHandler, ReleaseLiveCamDetectorOnNullDoesNothing) {
    DPObjectBase* det = nullptr;
    ReleaseLiveCamDetector(det);
    EXPECT_EQ(det, nullptr);
    EXPECT_TRUE(m_Log->Records().empty());
}

TEST_F(LiveCamHandler, ReleaseLiveCamDetectorStopsARunningDetectorAndNullsThePointer) {
    FakeMobiled daemon;   // agrees to stream; nobody connects
    Camera camera = tw::host::MakeCamera(9403, VIDEO_CODEC_H264);
    EventBuf events(9403);
    DPObjectBase* det = LiveCamDetectorFactory(&camera, &events);
    DetectorHandler handler;
    handler.SetDetector(det, kLiveCam);
    ASSERT_EQ(RunFunctor<int>(*handler.GetRecord(0)), 0);
    ASSERT_TRUE(daemon.WaitFor("startStream", 1, 5000));
    ReleaseLiveCamDetector(det);
    EXPECT_EQ(det, nullptr);
    // The destructor stopped the worker and waited for its cycle to end.
    EXPECT_EQ(daemon.Commands(), (std::vector<std::string>{"startStream", "stopStream"}));
    std::vector<tw::host::EventRecord> history = tw::host::GetEventHistory(events);
    ASSERT_EQ(history.size(), 1u);
    EXPECT_FALSE(history[0].motion);
    EXPECT_EQ(history[0].value, 0);
    EXPECT_FALSE(PathExists(SocketPath(9403)));
}

TEST_F(LiveCamHandler, TypeNineReleasesThroughTheLiveCamRelease) {
    // The type decides: a host detector bound as type 9 is not handed to the host's release.
    DPObjectBase* det = CreateHostDetector();
    DetectorHandler handler;
    handler.SetDetector(det, kLiveCam);
    const int before = tw::host::HostDetectorReleaseCount();
    handler.Release();
    EXPECT_EQ(tw::host::HostDetectorReleaseCount(), before);
    EXPECT_EQ(handler.GetObject(), nullptr);
}

TEST_F(LiveCamHandler, LiveCamDetectorBoundAsTypeTwoIsReleasedByTheMotionReleaseAndStillStops) {
    // Type 2 picks the motion detector's release; it destroys whatever it is given through
    // the virtual destructor, so a live-cam detector still stops its worker on the way.
    FakeMobiled daemon;
    Camera camera = tw::host::MakeCamera(9404, VIDEO_CODEC_H264);
    EventBuf events(9404);
    DPObjectBase* det = LiveCamDetectorFactory(&camera, &events);
    auto* live = dynamic_cast<LiveCamDetector*>(det);
    ASSERT_NE(live, nullptr);
    ASSERT_EQ(live->Start(), 0);
    ASSERT_TRUE(daemon.WaitFor("startStream", 1, 5000));
    DetectorHandler handler;
    handler.SetDetector(det, static_cast<DetectorType>(2));
    const int before = tw::host::HostDetectorReleaseCount();
    handler.Release();
    EXPECT_EQ(handler.GetObject(), nullptr);
    EXPECT_EQ(tw::host::HostDetectorReleaseCount(), before);
    EXPECT_EQ(daemon.Commands(), (std::vector<std::string>{"startStream", "stopStream"}));
    EXPECT_FALSE(PathExists(SocketPath(9404)));
}

}  // namespace

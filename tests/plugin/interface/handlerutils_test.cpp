// Calling objects by function ID: the functors, the tables and the call side of records.
#include <gtest/gtest.h>

#include "camera/ssmotiondet.h"
#include "interface/detectorhandler.h"
#include "interface/handlerutils.h"
#include "support/testenv.h"
#include "twhost/hostdetector.h"

namespace {

using tw::test::ScopedLogCapture;

const char kDowncast[] = "Error: Failed to downcast DPObjectBase.\n";

// A published class of the test's own, to see what the functors hand over.
class ParamProbe : public DPObjectBase {
public:
    void SetDetParam(int, const std::map<int, std::string>& params, int) { m_pSeen = &params; }
    int Start() { return 7; }
    const std::map<int, std::string>* m_pSeen = nullptr;
};

class ProbeHandler : public TWHandlerBase {
public:
    void RegisterTable() override {
        Register(m_Start, 0);
        Register(m_SetDetParam, 4);
        Register(m_Missing, 8);
    }
    FunctorBase m_Start{};
    FunctorBase m_SetDetParam{};
    FunctorBase m_Missing{};
};

TWFuncTable& ProbeTable() {
    static MemFunc<int, ParamProbe> s_Start(&ParamProbe::Start);
    static MemFunc<void, ParamProbe, int, const std::map<int, std::string>&, int> s_Set(&ParamProbe::SetDetParam);
    static TWFuncTable table = {{0, &s_Start}, {4, &s_Set}};
    return table;
}

Camera MakeMotionCamera() {
    return tw::test::AddCamera(31, VIDEO_CODEC_H264, tw::host::DetSettingValues());
}

TEST(MemFunc, WrongClassPrintsDowncastErrorAndYieldsFalse) {
    ScopedLogCapture capture;
    Camera camera = MakeMotionCamera();
    EventBuf events;
    TWMotionDet det(&camera, &events, nullptr, nullptr);
    // ID 2 of another class's table run on a motion detector.
    MemFuncBase* isActivated = (*GetDetectorFuncTable())[2];
    auto* functor = dynamic_cast<MemFuncInterface<bool>*>(isActivated);
    ASSERT_NE(functor, nullptr);
    EXPECT_FALSE((*functor)(&det));
    std::vector<tw::host::LogRecord> records = capture->Find(kDowncast);
    ASSERT_EQ(records.size(), 1u);
    EXPECT_TRUE(records[0].blNullCategory);
    EXPECT_TRUE(records[0].blNullLevel);
    EXPECT_EQ(records[0].function, "operator()");
    EXPECT_EQ(records[0].file, "interface/handlerutils.h");
    EXPECT_EQ(records[0].type, 0);
}

TEST(MemFunc, NullObjectPrintsDowncastErrorAndYieldsZero) {
    ScopedLogCapture capture;
    auto* start = dynamic_cast<MemFuncInterface<int>*>((*GetTWMdFuncTable())[0]);
    ASSERT_NE(start, nullptr);
    EXPECT_EQ((*start)(nullptr), 0);
    auto* set = dynamic_cast<MemFuncInterface<void, int, const std::map<int, std::string>&, int>*>(
        (*GetTWMdFuncTable())[4]);
    ASSERT_NE(set, nullptr);
    std::map<int, std::string> params;
    (*set)(nullptr, 0, params, 0);
    EXPECT_EQ(capture->Count(kDowncast), 2u);
}

TEST(MemFunc, DowncastErrorIsNotGated) {
    ScopedLogCapture capture;
    tw::host::DbgLogConfig silent;  // every threshold 0, no entries
    silent.Install();
    auto* start = dynamic_cast<MemFuncInterface<int>*>((*GetTWMdFuncTable())[0]);
    ASSERT_NE(start, nullptr);
    (*start)(nullptr);
    EXPECT_EQ(capture->Count(kDowncast), 1u);
}

TEST(FuncTable, MotionDetectorTableHasIdsZeroToFourWithTheirSignatures) {
    TWFuncTable* table = GetTWMdFuncTable();
    ASSERT_NE(table, nullptr);
    EXPECT_EQ(table->size(), 5u);
    EXPECT_NE(dynamic_cast<MemFuncInterface<int>*>((*table)[0]), nullptr);
    EXPECT_NE(dynamic_cast<MemFuncInterface<int>*>((*table)[1]), nullptr);
    EXPECT_NE(dynamic_cast<MemFuncInterface<bool>*>((*table)[2]), nullptr);
    EXPECT_NE(dynamic_cast<MemFuncInterface<bool>*>((*table)[3]), nullptr);
    EXPECT_NE((dynamic_cast<MemFuncInterface<void, int, const std::map<int, std::string>&, int>*>((*table)[4])),
              nullptr);
    EXPECT_EQ(GetTWMdFuncTable(), table);
}

TEST(HandlerRecord, MissingIdWithObjectReportsUnregisteredFunctorNamingHandler) {
    ScopedLogCapture capture;
    ParamProbe probe;
    ProbeHandler handler;
    handler.SetHandlerBase(&probe, &ProbeTable(), "ProbeHandler");
    EXPECT_EQ(RunFunctor<int>(handler.m_Missing), 0);
    EXPECT_EQ(capture->Count("[ProbeHandler] Error: Some Functor is not registered properly. Check the template "
                             "argument list and Function ID.\n"),
              1u);
}

TEST(HandlerRecord, WrongSignatureReportsUnregisteredFunctor) {
    ScopedLogCapture capture;
    ParamProbe probe;
    ProbeHandler handler;
    handler.SetHandlerBase(&probe, &ProbeTable(), "ProbeHandler");
    EXPECT_FALSE(RunFunctor<bool>(handler.m_Start));
    EXPECT_EQ(capture->Count("[ProbeHandler] Error: Some Functor is not registered properly. Check the template "
                             "argument list and Function ID.\n"),
              1u);
}

TEST(HandlerRecord, NullObjectIsReportedEvenWhenIdIsMissing) {
    ScopedLogCapture capture;
    ProbeHandler handler;
    handler.SetHandlerBase(nullptr, &ProbeTable(), "ProbeHandler");
    EXPECT_EQ(RunFunctor<int>(handler.m_Missing), 0);
    EXPECT_EQ(RunFunctor<int>(handler.m_Start), 0);
    std::vector<tw::host::LogRecord> records =
        capture->Find("[ProbeHandler] Error: Failed to run functor with DPObjectBase as NULL.\n");
    ASSERT_EQ(records.size(), 2u);
    EXPECT_TRUE(records[0].blNullCategory);
    EXPECT_EQ(records[0].function, "operator()");
    EXPECT_EQ(capture->Count("[ProbeHandler] Error: Some Functor is not registered properly. Check the template "
                             "argument list and Function ID.\n"),
              0u);
}

TEST(HandlerRecord, BoundRecordCallsTheMember) {
    ScopedLogCapture capture;
    ParamProbe probe;
    ProbeHandler handler;
    handler.SetHandlerBase(&probe, &ProbeTable(), "ProbeHandler");
    EXPECT_EQ(RunFunctor<int>(handler.m_Start), 7);
    EXPECT_TRUE(capture->Records().empty());
}

TEST(HandlerRecord, SetDetParamPassesTheCallersMapByReference) {
    ParamProbe probe;
    ProbeHandler handler;
    handler.SetHandlerBase(&probe, &ProbeTable(), "ProbeHandler");
    std::map<int, std::string> params = {{1, "50"}};
    RunFunctor<void, int, const std::map<int, std::string>&, int>(handler.m_SetDetParam, 0, params, 0);
    EXPECT_EQ(probe.m_pSeen, &params);
}

}  // namespace

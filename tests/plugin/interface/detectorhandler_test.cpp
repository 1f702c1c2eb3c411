// Binding detectors to their tables by detector type, and releasing them by type.
#include <gtest/gtest.h>

#include "camera/ssmotiondet.h"
#include "interface/detectorhandler.h"
#include "support/testenv.h"
#include "twhost/hostdetector.h"

namespace {

using tw::test::ScopedLogCapture;

class DetectorHandlerTest : public ::testing::Test {
protected:
    void SetUp() override { m_Camera = tw::test::AddCamera(41, VIDEO_CODEC_H264, tw::host::DetSettingValues()); }
    Camera m_Camera;
    EventBuf m_Events{41};
};

TEST_F(DetectorHandlerTest, HandlerNamesAreTheExportedTexts) {
    EXPECT_STREQ(szDetectorHandler, "DetectorHandler");
    EXPECT_STREQ(szLiveCamDetHandler, "LiveCamDetHandler");
    EXPECT_STREQ(szImgDiffDetHandler, "ImgDiffDetHandler");
}

TEST_F(DetectorHandlerTest, NewHandlerHasTypeZero) {
    DetectorHandler handler;
    EXPECT_EQ(handler.GetDetType(), 0);
}

TEST_F(DetectorHandlerTest, TypeTwoBindsRecordsInMemberOrderToTheMotionTable) {
    DPObjectBase* det = TWMotionDetFactory(&m_Camera, &m_Events, nullptr, nullptr);
    DetectorHandler handler;
    handler.SetDetector(det, static_cast<DetectorType>(2));
    EXPECT_EQ(handler.GetDetType(), 2);
    TWFuncTable& table = *GetTWMdFuncTable();
    for (int id = 0; id <= 4; ++id) {
        FunctorBase* record = handler.GetRecord(id);
        ASSERT_NE(record, nullptr) << id;
        EXPECT_EQ(record->pFunctor, table[id]) << id;
        EXPECT_EQ(record->pObject, det);
        EXPECT_STREQ(record->szHandlerName, "ImgDiffDetHandler");
    }
    // IDs 5 and 6 exist as records but the motion table has no functor for them.
    ASSERT_NE(handler.GetRecord(5), nullptr);
    EXPECT_EQ(handler.GetRecord(5)->pFunctor, nullptr);
    EXPECT_EQ(handler.GetRecord(6)->pFunctor, nullptr);
    EXPECT_EQ(handler.GetRecord(7), nullptr);

    EXPECT_EQ(RunFunctor<int>(*handler.GetRecord(0)), 0);
    EXPECT_TRUE(RunFunctor<bool>(*handler.GetRecord(2)));
    EXPECT_FALSE(RunFunctor<bool>(*handler.GetRecord(3)));
    EXPECT_EQ(RunFunctor<int>(*handler.GetRecord(1)), 0);
    EXPECT_FALSE(RunFunctor<bool>(*handler.GetRecord(2)));
    handler.Release();
    EXPECT_EQ(handler.GetObject(), nullptr);
}

TEST_F(DetectorHandlerTest, FourthRecordCarriesSetDetParamAndFifthIsShareEnabled) {
    // The record order is deliberate: registration order 0, 1, 2, 4, 3, 5, 6.
    DPObjectBase* det = TWMotionDetFactory(&m_Camera, &m_Events, nullptr, nullptr);
    DetectorHandler handler;
    handler.SetDetector(det, static_cast<DetectorType>(2));
    TWFuncTable& table = *GetTWMdFuncTable();
    FunctorBase* start = handler.GetRecord(0);
    // Records are consecutive members: the fourth and fifth follow the first.
    EXPECT_EQ(handler.GetRecord(1), start + 1);
    EXPECT_EQ(handler.GetRecord(2), start + 2);
    EXPECT_EQ(handler.GetRecord(4), start + 3);
    EXPECT_EQ(handler.GetRecord(3), start + 4);
    EXPECT_EQ(handler.GetRecord(5), start + 5);
    EXPECT_EQ(handler.GetRecord(6), start + 6);
    EXPECT_EQ(start[3].pFunctor, table[4]);
    EXPECT_EQ(start[4].pFunctor, table[3]);
    handler.Release();
}

TEST_F(DetectorHandlerTest, HostTypesBindTheHostTableWithAllSevenIds) {
    for (int type : {0, 1, 3, 4, 5, 6, 7, 8}) {
        DPObjectBase* det = CreateHostDetector();
        DetectorHandler handler;
        handler.SetDetector(det, static_cast<DetectorType>(type));
        TWFuncTable& table = *GetDetectorFuncTable();
        for (int id = 0; id <= 6; ++id) {
            EXPECT_EQ(handler.GetRecord(id)->pFunctor, table[id]) << type << "/" << id;
            EXPECT_STREQ(handler.GetRecord(id)->szHandlerName, "DetectorHandler");
        }
        EXPECT_EQ(RunFunctor<int>(*handler.GetRecord(0)), 0);
        EXPECT_EQ(RunFunctor<int>(*handler.GetRecord(5)), 0);   // trigger
        EXPECT_EQ(RunFunctor<int>(*handler.GetRecord(6)), 1);   // trigger count
        const int before = tw::host::HostDetectorReleaseCount();
        handler.Release();
        EXPECT_EQ(tw::host::HostDetectorReleaseCount(), before + 1);
        EXPECT_EQ(handler.GetObject(), nullptr);
    }
}

TEST_F(DetectorHandlerTest, TypeAboveNineIsStoredAndBindsNothing) {
    ScopedLogCapture capture;
    DPObjectBase* det = TWMotionDetFactory(&m_Camera, &m_Events, nullptr, nullptr);
    DetectorHandler handler;
    handler.SetDetector(det, static_cast<DetectorType>(10));
    EXPECT_EQ(handler.GetDetType(), 10);
    // Nothing was bound, so the records were never even registered.
    EXPECT_EQ(handler.GetRecord(0), nullptr);
    EXPECT_EQ(handler.GetObject(), nullptr);
    ReleaseTWMotionDet(det);
}

TEST_F(DetectorHandlerTest, UnknownTypeReleasesThroughTheHost) {
    DPObjectBase* det = CreateHostDetector();
    DetectorHandler handler;
    handler.SetDetector(det, static_cast<DetectorType>(2));   // bind an object first
    handler.SetDetector(det, static_cast<DetectorType>(12));  // then forget the binding type
    const int before = tw::host::HostDetectorReleaseCount();
    handler.Release();
    EXPECT_EQ(tw::host::HostDetectorReleaseCount(), before + 1);
    EXPECT_EQ(handler.GetObject(), nullptr);
}

TEST_F(DetectorHandlerTest, TypeDecidesTheReleaseNotTheObject) {
    // A host detector bound as type 2 is destroyed by the motion detector's release.
    DPObjectBase* det = CreateHostDetector();
    DetectorHandler handler;
    handler.SetDetector(det, static_cast<DetectorType>(2));
    const int before = tw::host::HostDetectorReleaseCount();
    handler.Release();
    EXPECT_EQ(tw::host::HostDetectorReleaseCount(), before);
    EXPECT_EQ(handler.GetObject(), nullptr);
}

TEST_F(DetectorHandlerTest, DestroyingTheHandlerDoesNotReleaseTheObject) {
    DPObjectBase* det = CreateHostDetector();
    {
        DetectorHandler handler;
        handler.SetDetector(det, static_cast<DetectorType>(3));
    }
    // Still alive: the host detector answers through its own table.
    auto* isActivated = dynamic_cast<MemFuncInterface<bool>*>((*GetDetectorFuncTable())[2]);
    EXPECT_FALSE((*isActivated)(det));
    ReleaseDetDPObj(det);
    EXPECT_EQ(det, nullptr);
}

TEST_F(DetectorHandlerTest, ReleaseTWMotionDetOnNullDoesNothing) {
    DPObjectBase* det = nullptr;
    ReleaseTWMotionDet(det);
    EXPECT_EQ(det, nullptr);
}

TEST_F(DetectorHandlerTest, ReleaseTWMotionDetStopsARunningDetectorAndNullsThePointer) {
    ScopedLogCapture capture;
    tw::host::DbgLogConfig::Uninstall();
    StreamFifo fifo;  // never gets storage: the thread waits in one-second steps
    DPObjectBase* det = TWMotionDetFactory(&m_Camera, &m_Events, &fifo, nullptr);
    auto* md = dynamic_cast<TWMotionDet*>(det);
    ASSERT_NE(md, nullptr);
    EXPECT_EQ(md->Start(), 0);
    ReleaseTWMotionDet(det);
    EXPECT_EQ(det, nullptr);
}

}  // namespace

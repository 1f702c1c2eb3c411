// An audio output whose thread cannot be created, and the thread's stack.
#include "plugin/camera/audioout_testutil.h"
#include "support/failing_pthread_create.h"

namespace tw::test {
namespace {

TEST_F(AudioOutTest, ThreadAsksForA1MiBStack) {
    AddDevice(DEV_TYPE_SPEAKER, 61, Pcm(8000, 8, 2));
    const std::string wav = NewFile("stack.wav");
    WriteWav(wav, 8000, 8, 2, Ramp(100));
    AudioOut out(61, DEV_TYPE_SPEAKER);
    ASSERT_EQ(out.Init(), 0);
    g_LastStackSize = 0;
    ASSERT_EQ(out.Start(wav, false), 0);
    EXPECT_EQ(g_LastStackSize.load(), 1048576u);
    out.Stop();
}

TEST_F(AudioOutTest, ThreadFailureUndoesTheStartButKeepsTheManualMark) {
    ScopedVerboseLog verbose;
    ScopedLogCapture logs;
    AddDevice(DEV_TYPE_SPEAKER, 62, Pcm(8000, 8, 2));
    AudioOut out(62, DEV_TYPE_SPEAKER);
    ASSERT_EQ(out.Init(), 0);
    g_FailThreads = true;
    EXPECT_EQ(out.Start("/tmp/tw_audioout_any.wav", true), -1);
    g_FailThreads = false;
    EXPECT_FALSE(AudioOutAccess::Field(out).GetActivatedFlag());
    EXPECT_EQ(AudioOutAccess::Field(out).GetFilePath(), "");
    EXPECT_FALSE(AudioOutAccess::Field(out).GetThreadId().has_value());
    EXPECT_FALSE(out.IsManualOutputing());
    // No message beyond the start's own.
    EXPECT_EQ(logs->Records().size(), 1u);
    EXPECT_EQ(logs->Count("Device[62]: Start audio file[/tmp/tw_audioout_any.wav] out thread.\n"), 1u);
    // The manual mark stayed: the next Start does not stop first.
    logs->Clear();
    EXPECT_EQ(out.Start(true), 0);
    EXPECT_EQ(logs->Count("Device[62]: Stop audio out thread.\n"), 0u);
    out.Stop();
}

}  // namespace
}  // namespace tw::test

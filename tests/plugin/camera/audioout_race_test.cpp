// Start, Stop and IsManualOutputing from several host threads at once on one output that
// streams live audio; built and run under ThreadSanitizer as well.
#include <random>

#include "plugin/camera/audioout_live_testutil.h"

namespace tw::test {
namespace {

TEST_F(AudioOutTest, StartStopAndIsManualOutputingFromSeveralThreads) {
    auto sink = AddDevice(DEV_TYPE_SPEAKER, 71, Pcm(8000, 8, 2));
    auto fifo = OpenFifo(71, /*speaker=*/true);
    FifoFeeder feeder(*fifo, 8000);
    feeder.Start();
    AudioOut out(71, DEV_TYPE_SPEAKER);
    ASSERT_EQ(out.Init(), 0);

    std::atomic<int> started{0}, refused{0}, manualSeen{0};
    std::vector<std::thread> threads;
    for (int t = 0; t < 4; ++t) {
        threads.emplace_back([&, t] {
            std::mt19937 rng(17 + t);
            for (int i = 0; i < 60; ++i) {
                switch (rng() % 5) {
                    case 0:
                    case 1: {
                        // Live output only, which never ends by itself while it is fed: a
                        // Start that read a stale manual mark replaces the id of an output
                        // that has ended by itself without joining it (kept on purpose),
                        // which would leave a finished thread behind.
                        const int rc = out.Start(rng() % 2 == 0);
                        (rc == 0 ? started : refused)++;
                        break;
                    }
                    case 2:
                        EXPECT_EQ(out.Stop(), 0);
                        break;
                    default:
                        if (out.IsManualOutputing()) ++manualSeen;
                        break;
                }
            }
        });
    }
    for (std::thread& th : threads) th.join();
    EXPECT_EQ(out.Stop(), 0);
    feeder.StopFeeding();
    EXPECT_GT(started.load(), 0);
    EXPECT_FALSE(out.IsManualOutputing());
    EXPECT_FALSE(AudioOutAccess::Field(out).GetActivatedFlag());
    EXPECT_FALSE(AudioOutAccess::Field(out).GetThreadId().has_value());
    // Every connection the outputs opened was closed again.
    const tw::host::AudioSinkCounters c = sink->GetCounters();
    EXPECT_EQ(c.connects, c.disconnects);
}

TEST_F(AudioOutTest, ManualFileOutputsRestartedAfterTheirEndLeaveNoThreadBehind) {
    // Each manual output ends by itself and the next Start replaces its thread's id
    // without a Stop. Under ThreadSanitizer a thread that ended without being joined or
    // detached is reported as leaked when the process exits.
    auto sink = AddDevice(DEV_TYPE_SPEAKER, 72, Pcm(8000, 8, 2));
    const std::string wav = NewFile("restart.wav");
    WriteWav(wav, 8000, 8, 2, Ramp(3000));
    AudioOut out(72, DEV_TYPE_SPEAKER);
    ASSERT_EQ(out.Init(), 0);
    for (int i = 0; i < 8; ++i) {
        ASSERT_EQ(out.Start(wav, true), 0) << "cycle " << i;
        ASSERT_TRUE(WaitForEnd(out)) << "cycle " << i;
        EXPECT_FALSE(out.IsManualOutputing());
    }
    EXPECT_EQ(out.Stop(), 0);
    EXPECT_EQ(sink->GetBytes().size(), 8u * 3000u);
}

}  // namespace
}  // namespace tw::test

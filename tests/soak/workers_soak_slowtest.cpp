// Soak of the four workers: many start/stop cycles of each in one process, checking after
// every block of cycles and at the end that the worker left nothing behind: its threads and
// descriptors are gone (the counts of /proc/self/task and /proc/self/fd come back to what
// they were, waited for with a bound), no socket file is left, every stop writes what a
// stop writes, and (AddressSanitizer builds) LeakSanitizer finds nothing.
//
// Cycles: TW_SOAK_CYCLES (default 100) for the motion detector, the executor and the audio
// output; the live-cam detector sleeps 3 s after every detection cycle by design, so each of
// its start/stop cycles costs that much: TW_SOAK_LIVECAM_CYCLES (default 20) counts its
// cycles. Live audio output pauses 300 ms whenever it finds its FIFO empty, which it does
// right after connecting (the FIFO is reset then), so its cycles cost about that much. Half
// of the cycles (of the executor's, one in ten) stop at once, the others after the worker's
// first sign of work (an event, outputs switched on, a chunk sent), so that both a start
// interrupted and a worker interrupted at work are soaked. Figures (time per cycle, memory) are printed, never
// asserted.
//
// WorkersSoak.AllWorkersAtOnce runs them all at the same time instead, each worker type on
// TW_SOAK_OBJECTS objects (default 10) that share its TW_SOAK_CYCLES between them, so that
// the pauses overlap and a long run of every worker fits in one process:
//
//   TW_SOAK_CYCLES=10000 TW_SOAK_OBJECTS=50 build-asan/bin/workers_soak_slowtest --gtest_filter='*AllWorkersAtOnce'
#include <dirent.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <atomic>
#include <algorithm>
#include <chrono>
#include <condition_variable>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <deque>
#include <fstream>
#include <functional>
#include <map>
#include <sstream>
#include <memory>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "actionrule/ioactionExecutor.h"
#include "camera/audioout.h"
#include "camera/livecamdetector.h"
#include "camera/ssmotiondet.h"
#include "support/testenv.h"
#include "support/waituntil.h"
#include "twhost/audiofifo.h"
#include "twhost/audiosink.h"
#include "twhost/clipmaker.h"
#include "twhost/clock.h"
#include "twhost/devices.h"
#include "twhost/eventlog.h"
#include "twhost/iomodule.h"
#include "twhost/logsink.h"
#include "twhost/mobiled.h"
#include "twhost/mobiledaemon.h"
#include "twhost/stores.h"
#include "twhost/streamfifo.h"

#if defined(__SANITIZE_ADDRESS__)
#define TW_SOAK_LSAN 1
#elif defined(__has_feature)
#if __has_feature(address_sanitizer)
#define TW_SOAK_LSAN 1
#endif
#endif
#ifdef TW_SOAK_LSAN
#include <sanitizer/lsan_interface.h>
#endif

namespace {

using Clock = std::chrono::steady_clock;

// Only against a hang: a worker that needs longer than this to stop or to start work is
// reported as hanging.
constexpr int kGuardMs = 30000;
// Objects are replaced after this many cycles, so that construction and destruction are
// soaked too and the host's records of the run (event histories) stay small.
constexpr int kCyclesPerObject = 100;

int EnvCount(const char* name, int fallback) {
    const char* text = getenv(name);
    if (text == nullptr || *text == '\0') return fallback;
    char* end = nullptr;
    const long value = strtol(text, &end, 10);
    if (*end != '\0' || value < 1 || value > 10000000) {
        ADD_FAILURE() << name << "='" << text << "' is no positive number of cycles";
        return fallback;
    }
    return static_cast<int>(value);
}

int Cycles() { return EnvCount("TW_SOAK_CYCLES", 100); }

// Outputs 0 to 3 held for 5 s and audio pattern patternId played 3 times: work that is still
// in flight when the cycle's Terminate comes.
void StartHeldOutputsAndPattern(IOActExecutor& exec, int patternId) {
    std::map<int, IOActExecCond> outputs;
    for (int port = 0; port < 4; ++port) outputs[port] = IOActExecCond{false, 0, 0, 5, 0};
    std::map<int, IOActExecCond> audio;
    audio[IOACT_TYPE_AUDIO_OUT] = IOActExecCond{false, patternId, 3, 1, 0};
    exec.DoAction(IOACT_FLAG_DO_TRIGGER, {}, outputs, false);
    exec.DoAction(IOACT_FLAG_AUDIO_OUT, audio, {}, false);
}

// The motion detectors' clip: small, a key frame every third frame and movement all
// through, so every turn has a fresh picture to judge and finds motion in it.
tw::host::ClipSpec SoakClipSpec() {
    tw::host::ClipSpec clipSpec;
    clipSpec.width = 320;
    clipSpec.height = 180;
    clipSpec.gop = 3;
    clipSpec.durationSec = 0.4;
    clipSpec.motion = {{0.0, 10.0}};
    return clipSpec;
}
int LiveCamCycles() { return EnvCount("TW_SOAK_LIVECAM_CYCLES", 20); }

int CountEntries(const char* dir) {
    DIR* d = opendir(dir);
    if (d == nullptr) return -1;
    int n = 0;
    while (dirent* e = readdir(d)) {
        if (strcmp(e->d_name, ".") != 0 && strcmp(e->d_name, "..") != 0) ++n;
    }
    closedir(d);
    return n - (strcmp(dir, "/proc/self/fd") == 0 ? 1 : 0);   // the directory's own descriptor
}

struct Counts {
    int fds = 0;
    int threads = 0;
    bool operator==(const Counts& o) const { return fds == o.fds && threads == o.threads; }
};

Counts Now() { return Counts{CountEntries("/proc/self/fd"), CountEntries("/proc/self/task")}; }

// Waits until the process is back to the counts it had: a worker's thread may still be on
// its way out of the kernel after its join returned, and a daemon's session thread ends
// after the answer it gave. Returns what it saw last.
::testing::AssertionResult BackTo(const Counts& start, const std::string& when) {
    const auto deadline = Clock::now() + std::chrono::milliseconds(kGuardMs);
    Counts now = Now();
    while (!(now == start) && Clock::now() < deadline) {
        std::this_thread::sleep_for(std::chrono::milliseconds(1));
        now = Now();
    }
    if (now == start) return ::testing::AssertionSuccess();
    return ::testing::AssertionFailure() << when << ": " << now.fds << " descriptors and " << now.threads
                                         << " threads, " << start.fds << " and " << start.threads << " at the start";
}

long StatusKiB(const char* key) {
    std::ifstream status("/proc/self/status");
    std::string line;
    const size_t keyLen = strlen(key);
    while (std::getline(status, line)) {
        if (line.compare(0, keyLen, key) == 0) return atol(line.c_str() + keyLen);
    }
    return -1;
}

bool PathExists(const std::string& path) {
    struct stat st;
    return lstat(path.c_str(), &st) == 0;
}

// Polls a condition (real time) with the hang guard.
bool WaitUntil(const std::function<bool()>& pred) { return tw::test::WaitUntil(pred, kGuardMs); }

// Prints the figures of one soak and runs the leak check.
class SoakReport {
public:
    explicit SoakReport(std::string name) : m_Name(std::move(name)), m_Start(Clock::now()) {
        m_VmSizeStart = StatusKiB("VmSize:");
        m_RssStart = StatusKiB("VmRSS:");
    }
    void Finish(int cycles) {
        const double sec = std::chrono::duration<double>(Clock::now() - m_Start).count();
        printf("[soak] %s: %d cycles in %.1f s (%.2f ms per cycle); VmSize %ld -> %ld KiB, VmRSS %ld -> %ld KiB\n",
               m_Name.c_str(), cycles, sec, cycles > 0 ? 1000.0 * sec / cycles : 0.0, m_VmSizeStart,
               StatusKiB("VmSize:"), m_RssStart, StatusKiB("VmRSS:"));
        fflush(stdout);
#ifdef TW_SOAK_LSAN
        EXPECT_EQ(__lsan_do_recoverable_leak_check(), 0) << "LeakSanitizer found leaks (reported above)";
#endif
    }

private:
    std::string m_Name;
    Clock::time_point m_Start;
    long m_VmSizeStart;
    long m_RssStart;
};

// ---------------------------------------------------------------------------------------
// Motion detector on a clip

TEST(WorkersSoak, MotionDetectorStartStopOnAClip) {
    tw::test::ScopedLogCapture log;   // the detector's failures would otherwise go to stderr
    tw::host::DbgLogConfig::Uninstall();
    const int cycles = Cycles();
    // The host's clock jumps to every 300 ms delay, so a turn follows the next at once.
    auto clock = std::make_shared<tw::host::ManualClock>(0, true);
    tw::host::SetClock(clock);

    const tw::host::ClipSpec clipSpec = SoakClipSpec();
    tw::host::EncodedClip clip;
    std::string error;
    ASSERT_TRUE(tw::host::EncodeClip(clipSpec, clip, error)) << error;
    StreamFifo fifo;
    tw::host::SetFifoFormat(fifo, VIDEO_CODEC_H264, clipSpec.width, clipSpec.height, clip.extraData);
    for (const tw::host::EncodedFrame& f : clip.frames) {
        tw::host::PushFifoBlock(fifo, std::make_shared<const std::vector<unsigned char>>(f.data), f.keyFrame,
                                f.ptsUs);
    }

    const int camId = 5710;
    Camera camera = tw::test::AddCamera(camId, VIDEO_CODEC_H264, tw::host::DetSettingValues());
    const Counts start = Now();
    SoakReport report("motion detector");
    for (int done = 0; done < cycles;) {
        EventBuf events(camId);
        {
            TWMotionDet det(&camera, &events, &fifo, nullptr);
            for (int i = 0; i < kCyclesPerObject && done < cycles; ++i, ++done) {
                const size_t before = tw::host::GetEventHistory(events).size();
                ASSERT_EQ(det.Start(), 0) << "cycle " << done;
                if (done % 2 == 1) {
                    // Every turn that finds a frame reports, so the first report is work done.
                    ASSERT_TRUE(tw::host::WaitForEvents(events, before + 1, kGuardMs)) << "cycle " << done;
                }
                ASSERT_EQ(det.Stop(), 0) << "cycle " << done;
                ASSERT_FALSE(det.IsActivated());
                const std::vector<tw::host::EventRecord> history = tw::host::GetEventHistory(events);
                // The thread's last word is "no motion".
                ASSERT_GT(history.size(), before) << "cycle " << done;
                ASSERT_FALSE(history.back().motion) << "cycle " << done;
                ASSERT_EQ(history.back().value, 0) << "cycle " << done;
                clock->TakeWaits();   // the clock's record of every delay, not the detector's
            }
        }
        ASSERT_TRUE(BackTo(start, "after " + std::to_string(done) + " cycles"));
    }
    report.Finish(cycles);
    tw::host::SetClock(nullptr);
}

// ---------------------------------------------------------------------------------------
// Live-cam detector with the mobile-daemon emulator

TEST(WorkersSoak, LiveCamDetectorStartStopWithADaemon) {
    tw::test::ScopedLogCapture log;
    tw::host::DbgLogConfig::Uninstall();
    const int cycles = LiveCamCycles();
    const Counts start = Now();
    const int camId = 57100 + static_cast<int>(getpid() % 10000);
    const std::string detectorSocket = "/tmp/tw_livecam_detector_" + std::to_string(camId) + ".sock";
    const std::string controlSocket = "/tmp/tw_soak_mobiled_" + std::to_string(getpid()) + ".sock";
    {
        tw::host::MobileDaemonOptions options;
        options.m_strSocketPath = controlSocket;
        std::string error;
        std::istringstream script("0 IsTrig:1 Level:50\n0.2 IsTrig:0 Level:0\n");
        ASSERT_TRUE(tw::host::ParseMobiledScript(script, "soak", options.m_Script, error)) << error;
        options.m_blRepeat = true;   // every start gets the events
        options.m_blHold = true;     // and the stream stays open until the detector stops it
        tw::host::MobileDaemon daemon(options);
        ASSERT_TRUE(daemon.Start(error)) << error;
        tw::host::SetMobiledSocketPath(controlSocket);
        const Counts daemonUp = Now();

        Camera camera = tw::host::MakeCamera(camId, VIDEO_CODEC_H264);
        SoakReport report("live-cam detector");
        for (int done = 0; done < cycles;) {
            EventBuf events(camId);
            {
                LiveCamDetector det(&camera, &events);
                for (int i = 0; i < kCyclesPerObject && done < cycles; ++i, ++done) {
                    const size_t before = tw::host::GetEventHistory(events).size();
                    ASSERT_EQ(det.Start(), 0) << "cycle " << done;
                    if (done % 2 == 1) {
                        // The daemon's first event reached the event buffer.
                        ASSERT_TRUE(WaitUntil([&] {
                            const std::vector<tw::host::EventRecord> h = tw::host::GetEventHistory(events);
                            for (size_t k = before; k < h.size(); ++k)
                                if (h[k].motion && h[k].value == 50) return true;
                            return false;
                        })) << "cycle " << done;
                    }
                    ASSERT_EQ(det.Stop(), 0) << "cycle " << done;
                    ASSERT_FALSE(PathExists(detectorSocket)) << "cycle " << done;
                    // A thread that ran a cycle ends it with "no motion"; one stopped before
                    // its first cycle writes nothing.
                    const std::vector<tw::host::EventRecord> history = tw::host::GetEventHistory(events);
                    if (done % 2 == 1) {
                        ASSERT_GT(history.size(), before) << "cycle " << done;
                    }
                    if (history.size() > before) {
                        ASSERT_FALSE(history.back().motion) << "cycle " << done;
                    }
                }
            }
            ASSERT_TRUE(BackTo(daemonUp, "after " + std::to_string(done) + " cycles"));
        }
        report.Finish(cycles);
        daemon.Stop();
        tw::host::SetMobiledSocketPath(tw::host::kDefaultMobiledSocket);
    }
    EXPECT_FALSE(PathExists(detectorSocket));
    EXPECT_FALSE(PathExists(controlSocket));
    EXPECT_TRUE(BackTo(start, "after the daemon stopped"));
}

// ---------------------------------------------------------------------------------------
// Executor: Init and Terminate with requests in flight

TEST(WorkersSoak, ExecutorInitTerminateWithRequestsInFlight) {
    tw::test::ScopedLogCapture log;
    tw::host::DbgLogConfig::Uninstall();
    const int cycles = Cycles();
    const int moduleId = 5711;
    const int patternId = 3;
    char pattern[] = "/tmp/tw_soak_patternXXXXXX";
    const int patternFd = mkstemp(pattern);
    ASSERT_GE(patternFd, 0);
    ASSERT_EQ(write(patternFd, "RIFF", 4), 4);
    close(patternFd);
    tw::host::SetAudioPattern(patternId, pattern, 3);
    tw::host::TakeIORequests();
    // The real clock: the host's manual-clock condition wait can miss a signal that comes
    // between two of its slices, and a Terminate whose signal is missed would wait for
    // manual time that never moves.

    const Counts start = Now();
    int activeLeftOn = 0;    // cycles that waited for the outputs to be active
    int pendingLeftOn = 0;   // cycles terminated at once
    SoakReport report("executor");
    for (int done = 0; done < cycles;) {
        auto emulator = std::make_shared<tw::host::IOModuleEmulator>(4);
        tw::host::SetIOModuleBackend(moduleId, emulator);
        {
            IOModuleStatus status;
            IOActExecutor exec;
            for (int i = 0; i < kCyclesPerObject && done < cycles; ++i, ++done) {
                ASSERT_EQ(exec.Init(moduleId, 4, nullptr, &status), 0) << "cycle " << done;
                // A request made before the worker first waits does not wake it: the worker
                // waits its full second first. So only one cycle in ten waits for the work.
                const bool waitForWork = done % 10 == 1;
                StartHeldOutputsAndPattern(exec, patternId);
                if (waitForWork) {
                    // The worker has switched the outputs on and reports them active.
                    ASSERT_TRUE(WaitUntil([&] {
                        std::map<int, int> act, outs;
                        exec.GetStatus(act, outs);
                        for (int port = 0; port < 4; ++port)
                            if (!emulator->PortState(port) || outs[port] != 1) return false;
                        return true;
                    })) << "cycle " << done;
                }
                ASSERT_EQ(exec.Terminate(), 0) << "cycle " << done;
                // Terminate puts the active outputs back to normal, but the worker still runs
                // one pass after it (the thread ends within one pass), and that pass can
                // switch an output whose start is pending on again. Counted and reported
                // (this soak is about what the workers leave behind in the process), then
                // put back for the next cycle.
                bool leftOn = false;
                for (int port = 0; port < 4; ++port) {
                    if (!emulator->PortState(port)) continue;
                    leftOn = true;
                    std::string error;
                    ASSERT_TRUE(emulator->SetDigitalOutput(port, false, error)) << error;
                }
                (waitForWork ? activeLeftOn : pendingLeftOn) += leftOn ? 1 : 0;
                tw::host::TakeIORequests();
            }
        }
        ASSERT_TRUE(BackTo(start, "after " + std::to_string(done) + " cycles"));
    }
    report.Finish(cycles);
    printf("[soak] executor: an output was on after Terminate in %d of %d cycles terminated with active outputs and "
           "in %d of %d terminated at once\n",
           activeLeftOn, (cycles + 8) / 10, pendingLeftOn, cycles - (cycles + 8) / 10);
    tw::host::ClearIOModuleBackends();
    tw::host::ClearAudioPatterns();
    std::remove(pattern);
}

// ---------------------------------------------------------------------------------------
// Audio output, live and file

// Counts what it is sent and keeps nothing, so a long soak does not grow with the audio.
class CountingSink : public tw::host::AudioSink {
public:
    ~CountingSink() override { CloseOnDestruction(); }
    std::string Describe() const override { return "counting sink"; }

protected:
    bool DoConnect(std::string&) override { return true; }
    bool DoSend(const char*, size_t, std::string&) override { return true; }
    bool DoDisconnect(std::string&) override { return true; }
};

// Keeps a device's live FIFO supplied several chunks ahead, so that the output finds data
// whenever it reads and a stop is seen at its next read, not after an empty-FIFO pause.
class Feeder {
public:
    Feeder(tw::host::AudioOutFifoWriter& writer, size_t chunk) : m_Writer(writer), m_Chunk(chunk) {
        m_Thread = std::thread([this] {
            std::vector<unsigned char> block(m_Chunk * 8, 0x55);
            while (!m_blStop) {
                if (m_Writer.GetQueuedBytes() < 4 * m_Chunk) m_Writer.Write(block.data(), block.size());
                std::this_thread::sleep_for(std::chrono::microseconds(100));
            }
        });
    }
    ~Feeder() {
        m_blStop = true;
        m_Thread.join();
    }

private:
    tw::host::AudioOutFifoWriter& m_Writer;
    size_t m_Chunk;
    std::atomic<bool> m_blStop{false};
    std::thread m_Thread;
};

void PutSpeaker(int id, const std::shared_ptr<tw::host::AudioSink>& sink) {
    tw::host::AudioDeviceRecord record;
    record.strName = "speaker " + std::to_string(id);
    record.blAudioOut = true;
    record.format = CAM_CAP_AUDIO_OUT_FORMAT{"PCM", 8000, 16, 1};
    record.pSink = sink;
    tw::host::DeviceStore::Instance().Put(tw::host::DeviceKind::Speaker, id, record);
}

// 16000 bytes a second; 4 s of audio and a last, short chunk (a file that ends on a chunk
// boundary ends with an empty read, which the output treats as a failed send and answers
// with a 300 ms pause).
bool WriteSoakWav(const std::string& path) {
    std::vector<unsigned char> bytes(44 + 64100, 0x11);
    const unsigned char header[44] = {'R', 'I', 'F', 'F', 0x88, 0xfa, 0, 0, 'W', 'A', 'V', 'E', 'f', 'm', 't', ' ',
                                      16, 0, 0, 0, 1, 0, 1, 0, 0x40, 0x1f, 0, 0, 0x80, 0x3e, 0, 0,
                                      2, 0, 16, 0, 'd', 'a', 't', 'a', 0x64, 0xfa, 0, 0};
    memcpy(bytes.data(), header, sizeof(header));
    FILE* f = fopen(path.c_str(), "wb");
    if (f == nullptr) return false;
    const bool written = fwrite(bytes.data(), 1, bytes.size(), f) == bytes.size();
    return fclose(f) == 0 && written;
}

void AudioSoak(bool live) {
    tw::test::ScopedLogCapture log;
    tw::host::DbgLogConfig::Uninstall();
    const int cycles = Cycles();
    // The live FIFO's shared-memory key comes from TW_SHM_KEY_BASE, as in every test run.
    // File output is paced by the host's clock: it jumps to every delay, so a file plays
    // as fast as it is read and a cycle costs no real seconds.
    auto clock = std::make_shared<tw::host::ManualClock>(0, true);
    tw::host::SetClock(clock);
    const int devId = live ? 5712 : 5713;
    auto sink = std::make_shared<CountingSink>();
    PutSpeaker(devId, sink);
    const std::string wav = "/tmp/tw_soak_audio_" + std::to_string(getpid()) + ".wav";
    ASSERT_TRUE(WriteSoakWav(wav)) << wav;
    std::unique_ptr<tw::host::AudioOutFifoWriter> fifo;
    if (live) {
        fifo = std::make_unique<tw::host::AudioOutFifoWriter>(devId, true);
        std::string error;
        ASSERT_TRUE(fifo->Open(error)) << error;
    }
    const Counts start = Now();
    {
        std::unique_ptr<Feeder> feeder;
        if (live) feeder = std::make_unique<Feeder>(*fifo, 8000);
        const Counts fed = Now();
        SoakReport report(live ? "audio output, live" : "audio output, file");
        for (int done = 0; done < cycles;) {
            {
                AudioOut out(devId, DEV_TYPE_SPEAKER);
                ASSERT_EQ(out.Init(), 0);
                for (int i = 0; i < kCyclesPerObject && done < cycles; ++i, ++done) {
                    const int sends = sink->GetCounters().sends;
                    if (live) {
                        ASSERT_EQ(out.Start(false), 0) << "cycle " << done;
                    } else {
                        ASSERT_EQ(out.Start(wav, false), 0) << "cycle " << done;
                    }
                    if (done % 2 == 1) {
                        ASSERT_TRUE(WaitUntil([&] { return sink->GetCounters().sends > sends; })) << "cycle " << done;
                    }
                    ASSERT_EQ(out.Stop(), 0) << "cycle " << done;
                    ASSERT_FALSE(out.IsManualOutputing());
                    // Every connection the thread opened is closed again.
                    const tw::host::AudioSinkCounters c = sink->GetCounters();
                    ASSERT_EQ(c.connects, c.disconnects) << "cycle " << done;
                    clock->TakeWaits();
                }
            }
            ASSERT_TRUE(BackTo(fed, "after " + std::to_string(done) + " cycles"));
        }
        report.Finish(cycles);
    }
    EXPECT_TRUE(BackTo(start, "after the feeder stopped"));
    tw::host::DeviceStore::Instance().Clear();
    std::remove(wav.c_str());
    tw::host::SetClock(nullptr);
}

TEST(WorkersSoak, AudioOutputLiveStartStop) { AudioSoak(true); }

// A user's (manual) file output that ends by itself and is then started again: the second
// Start does not stop the first, so the finished thread is never joined, and unless it were
// detached its stack (1 MiB) stays mapped for the life of the process. Its task is gone from
// /proc/self/task, so only the process's address space shows it: the soak compares VmSize
// after the first block of cycles (allocator and thread caches warm) with the end.
TEST(WorkersSoak, AudioOutputManualFileEndingByItselfThenStartedAgain) {
    tw::test::ScopedLogCapture log;
    tw::host::DbgLogConfig::Uninstall();
    const int cycles = Cycles();
    auto clock = std::make_shared<tw::host::ManualClock>(0, true);
    tw::host::SetClock(clock);
    const int devId = 5714;
    auto sink = std::make_shared<CountingSink>();
    PutSpeaker(devId, sink);
    const std::string wav = "/tmp/tw_soak_manual_" + std::to_string(getpid()) + ".wav";
    {
        const unsigned char header[44] = {'R', 'I', 'F', 'F', 0xa4, 0x1f, 0, 0, 'W', 'A', 'V', 'E', 'f', 'm', 't', ' ',
                                          16, 0, 0, 0, 1, 0, 1, 0, 0x40, 0x1f, 0, 0, 0x80, 0x3e, 0, 0,
                                          2, 0, 16, 0, 'd', 'a', 't', 'a', 0x80, 0x1f, 0, 0};
        std::vector<unsigned char> bytes(header, header + sizeof(header));
        bytes.resize(sizeof(header) + 8064, 0x22);
        FILE* f = fopen(wav.c_str(), "wb");
        ASSERT_NE(f, nullptr);
        ASSERT_EQ(fwrite(bytes.data(), 1, bytes.size(), f), bytes.size());
        fclose(f);
    }
    const Counts start = Now();
    long warmVmSize = -1;
    SoakReport report("audio output, manual file ending by itself");
    {
        AudioOut out(devId, DEV_TYPE_SPEAKER);
        ASSERT_EQ(out.Init(), 0);
        for (int done = 0; done < cycles; ++done) {
            ASSERT_EQ(out.Start(wav, true), 0) << "cycle " << done;
            // The output ends by itself at the end of the file.
            ASSERT_TRUE(WaitUntil([&] { return !out.IsManualOutputing(); })) << "cycle " << done;
            clock->TakeWaits();
            if (done + 1 == std::min(cycles, kCyclesPerObject)) warmVmSize = StatusKiB("VmSize:");
        }
        out.Stop();
    }
    const long endVmSize = StatusKiB("VmSize:");
    report.Finish(cycles);
    // A leaked stack per cycle would add 1 MiB each; a quarter of that per cycle is far
    // above what the allocator's own growth can explain.
    if (cycles > kCyclesPerObject) {
        EXPECT_LT(endVmSize - warmVmSize, static_cast<long>(cycles - kCyclesPerObject) * 256)
            << "VmSize grew from " << warmVmSize << " to " << endVmSize << " KiB";
    }
    EXPECT_TRUE(BackTo(start, "after the soak"));
    tw::host::DeviceStore::Instance().Clear();
    std::remove(wav.c_str());
    tw::host::SetClock(nullptr);
}

TEST(WorkersSoak, AudioOutputFileStartStop) { AudioSoak(false); }

// ---------------------------------------------------------------------------------------
// All workers at once

// Every worker type on several objects at once (TW_SOAK_OBJECTS of each, default 10), each
// object driven by a thread of its own through its share of TW_SOAK_CYCLES, all in this one
// process and on the real clock, as inside a daemon. The workers' own pauses (the live-cam
// detector's 3 s after every detection cycle, live audio's 300 ms on an empty FIFO, the
// executor's second when a request came before its first wait) then overlap instead of
// adding up, and the workers run against each other: the shared log, the host's stores, the
// mobile daemon serving every detector at once. The process's counts (descriptors, threads,
// socket files) are compared before and after the whole run; the objects' own checks run
// after every cycle as in the tests above.
//
//   TW_SOAK_CYCLES=10000 TW_SOAK_OBJECTS=50 build-asan/bin/workers_soak_slowtest --gtest_filter='*AllWorkersAtOnce'

int Objects() { return EnvCount("TW_SOAK_OBJECTS", 10); }

// Cycles of object k when `total` are spread over `objects`.
int ShareOf(int total, int objects, int k) { return total / objects + (k < total % objects ? 1 : 0); }

// The drivers of all objects, grouped by worker type; runs them all at once and reports
// per group when its last driver is done.
class SoakRun {
public:
    using Body = std::function<::testing::AssertionResult(int cycles, std::atomic<int>& done)>;

    int AddGroup(const std::string& name) {
        m_Groups.push_back(std::make_unique<Group>());
        m_Groups.back()->name = name;
        return static_cast<int>(m_Groups.size()) - 1;
    }
    void Add(int group, int cycles, Body body) {
        m_Groups[group]->cycles += cycles;
        ++m_Groups[group]->drivers;
        m_Drivers.push_back(Driver{group, cycles, std::move(body)});
    }
    // True once a driver has failed: the others end after their current cycle.
    bool Aborted() const { return m_blAbort; }

    void Run() {
        const Clock::time_point start = Clock::now();
        m_Left = static_cast<int>(m_Drivers.size());
        std::vector<std::thread> threads;
        for (Driver& d : m_Drivers) {
            threads.emplace_back([this, &d, start] {
                Group& g = *m_Groups[d.group];
                const ::testing::AssertionResult result = d.body(d.cycles, g.done);
                if (!result) {
                    m_blAbort = true;
                    ADD_FAILURE() << g.name << ": " << result.message();
                }
                std::lock_guard<std::mutex> lock(m_Mutex);
                if (--g.drivers == 0) g.seconds = std::chrono::duration<double>(Clock::now() - start).count();
                if (--m_Left == 0) m_Cond.notify_all();
            });
        }
        {
            // Waits for every driver's end; the time-out only paces the progress lines,
            // which show a hanging worker type in a long run.
            std::unique_lock<std::mutex> lock(m_Mutex);
            while (m_Left > 0) {
                if (m_Cond.wait_for(lock, std::chrono::seconds(60)) == std::cv_status::timeout && m_Left > 0) {
                    const double sec = std::chrono::duration<double>(Clock::now() - start).count();
                    std::string line;
                    for (const auto& g : m_Groups)
                        line += " " + g->name + " " + std::to_string(g->done.load()) + "/" + std::to_string(g->cycles) +
                                ";";
                    printf("[soak] %.0f s:%s VmRSS %ld KiB\n", sec, line.c_str(), StatusKiB("VmRSS:"));
                    fflush(stdout);
                }
            }
        }
        for (std::thread& t : threads) t.join();
        for (const auto& g : m_Groups) {
            printf("[soak] %s: %d of %d cycles in %.1f s\n", g->name.c_str(), g->done.load(), g->cycles, g->seconds);
        }
        fflush(stdout);
    }

private:
    struct Group {
        std::string name;
        int cycles = 0;
        int drivers = 0;   // guarded by m_Mutex once Run has begun
        std::atomic<int> done{0};
        double seconds = 0;
    };
    struct Driver {
        int group;
        int cycles;
        Body body;
    };
    std::vector<std::unique_ptr<Group>> m_Groups;
    std::vector<Driver> m_Drivers;
    std::atomic<bool> m_blAbort{false};
    std::mutex m_Mutex;
    std::condition_variable m_Cond;
    int m_Left = 0;
};

// Keeps several devices' live FIFOs supplied several chunks ahead (see Feeder), with one
// thread for all of them.
class MultiFeeder {
public:
    MultiFeeder(std::vector<tw::host::AudioOutFifoWriter*> writers, size_t chunk)
        : m_Writers(std::move(writers)), m_Chunk(chunk) {
        m_Thread = std::thread([this] {
            std::vector<unsigned char> block(m_Chunk * 8, 0x55);
            while (!m_blStop) {
                for (tw::host::AudioOutFifoWriter* w : m_Writers)
                    if (w->GetQueuedBytes() < 4 * m_Chunk) w->Write(block.data(), block.size());
                std::this_thread::sleep_for(std::chrono::microseconds(200));
            }
        });
    }
    ~MultiFeeder() {
        m_blStop = true;
        m_Thread.join();
    }

private:
    std::vector<tw::host::AudioOutFifoWriter*> m_Writers;
    size_t m_Chunk;
    std::atomic<bool> m_blStop{false};
    std::thread m_Thread;
};

// Keeps only the last records (a long run would otherwise keep every line it ever logged)
// and counts them all; a failing cycle quotes its object's recent lines.
class RecentLogSink : public tw::host::LogSink {
public:
    void Write(const tw::host::LogRecord& record) override {
        std::lock_guard<std::mutex> lock(m_Mutex);
        ++m_Total;
        m_Recent.push_back(record.message);
        if (m_Recent.size() > kKeep) m_Recent.pop_front();
    }
    // The kept lines that contain `text`, the last ones last.
    std::string Recent(const std::string& text) {
        std::lock_guard<std::mutex> lock(m_Mutex);
        std::string lines;
        for (const std::string& m : m_Recent)
            if (m.find(text) != std::string::npos) lines += "\n    " + m.substr(0, m.find_last_not_of('\n') + 1);
        return lines.empty() ? " (no recent log line)" : lines;
    }
    uint64_t Total() {
        std::lock_guard<std::mutex> lock(m_Mutex);
        return m_Total;
    }

private:
    static constexpr size_t kKeep = 20000;
    std::mutex m_Mutex;
    std::deque<std::string> m_Recent;
    uint64_t m_Total = 0;
};

TEST(WorkersSoak, AllWorkersAtOnce) {
    tw::test::ScopedLogCapture log;   // restores the stderr sink at the end
    auto recentLog = std::make_shared<RecentLogSink>();
    tw::host::SetLogSink(recentLog);
    // The workers' starts, stops and failures (level 4 and below) are logged, as a daemon
    // would, and kept for a failing cycle's message.
    tw::host::DbgLogConfig logConfig;
    logConfig.SetAllCategoryLevels(4);
    logConfig.Install();
    tw::host::SetClock(nullptr);   // the real clock: every pause is the worker's own
    const int cycles = Cycles();
    const int objects = Objects();
    ASSERT_LE(objects, 99) << "TW_SOAK_OBJECTS: at most 99 objects of each worker type";
    const pid_t pid = getpid();

    // The live-cam detectors' socket files live in /tmp, where other processes' detectors
    // may be at work too: camera ids of this process's own.
    const int liveCamBase = 100000 + static_cast<int>(pid % 20000) * 100;
    auto liveCamSocket = [](int camId) { return "/tmp/tw_livecam_detector_" + std::to_string(camId) + ".sock"; };
    const std::string controlSocket = "/tmp/tw_soak_all_mobiled_" + std::to_string(pid) + ".sock";
    const std::string wav = "/tmp/tw_soak_all_audio_" + std::to_string(pid) + ".wav";
    char pattern[] = "/tmp/tw_soak_all_patternXXXXXX";

    const Counts start = Now();
    const long vmSizeStart = StatusKiB("VmSize:");
    const long rssStart = StatusKiB("VmRSS:");
    const Clock::time_point begun = Clock::now();
    {
        // Motion detectors: one clip, a FIFO and a camera of its own for each.
        const tw::host::ClipSpec clipSpec = SoakClipSpec();
        tw::host::EncodedClip clip;
        std::string error;
        ASSERT_TRUE(tw::host::EncodeClip(clipSpec, clip, error)) << error;
        std::vector<std::shared_ptr<const std::vector<unsigned char>>> frames;
        for (const tw::host::EncodedFrame& f : clip.frames)
            frames.push_back(std::make_shared<const std::vector<unsigned char>>(f.data));
        std::vector<std::unique_ptr<StreamFifo>> motionFifos;
        std::vector<std::unique_ptr<Camera>> motionCameras;
        for (int k = 0; k < objects; ++k) {
            motionFifos.push_back(std::make_unique<StreamFifo>());
            tw::host::SetFifoFormat(*motionFifos.back(), VIDEO_CODEC_H264, clipSpec.width, clipSpec.height,
                                    clip.extraData);
            for (size_t i = 0; i < clip.frames.size(); ++i)
                tw::host::PushFifoBlock(*motionFifos.back(), frames[i], clip.frames[i].keyFrame, clip.frames[i].ptsUs);
            motionCameras.push_back(std::make_unique<Camera>(
                tw::test::AddCamera(5800 + k, VIDEO_CODEC_H264, tw::host::DetSettingValues())));
        }

        // Live-cam detectors: one mobile daemon serving them all.
        tw::host::MobileDaemonOptions options;
        options.m_strSocketPath = controlSocket;
        std::istringstream script("0 IsTrig:1 Level:50\n0.2 IsTrig:0 Level:0\n");
        ASSERT_TRUE(tw::host::ParseMobiledScript(script, "soak", options.m_Script, error)) << error;
        options.m_blRepeat = true;
        options.m_blHold = true;
        tw::host::MobileDaemon daemon(options);
        ASSERT_TRUE(daemon.Start(error)) << error;
        tw::host::SetMobiledSocketPath(controlSocket);
        std::vector<std::unique_ptr<Camera>> liveCamCameras;
        for (int k = 0; k < objects; ++k)
            liveCamCameras.push_back(std::make_unique<Camera>(tw::host::MakeCamera(liveCamBase + k, VIDEO_CODEC_H264)));

        // Executors: a module of its own for each, one audio pattern for all.
        const int patternFd = mkstemp(pattern);
        ASSERT_GE(patternFd, 0);
        ASSERT_EQ(write(patternFd, "RIFF", 4), 4);
        close(patternFd);
        const int patternId = 3;
        tw::host::SetAudioPattern(patternId, pattern, 3);
        tw::host::TakeIORequests();

        // Audio outputs: a speaker and a sink of its own for each; live ones a fed FIFO too.
        ASSERT_TRUE(WriteSoakWav(wav)) << wav;
        std::vector<std::shared_ptr<CountingSink>> liveSinks, fileSinks;
        std::vector<std::unique_ptr<tw::host::AudioOutFifoWriter>> liveFifos;
        std::vector<tw::host::AudioOutFifoWriter*> fed;
        for (int k = 0; k < objects; ++k) {
            liveSinks.push_back(std::make_shared<CountingSink>());
            PutSpeaker(5900 + k, liveSinks.back());
            fileSinks.push_back(std::make_shared<CountingSink>());
            PutSpeaker(6200 + k, fileSinks.back());
            liveFifos.push_back(std::make_unique<tw::host::AudioOutFifoWriter>(5900 + k, true));
            ASSERT_TRUE(liveFifos.back()->Open(error)) << error;
            fed.push_back(liveFifos.back().get());
        }
        auto feeder = std::make_unique<MultiFeeder>(fed, 8000);
        auto fifoWriter = [&](int devId) { return liveFifos[devId - 5900].get(); };
        const Counts ready = Now();

        SoakRun run;
        const int motionGroup = run.AddGroup("motion detector");
        const int liveCamGroup = run.AddGroup("live-cam detector");
        const int executorGroup = run.AddGroup("executor");
        const int liveAudioGroup = run.AddGroup("audio output, live");
        const int fileAudioGroup = run.AddGroup("audio output, file");
        for (int k = 0; k < objects; ++k) {
            const int share = ShareOf(cycles, objects, k);
            if (share == 0) continue;
            Camera* motionCamera = motionCameras[k].get();
            StreamFifo* motionFifo = motionFifos[k].get();
            run.Add(motionGroup, share, [&run, motionCamera, motionFifo](int n, std::atomic<int>& total) {
                const int camId = motionCamera->id;
                for (int done = 0; done < n && !run.Aborted();) {
                    EventBuf events(camId);
                    TWMotionDet det(motionCamera, &events, motionFifo, nullptr);
                    for (int i = 0; i < kCyclesPerObject && done < n && !run.Aborted(); ++i, ++done, ++total) {
                        const size_t before = tw::host::GetEventHistory(events).size();
                        const std::string at = "camera " + std::to_string(camId) + " cycle " + std::to_string(done);
                        if (det.Start() != 0) return ::testing::AssertionFailure() << at << ": Start failed";
                        if (done % 2 == 1 && !tw::host::WaitForEvents(events, before + 1, kGuardMs))
                            return ::testing::AssertionFailure() << at << ": no report";
                        if (det.Stop() != 0) return ::testing::AssertionFailure() << at << ": Stop failed";
                        if (det.IsActivated()) return ::testing::AssertionFailure() << at << ": active after Stop";
                        const std::vector<tw::host::EventRecord> history = tw::host::GetEventHistory(events);
                        if (history.size() <= before || history.back().motion || history.back().value != 0)
                            return ::testing::AssertionFailure() << at << ": the last word was not \"no motion\"";
                    }
                }
                return ::testing::AssertionSuccess();
            });

            Camera* liveCamCamera = liveCamCameras[k].get();
            run.Add(liveCamGroup, share, [&run, &liveCamSocket, liveCamCamera](int n, std::atomic<int>& total) {
                const int camId = liveCamCamera->id;
                const std::string socketPath = liveCamSocket(camId);
                for (int done = 0; done < n && !run.Aborted();) {
                    EventBuf events(camId);
                    LiveCamDetector det(liveCamCamera, &events);
                    for (int i = 0; i < kCyclesPerObject && done < n && !run.Aborted(); ++i, ++done, ++total) {
                        const size_t before = tw::host::GetEventHistory(events).size();
                        const std::string at = "camera " + std::to_string(camId) + " cycle " + std::to_string(done);
                        if (det.Start() != 0) return ::testing::AssertionFailure() << at << ": Start failed";
                        if (done % 2 == 1 && !WaitUntil([&] {
                                const std::vector<tw::host::EventRecord> h = tw::host::GetEventHistory(events);
                                for (size_t j = before; j < h.size(); ++j)
                                    if (h[j].motion && h[j].value == 50) return true;
                                return false;
                            }))
                            return ::testing::AssertionFailure() << at << ": the daemon's event did not arrive";
                        if (det.Stop() != 0) return ::testing::AssertionFailure() << at << ": Stop failed";
                        if (PathExists(socketPath))
                            return ::testing::AssertionFailure() << at << ": " << socketPath << " left after Stop";
                        const std::vector<tw::host::EventRecord> history = tw::host::GetEventHistory(events);
                        if (done % 2 == 1 && history.size() <= before)
                            return ::testing::AssertionFailure() << at << ": no event";
                        if (history.size() > before && history.back().motion)
                            return ::testing::AssertionFailure() << at << ": motion left after Stop";
                    }
                }
                return ::testing::AssertionSuccess();
            });

            const int moduleId = 6300 + k;
            run.Add(executorGroup, share, [&run, moduleId, patternId](int n, std::atomic<int>& total) {
                for (int done = 0; done < n && !run.Aborted();) {
                    auto emulator = std::make_shared<tw::host::IOModuleEmulator>(4);
                    tw::host::SetIOModuleBackend(moduleId, emulator);
                    IOModuleStatus status;
                    IOActExecutor exec;
                    for (int i = 0; i < kCyclesPerObject && done < n && !run.Aborted(); ++i, ++done, ++total) {
                        const std::string at = "module " + std::to_string(moduleId) + " cycle " + std::to_string(done);
                        if (exec.Init(moduleId, 4, nullptr, &status) != 0)
                            return ::testing::AssertionFailure() << at << ": Init failed";
                        StartHeldOutputsAndPattern(exec, patternId);
                        if (done % 10 == 1 && !WaitUntil([&] {
                                std::map<int, int> act, outs;
                                exec.GetStatus(act, outs);
                                for (int port = 0; port < 4; ++port)
                                    if (!emulator->PortState(port) || outs[port] != 1) return false;
                                return true;
                            }))
                            return ::testing::AssertionFailure() << at << ": the outputs did not become active";
                        if (exec.Terminate() != 0) return ::testing::AssertionFailure() << at << ": Terminate failed";
                        // The pass after Terminate may switch a pending output on (see the
                        // executor's soak above): put back for the next cycle.
                        for (int port = 0; port < 4; ++port) {
                            std::string error;
                            if (emulator->PortState(port) && !emulator->SetDigitalOutput(port, false, error))
                                return ::testing::AssertionFailure() << at << ": " << error;
                        }
                        // The host's journal of port requests is the whole process's; kept
                        // short so that the run does not grow with it.
                        tw::host::TakeIORequests();
                    }
                }
                return ::testing::AssertionSuccess();
            });

            for (const bool live : {true, false}) {
                const int devId = (live ? 5900 : 6200) + k;
                CountingSink* sink = (live ? liveSinks : fileSinks)[k].get();
                run.Add(live ? liveAudioGroup : fileAudioGroup, share,
                        [&run, &wav, &recentLog, &fifoWriter, live, devId, sink](int n, std::atomic<int>& total) {
                            for (int done = 0; done < n && !run.Aborted();) {
                                AudioOut out(devId, DEV_TYPE_SPEAKER);
                                if (out.Init() != 0) return ::testing::AssertionFailure() << devId << ": Init failed";
                                for (int i = 0; i < kCyclesPerObject && done < n && !run.Aborted();
                                     ++i, ++done, ++total) {
                                    const std::string at =
                                        "speaker " + std::to_string(devId) + " cycle " + std::to_string(done);
                                    const int sends = sink->GetCounters().sends;
                                    if ((live ? out.Start(false) : out.Start(wav, false)) != 0)
                                        return ::testing::AssertionFailure() << at << ": Start failed";
                                    // A live output that finds its FIFO empty 11 times in a row
                                    // ends by itself; the shared feeder may not get the processor
                                    // that often with hundreds of threads at work, so the waiting
                                    // driver tops its own FIFO up.
                                    if (done % 2 == 1 && !WaitUntil([&] {
                                            if (live && fifoWriter(devId)->GetQueuedBytes() < 8000) {
                                                static const std::vector<unsigned char> block(16000, 0x55);
                                                fifoWriter(devId)->Write(block.data(), block.size());
                                            }
                                            return sink->GetCounters().sends > sends;
                                        }))
                                        return ::testing::AssertionFailure()
                                               << at << ": nothing sent, "
                                               << (live ? fifoWriter(devId)->GetQueuedBytes() : 0)
                                               << " bytes queued; the device's last log lines:"
                                               << recentLog->Recent("Device[" + std::to_string(devId) + "]");
                                    if (out.Stop() != 0) return ::testing::AssertionFailure() << at << ": Stop failed";
                                    if (out.IsManualOutputing())
                                        return ::testing::AssertionFailure() << at << ": still outputting";
                                    const tw::host::AudioSinkCounters c = sink->GetCounters();
                                    if (c.connects != c.disconnects)
                                        return ::testing::AssertionFailure()
                                               << at << ": " << c.connects << " connects, " << c.disconnects
                                               << " disconnects";
                                }
                            }
                            return ::testing::AssertionSuccess();
                        });
            }
        }
        run.Run();
        // Everything the workers started has ended: back to the counts before the run.
        EXPECT_TRUE(BackTo(ready, "after the run"));
        for (int k = 0; k < objects; ++k) EXPECT_FALSE(PathExists(liveCamSocket(liveCamBase + k)));
        daemon.Stop();
        tw::host::SetMobiledSocketPath(tw::host::kDefaultMobiledSocket);
        feeder.reset();   // before the FIFOs go: it writes to them
        for (auto& fifo : liveFifos) fifo->Close();
    }
    EXPECT_FALSE(PathExists(controlSocket));
    EXPECT_TRUE(BackTo(start, "after the soak"));
    const Counts end = Now();
    const double sec = std::chrono::duration<double>(Clock::now() - begun).count();
    printf("[soak] %llu log lines written\n", static_cast<unsigned long long>(recentLog->Total()));
    printf("[soak] all workers, %d objects of each type: %.1f s; descriptors %d -> %d, threads %d -> %d, "
           "VmSize %ld -> %ld KiB, VmRSS %ld -> %ld KiB\n",
           objects, sec, start.fds, end.fds, start.threads, end.threads, vmSizeStart, StatusKiB("VmSize:"), rssStart,
           StatusKiB("VmRSS:"));
    fflush(stdout);
#ifdef TW_SOAK_LSAN
    EXPECT_EQ(__lsan_do_recoverable_leak_check(), 0) << "LeakSanitizer found leaks (reported above)";
    printf("[soak] LeakSanitizer: %s\n", ::testing::Test::HasFailure() ? "see above" : "no leak");
#endif
    tw::host::ClearIOModuleBackends();
    tw::host::ClearAudioPatterns();
    tw::host::DeviceStore::Instance().Clear();
    std::remove(pattern);
    std::remove(wav.c_str());
}

}  // namespace

// A host program of one's own: it loads the installed plug-in through the host library,
// runs the plug-in's motion detector in virtual time on a clip it makes itself (the
// built-in sample, whose moving intervals are known), prints the detector's statuses and
// checks them: one rise of motion inside each moving interval, none elsewhere. Exit 0 when
// they are right, 1 when not, 2 when something could not be set up.
//
//   twhost_consumer [PLUGIN]     (default: the plug-in of the install it was built against)
#include <unistd.h>

#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <memory>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "tw/camera.h"
#include "tw/stream.h"
#include "twhost/clipmaker.h"
#include "twhost/clock.h"
#include "twhost/eventlog.h"
#include "twhost/mediasource.h"
#include "twhost/plugin.h"
#include "twhost/stores.h"
#include "twhost/version.h"

#ifndef TW_CONSUMER_PLUGIN
#define TW_CONSUMER_PLUGIN ""
#endif

namespace {

struct Status {
    double t;
    bool motion;
    int value;
};

int Fail(const std::string& what) {
    std::fprintf(stderr, "twhost_consumer: %s\n", what.c_str());
    return 2;
}

}  // namespace

int main(int argc, char** argv) {
    std::string pluginPath = argc > 1 ? argv[1] : TW_CONSUMER_PLUGIN;
    if (pluginPath.empty()) pluginPath = tw::host::PluginModule::DefaultPath();
    std::printf("host library %s, plug-in %s\n", TW_VERSION, pluginPath.c_str());

    std::string error;
    std::unique_ptr<tw::host::PluginModule> module = tw::host::PluginModule::Load(pluginPath, error);
    if (!module) return Fail(error);

    // The clip: the built-in sample, written by the host library into a folder of its own
    // that goes when the program ends, whichever way.
    const tw::host::ClipSpec clipSpec = tw::host::SampleClipSpec();
    struct TempDir {
        char path[32] = "/tmp/twhost-consumer-XXXXXX";
        std::string clip;
        ~TempDir() {
            if (!clip.empty()) unlink(clip.c_str());
            rmdir(path);
        }
    } dir;
    if (mkdtemp(dir.path) == nullptr) return Fail("cannot make a temporary folder");
    dir.clip = std::string(dir.path) + "/sample.mp4";
    const std::string& clip = dir.clip;
    if (!tw::host::WriteClip(clipSpec, clip, error)) return Fail("cannot write the clip: " + error);

    tw::host::MediaSource source;
    if (!source.Open(clip, error)) return Fail(error);

    // Virtual time: the detector's 300 ms period and the clip's timestamps on one clock.
    auto clock = std::make_shared<tw::host::ManualClock>(0, true);
    tw::host::SetClock(clock);
    const int camId = 1;
    Camera camera = tw::host::MakeCamera(camId, source.GetCodec());
    tw::host::CameraStore::Instance().Put(camera);
    tw::host::DetSettingStore::Instance().Put(camId, tw::host::DetSettingValues{});

    StreamFifo fifo;
    tw::host::FifoPump pump(source, fifo);
    if (!pump.StartVirtual(error)) return Fail(error);
    const int64_t epochUs = pump.GetEpochUs();
    const int64_t expectedEnd = pump.GetExpectedEndTimeUs();
    constexpr int64_t kPeriodUs = 300000;
    clock->SetAdvanceLimitUs((expectedEnd > 0 ? expectedEnd : epochUs) + kPeriodUs);

    std::mutex mutex;
    std::vector<Status> statuses;
    EventBuf events(camId);
    tw::host::SetEventListener(events, [&](const tw::host::EventRecord& r) {
        std::lock_guard<std::mutex> lock(mutex);
        statuses.push_back({(r.timeUs - epochUs) / 1e6, r.motion, r.value});
    });

    DPObjectBase* detector = module->TWMotionDetFactory(&camera, &events, &fifo, nullptr);
    if (detector == nullptr) return Fail("the plug-in made no motion detector");
    std::unique_ptr<tw::host::DetectorHandlerProxy> handler = module->NewDetectorHandler();
    handler->SetDetector(detector, DET_TYPE_IMG_DIFF);
    if (handler->Start() != 0) return Fail("the motion detector did not start");
    // Until the detector has looked once more after the last frame.
    for (;;) {
        if (pump.Ended()) {
            const int64_t stopAt = pump.GetEndTimeUs() + kPeriodUs;
            clock->SetAdvanceLimitUs(stopAt);
            if (clock->NowUs() >= stopAt) break;
        }
        std::this_thread::sleep_for(std::chrono::milliseconds(1));
    }
    handler->Stop();
    handler->Release();
    handler.reset();
    pump.Stop();
    tw::host::SetEventListener(events, nullptr);
    tw::host::SetClock(nullptr);

    // The rises of motion, against the intervals in which the object moved.
    std::vector<double> rises;
    bool motion = false;
    for (const Status& s : statuses) {
        std::printf("%.3f %s %d\n", s.t, s.motion ? "motion" : "still", s.value);
        if (s.motion && !motion) rises.push_back(s.t);
        motion = s.motion;
    }
    bool right = statuses.size() > 10 && rises.size() == clipSpec.motion.size();
    for (size_t i = 0; right && i < rises.size(); ++i) {
        right = rises[i] >= clipSpec.motion[i].first && rises[i] <= clipSpec.motion[i].second;
    }
    std::printf("%zu statuses; motion rose at", statuses.size());
    for (double t : rises) std::printf(" %.3f", t);
    std::printf(" s; moving");
    for (const auto& m : clipSpec.motion) std::printf(" %.1f-%.1f", m.first, m.second);
    std::printf(" s: %s\n", right ? "right" : "WRONG");
    return right ? 0 : 1;
}

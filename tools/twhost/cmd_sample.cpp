// "twhost sample": writes the built-in demo clip, a known scene with still and moving
// parts, so detection can be tried without a camera or a recording at hand.
#include <cstdio>
#include <memory>
#include <string>

#include <json/json.h>

extern "C" {
#include <libavutil/log.h>
}

#include "cliutil.h"
#include "commands.h"
#include "tw/camera.h"
#include "twhost/clipmaker.h"

namespace tw::host {
namespace {

constexpr const char* kDefaultOut = "twhost-sample.mp4";
// MJPEG does not go into MP4, so without an explicit OUT it gets a container it fits.
constexpr const char* kDefaultMjpegOut = "twhost-sample.avi";

struct SampleOptions {
    std::string m_strOut = kDefaultOut;
    std::string m_strCodec = "h264";
    double m_DurationSec = 0.0;   // 0: the sample's own length
    std::string m_strSize;        // empty: the sample's own size
    int m_Gop = 0;                // 0: the sample's own key-frame interval
    int m_BitrateKbps = 0;        // 0: constant quality
    bool m_blOverwrite = false;
    bool m_blJson = false;
};

int CodecFromName(const std::string& name) {
    if (name == "mjpeg") return VIDEO_CODEC_JPEG;
    if (name == "mpeg4") return VIDEO_CODEC_MPEG4;
    if (name == "hevc") return VIDEO_CODEC_HEVC;
    return VIDEO_CODEC_H264;
}

// "WxH" with both even and within the encoders' range; false leaves width/height alone.
bool ParseSize(const std::string& text, int& width, int& height) {
    int w = 0, h = 0;
    char tail = 0;
    if (std::sscanf(text.c_str(), "%dx%d%c", &w, &h, &tail) != 2) return false;
    if (w < 16 || h < 16 || w > 4096 || h > 4096 || w % 2 != 0 || h % 2 != 0) return false;
    width = w;
    height = h;
    return true;
}

std::string Seconds(double sec) {
    char text[32];
    std::snprintf(text, sizeof(text), "%.1f", sec);
    return text;
}

// The motion intervals as they fall inside the clip ("moving 4.0-7.0 s, 10.0-11.5 s").
std::string DescribeMotion(const ClipSpec& clipSpec) {
    std::string text;
    for (const auto& span : clipSpec.motion) {
        if (span.first >= clipSpec.durationSec || span.second <= 0.0) continue;
        double start = span.first < 0.0 ? 0.0 : span.first;
        double end = span.second > clipSpec.durationSec ? clipSpec.durationSec : span.second;
        text += (text.empty() ? "moving " : ", ") + Seconds(start) + "-" + Seconds(end) + " s";
    }
    return text.empty() ? std::string("object still throughout") : text;
}

void RunSample(const SampleOptions& options, bool outGiven, int& exitCode) {
    ClipSpec clipSpec = SampleClipSpec();
    clipSpec.codec = CodecFromName(options.m_strCodec);
    if (options.m_DurationSec > 0.0) clipSpec.durationSec = options.m_DurationSec;
    if (!options.m_strSize.empty()) ParseSize(options.m_strSize, clipSpec.width, clipSpec.height);
    if (options.m_Gop > 0) clipSpec.gop = options.m_Gop;
    clipSpec.bitrateKbps = options.m_BitrateKbps;
    std::string path = options.m_strOut;
    if (!outGiven && clipSpec.codec == VIDEO_CODEC_JPEG) path = kDefaultMjpegOut;

    twcli::Out& out = twcli::Out::Get();
    out.SetJson(options.m_blJson);
    std::string error;
    if (!twcli::CheckOutputFile(path, options.m_blOverwrite, {}, error)) {
        std::fprintf(stderr, "twhost sample: %s\n", error.c_str());
        exitCode = twcli::kExitFailure;
        return;
    }
    // The encoders' statistics would bury the one line this command prints.
    av_log_set_level(AV_LOG_ERROR);
    if (!WriteClip(clipSpec, path, error)) {
        std::fprintf(stderr, "twhost sample: %s\n", error.c_str());
        exitCode = twcli::kExitFailure;
        return;
    }
    if (out.Json()) {
        Json::Value v = twcli::Out::Line("summary", clipSpec.durationSec);
        Json::Value input(Json::objectValue);
        input["source"] = "sample";
        v["input"] = input;
        Json::Value settings(Json::objectValue);
        settings["codec"] = options.m_strCodec;
        settings["width"] = clipSpec.width;
        settings["height"] = clipSpec.height;
        settings["duration"] = clipSpec.durationSec;
        settings["fps"] = clipSpec.fps;
        settings["gop"] = clipSpec.gop;
        if (clipSpec.bitrateKbps > 0) settings["bitrate"] = clipSpec.bitrateKbps;
        v["settings"] = settings;
        v["endReason"] = "written";
        v["output"] = path;
        v["frames"] = ClipFrameCount(clipSpec);
        Json::Value motion(Json::arrayValue);
        for (const auto& span : clipSpec.motion) {
            if (span.first >= clipSpec.durationSec || span.second <= 0.0) continue;
            Json::Value item(Json::objectValue);
            item["start"] = span.first < 0.0 ? 0.0 : span.first;
            item["end"] = span.second > clipSpec.durationSec ? clipSpec.durationSec : span.second;
            motion.append(item);
        }
        v["motion"] = motion;
        out.Emit(v);
    } else {
        out.Textf("twhost sample: wrote %s (%s, %dx%d, %s s, %d frames at %d fps); %s", path.c_str(),
                  options.m_strCodec.c_str(), clipSpec.width, clipSpec.height, Seconds(clipSpec.durationSec).c_str(),
                  ClipFrameCount(clipSpec), clipSpec.fps, DescribeMotion(clipSpec).c_str());
    }
    exitCode = twcli::kExitOk;
}

}  // namespace
}  // namespace tw::host

void RegisterSampleCommand(CLI::App& app, int& exitCode) {
    auto options = std::make_shared<tw::host::SampleOptions>();
    CLI::App* sub = app.add_subcommand(
        "sample", "Write the built-in demo clip: a still textured scene in which one bright "
                  "square moves only at known times");
    CLI::Option* out = sub->add_option("OUT", options->m_strOut,
                                       "Output file; the container follows the extension "
                                       "(.mp4, .mkv, .avi, .ts)")
                           ->capture_default_str();
    sub->add_option("--codec", options->m_strCodec, "Video codec")
        ->check(CLI::IsMember({"mjpeg", "mpeg4", "h264", "hevc"}))
        ->capture_default_str();
    const tw::host::ClipSpec sample = tw::host::SampleClipSpec();
    sub->add_option("--duration", options->m_DurationSec,
                    "Length in seconds (default " + tw::host::Seconds(sample.durationSec) +
                        "; " + tw::host::DescribeMotion(sample) +
                        ", so a shorter clip may hold less or no motion)")
        ->check(CLI::Range(0.04, 3600.0));
    sub->add_option("--size", options->m_strSize, "Picture size WxH, both even (default 640x360)")
        ->check(
            [](const std::string& text) -> std::string {
                int w = 0, h = 0;
                if (tw::host::ParseSize(text, w, h)) return "";
                return "size '" + text + "' is not WxH with even sides from 16 to 4096";
            },
            "WxH");
    sub->add_option("--gop", options->m_Gop,
                    "Frames from one key frame to the next (default " + std::to_string(sample.gop) +
                        "; " + std::to_string(sample.fps) + " make one a second, as many cameras send)")
        ->check(CLI::Range(1, 600));
    sub->add_option("--bitrate", options->m_BitrateKbps,
                    "H.264/HEVC only: encode at this many kbit/s with a one-second buffer, as a camera set to a "
                    "bit rate does (e.g. 4000 for 1080p); without it the clip keeps its grain at constant quality")
        ->check(CLI::Range(1, 1000000));
    sub->add_flag("-y,--overwrite", options->m_blOverwrite, "Replace OUT if it exists");
    sub->add_flag("--json", options->m_blJson, "Print the result as a JSON \"summary\" line");
    sub->callback([options, out, &exitCode]() {
        tw::host::RunSample(*options, out->count() > 0, exitCode);
    });
}

// twhost region: a region setting made visible. Draws the detector's 40 x 30 grid and the
// watched cells of a region (the 1200-character string or cell rectangles) on a frame of a
// source, as PNG or JPEG, and prints the 1200-character string that the recorder stores,
// so that a user can write the setting by looking.
#include <strings.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <string>

extern "C" {
#include <libavutil/log.h>
}

#include "cliutil.h"
#include "commands.h"
#include "picture.h"
#include "tw/camera.h"
#include "twhost/clipmaker.h"
#include "twhost/mediasource.h"
#include "twhost/stores.h"

namespace {

using twcli::Out;

const char* const kCmd = "twhost region";

struct RegionOptions {
    std::string source;
    std::string region;
    std::string out;
    double at = 0;
    int width = 0;
    bool overwrite = false;
    bool json = false;
};

bool EndsWith(const std::string& s, const char* suffix) {
    const size_t n = strlen(suffix);
    return s.size() >= n && strcasecmp(s.c_str() + s.size() - n, suffix) == 0;
}

// The first key frame at or after `at` seconds of the source, decoded; false with error.
bool FrameOf(const std::string& input, double at, int maxWidth, twpic::RgbPicture& picture, double& frameSec,
             std::string& error) {
    tw::host::MediaSource source;
    {
        const int level = av_log_get_level();
        av_log_set_level(AV_LOG_QUIET);
        const bool opened = source.Open(input, error);
        av_log_set_level(level);
        if (!opened) return false;
    }
    twpic::FrameDecoder decoder(source.GetCodec(), source.GetExtraData(),
                                maxWidth > 0 ? maxWidth : std::max(source.GetWidth(), 1));
    tw::host::SourcePacket packet;
    bool haveFirst = false;
    int64_t firstUs = 0;
    std::string lastError;
    for (;;) {
        const int rc = source.ReadPacket(packet);
        if (rc < 0) {
            error = source.GetLastError();
            return false;
        }
        if (rc == 0) break;
        if (!haveFirst) {
            haveFirst = true;
            firstUs = packet.ptsUs;
        }
        const double t = static_cast<double>(packet.ptsUs - firstUs) / 1e6;
        if (!packet.keyFrame || t + 1e-6 < at) continue;
        const std::vector<unsigned char>& data = *packet.data;
        if (decoder.Decode(data.data(), static_cast<int>(data.size()), picture, lastError)) {
            frameSec = t;
            return true;
        }
    }
    char text[160];
    snprintf(text, sizeof(text), "no key frame at or after %.2f s of '%s' could be decoded", at, input.c_str());
    error = text;
    if (!lastError.empty()) error += " (" + lastError + ")";
    return false;
}

int RunRegion(const RegionOptions& opt) {
    Out& out = Out::Get();
    out.SetJson(opt.json);
    std::string region, error;
    if (!tw::host::ParseRegion(opt.region, region, error)) {
        fprintf(stderr, "%s: bad --region '%s': %s\n", kCmd, opt.region.c_str(), error.c_str());
        return twcli::kExitUsage;
    }
    const bool png = EndsWith(opt.out, ".png");
    if (!opt.out.empty() && !png && !EndsWith(opt.out, ".jpg") && !EndsWith(opt.out, ".jpeg")) {
        fprintf(stderr, "%s: --out '%s' must end in .png, .jpg or .jpeg\n", kCmd, opt.out.c_str());
        return twcli::kExitUsage;
    }
    if (opt.out.empty() && (!opt.source.empty() || opt.at > 0)) {
        fprintf(stderr, "%s: --source and --at draw into --out; give --out FILE.png or FILE.jpg\n", kCmd);
        return twcli::kExitUsage;
    }
    const int watched = static_cast<int>(std::count(region.begin(), region.end(), '1'));

    twpic::RgbPicture picture;
    double frameSec = 0;
    std::string described;
    if (!opt.out.empty()) {
        if (!twcli::CheckOutputFile(opt.out, opt.overwrite, {opt.source}, error)) {
            fprintf(stderr, "%s: %s\n", kCmd, error.c_str());
            return twcli::kExitFailure;
        }
        std::string input = opt.source;
        std::string tempPath;
        if (input.empty()) {
            // The built-in sample's scene, a short clip of it made on the fly.
            char path[] = "/tmp/twhost-region-XXXXXX";
            const int fd = mkstemp(path);
            if (fd < 0) {
                fprintf(stderr, "%s: cannot create a temporary file for the sample: %s\n", kCmd, strerror(errno));
                return twcli::kExitFailure;
            }
            close(fd);
            unlink(path);
            tempPath = std::string(path) + ".mp4";
            tw::host::ClipSpec clipSpec = tw::host::SampleClipSpec();
            clipSpec.durationSec = std::max(1.0, opt.at + 1.0);
            if (clipSpec.durationSec > 600) {
                fprintf(stderr, "%s: --at %.2f is past the built-in sample\n", kCmd, opt.at);
                return twcli::kExitUsage;
            }
            if (!tw::host::WriteClip(clipSpec, tempPath, error)) {
                fprintf(stderr, "%s: cannot make the built-in sample: %s\n", kCmd, error.c_str());
                unlink(tempPath.c_str());
                return twcli::kExitFailure;
            }
            input = tempPath;
            described = "the built-in sample";
        } else {
            described = "'" + input + "'";
        }
        const bool ok = FrameOf(input, opt.at, opt.width, picture, frameSec, error);
        if (!tempPath.empty()) unlink(tempPath.c_str());
        if (!ok) {
            fprintf(stderr, "%s: %s\n", kCmd, error.c_str());
            return twcli::kExitFailure;
        }
        twpic::DrawRegion(picture, region);
        std::vector<unsigned char> bytes = png ? twpic::EncodePng(picture, error) : twpic::EncodeJpeg(picture, 90);
        if (bytes.empty()) {
            fprintf(stderr, "%s: cannot encode '%s': %s\n", kCmd, opt.out.c_str(),
                    error.empty() ? "JPEG encoding failed" : error.c_str());
            return twcli::kExitFailure;
        }
        if (!twpic::WriteFile(opt.out, bytes, error)) {
            fprintf(stderr, "%s: %s\n", kCmd, error.c_str());
            return twcli::kExitFailure;
        }
    }

    if (out.Json()) {
        Json::Value v = Out::Line("summary", frameSec);
        Json::Value input(Json::objectValue);
        if (!opt.out.empty()) input["source"] = opt.source.empty() ? std::string("sample") : opt.source;
        v["input"] = input;
        Json::Value settings(Json::objectValue);
        settings["region"] = opt.region;
        if (!opt.out.empty()) settings["at"] = opt.at;
        if (opt.width > 0) settings["width"] = opt.width;
        v["settings"] = settings;
        v["endReason"] = "done";
        v["region"] = region;
        v["watchedCells"] = watched;
        if (!opt.out.empty()) {
            v["output"] = opt.out;
            v["width"] = picture.width;
            v["height"] = picture.height;
        }
        out.Emit(v);
    } else {
        out.Text(region);
        if (opt.out.empty()) {
            out.Textf("%d of 1200 cells watched", watched);
        } else {
            out.Textf("%d of 1200 cells watched; drawn on the key frame at %.2f s of %s (%d x %d) into %s", watched,
                      frameSec, described.c_str(), picture.width, picture.height, opt.out.c_str());
        }
    }
    return twcli::kExitOk;
}

}  // namespace

void RegisterRegionCommand(CLI::App& app, int& exitCode) {
    auto opt = std::make_shared<RegionOptions>();
    CLI::App* cmd = app.add_subcommand("region", "Show a detection region on a frame of a source (PNG or JPEG) and "
                                                 "print its 1200-character string");
    cmd->add_option("--region", opt->region,
                    "'all', 'none', 1200 characters 0/1 (40 x 30, row by row), or cell rectangles "
                    "'COL,ROW-COL,ROW;...' (columns 0..39, rows 0..29)")
        ->required();
    cmd->add_option("--source", opt->source, "Video file or URL to take the frame from; default: the built-in sample");
    cmd->add_option("--out", opt->out, "Picture to write: FILE.png or FILE.jpg; without it only the string is printed");
    cmd->add_option("--at", opt->at, "Take the first key frame at or after this many seconds (default 0)")
        ->check(twcli::Seconds(true));
    cmd->add_option("--width", opt->width, "Shrink the picture to at most this many pixels wide (default: full size)")
        ->check(twcli::IntIn(16, 8192));
    cmd->add_flag("-y,--overwrite", opt->overwrite, "Replace --out if it exists");
    cmd->add_flag("--json", opt->json, "One JSON summary line instead of text");
    cmd->callback([opt, &exitCode]() { exitCode = RunRegion(*opt); });
}

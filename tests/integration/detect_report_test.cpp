// twhost detect --report and --snapshots, and twhost region, run as a user runs them: the
// page of the built-in sample holds the run's turns, intervals and snapshots; the snapshot
// files and their JSON lines agree; a long input keeps every interval and thins only the
// value line; a region is printed as the recorder stores it and drawn on a frame.
#include <gtest/gtest.h>
#include <dirent.h>
#include <sys/stat.h>

#include <algorithm>
#include <cmath>
#include <fstream>
#include <map>
#include <cctype>
#include <cstring>
#include <sstream>
#include <string>
#include <vector>

#include <json/json.h>

#include "support/childprocess.h"
#include "support/jsonlines.h"
#include "tw/camera.h"
#include "tw/decode.h"
#include "twhost/clipmaker.h"
#include "support/pngdecode.h"
#include "support/testenv.h"

namespace {

using tw::test::ChildResult;
using tw::test::SplitLines;

ChildResult Twhost(std::vector<std::string> args) {
    args.insert(args.begin(), TW_TWHOST_BIN);
    return tw::test::RunChild(args, 300);
}

std::string ReadAll(const std::string& path) {
    std::ifstream in(path, std::ios::binary);
    std::stringstream s;
    s << in.rdbuf();
    return s.str();
}

bool Contains(const std::string& text, const std::string& part) { return text.find(part) != std::string::npos; }

// The name="value" attributes of one start tag (the text between '<' and '>'). Scanned by
// hand: a picture's data URI is hundreds of kilobytes, too long for std::regex.
std::map<std::string, std::string> Attributes(const std::string& tag) {
    std::map<std::string, std::string> m;
    for (size_t eq = tag.find("=\""); eq != std::string::npos; eq = tag.find("=\"", eq + 1)) {
        size_t nameStart = eq;
        while (nameStart > 0 && (std::isalnum(static_cast<unsigned char>(tag[nameStart - 1])) || tag[nameStart - 1] == '-'))
            --nameStart;
        const size_t close = tag.find('"', eq + 2);
        if (close == std::string::npos) break;
        m[tag.substr(nameStart, eq - nameStart)] = tag.substr(eq + 2, close - eq - 2);
        eq = close;
    }
    return m;
}

// The attributes of every start tag that begins with tagStart.
std::vector<std::map<std::string, std::string>> Tags(const std::string& html, const std::string& tagStart) {
    std::vector<std::map<std::string, std::string>> tags;
    for (size_t pos = html.find(tagStart); pos != std::string::npos; pos = html.find(tagStart, pos + 1)) {
        const size_t end = html.find('>', pos);
        tags.push_back(Attributes(html.substr(pos, end - pos)));
    }
    return tags;
}

// Every value of a src= or href= attribute anywhere in the page.
std::vector<std::string> References(const std::string& html) {
    std::vector<std::string> refs;
    for (const char* name : {" src=\"", " href=\""}) {
        const size_t n = std::strlen(name);
        for (size_t pos = html.find(name); pos != std::string::npos; pos = html.find(name, pos + 1)) {
            const size_t close = html.find('"', pos + n);
            refs.push_back(html.substr(pos + n, close - pos - n));
        }
    }
    return refs;
}

std::vector<unsigned char> Base64Decode(const std::string& text) {
    std::vector<unsigned char> out;
    unsigned buffer = 0;
    int bits = 0;
    for (char ch : text) {
        int v;
        if (ch >= 'A' && ch <= 'Z') v = ch - 'A';
        else if (ch >= 'a' && ch <= 'z') v = ch - 'a' + 26;
        else if (ch >= '0' && ch <= '9') v = ch - '0' + 52;
        else if (ch == '+') v = 62;
        else if (ch == '/') v = 63;
        else continue;
        buffer = (buffer << 6) | static_cast<unsigned>(v);
        bits += 6;
        if (bits >= 8) {
            bits -= 8;
            out.push_back(static_cast<unsigned char>((buffer >> bits) & 0xff));
        }
    }
    return out;
}

// Size of a JPEG picture as the host's decoder sees it; false when it does not decode.
bool JpegSize(const std::vector<unsigned char>& jpeg, int& width, int& height) {
    unsigned char* image = nullptr;
    int size = 0;
    const int rc = DecodeJpeg(jpeg.data(), static_cast<int>(jpeg.size()), &image, size, JCS_RGB, 1, width, height);
    free(image);
    return rc == 0;
}

std::vector<std::string> Files(const std::string& dir) {
    std::vector<std::string> names;
    if (DIR* d = opendir(dir.c_str())) {
        while (const dirent* e = readdir(d)) {
            const std::string name = e->d_name;
            if (name != "." && name != "..") names.push_back(name);
        }
        closedir(d);
    }
    std::sort(names.begin(), names.end());
    return names;
}

class DetectReport : public ::testing::Test {
protected:
    void SetUp() override { ASSERT_TRUE(m_Dir.Ok()); }
    tw::test::ScopedTempDir m_Dir;
};

TEST_F(DetectReport, PageOfTheSampleHoldsItsTurnsIntervalsAndSnapshots) {
    const std::string page = m_Dir.File("sample.html");
    const ChildResult r = Twhost({"detect", "--report", page, "--json"});
    ASSERT_TRUE(r.exited && r.exitCode == 0) << r.Describe() << r.err;
    const std::vector<Json::Value> lines = tw::test::ParseCheckedJsonLines("twhost detect", r.out);
    const std::vector<Json::Value> statuses = tw::test::LinesOfType(lines, "status");
    const std::vector<Json::Value> snapshots = tw::test::LinesOfType(lines, "snapshot");
    const std::vector<Json::Value> summaries = tw::test::LinesOfType(lines, "summary");
    ASSERT_EQ(summaries.size(), 1u);
    const Json::Value& summary = summaries[0];
    const std::string html = ReadAll(page);
    ASSERT_FALSE(html.empty());

    // Every turn is on the page; the sample is short enough for every one to be drawn.
    const auto svg = Tags(html, "<svg id=\"timeline\"");
    ASSERT_EQ(svg.size(), 1u);
    EXPECT_EQ(std::stoul(svg[0].at("data-turns")), statuses.size());
    EXPECT_EQ(std::stoul(svg[0].at("data-points")), statuses.size());
    EXPECT_EQ(Tags(html, "<line id=\"threshold\"").at(0).at("data-value"), "10");

    // The intervals of the page are those of the run, and the sample's two movements.
    const auto rows = Tags(html, "<tr class=\"interval\"");
    const Json::Value& intervals = summary["intervals"];
    ASSERT_EQ(rows.size(), intervals.size());
    ASSERT_EQ(rows.size(), 2u) << r.out;
    const std::vector<std::pair<double, double>> moving = tw::host::SampleClipSpec().motion;
    for (size_t i = 0; i < rows.size(); ++i) {
        const double start = std::stod(rows[i].at("data-start")), end = std::stod(rows[i].at("data-end"));
        EXPECT_NEAR(start, intervals[static_cast<int>(i)]["start"].asDouble(), 1e-3);
        EXPECT_NEAR(end, intervals[static_cast<int>(i)]["end"].asDouble(), 1e-3);
        EXPECT_GE(start, moving[i].first) << "interval " << i;
        EXPECT_LE(start, moving[i].first + 1.0) << "interval " << i;
        // The highest value of the row is the highest status inside the interval.
        int highest = -1;
        for (const Json::Value& s : statuses) {
            const double t = s["t"].asDouble();
            if (s["motion"].asBool() && t >= start - 1e-6 && t < end - 1e-6) highest = std::max(highest, s["value"].asInt());
        }
        EXPECT_EQ(std::stoi(rows[i].at("data-peak")), highest) << "interval " << i;
    }

    // Two snapshots per interval, the same on the page as in the JSON lines, each a JPEG of
    // the picture at 640 x 360 (the sample's size).
    const auto figures = Tags(html, "<figure class=\"snapshot\"");
    ASSERT_EQ(figures.size(), 4u);
    ASSERT_EQ(snapshots.size(), 4u);
    for (size_t i = 0; i < figures.size(); ++i) {
        const Json::Value& line = snapshots[i];
        EXPECT_EQ(figures[i].at("data-kind"), line["kind"].asString());
        EXPECT_EQ(std::stoi(figures[i].at("data-interval")), line["interval"].asInt());
        EXPECT_NEAR(std::stod(figures[i].at("data-t")), line["t"].asDouble(), 1e-3);
        EXPECT_EQ(std::stoi(figures[i].at("data-value")), line["value"].asInt());
        const int interval = line["interval"].asInt() - 1;
        if (line["kind"].asString() == "start") {
            EXPECT_NEAR(line["t"].asDouble(), std::stod(rows[interval].at("data-start")), 1e-3);
        } else {
            EXPECT_EQ(line["value"].asInt(), std::stoi(rows[interval].at("data-peak")));
            EXPECT_NEAR(line["t"].asDouble(), std::stod(rows[interval].at("data-peak-t")), 1e-3);
        }
    }
    EXPECT_EQ(summary["snapshots"].asInt(), 4);

    // Self-contained: pictures are data URIs that decode, nothing else is referenced, and
    // the page forbids its browser to load anything.
    const auto images = Tags(html, "<img ");
    ASSERT_EQ(images.size(), 5u);  // the camera and four snapshots
    for (const auto& img : images) {
        const std::string& src = img.at("src");
        ASSERT_EQ(src.rfind("data:image/jpeg;base64,", 0), 0u) << src.substr(0, 60);
        int w = 0, h = 0;
        ASSERT_TRUE(JpegSize(Base64Decode(src.substr(23)), w, h));
        EXPECT_EQ(w, 640);
        EXPECT_EQ(h, 360);
    }
    const std::vector<std::string> refs = References(html);
    EXPECT_EQ(refs.size(), images.size());
    for (const std::string& ref : refs) EXPECT_EQ(ref.rfind("data:", 0), 0u) << ref.substr(0, 80);
    EXPECT_FALSE(Contains(html, "<script"));
    EXPECT_TRUE(Contains(html, "Content-Security-Policy\" content=\"default-src 'none'; img-src data:;"));
    EXPECT_EQ(Tags(html, "<figure id=\"camera\"").size(), 1u);
    // The settings and what the sensitivity means in grey levels: (100 - 80) x 2 = 40.
    EXPECT_TRUE(Contains(html, "data-key=\"sensitivity\">80<")) << "sensitivity";
    EXPECT_TRUE(Contains(html, "<strong>40</strong> of 255 levels"));
    EXPECT_TRUE(Contains(html, "data-key=\"codec\">h264<"));
    EXPECT_TRUE(Contains(html, "data-key=\"size\">640 &times; 360<"));
}

TEST_F(DetectReport, ShortLiveWaitIsDrawnAsHeldBackStretchesBeforeEachInterval) {
    const std::string page = m_Dir.File("held.html");
    const ChildResult r = Twhost({"detect", "--report", page, "--short-live", "1", "--json"});
    ASSERT_TRUE(r.exited && r.exitCode == 0) << r.Describe() << r.err;
    const std::string html = ReadAll(page);
    const auto held = Tags(html, "<rect class=\"held\"");
    const auto motion = Tags(html, "<rect class=\"motion\"");
    ASSERT_FALSE(motion.empty());
    // Short-live 1 s: three turns over the threshold are held back before motion is told;
    // each interval is preceded, without a gap, by a held-back stretch of those turns.
    for (const auto& m : motion) {
        const double start = std::stod(m.at("data-start"));
        bool found = false;
        for (const auto& h : held) {
            if (std::fabs(std::stod(h.at("data-end")) - start) < 1e-3) {
                found = true;
                EXPECT_NEAR(start - std::stod(h.at("data-start")), 0.9, 0.35) << "three turns of 300 ms";
            }
        }
        EXPECT_TRUE(found) << "no held-back stretch ends where the interval at " << start << " s begins";
    }
    EXPECT_TRUE(Contains(html, "1 &times; 1000 &divide; 300 = 3"));
}

TEST_F(DetectReport, SnapshotFilesAreNamedByTimeWithAJsonLineEach) {
    const std::string dir = m_Dir.File("shots");
    const ChildResult r = Twhost({"detect", "--snapshots", dir, "--json"});
    ASSERT_TRUE(r.exited && r.exitCode == 0) << r.Describe() << r.err;
    const std::vector<Json::Value> snapshots =
        tw::test::LinesOfType(tw::test::ParseCheckedJsonLines("twhost detect", r.out), "snapshot");
    ASSERT_EQ(snapshots.size(), 4u) << r.out;
    std::vector<std::string> expected;
    for (const Json::Value& s : snapshots) {
        char name[96];
        snprintf(name, sizeof(name), "snapshot-%09.3f-%s.jpg", s["t"].asDouble(), s["kind"].asCString());
        expected.push_back(name);
        EXPECT_EQ(s["file"].asString(), dir + "/" + name);
        int w = 0, h = 0;
        const std::string bytes = ReadAll(s["file"].asString());
        ASSERT_TRUE(JpegSize(std::vector<unsigned char>(bytes.begin(), bytes.end()), w, h)) << name;
        EXPECT_EQ(w, s["width"].asInt());
        EXPECT_EQ(h, s["height"].asInt());
    }
    std::sort(expected.begin(), expected.end());
    EXPECT_EQ(Files(dir), expected);
    EXPECT_EQ(expected.front().rfind("snapshot-00004.", 0), 0u) << "the first interval begins at about 4 s";

    // A directory holding snapshots is not written into again without -y.
    const ChildResult again = Twhost({"detect", "--snapshots", dir});
    ASSERT_TRUE(again.exited) << again.Describe();
    EXPECT_EQ(again.exitCode, 1);
    EXPECT_TRUE(Contains(again.err, "'" + dir + "' holds snapshots already; add -y")) << again.err;
    const ChildResult replaced = Twhost({"detect", "--snapshots", dir, "-y"});
    ASSERT_TRUE(replaced.exited && replaced.exitCode == 0) << replaced.Describe() << replaced.err;
    EXPECT_EQ(Files(dir), expected);
    EXPECT_TRUE(Contains(replaced.out, "snapshot    start of interval 1")) << replaced.out;
}

TEST_F(DetectReport, ExistingPageIsReplacedOnlyWithOverwrite) {
    const std::string page = m_Dir.File("old.html");
    std::ofstream(page) << "keep me";
    const ChildResult r = Twhost({"detect", "--report", page});
    ASSERT_TRUE(r.exited) << r.Describe();
    EXPECT_EQ(r.exitCode, 1);
    EXPECT_TRUE(Contains(r.err, "'" + page + "' exists; add -y (--overwrite)")) << r.err;
    EXPECT_EQ(ReadAll(page), "keep me");
    const ChildResult y = Twhost({"detect", "--report", page, "-y"});
    ASSERT_TRUE(y.exited && y.exitCode == 0) << y.Describe() << y.err;
    EXPECT_TRUE(Contains(ReadAll(page), "<h1>Motion report</h1>"));

    // A folder that is not there is said before the run, naming it.
    const std::string nowhere = m_Dir.File("missing/r.html");
    const ChildResult missing = Twhost({"detect", "--report", nowhere, "--json"});
    ASSERT_TRUE(missing.exited) << missing.Describe();
    EXPECT_EQ(missing.exitCode, 1);
    EXPECT_EQ(missing.out, "");
    EXPECT_TRUE(Contains(missing.err, "cannot write the report into '" + m_Dir.File("missing") + "'")) << missing.err;
}

TEST_F(DetectReport, LoopingRunSaysSoAndCountsOnlyTheFramesSentByItsEnd) {
    // 0.4 s at 25 fps played for 1 s: rounds start at 0.4 and 0.8 s, the next would at 1.2.
    const std::string input = m_Dir.File("short.mp4");
    std::string error;
    ASSERT_TRUE(tw::host::WriteClip(tw::test::SmallClip(VIDEO_CODEC_H264, 0.4, {}), input, error)) << error;
    const std::string page = m_Dir.File("loop.html");
    const ChildResult r = Twhost({"detect", input, "--realtime", "--loop", "--duration", "1", "--report", page});
    ASSERT_TRUE(r.exited && r.exitCode == 0) << r.Describe() << r.err;
    const std::string html = ReadAll(page);
    EXPECT_TRUE(Contains(html, "<td>real time, the file looping (started again 2 times)</td>")) << html.substr(0, 3000);
    // The frames at 0 to 0.96 s, and the one at 1.0 s unless the pump started after the
    // run's epoch (it does, by microseconds); not the second the pump read ahead.
    EXPECT_TRUE(Contains(html, "Frames read</th><td>25</td>") || Contains(html, "Frames read</th><td>26</td>"))
        << html.substr(0, 3000);
}

TEST_F(DetectReport, LongInputKeepsEveryIntervalThinsTheLineAndCapsTheSnapshots) {
    // 500 s at 5 frames a second, every frame a key frame: a new frame for each 300 ms turn,
    // about 1670 turns, and a movement every 16 s.
    tw::host::ClipSpec clip;
    clip.width = 320;
    clip.height = 180;
    clip.fps = 5;
    clip.gop = 1;
    clip.durationSec = 500;
    clip.motion.clear();
    for (double t = 10; t + 3 < clip.durationSec; t += 16) clip.motion.emplace_back(t, t + 3);
    const std::string path = m_Dir.File("long.mp4");
    std::string error;
    ASSERT_TRUE(tw::host::WriteClip(clip, path, error)) << error;

    const std::string page = m_Dir.File("long.html");
    const ChildResult r = Twhost({"detect", path, "--report", page, "--snapshot-intervals", "5", "--json"});
    ASSERT_TRUE(r.exited && r.exitCode == 0) << r.Describe() << r.err;
    const std::vector<Json::Value> lines = tw::test::ParseCheckedJsonLines("twhost detect", r.out);
    const Json::Value summary = tw::test::LinesOfType(lines, "summary").at(0);
    const std::string html = ReadAll(page);
    const auto svg = Tags(html, "<svg id=\"timeline\"").at(0);
    const size_t turns = std::stoul(svg.at("data-turns"));
    EXPECT_EQ(turns, tw::test::LinesOfType(lines, "status").size());
    EXPECT_GT(turns, 1500u);
    EXPECT_LE(std::stoul(svg.at("data-points")), 1400u);
    EXPECT_TRUE(Contains(html, "thinned to"));
    // Every interval is in the table and shaded, however many there are.
    const size_t intervals = summary["intervals"].size();
    EXPECT_GE(intervals, clip.motion.size());
    EXPECT_EQ(Tags(html, "<tr class=\"interval\"").size(), intervals);
    EXPECT_EQ(Tags(html, "<rect class=\"motion\"").size(), intervals);
    // Snapshots of the first five intervals only, and the page says so.
    EXPECT_EQ(Tags(html, "<figure class=\"snapshot\"").size(), 10u);
    EXPECT_EQ(tw::test::LinesOfType(lines, "snapshot").size(), 10u);
    EXPECT_EQ(Tags(html, "<p class=\"note\" id=\"snapshot-limit\"").at(0).at("data-max-intervals"), "5");
    EXPECT_TRUE(Contains(html, std::to_string(intervals - 5) + " later intervals have none"));
    EXPECT_LT(html.size(), 400u * 1024) << "the page of a long input stays small";
}

// ---------------------------------------------------------------------------------------
// twhost region

std::string ExpectedCells(int c0, int r0, int c1, int r1) {
    std::string cells(1200, '0');
    for (int r = r0; r <= r1; ++r)
        for (int c = c0; c <= c1; ++c) cells[static_cast<size_t>(r * 40 + c)] = '1';
    return cells;
}

class RegionCommand : public ::testing::Test {
protected:
    void SetUp() override {
        ASSERT_TRUE(m_Dir.Ok());
        tw::host::ClipSpec clip;
        clip.width = 320;
        clip.height = 240;
        clip.durationSec = 2;
        clip.motion = {{0.5, 1.5}};
        std::string error;
        m_Clip = m_Dir.File("clip.mp4");
        ASSERT_TRUE(tw::host::WriteClip(clip, m_Clip, error)) << error;
    }
    tw::test::ScopedTempDir m_Dir;
    std::string m_Clip;
};

// Mean of green minus red over a block of the picture.
double GreenOverRed(const tw::test::RgbImage& image, int x0, int y0, int x1, int y1) {
    double sum = 0;
    for (int y = y0; y < y1; ++y)
        for (int x = x0; x < x1; ++x) {
            const unsigned char* p = &image.rgb[(static_cast<size_t>(y) * image.width + x) * 3];
            sum += static_cast<double>(p[1]) - p[0];
        }
    return sum / ((x1 - x0) * (y1 - y0));
}

TEST_F(RegionCommand, PrintsTheStoredStringAndDrawsTheRegionOnAFrame) {
    const std::string png = m_Dir.File("region.png");
    const ChildResult r = Twhost({"region", "--source", m_Clip, "--region", "0,0-19,14", "--out", png});
    ASSERT_TRUE(r.exited && r.exitCode == 0) << r.Describe() << r.err;
    const std::vector<std::string> lines = SplitLines(r.out);
    ASSERT_EQ(lines.size(), 2u) << r.out;
    EXPECT_EQ(lines[0], ExpectedCells(0, 0, 19, 14));
    EXPECT_TRUE(Contains(lines[1], "300 of 1200 cells watched")) << lines[1];

    tw::test::RgbImage image;
    std::string error;
    ASSERT_TRUE(tw::test::DecodePng(ReadAll(png), image, error)) << error;
    EXPECT_EQ(image.width, 320);
    EXPECT_EQ(image.height, 240);
    // The watched quarter (top left) is tinted green; the bottom right quarter is not.
    const double watched = GreenOverRed(image, 10, 10, 150, 110);
    const double other = GreenOverRed(image, 170, 130, 310, 230);
    EXPECT_GT(watched - other, 15.0) << "watched " << watched << ", other " << other;

    // JPEG as well, and the existing PNG only with -y.
    const ChildResult jpg = Twhost({"region", "--source", m_Clip, "--region", "0,0-19,14", "--out", m_Dir.File("r.jpg")});
    ASSERT_TRUE(jpg.exited && jpg.exitCode == 0) << jpg.Describe() << jpg.err;
    const std::string bytes = ReadAll(m_Dir.File("r.jpg"));
    int w = 0, h = 0;
    ASSERT_TRUE(JpegSize(std::vector<unsigned char>(bytes.begin(), bytes.end()), w, h));
    EXPECT_EQ(w, 320);
    const ChildResult again = Twhost({"region", "--source", m_Clip, "--region", "all", "--out", png});
    ASSERT_TRUE(again.exited) << again.Describe();
    EXPECT_EQ(again.exitCode, 1);
    EXPECT_TRUE(Contains(again.err, "exists; add -y")) << again.err;
}

TEST_F(RegionCommand, BadRegionIsBadUsageNamingIt) {
    for (const std::string& bad : {std::string("0,0-40,3"), std::string("left half"), std::string(1199, '1')}) {
        const ChildResult r = Twhost({"region", "--source", m_Clip, "--region", bad, "--out", m_Dir.File("x.png")});
        ASSERT_TRUE(r.exited) << r.Describe();
        EXPECT_EQ(r.exitCode, 2) << bad;
        EXPECT_EQ(r.out, "");
        EXPECT_EQ(r.err.rfind("twhost region: bad --region '" + bad + "': ", 0), 0u) << r.err;
        struct stat st {};
        EXPECT_NE(stat(m_Dir.File("x.png").c_str(), &st), 0) << "nothing is written for a bad region";
    }
    const ChildResult ext = Twhost({"region", "--region", "all", "--out", m_Dir.File("x.gif")});
    ASSERT_TRUE(ext.exited) << ext.Describe();
    EXPECT_EQ(ext.exitCode, 2);
    EXPECT_TRUE(Contains(ext.err, "must end in .png, .jpg or .jpeg")) << ext.err;
}

TEST_F(RegionCommand, JsonSummaryCarriesTheStringAndThePicture) {
    const ChildResult r = Twhost({"region", "--region", "30,20-39,29;0,0", "--json"});
    ASSERT_TRUE(r.exited && r.exitCode == 0) << r.Describe() << r.err;
    const std::vector<Json::Value> lines = tw::test::ParseCheckedJsonLines("twhost region", r.out);
    ASSERT_EQ(lines.size(), 1u);
    std::string cells = ExpectedCells(30, 20, 39, 29);
    cells[0] = '1';
    EXPECT_EQ(lines[0]["region"].asString(), cells);
    EXPECT_EQ(lines[0]["watchedCells"].asInt(), 101);

    // Without a source, the built-in sample's picture.
    const std::string out = m_Dir.File("sample.jpg");
    const ChildResult s = Twhost({"region", "--region", "all", "--out", out, "--json"});
    ASSERT_TRUE(s.exited && s.exitCode == 0) << s.Describe() << s.err;
    const std::vector<Json::Value> sl = tw::test::ParseCheckedJsonLines("twhost region", s.out);
    ASSERT_EQ(sl.size(), 1u);
    EXPECT_EQ(sl[0]["output"].asString(), out);
    EXPECT_EQ(sl[0]["width"].asInt(), 640);
    EXPECT_EQ(sl[0]["height"].asInt(), 360);
}

}  // namespace

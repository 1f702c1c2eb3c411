// The report of "twhost detect --report" in a real browser: headless Chromium loads the
// page from its file, takes a screenshot, and the page must have loaded without a console
// message (a blocked load, a policy violation, a script error would each be one) and look
// like something: pictures and a plot, not a blank or a text-only page.
#include <gtest/gtest.h>
#include <unistd.h>

#include <fstream>
#include <set>
#include <sstream>
#include <string>
#include <vector>

#include "support/childprocess.h"
#include "support/pngdecode.h"

namespace {

using tw::test::ChildResult;

const char* const kChromium = "/usr/bin/chromium";

std::string ReadAll(const std::string& path) {
    std::ifstream in(path, std::ios::binary);
    std::stringstream s;
    s << in.rdbuf();
    return s.str();
}

TEST(DetectReportBrowser, ChromiumRendersTheSampleReportWithoutErrors) {
    ASSERT_EQ(access(kChromium, X_OK), 0) << kChromium << " is missing: scripts/setup.sh installs Debian's chromium";
    tw::test::ScopedTempDir dir;
    ASSERT_TRUE(dir.Ok());
    const std::string page = dir.File("report.html");
    const ChildResult detect = tw::test::RunChild({TW_TWHOST_BIN, "detect", "--report", page}, 300);
    ASSERT_TRUE(detect.exited && detect.exitCode == 0) << detect.Describe() << detect.err;

    const std::string shot = dir.File("shot.png");
    const ChildResult browser = tw::test::RunChild(
        {kChromium, "--headless", "--no-sandbox", "--disable-gpu", "--hide-scrollbars", "--no-first-run",
         "--user-data-dir=" + dir.File("profile"), "--enable-logging=stderr", "--v=0", "--window-size=1280,2400",
         "--screenshot=" + shot, "file://" + page},
        240);
    ASSERT_TRUE(browser.exited) << browser.Describe() << browser.err;
    EXPECT_EQ(browser.exitCode, 0) << browser.err;
    // Chromium writes every console message of the page to its log as ":CONSOLE"; a
    // self-contained page without scripts has none.
    for (const std::string& line : tw::test::SplitLines(browser.err)) {
        EXPECT_EQ(line.find(":CONSOLE"), std::string::npos) << line;
    }

    tw::test::RgbImage image;
    std::string error;
    ASSERT_TRUE(tw::test::DecodePng(ReadAll(shot), image, error)) << error;
    EXPECT_EQ(image.width, 1280);
    EXPECT_EQ(image.height, 2400);
    size_t nonWhite = 0;
    std::set<unsigned> colours;
    for (size_t i = 0; i + 2 < image.rgb.size(); i += 3) {
        const unsigned r = image.rgb[i], g = image.rgb[i + 1], b = image.rgb[i + 2];
        if (r < 235 || g < 235 || b < 235) ++nonWhite;
        colours.insert((r << 16) | (g << 8) | b);
    }
    const double inked = static_cast<double>(nonWhite) / (static_cast<double>(image.width) * image.height);
    // Text and lines alone ink a few per cent with a few hundred colours of anti-aliasing;
    // the camera's picture and the snapshots ink a good part with thousands.
    EXPECT_GT(inked, 0.10) << "the screenshot is nearly blank";
    EXPECT_GT(colours.size(), 3000u) << "no pictures rendered";
}

}  // namespace

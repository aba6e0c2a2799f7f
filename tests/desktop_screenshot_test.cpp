// orvik-identity-desktop --screenshot, run as a person would run it on a store made
// by `orvik-identity demo`: each screen comes out as a PNG of the promised size that
// shows something.
#include <cstdlib>
#include <filesystem>
#include <regex>
#include <set>
#include <string>

#include <gtest/gtest.h>
#include <QImage>

#include "tests/support/CliRunner.h"
#include "tests/support/TestSupport.h"

namespace {

using orvik::test::ChildRun;
using orvik::test::Lines;

// What a person running the program sees: its output and its errors.
std::string shown(const ChildRun& run) {
    return run.text() + run.errors;
}

class DesktopScreenshot : public ::testing::Test {
  protected:
    static void SetUpTestSuite() {
        // Under LeakSanitizer, the desktop program reports Qt's own caches at exit.
        setenv("LSAN_OPTIONS", "suppressions=" ORVIK_QT_LSAN_SUPPRESSIONS ":print_suppressions=0",
               0);
        dir_ = new orvik::test::TempDir();
        store_ = dir_->path() / "demo.db";
        const ChildRun demo = orvik::test::runCli({"demo", "--db", store_.string()});
        ASSERT_EQ(demo.exitCode, 0) << shown(demo);
        const std::string output = shown(demo);
        std::smatch match;
        const std::regex uuid("[0-9a-f]{8}-[0-9a-f]{4}-[0-9a-f]{4}-[0-9a-f]{4}-[0-9a-f]{12}");
        ASSERT_TRUE(std::regex_search(output, match, uuid)) << output;
        person_ = match.str();
    }
    static void TearDownTestSuite() { delete dir_; }

    // Renders a screen and returns the image; fails the test when the program does.
    static QImage shoot(const std::string& screen, const Lines& extra = {}) {
        const auto file = dir_->path() / (screen + ".png");
        Lines arguments{"--db", store_.string(), "--screenshot", file.string(), "--screen", screen};
        arguments.insert(arguments.end(), extra.begin(), extra.end());
        const ChildRun shot = orvik::test::runChild(ORVIK_DESKTOP_BIN, arguments);
        EXPECT_EQ(shot.exitCode, 0) << shown(shot);
        return QImage(QString::fromStdString(file.string()));
    }

    // A rendered screen has text and controls: many distinct colours, not one fill.
    static std::size_t distinctColours(const QImage& image) {
        std::set<QRgb> colours;
        for (int y = 0; y < image.height(); y += 2) {
            for (int x = 0; x < image.width(); x += 2) {
                colours.insert(image.pixel(x, y));
            }
        }
        return colours.size();
    }

    static inline orvik::test::TempDir* dir_ = nullptr;
    static inline std::filesystem::path store_;
    static inline std::string person_;
};

TEST_F(DesktopScreenshot, EveryScreenRendersAtItsSize) {
    const QImage candidates = shoot("candidates");
    EXPECT_EQ(candidates.size(), QSize(720, 560));
    EXPECT_GT(distinctColours(candidates), 20u);

    const QImage manual = shoot("manual-link", {"--person", person_});
    EXPECT_EQ(manual.size(), QSize(720, 760));
    EXPECT_GT(distinctColours(manual), 20u);

    const QImage history = shoot("history", {"--person", person_});
    EXPECT_EQ(history.size(), QSize(560, 420));
    EXPECT_GT(distinctColours(history), 20u);
}

TEST_F(DesktopScreenshot, BadArgumentsFailWithAReason) {
    const auto shot = (dir_->path() / "x.png").string();
    const ChildRun missing =
        orvik::test::runChild(ORVIK_DESKTOP_BIN, {"--db", (dir_->path() / "absent.db").string(),
                                                  "--screenshot", shot, "--screen", "candidates"});
    EXPECT_NE(missing.exitCode, 0);
    EXPECT_NE(shown(missing).find("no database at"), std::string::npos) << shown(missing);

    const ChildRun noPerson = orvik::test::runChild(
        ORVIK_DESKTOP_BIN, {"--db", store_.string(), "--screenshot", shot, "--screen", "history"});
    EXPECT_NE(noPerson.exitCode, 0);
    EXPECT_NE(shown(noPerson).find("--person"), std::string::npos) << shown(noPerson);
}

}  // namespace

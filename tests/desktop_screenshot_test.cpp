// orvik-identity-desktop --screenshot, run as a person would run it on a store made
// by `orvik-identity demo`: each screen comes out as a PNG of the promised size that
// shows something.
#include <array>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <regex>
#include <set>
#include <string>

#include <gtest/gtest.h>
#include <QImage>

#include "tests/support/TestSupport.h"

namespace {

struct CommandRun {
    int status = -1;
    std::string output;
};

CommandRun run(const std::string& command) {
    CommandRun result;
    FILE* pipe = popen((command + " 2>&1").c_str(), "r");
    if (pipe == nullptr) {
        return result;
    }
    std::array<char, 4096> buffer{};
    while (fgets(buffer.data(), buffer.size(), pipe) != nullptr) {
        result.output += buffer.data();
    }
    result.status = pclose(pipe);
    return result;
}

std::string quoted(const std::filesystem::path& path) {
    return "'" + path.string() + "'";
}

class DesktopScreenshot : public ::testing::Test {
  protected:
    static void SetUpTestSuite() {
        // Under LeakSanitizer, the desktop program reports Qt's own caches at exit.
        setenv("LSAN_OPTIONS",
               "suppressions=" ORVIK_QT_LSAN_SUPPRESSIONS ":print_suppressions=0", 0);
        dir_ = new orvik::test::TempDir();
        store_ = dir_->path() / "demo.db";
        const CommandRun demo = run(std::string(ORVIK_IDENTITY_BIN) + " demo --db " + quoted(store_));
        ASSERT_EQ(demo.status, 0) << demo.output;
        std::smatch match;
        const std::regex uuid("[0-9a-f]{8}-[0-9a-f]{4}-[0-9a-f]{4}-[0-9a-f]{4}-[0-9a-f]{12}");
        ASSERT_TRUE(std::regex_search(demo.output, match, uuid)) << demo.output;
        person_ = match.str();
    }
    static void TearDownTestSuite() { delete dir_; }

    // Renders a screen and returns the image; fails the test when the program does.
    static QImage shoot(const std::string& screen, const std::string& extra = "") {
        const auto file = dir_->path() / (screen + ".png");
        const CommandRun shot = run(std::string(ORVIK_DESKTOP_BIN) + " --db " + quoted(store_) +
                             " --screenshot " + quoted(file) + " --screen " + screen + extra);
        EXPECT_EQ(shot.status, 0) << shot.output;
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

    const QImage manual = shoot("manual-link", " --person " + person_);
    EXPECT_EQ(manual.size(), QSize(720, 760));
    EXPECT_GT(distinctColours(manual), 20u);

    const QImage history = shoot("history", " --person " + person_);
    EXPECT_EQ(history.size(), QSize(560, 420));
    EXPECT_GT(distinctColours(history), 20u);
}

TEST_F(DesktopScreenshot, BadArgumentsFailWithAReason) {
    const CommandRun missing =
        run(std::string(ORVIK_DESKTOP_BIN) + " --db " + quoted(dir_->path() / "absent.db") +
            " --screenshot x.png --screen candidates");
    EXPECT_NE(missing.status, 0);
    EXPECT_NE(missing.output.find("no database at"), std::string::npos) << missing.output;

    const CommandRun noPerson = run(std::string(ORVIK_DESKTOP_BIN) + " --db " + quoted(store_) +
                             " --screenshot x.png --screen history");
    EXPECT_NE(noPerson.status, 0);
    EXPECT_NE(noPerson.output.find("--person"), std::string::npos) << noPerson.output;
}

}  // namespace

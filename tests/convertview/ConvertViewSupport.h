// What the Media Conversion dialog's tests share: a temporary recorder volume with the module's
// settings pointed into it, scripted answers, generated sources, and readers of what a
// conversion left behind that go through tools we did not write (zubclip, sox).
#pragma once

#include <gtest/gtest.h>

#include <QApplication>
#include <QTest>

#include <cstdlib>
#include <filesystem>
#include <regex>
#include <set>
#include <string>

#include "tests/controls/GuiApp.h"
#include "TempDir.h"
#include "TestMedia.h"
#include "Tool.h"
#include "convert/ConvertSession.h"
#include "convert/view/ConvertView.h"
#include "device/RecorderBackends.h"
#include "device/RecorderDevice.h"
#include "imgseq/ImageFitting.h"
#include "zubimport/ConvertDlg.h"
#include "zubimport/ImportSettings.h"
#include "zubimport/Prompt.h"

namespace zub::test {

namespace gen = zub::testmedia;

inline std::string Sh(const std::string& s)
{
    std::string q = "'";
    for (char c : s) q += c == '\'' ? std::string("'\\''") : std::string(1, c);
    return q + "'";
}

// The clip as zubclip reads it: whole frames on the video track and the rate record.
struct ClipInfo {
    int frames = -1;
    int sectors = -1;  // -1: no rate record
    std::string text;
};

inline ClipInfo ReadClip(const std::string& clip)
{
    ClipInfo info;
    info.text = Capture(std::string(ZUB_TEST_BIN_DIR "zubclip") + " info " + Sh(clip) + " 2>&1");
    std::smatch m;
    if (std::regex_search(info.text, m, std::regex("frames readable: video (\\d+)"))) info.frames = std::stoi(m[1]);
    if (std::regex_search(info.text, m, std::regex("sectors per frame (\\d+)"))) info.sectors = std::stoi(m[1]);
    return info;
}

// rate, channels, bits and samples of a WAVE file as sox reads it.
inline std::string SoxInfo(const std::string& wav)
{
    return CaptureLine("sox --i -r " + Sh(wav)) + "/" + CaptureLine("sox --i -c " + Sh(wav)) + "/" +
           CaptureLine("sox --i -b " + Sh(wav)) + "/" + CaptureLine("sox --i -s " + Sh(wav));
}

// File names (relative) under a folder, sub-folders included.
inline std::set<std::string> Listing(const std::filesystem::path& dir)
{
    std::set<std::string> names;
    if (!std::filesystem::exists(dir)) return names;
    for (const auto& e : std::filesystem::recursive_directory_iterator(dir))
        if (e.is_regular_file()) names.insert(std::filesystem::relative(e.path(), dir).string());
    return names;
}

// A click on a check box's square: the box may be wider than what answers to the mouse.
inline void Tick(QWidget* box)
{
    QTest::mouseClick(box, Qt::LeftButton, {}, QPoint(6, box->height() / 2));
}

// The dialog CConvertDlg::Modal shows, while it is up.
inline CConvertView* ShownView()
{
    for (QWidget* w : QApplication::topLevelWidgets())
        if (auto* v = dynamic_cast<CConvertView*>(w); v && v->isVisible()) return v;
    return nullptr;
}

class ConvertViewTest : public ::testing::Test {
protected:
    void SetUp() override
    {
        GuiApp();
        setenv(kRecorderDirVariable, ZUB_TEST_RECORDER_DIR, 1);
        setenv("ZUBIMPORT_IMAGING_LIBRARY", ZUB_TEST_IMAGING, 1);
        setenv("ZUBREC_CONFIG", (vol / "none.ini").c_str(), 1);
        setenv("ZUBREC_VOLUME", (vol.Path().string() + "/").c_str(), 1);
        setenv("ZUBREC_LINES", "525", 1);
        setenv("ZUBREC_MONITOR", "off", 1);
        unsetenv("ZUBREC_LIMIT");
        unsetenv("ZUBREC_WRITE_DELAY");
        saved = CurrentSettings();
        ImportSettings& s = CurrentSettings();
        s = ImportSettings{};
        s.fitWord = MakeFitWord(kFitAll, kAreaNormal, kResizeBiLinear);
        s.videoDataRate = 3000000;
        s.showImagesOnOutput = 0;
        Folders("run");
        Reopen();
    }
    // The recorder reads its configuration and environment when it is opened.
    void Reopen()
    {
        TheRecorder().CloseDevice();
        ASSERT_EQ(TheRecorder().OpenDeviceWithInfo(1, 0, 0), 1) << CRecorderDevice::GetError();
    }
    void TearDown() override
    {
        unsetenv("ZUBREC_WRITE_DELAY");
        TheRecorder().CloseDevice();
        CurrentSettings() = saved;
    }
    // Points the importing folders at vol/<name>/video/ and vol/<name>/audio/.
    std::filesystem::path Folders(const std::string& name)
    {
        const std::filesystem::path root = vol.Path() / name;
        std::filesystem::create_directories(root / "video");
        std::filesystem::create_directories(root / "audio");
        CurrentSettings().videoDir = (root / "video").string() + "/";
        CurrentSettings().audioDir = (root / "audio").string() + "/";
        return root;
    }
    std::string Make(const std::string& name, const gen::MediaSpec& spec)
    {
        std::string error;
        const std::string path = media / name;
        EXPECT_TRUE(gen::MakeMedia(path, spec, &error)) << error;
        return path;
    }
    std::string Movie(const std::string& name, int frames = 30)
    {
        gen::MediaSpec spec;
        EXPECT_TRUE(gen::Preset("mp4_h264_aac", &spec));
        spec.frames = frames;
        return Make(name, spec);
    }

    TempDir vol, media;
    ImportSettings saved;
    std::shared_ptr<ScriptedPrompt> prompt = std::make_shared<ScriptedPrompt>();
    ScopedPrompter scope{prompt};
};

}  // namespace zub::test

// StartImgSeqDlg and its headless form: the record opens the recorder and is applied by its
// rules, the host hears of the clip, and the settings come back in the record.
#include <gtest/gtest.h>

#include "tests/imgseq/RunTestSupport.h"
#include "imgseq/ImageFitting.h"
#include "imgseq/StartImgSeq.h"
#include "zubimport/Import.h"
#include "zubimport/ModuleState.h"

using namespace zub;
using namespace zub::test;

namespace {

struct Heard {
    int calls = 0;
    int code = -1;
    std::string path;
};

void Listen(int code, void* context, const char* clipPath)
{
    auto* h = static_cast<Heard*>(context);
    ++h->calls;
    h->code = code;
    h->path = clipPath;
}

}  // namespace

TEST(ImgSeqEntry, RecordRulesAndTheClipPathForTheHost)
{
    Volume vol;
    ASSERT_TRUE(vol.Opened());
    TheRecorder().CloseDevice();  // the entry opens it from the record
    const auto files = MakeStills(vol.ImageDir(), "entry", "tga", 3);
    ImportSettings& s = CurrentSettings();
    s.fitWord = MakeFitWord(kFitAll, kAreaNormal, kResizeBiCubic);
    s.imageFolder = "/kept/images/";
    s.swapFields = 0;

    CImgSeqPrefsInfo prefs;
    prefs.nSetting4 = -1;      // leaves the fit
    prefs.strSetting5 = "";    // leaves the image folder
    prefs.strSetting1 = vol.ClipDir();
    prefs.nSetting5 = 1;       // uncompressed
    prefs.nSetting8 = 1;       // fixed field size: 24 frames a second
    prefs.nSetting7 = 0;
    Heard heard;
    ImgSeqEntryOptions options;
    options.files = files;
    options.notify = &Listen;
    options.notifyContext = &heard;
    ImgSeqRunResult run;
    EXPECT_EQ(StartImgSeq(&prefs, options, &run), 1) << run.message;
    EXPECT_EQ(run.clipPath, vol.ClipDir() + "entry.zub");
    EXPECT_EQ(heard.calls, 1);
    EXPECT_EQ(heard.code, 0);
    EXPECT_EQ(heard.path, run.clipPath);
    EXPECT_EQ(RateSectors(run.clipPath), 21845);
    // Settings back in the record; the recorder closed again.
    EXPECT_EQ(prefs.nSetting4, MakeFitWord(kFitAll, kAreaNormal, kResizeBiCubic));
    EXPECT_EQ(prefs.strSetting5, "/kept/images/");
    EXPECT_EQ(prefs.strSetting1, vol.ClipDir());
    EXPECT_EQ(prefs.nSetting5, 1);
    EXPECT_EQ(TheRecorder().handle, -1);

    // A fit word that is not negative is taken; an empty clip folder leaves the one set.
    prefs.nSetting4 = MakeFitWord(kFitStretchAll, kAreaSafeTitle, kResizeNearest);
    prefs.strSetting1 = "";
    options.clipName = "second";
    EXPECT_EQ(StartImgSeq(&prefs, options, &run), 1) << run.message;
    EXPECT_EQ(run.clipPath, vol.ClipDir() + "second.zub");
    EXPECT_EQ(CurrentSettings().fitWord, MakeFitWord(kFitStretchAll, kAreaSafeTitle, kResizeNearest));
    EXPECT_EQ(prefs.strSetting1, vol.ClipDir());
    EXPECT_EQ(heard.calls, 2);
}

TEST(ImgSeqEntry, NoClipNoCallAndAFailedRunGivesZero)
{
    Volume vol;
    ASSERT_TRUE(vol.Opened());
    TheRecorder().CloseDevice();
    auto files = MakeStills(vol.ImageDir(), "none", "tga", 2);
    std::filesystem::resize_file(files[0], 5);
    CImgSeqPrefsInfo prefs;
    prefs.strSetting1 = vol.ClipDir();
    Heard heard;
    ImgSeqEntryOptions options;
    options.files = files;
    options.batchProcess = true;
    options.notify = &Listen;
    options.notifyContext = &heard;
    EXPECT_EQ(StartImgSeq(&prefs, options), 0);
    EXPECT_EQ(heard.calls, 0);
    EXPECT_TRUE(vol.Clips().empty());
}

TEST(ImgSeqEntry, ADeviceThatDoesNotOpenIsToldAndGivesZero)
{
    Volume vol;
    ASSERT_TRUE(vol.Opened());
    TheRecorder().CloseDevice();
    auto prompt = std::make_shared<ScriptedPrompt>();
    ScopedPrompter scope(prompt);
    CImgSeqPrefsInfo prefs;
    prefs.existingHandle = 987654;  // no such device to take a reference on
    prefs.strSetting1 = "/unchanged/";
    EXPECT_EQ(StartImgSeqDlg(&prefs), 0);
    EXPECT_EQ(prompt->Texts(), std::vector<std::string>{TheModuleState().LoadString(IDS_DEVICE_OPEN_FAILED)});
    EXPECT_EQ(prefs.strSetting1, "/unchanged/");
    EXPECT_EQ(TheRecorder().handle, -1);
}

// Without a dialog layer and a widgets application there is no list to import: 0, said on
// standard error, the record still given its settings back.
TEST(ImgSeqEntry, WithoutWindowsTheDialogEntryReturnsZero)
{
    Volume vol;
    ASSERT_TRUE(vol.Opened());
    TheRecorder().CloseDevice();
    CurrentSettings().swapFields = 1;
    CImgSeqPrefsInfo prefs;
    prefs.nSetting4 = -1;
    testing::internal::CaptureStderr();
    EXPECT_EQ(StartImgSeqDlg(&prefs), 0);
    const std::string err = testing::internal::GetCapturedStderr();
    EXPECT_NE(err.find("StartImgSeqDlg"), std::string::npos) << err;
    EXPECT_EQ(prefs.nSetting4, CurrentSettings().fitWord);
    EXPECT_EQ(TheRecorder().handle, -1);
}

// The sequence dialog offscreen: rows, settings, the preview's reloads, the busy state and
// Escape during a run, and profiles saved and loaded again.
#include <gtest/gtest.h>

#include <QApplication>
#include <QCheckBox>
#include <QDragEnterEvent>
#include <QDropEvent>
#include <QMimeData>
#include <QUrl>
#include <QComboBox>
#include <QDoubleSpinBox>
#include <QLineEdit>
#include <QRadioButton>
#include <QProgressBar>
#include <QPushButton>
#include <QTest>
#include <QTimer>
#include <QTreeWidget>

#include <cstdlib>

#include "tests/imgseq/RunTestSupport.h"
#include "imgseq/ImageFitting.h"
#include "imgseq/ImgSeqRun.h"
#include "imgseq/Profile.h"
#include "imgseq/view/ImgSeqDlg.h"
#include "imgseq/view/SeqSettingsDlg.h"
#include "imgseq/StartImgSeq.h"
#include "zubimport/Import.h"

using namespace zub;
using namespace zub::test;

namespace {

QApplication& App()
{
    static QApplication* app = [] {
        if (!std::getenv("DISPLAY") && !std::getenv("WAYLAND_DISPLAY")) setenv("QT_QPA_PLATFORM", "offscreen", 1);
        static int argc = 1;
        static char name[] = "zubtest";
        static char* argv[] = {name, nullptr};
        return new QApplication(argc, argv);
    }();
    return *app;
}

}  // namespace

TEST(ImgSeqDialog, RowsFollowTheNumberedRunAndTheColumnFitsTheList)
{
    App();
    Volume vol;
    ASSERT_TRUE(vol.Opened());
    auto files = MakeStills(vol.ImageDir(), "row", "tga", 5);
    std::filesystem::remove(files[3]);  // a gap ends the run
    ImgSeqDlg dlg(nullptr, {files[0]}, true);
    EXPECT_EQ(dlg.Files(), (std::vector<std::string>{files[0], files[1], files[2]}));
    EXPECT_EQ(dlg.ClipName(), "row");
    dlg.AddPaths({files[4]}, false);
    EXPECT_EQ(dlg.Files().size(), 4u);
    auto* list = dlg.findChild<QTreeWidget*>("list");
    ASSERT_NE(list, nullptr);
    EXPECT_EQ(list->headerItem()->text(0), "FileName");
    EXPECT_EQ(list->currentItem()->text(0).toStdString(), files[4]);
    dlg.resize(600, 500);
    dlg.show();
    QCoreApplication::processEvents();
    EXPECT_EQ(list->columnWidth(0),
              list->viewport()->width() - dlg.style()->pixelMetric(QStyle::PM_ScrollBarExtent) - 8);
    dlg.UpdateReport();
    EXPECT_EQ(dlg.ReportText().toStdString(), "4 images, 1 gap (frame 0004)");
}

TEST(ImgSeqDialog, PreviewReloadsOnFitOrSwapButNotOnShiftAlone)
{
    App();
    Volume vol;
    ASSERT_TRUE(vol.Opened());
    const auto files = MakeStills(vol.ImageDir(), "pv", "jpg", 2);
    ImgSeqDlg dlg(nullptr, files, false);
    dlg.ShowPreview(true);
    const int first = dlg.PreviewLoads();
    EXPECT_GE(first, 1);
    ImportSettings s = CurrentSettings();
    s.shiftDown = !s.shiftDown;
    dlg.ApplySettings(s, "pv");
    EXPECT_EQ(dlg.PreviewLoads(), first);
    s.fitWord = MakeFitWord(kFitStretchAll, kAreaNormal, kResizeBiLinear);
    dlg.ApplySettings(s, "pv");
    EXPECT_EQ(dlg.PreviewLoads(), first + 1);
    s.swapFields = !s.swapFields;
    dlg.ApplySettings(s, "renamed");
    EXPECT_EQ(dlg.PreviewLoads(), first + 2);
    EXPECT_EQ(dlg.ClipName(), "renamed");
    EXPECT_EQ(CurrentSettings().fitWord, s.fitWord);
    dlg.ShowPreview(false);
}

TEST(ImgSeqDialog, ProfileSavedThenLoadedRestoresEveryKey)
{
    App();
    Volume vol;
    ASSERT_TRUE(vol.Opened());
    ImgSeqDlg dlg;
    ImportSettings s = CurrentSettings();
    s.fitWord = 0x1207;
    s.swapFields = 1;
    s.shiftDown = 1;
    s.videoAdaptive = 1;
    s.alphaAdaptive = 1;
    s.createAlpha = 1;
    s.alphaSameAsVideo = 0;
    s.alphaUncompressed = 1;
    s.alphaDataRate = 1234567;
    s.videoUncompressed = 1;
    s.videoDataRate = 7654321;
    s.fixedFieldSize = 1;
    s.videoDir = "/some/where/";
    s.fillGaps = 1;
    dlg.ApplySettings(s, "x");
    const std::string path = vol.Path("mine.ImpSeqProfile");
    ASSERT_TRUE(dlg.SaveProfileTo(path));
    ImportSettings cleared = s;
    ApplyProfile(ProfileRecord{}, cleared);
    dlg.ApplySettings(cleared, "x");
    ASSERT_NE(CurrentSettings(), s);
    ASSERT_TRUE(dlg.LoadProfileFrom(path));
    EXPECT_EQ(CurrentSettings(), s);
    EXPECT_EQ(ProfileFromSettings(CurrentSettings()), ProfileFromSettings(s));
    EXPECT_FALSE(dlg.LoadProfileFrom(vol.Path("missing.ImpSeqProfile")));
    EXPECT_EQ(CurrentSettings(), s);
}

// During the run every other control is disabled; Escape asks the abort question, and "No"
// keeps the frames made so far.
TEST(ImgSeqDialog, BusyStateAndEscapeDuringTheRun)
{
    App();
    Volume vol;
    ASSERT_TRUE(vol.Opened());
    CurrentSettings().videoUncompressed = 1;
    const auto files = MakeStills(vol.ImageDir(), "busy", "tga", 30);
    auto prompt = std::make_shared<ScriptedPrompt>(std::vector<Answer>{Answer::No});
    ScopedPrompter scope(prompt);
    ImgSeqDlg dlg(nullptr, files, false);
    dlg.show();
    auto* import = dlg.findChild<QPushButton*>("import");
    auto* cancel = dlg.findChild<QPushButton*>("cancel");
    auto* settings = dlg.findChild<QPushButton*>("settings");
    auto* progress = dlg.findChild<QProgressBar*>("progress");
    auto* show = dlg.findChild<QCheckBox*>("showOnOutput");
    bool sawBusy = false, escaped = false;
    QTimer probe;
    QObject::connect(&probe, &QTimer::timeout, [&] {
        if (!dlg.Running() || escaped) return;
        sawBusy = !import->isEnabled() && !settings->isEnabled() && cancel->isEnabled() && progress->isEnabled() &&
                  show->isEnabled();
        if (progress->value() >= 3) {
            QTest::keyClick(&dlg, Qt::Key_Escape);
            escaped = true;
        }
    });
    probe.start(0);
    dlg.StartImport();
    probe.stop();
    EXPECT_TRUE(sawBusy);
    EXPECT_TRUE(escaped);
    EXPECT_EQ(prompt->Texts(), std::vector<std::string>{kAbortQuestion});
    EXPECT_EQ(dlg.result(), QDialog::Accepted);
    ASSERT_FALSE(dlg.ClipPath().empty());
    const int kept = FramesReadable(dlg.ClipPath());
    EXPECT_GE(kept, 3);
    EXPECT_LT(kept, 30);
    EXPECT_TRUE(import->isEnabled());
    EXPECT_TRUE(settings->isEnabled());
}

TEST(ImgSeqDialog, ShowImagesOnOutputOnlyWithZub)
{
    App();
    for (int useZub : {1, 0}) {
        Volume vol(useZub);
        ASSERT_TRUE(vol.Opened());
        ImgSeqDlg dlg;
        dlg.show();
        EXPECT_EQ(dlg.findChild<QCheckBox*>("showOnOutput")->isVisible(), useZub == 1);
    }
}

TEST(ImgSeqDialog, SettingsDialogGivesBackWhatItsPagesHold)
{
    App();
    ImportSettings s;
    s.fitWord = MakeFitWord(kFitHeight, kAreaSafeImage, kResizeBiLinear);
    s.videoDataRate = 3 * 1024 * 1024 + 7;  // shown rounded, kept exact when left alone
    s.videoDir = "/clips/";
    SeqSettingsDlg same(s, "name");
    EXPECT_EQ(same.Settings(), s);
    EXPECT_EQ(same.ClipName(), "name");

    SeqSettingsDlg dlg(s, "name");
    dlg.findChild<QRadioButton*>("fitMode8")->click();
    dlg.findChild<QComboBox*>("area")->setCurrentIndex(kAreaNormal);
    dlg.findChild<QComboBox*>("resizeMethod")->setCurrentIndex(kResizeBiCubic);
    dlg.findChild<QCheckBox*>("swap")->setChecked(true);
    dlg.findChild<QCheckBox*>("fillGaps")->setChecked(true);
    dlg.findChild<QDoubleSpinBox*>("videoDataRate")->setValue(2.0);
    dlg.findChild<QLineEdit*>("videoDir")->setText("/other");
    dlg.findChild<QLineEdit*>("clipName")->setText("renamed");
    const ImportSettings got = dlg.Settings();
    EXPECT_EQ(got.fitWord, MakeFitWord(kFitAll, kAreaNormal, kResizeBiCubic));
    EXPECT_EQ(got.swapFields, 1);
    EXPECT_EQ(got.fillGaps, 1);
    EXPECT_EQ(got.videoDataRate, 2 * 1024 * 1024);
    EXPECT_EQ(got.videoDir, "/other/");
    EXPECT_EQ(dlg.ClipName(), "renamed");
    EXPECT_EQ(dlg.windowTitle(), "Import Sequence Settings");
}

namespace {
std::string g_heard;
void Heard(int, void*, const char* path)
{
    g_heard = path;
}
}  // namespace

// Under a widgets application the entry shows the dialog; a run from it reaches the host.
TEST(ImgSeqDialog, EntryShowsTheDialogAndTellsTheHostTheClip)
{
    App();
    Volume vol;
    ASSERT_TRUE(vol.Opened());
    TheRecorder().CloseDevice();
    const auto files = MakeStills(vol.ImageDir(), "gui", "tga", 3);
    SetImgSeqNotification(&Heard, nullptr);
    QTimer::singleShot(0, [&] {
        auto* dlg = dynamic_cast<ImgSeqDlg*>(QApplication::activeModalWidget());
        ASSERT_NE(dlg, nullptr);
        dlg->AddPaths({files[0]}, true);
        dlg->findChild<QPushButton*>("import")->click();
    });
    CImgSeqPrefsInfo prefs;
    prefs.strSetting1 = vol.ClipDir();
    EXPECT_EQ(StartImgSeqDlg(&prefs), 1);
    SetImgSeqNotification(nullptr, nullptr);
    EXPECT_EQ(g_heard, vol.ClipDir() + "gui.zub");
    EXPECT_EQ(FramesReadable(g_heard), 3);
    EXPECT_EQ(TheRecorder().handle, -1);
}

TEST(ImgSeqDialog, FilesDroppedOnTheDialogBecomeRows)
{
    App();
    Volume vol;
    ASSERT_TRUE(vol.Opened());
    const auto files = MakeStills(vol.ImageDir(), "drop", "jpg", 2);
    ImgSeqDlg dlg;
    dlg.show();
    QMimeData mime;
    mime.setUrls({QUrl::fromLocalFile(QString::fromStdString(files[1])),
                  QUrl::fromLocalFile(QString::fromStdString(files[0]))});
    QDragEnterEvent enter(QPoint(5, 5), Qt::CopyAction, &mime, Qt::LeftButton, Qt::NoModifier);
    QCoreApplication::sendEvent(&dlg, &enter);
    EXPECT_TRUE(enter.isAccepted());
    QDropEvent drop(QPointF(5, 5), Qt::CopyAction, &mime, Qt::LeftButton, Qt::NoModifier);
    QCoreApplication::sendEvent(&dlg, &drop);
    EXPECT_EQ(dlg.Files(), (std::vector<std::string>{files[1], files[0]}));
    EXPECT_EQ(dlg.ClipName(), "drop");
}

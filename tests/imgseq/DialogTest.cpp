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
#include <QTabWidget>
#include <QLineEdit>
#include <QRadioButton>
#include <QProgressBar>
#include <QPushButton>
#include <QTest>
#include <QTimer>
#include <QTreeWidget>

#include <algorithm>
#include <cstdlib>

#include "tests/controls/GuiApp.h"
#include "tests/imgseq/RunTestSupport.h"
#include "imgseq/ImageFitting.h"
#include "imgseq/ImgSeqRun.h"
#include "imgseq/Profile.h"
#include "imgseq/view/ImgSeqDlg.h"
#include "imgseq/view/SeqSettingsDlg.h"
#include "controls/NumericEdit.h"
#include "settings/SettingsPages.h"
#include "settings/view/SettingsViews.h"
#include "zubimport/Prompt.h"
#include "imgseq/StartImgSeq.h"
#include "zubimport/Import.h"

using namespace zub;
using namespace zub::test;

TEST(ImgSeqDialog, RowsFollowTheNumberedRunAndTheColumnFitsTheList)
{
    GuiApp();
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
    GuiApp();
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
    GuiApp();
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
    GuiApp();
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
    GuiApp();
    for (int useZub : {1, 0}) {
        Volume vol(useZub);
        ASSERT_TRUE(vol.Opened());
        ImgSeqDlg dlg;
        dlg.show();
        EXPECT_EQ(dlg.findChild<QCheckBox*>("showOnOutput")->isVisible(), useZub == 1);
    }
}

namespace {

void Retype(QLineEdit* e, const QString& text)
{
    e->setFocus();
    e->selectAll();
    QTest::keyClick(e, Qt::Key_Delete);
    QTest::keyClicks(e, text);
}

}  // namespace

// The sequence's own page comes first, then the shared Video and Alpha pages (their controls,
// ids and rules); what every page holds reaches the settings on OK.
TEST(ImgSeqDialog, SettingsDialogIsTheSequencePageThenTheSharedPages)
{
    GuiApp();
    Volume vol;
    ASSERT_TRUE(vol.Opened());
    ScopedPrompter quiet(std::make_shared<ScriptedPrompt>());
    ImportSettings s = CurrentSettings();
    s.fitWord = MakeFitWord(kFitHeight, kAreaSafeImage, kResizeBiLinear);
    s.videoUncompressed = 0;
    s.videoDataRate = 3 * 1024 * 1024;
    s.createAlpha = 1;
    s.alphaSameAsVideo = 0;
    s.alphaUncompressed = 0;
    s.alphaDataRate = 4 * 1024 * 1024;
    std::string name = "name";
    auto dlg = MakeImpSeqSettingsDialog(nullptr, s, name);
    dlg->show();
    EXPECT_EQ(dlg->windowTitle(), "Import Sequence Settings");
    ASSERT_EQ(dlg->PageCount(), 3);
    EXPECT_EQ(dlg->Tabs()->tabText(0), "Import Sequence");
    EXPECT_EQ(dlg->Tabs()->tabText(1), "Video");
    EXPECT_EQ(dlg->Tabs()->tabText(2), "Alpha");
    QWidget* seq = dlg->Page(0);
    QWidget* video = dlg->Page(1);
    QWidget* alpha = dlg->Page(2);
    EXPECT_NE(dynamic_cast<settings::CVidRecSettingsDlg*>(video), nullptr);
    EXPECT_NE(dynamic_cast<settings::CVidRecSettingsDlg*>(alpha), nullptr);

    // The page shows the settings it was given.
    EXPECT_TRUE(Find<QRadioButton>(seq, "fitMode6")->isChecked());
    EXPECT_EQ(Find<QComboBox>(seq, "area")->currentText(), "Safe Image");
    EXPECT_EQ(Find<QComboBox>(seq, "resizeMethod")->currentText(), "BiLinear");
    EXPECT_EQ(Find<QLineEdit>(seq, "clipName")->text(), "name");
    EXPECT_EQ(Find<controls::NumericEdit>(video, "datarate_1109")->text(), "3.00");
    EXPECT_EQ(Find<QLineEdit>(video, "directory_2254")->text().toStdString(), s.videoDir);

    Find<QRadioButton>(seq, "fitMode8")->click();
    Find<QComboBox>(seq, "area")->setCurrentIndex(kAreaNormal);
    Find<QComboBox>(seq, "resizeMethod")->setCurrentIndex(kResizeBiCubic);
    Find<QCheckBox>(seq, "swap")->setChecked(true);
    Find<QCheckBox>(seq, "alphaAdaptive")->setChecked(true);
    Find<QCheckBox>(seq, "fillGaps")->setChecked(true);
    Retype(Find<QLineEdit>(seq, "clipName"), "renamed");
    ASSERT_TRUE(dlg->SetActivePage(1));
    Retype(Find<controls::NumericEdit>(video, "datarate_1109"), "2.50");
    Find<QCheckBox>(video, "fixedFieldSize_2353")->setChecked(true);
    ASSERT_TRUE(dlg->SetActivePage(2));
    Find<QCheckBox>(alpha, "sameAsVideo_1380")->setChecked(true);
    Find<QPushButton>(dlg.get(), "ok_1")->click();

    EXPECT_EQ(s.fitWord, MakeFitWord(kFitAll, kAreaNormal, kResizeBiCubic));
    EXPECT_EQ(s.swapFields, 1);
    EXPECT_EQ(s.alphaAdaptive, 1);
    EXPECT_EQ(s.fillGaps, 1);
    EXPECT_EQ(s.videoDataRate, 2621440);  // 2.50 MB/sec
    EXPECT_EQ(s.fixedFieldSize, 1);
    EXPECT_EQ(s.alphaSameAsVideo, 1);
    EXPECT_EQ(name, "renamed");
}

// The shared pages' rules hold here too: a rate out of range keeps the Video page open with
// its message; Cancel then puts back the settings and the clip name.
TEST(ImgSeqDialog, SettingsDialogRefusesABadRateAndCancelPutsEverythingBack)
{
    GuiApp();
    Volume vol;
    ASSERT_TRUE(vol.Opened());
    auto prompt = std::make_shared<ScriptedPrompt>();
    ScopedPrompter scope(prompt);
    ImportSettings s = CurrentSettings();
    s.videoUncompressed = 0;
    s.videoDataRate = 3 * 1024 * 1024;
    const ImportSettings before = s;
    std::string name = "keep";
    auto dlg = MakeImpSeqSettingsDialog(nullptr, s, name);
    dlg->show();
    Find<QCheckBox>(dlg->Page(0), "shift")->setChecked(!before.shiftDown);
    Retype(Find<QLineEdit>(dlg->Page(0), "clipName"), "changed");
    ASSERT_TRUE(dlg->SetActivePage(1));
    Retype(Find<controls::NumericEdit>(dlg->Page(1), "datarate_1109"), "15.01");
    Find<QPushButton>(dlg.get(), "ok_1")->click();
    EXPECT_TRUE(dlg->isVisible());
    EXPECT_EQ(dlg->ActiveIndex(), 1);
    const auto texts = prompt->Texts();
    EXPECT_NE(std::find(texts.begin(), texts.end(), std::string(settings::kInvalidRateMessage)), texts.end());
    Find<QPushButton>(dlg.get(), "cancel_2")->click();
    EXPECT_EQ(s, before);
    EXPECT_EQ(name, "keep");
}

// The whole way round from the sequence dialog: "S&ettings..." changed on the pages, saved
// into a profile, the settings changed again, the profile loaded: back as the pages left them.
TEST(ImgSeqDialog, SettingsFromThePagesAreSavedIntoTheProfileAndLoadedBack)
{
    GuiApp();
    Volume vol;
    ASSERT_TRUE(vol.Opened());
    ScopedPrompter quiet(std::make_shared<ScriptedPrompt>());
    const auto files = MakeStills(vol.ImageDir(), "round", "tga", 2);
    ImgSeqDlg dlg(nullptr, files, false);
    dlg.show();
    dlg.ShowPreview(true);
    const int loads = dlg.PreviewLoads();
    bool edited = false;
    QTimer::singleShot(0, [&] {
        auto* box = dynamic_cast<controls::CTabdDlg*>(QApplication::activeModalWidget());
        ASSERT_NE(box, nullptr);
        EXPECT_EQ(box->windowTitle(), "Import Sequence Settings");
        Find<QRadioButton>(box->Page(0), "fitMode5")->click();
        Find<QComboBox>(box->Page(0), "area")->setCurrentIndex(kAreaSafeTitle);
        Find<QComboBox>(box->Page(0), "resizeMethod")->setCurrentIndex(kResizeNearest);
        Find<QCheckBox>(box->Page(0), "videoAdaptive")->setChecked(true);
        Retype(Find<QLineEdit>(box->Page(0), "clipName"), "fromPages");
        ASSERT_TRUE(box->SetActivePage(1));
        Find<QCheckBox>(box->Page(1), "uncompressed_1124")->setChecked(false);
        Retype(Find<controls::NumericEdit>(box->Page(1), "datarate_1109"), "4.00");
        ASSERT_TRUE(box->SetActivePage(2));
        Find<QCheckBox>(box->Page(2), "createAlpha_1381")->setChecked(true);
        Find<QCheckBox>(box->Page(2), "sameAsVideo_1380")->setChecked(false);
        Find<QCheckBox>(box->Page(2), "uncompressed_1124")->setChecked(false);
        Retype(Find<controls::NumericEdit>(box->Page(2), "datarate_1109"), "1.50");
        Find<QPushButton>(box, "ok_1")->click();
        edited = true;
    });
    Find<QPushButton>(&dlg, "settings")->click();
    ASSERT_TRUE(edited);
    const ImportSettings fromPages = CurrentSettings();
    EXPECT_EQ(fromPages.fitWord, MakeFitWord(kFitStretchAll, kAreaSafeTitle, kResizeNearest));
    EXPECT_EQ(fromPages.videoAdaptive, 1);
    EXPECT_EQ(fromPages.videoDataRate, 4 * 1024 * 1024);
    EXPECT_EQ(fromPages.createAlpha, 1);
    EXPECT_EQ(fromPages.alphaDataRate, 1572864);
    EXPECT_EQ(dlg.ClipName(), "fromPages");
    EXPECT_EQ(dlg.PreviewLoads(), loads + 1);  // the fit changed

    const std::string path = vol.Path("pages.ImpSeqProfile");
    ASSERT_TRUE(dlg.SaveProfileTo(path));
    ImportSettings other = fromPages;
    ApplyProfile(ProfileRecord{}, other);
    dlg.ApplySettings(other, dlg.ClipName());
    ASSERT_NE(CurrentSettings(), fromPages);
    ASSERT_TRUE(dlg.LoadProfileFrom(path));
    EXPECT_EQ(ProfileFromSettings(CurrentSettings()), ProfileFromSettings(fromPages));
    EXPECT_EQ(CurrentSettings().fitWord, fromPages.fitWord);
    EXPECT_EQ(CurrentSettings().alphaDataRate, 1572864);
    dlg.ShowPreview(false);
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
    GuiApp();
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
    GuiApp();
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

#include <gtest/gtest.h>

#include <QCheckBox>
#include <QComboBox>
#include <QLabel>
#include <QLineEdit>
#include <QPushButton>
#include <QTabWidget>
#include <QTest>
#include <QTimer>
#include <QFileDialog>

#include <filesystem>
#include <memory>

#include "tests/controls/GuiApp.h"
#include "TempDir.h"
#include "controls/NumericEdit.h"
#include "settings/view/SettingsViews.h"
#include "zubimport/Prompt.h"

using namespace zub;
using namespace zub::settings;
using zub::test::Find;

namespace {

// A settings dialog shown offscreen over a private settings record whose folders exist, with
// every message going to a scripted prompter.
struct ViewTest : ::testing::Test {
    test::TempDir dir;
    ImportSettings s;
    std::shared_ptr<ScriptedPrompt> prompt = std::make_shared<ScriptedPrompt>();
    std::unique_ptr<ScopedPrompter> scope;
    std::unique_ptr<controls::CTabdDlg> dlg;

    void SetUp() override
    {
        test::GuiApp();
        scope = std::make_unique<ScopedPrompter>(prompt);
        s.videoDir = dir.Path().string() + "/";
        s.audioDir = dir.Path().string() + "/";
    }
    void Open(const SettingsDialogLayout& layout)
    {
        dlg = MakeSettingsDialog(nullptr, layout, s);
        dlg->show();
        dlg->activateWindow();
        ASSERT_TRUE(QTest::qWaitForWindowActive(dlg.get()));
    }
    // Controls are looked up on their page: the Video and Alpha pages share control ids.
    QWidget* Video() const { return dlg->Page(0); }
    void Retype(QLineEdit* e, const QString& text)
    {
        e->setFocus();
        e->selectAll();
        QTest::keyClick(e, Qt::Key_Delete);
        QTest::keyClicks(e, text);
    }
    void PressOk() { Find<QPushButton>(dlg.get(), "ok_1")->click(); }
    QStringList Tabs() const
    {
        QStringList t;
        for (int i = 0; i < dlg->Tabs()->count(); ++i) t << dlg->Tabs()->tabText(i);
        return t;
    }
};

}  // namespace

TEST_F(ViewTest, DialogsHaveTheirTitlesAndPages)
{
    Open(BatchSettingsLayout());
    EXPECT_EQ(dlg->windowTitle(), "Batch Import Settings");
    EXPECT_EQ(Tabs(), (QStringList{"Video", "Alpha"}));

    auto* convertPage = new QWidget;
    Open(ConversionSettingsLayout(true, convertPage));
    EXPECT_EQ(dlg->windowTitle(), "Media Conversion Settings");
    EXPECT_EQ(Tabs(), (QStringList{"Convert Video", "Video", "Alpha", "Audio"}));
    EXPECT_EQ(dlg->Page(0), convertPage);

    Open(ConversionSettingsLayout(false, new QWidget));
    EXPECT_EQ(Tabs(), (QStringList{"Convert Video", "Video", "Audio"}));

    // Another dialog's own page goes first.
    SettingsDialogLayout seq;
    seq.title = "Import Sequence Settings";
    seq.leading.push_back({new controls::CTabdDlgPage("Import Sequence"), {}});
    seq.alpha = true;
    Open(seq);
    EXPECT_EQ(Tabs(), (QStringList{"Import Sequence", "Video", "Alpha"}));
}

TEST_F(ViewTest, VideoPageLabelsAndMnemonics)
{
    Open(BatchSettingsLayout());
    EXPECT_EQ(Find<QLabel>(Video(), "dataRateLabel_1108")->text(), "Data &Rate:");
    EXPECT_EQ(Find<QCheckBox>(Video(), "uncompressed_1124")->text(), "&Uncompressed");
    EXPECT_EQ(Find<QLabel>(Video(), "mbsec_1130")->text(), "MB/sec");
    EXPECT_EQ(Find<QCheckBox>(Video(), "fixedFieldSize_2353")->text(), "Use &fixed field size");
    EXPECT_EQ(Find<QLabel>(Video(), "directoryLabel_2253")->text(), "Importing &Directory:");
    auto* rate = Find<controls::NumericEdit>(Video(), "datarate_1109");
    EXPECT_EQ(Find<QLabel>(Video(), "dataRateLabel_1108")->buddy(), rate);
    EXPECT_EQ(rate->maxLength(), 5);
    EXPECT_NE(Find<QWidget>(Video(), "datarateSpin_1109"), nullptr);
    EXPECT_NE(Find<QPushButton>(Video(), "browse_1176"), nullptr);

    // Alt+D goes to the directory, Alt+R to the rate.
    auto* directory = Find<QLineEdit>(Video(), "directory_2254");
    QTest::keyClick(dlg.get(), Qt::Key_D, Qt::AltModifier);
    EXPECT_TRUE(directory->hasFocus());
    QTest::keyClick(dlg.get(), Qt::Key_R, Qt::AltModifier);
    EXPECT_TRUE(rate->hasFocus());
    // Tab runs down the page.
    QTest::keyClick(rate, Qt::Key_Tab);
    EXPECT_TRUE(Find<QCheckBox>(Video(), "fixedFieldSize_2353")->hasFocus());
    QTest::keyClick(QApplication::focusWidget(), Qt::Key_Tab);
    EXPECT_TRUE(directory->hasFocus());
}

TEST_F(ViewTest, StoredRateShowsAsHundredthsAndTypedRateIsStored)
{
    s.videoDataRate = 3145728;
    Open(BatchSettingsLayout());
    auto* rate = Find<controls::NumericEdit>(Video(), "datarate_1109");
    EXPECT_EQ(rate->text(), "3.00");
    Retype(rate, "12.5");
    PressOk();
    EXPECT_EQ(dlg->result(), QDialog::Accepted);
    EXPECT_EQ(s.videoDataRate, HundredthsToRate(1250));
    EXPECT_TRUE(prompt->Texts().empty());
}

TEST_F(ViewTest, RateOutOfRangeKeepsThePageWithItsMessage)
{
    const ImportSettings before = s;
    Open(BatchSettingsLayout());
    auto* rate = Find<controls::NumericEdit>(Video(), "datarate_1109");
    Retype(rate, "0.49");
    PressOk();
    EXPECT_TRUE(dlg->isVisible());
    ASSERT_EQ(prompt->Texts().size(), 1u);
    EXPECT_EQ(prompt->Texts()[0], "Invalid video recording datarate");
    EXPECT_TRUE(rate->hasFocus());
    EXPECT_EQ(rate->selectedText(), "0.49");
    EXPECT_EQ(s, before);

    // The Alpha tab cannot be reached either.
    dlg->Tabs()->setCurrentIndex(1);
    EXPECT_EQ(dlg->ActiveIndex(), 0);
    EXPECT_EQ(prompt->Texts().size(), 2u);

    // Ticked, the edit is greyed out and not looked at.
    Find<QCheckBox>(Video(), "uncompressed_1124")->click();
    EXPECT_FALSE(rate->isEnabled());
    EXPECT_FALSE(Find<QCheckBox>(Video(), "fixedFieldSize_2353")->isEnabled());
    PressOk();
    EXPECT_EQ(dlg->result(), QDialog::Accepted);
    EXPECT_EQ(s.videoUncompressed, 1);
    EXPECT_EQ(s.videoDataRate, before.videoDataRate);
}

TEST_F(ViewTest, MissingVideoDirectoryIsRefusedAfterRateIsWritten)
{
    Open(BatchSettingsLayout());
    Retype(Find<QLineEdit>(Video(), "datarate_1109"), "2.00");
    auto* directory = Find<QLineEdit>(Video(), "directory_2254");
    Retype(directory, QString::fromStdString((dir.Path() / "missing").string()));
    PressOk();
    EXPECT_TRUE(dlg->isVisible());
    ASSERT_EQ(prompt->Texts().size(), 1u);
    EXPECT_EQ(prompt->Texts()[0], "Directory does not exist");
    EXPECT_TRUE(directory->hasFocus());
    EXPECT_EQ(s.videoDataRate, 2097152);
    EXPECT_EQ(s.videoDir, dir.Path().string() + "/");

    Retype(directory, QString::fromStdString(dir.Path().string()));
    PressOk();
    EXPECT_EQ(dlg->result(), QDialog::Accepted);
    EXPECT_EQ(directory->text().toStdString(), dir.Path().string() + "/");
}

TEST_F(ViewTest, AlphaPageEnableRulesAndCreateAlphaAtOnce)
{
    s.createAlpha = 1;
    s.alphaSameAsVideo = 0;
    Open(BatchSettingsLayout());
    ASSERT_TRUE(dlg->SetActivePage(1));
    auto* page = dlg->Page(1);
    auto* create = Find<QCheckBox>(page, "createAlpha_1381");
    auto* same = Find<QCheckBox>(page, "sameAsVideo_1380");
    auto* unc = Find<QCheckBox>(page, "uncompressed_1124");
    auto* rate = Find<QLineEdit>(page, "datarate_1109");
    EXPECT_EQ(create->text(), "Create Alpha");
    EXPECT_EQ(same->text(), "&Same as Video");
    EXPECT_TRUE(same->isEnabled() && unc->isEnabled() && rate->isEnabled());

    create->click();
    EXPECT_EQ(s.createAlpha, 0) << "written at once, before any apply";
    for (const char* name : {"sameAsVideo_1380", "dataRateLabel_1108", "uncompressed_1124", "datarate_1109", "mbsec_1130"})
        EXPECT_FALSE(Find<QWidget>(page, name)->isEnabled()) << name;

    create->click();
    EXPECT_EQ(s.createAlpha, 1);
    same->click();
    EXPECT_FALSE(unc->isEnabled());
    EXPECT_FALSE(rate->isEnabled());
    same->click();
    unc->click();
    EXPECT_TRUE(unc->isEnabled());
    EXPECT_FALSE(rate->isEnabled());
}

TEST_F(ViewTest, AlphaPageFollowsTheStoredVideoFlag)
{
    s.videoUncompressed = 1;
    s.createAlpha = 1;
    s.alphaSameAsVideo = 0;
    s.alphaUncompressed = 0;
    s.alphaDataRate = 1000000;
    Open(BatchSettingsLayout());
    ASSERT_TRUE(dlg->SetActivePage(1));
    auto* page = dlg->Page(1);
    EXPECT_FALSE(Find<QCheckBox>(page, "uncompressed_1124")->isChecked());
    Retype(Find<QLineEdit>(page, "datarate_1109"), "99");
    PressOk();
    EXPECT_EQ(dlg->result(), QDialog::Accepted);
    EXPECT_TRUE(prompt->Texts().empty());
    EXPECT_EQ(s.alphaUncompressed, 1);
    EXPECT_EQ(s.alphaDataRate, 1000000);
}

TEST_F(ViewTest, VideoFlagAppliedOnLeavingIsWhatTheAlphaPageUses)
{
    s.videoUncompressed = 0;
    s.createAlpha = 1;
    s.alphaSameAsVideo = 0;
    Open(BatchSettingsLayout());
    Find<QCheckBox>(dlg->Page(0), "uncompressed_1124")->click();
    ASSERT_TRUE(dlg->SetActivePage(1));
    EXPECT_EQ(s.videoUncompressed, 1);
    Retype(Find<QLineEdit>(dlg->Page(1), "datarate_1109"), "20");
    PressOk();
    EXPECT_EQ(dlg->result(), QDialog::Accepted);
    EXPECT_EQ(s.alphaUncompressed, 1);
}

TEST_F(ViewTest, CancelPutsEverythingBack)
{
    s.createAlpha = 1;
    const ImportSettings before = s;
    Open(BatchSettingsLayout());
    Find<QCheckBox>(dlg->Page(0), "uncompressed_1124")->click();
    ASSERT_TRUE(dlg->SetActivePage(1));
    Find<QCheckBox>(dlg->Page(1), "createAlpha_1381")->click();
    EXPECT_NE(s, before);
    QTest::keyClick(dlg.get(), Qt::Key_Escape);
    EXPECT_EQ(dlg->result(), QDialog::Rejected);
    EXPECT_EQ(s, before);
}

TEST_F(ViewTest, AudioPageListsAndCodes)
{
    s.audioRateIndex = 1;
    s.audioChannels = 0;
    s.audioSampleSize = 0;
    Open(ConversionSettingsLayout(false, nullptr));
    ASSERT_TRUE(dlg->SetActivePage(1));
    auto* page = dlg->Page(1);
    auto* rate = Find<QComboBox>(page, "sampleRate_1128");
    auto* channels = Find<QComboBox>(page, "channels_1131");
    auto* bits = Find<QComboBox>(page, "dataBits_1132");
    QStringList entries;
    for (int i = 0; i < rate->count(); ++i) entries << rate->itemText(i);
    EXPECT_EQ(entries, (QStringList{"48 kHz", "44 kHz", "32 kHz", "22 kHz", "11 kHz"}));
    EXPECT_EQ(channels->itemText(0), "Stereo");
    EXPECT_EQ(channels->itemText(1), "Mono");
    EXPECT_EQ(bits->itemText(0), "16");
    EXPECT_EQ(bits->itemText(1), "8");
    EXPECT_EQ(rate->currentText(), "44 kHz");
    EXPECT_FALSE(Find<QCheckBox>(page, "dva_1133")->isVisible());
    EXPECT_FALSE(Find<QLabel>(page, "note")->isVisible());
    EXPECT_EQ(Find<QLabel>(page, "note")->text(),
              "Audio Sample Rate, Mono/Stereo, and Sample Bits Attributes are determined by the source file.");

    rate->setCurrentIndex(3);
    channels->setCurrentIndex(1);
    bits->setCurrentIndex(1);
    PressOk();
    EXPECT_EQ(dlg->result(), QDialog::Accepted);
    EXPECT_EQ(s.audioRateIndex, 3);
    EXPECT_EQ(s.audioChannels, 1);
    EXPECT_EQ(s.audioSampleSize, 1);
}

TEST_F(ViewTest, AudioDvaBoxWhenAsked)
{
    s.makeDva = 0;
    Open(ConversionSettingsLayout(false, nullptr, true));
    ASSERT_TRUE(dlg->SetActivePage(1));
    auto* dva = Find<QCheckBox>(dlg->Page(1), "dva_1133");
    EXPECT_TRUE(dva->isVisible());
    EXPECT_EQ(dva->text(), "dva");
    dva->click();
    PressOk();
    EXPECT_EQ(s.makeDva, 1);
}

TEST_F(ViewTest, EmptyAudioDirectoryIsRefused)
{
    Open(ConversionSettingsLayout(false, nullptr));
    ASSERT_TRUE(dlg->SetActivePage(1));
    auto* directory = Find<QLineEdit>(dlg->Page(1), "directory_2255");
    Retype(directory, "");
    PressOk();
    EXPECT_TRUE(dlg->isVisible());
    ASSERT_EQ(prompt->Texts().size(), 1u);
    EXPECT_EQ(prompt->Texts()[0], "Invalid audio directory - directory does not exist.");
    EXPECT_TRUE(directory->hasFocus());
    EXPECT_EQ(s.audioDir, dir.Path().string() + "/");
    // Going back to the Video tab is refused the same way.
    dlg->Tabs()->setCurrentIndex(0);
    EXPECT_EQ(dlg->ActiveIndex(), 1);
}

TEST_F(ViewTest, BrowseFillsTheDirectoryWithSeparator)
{
    std::filesystem::create_directory(dir.Path() / "video");
    Open(ConversionSettingsLayout(false, nullptr));
    QString title;
    const QString target = QString::fromStdString((dir.Path() / "video").string());
    auto* timer = new QTimer(dlg.get());
    QObject::connect(timer, &QTimer::timeout, [&, timer] {
        auto* fd = qobject_cast<QFileDialog*>(QApplication::activeModalWidget());
        if (!fd) return;
        timer->stop();
        title = fd->windowTitle();
        fd->setDirectory(target);
        if (auto* name = fd->findChild<QLineEdit*>("fileNameEdit")) name->clear();
        static_cast<QDialog*>(fd)->accept();
    });
    timer->start(10);
    Find<QPushButton>(dlg->Page(0), "browse_1176")->click();
    EXPECT_EQ(title, "Please select a folder for storing recorded video clips.");
    EXPECT_EQ(Find<QLineEdit>(dlg->Page(0), "directory_2254")->text(), target + "/");

    ASSERT_TRUE(dlg->SetActivePage(1));
    timer->start(10);
    Find<QPushButton>(dlg->Page(1), "browse_1176")->click();
    EXPECT_EQ(title, "Please select a folder for storing recorded audio clips.");
    EXPECT_EQ(Find<QLineEdit>(dlg->Page(1), "directory_2255")->text(), target + "/");
    PressOk();
    EXPECT_EQ(s.audioDir, target.toStdString() + "/");
    EXPECT_EQ(s.videoDir, target.toStdString() + "/");
}

TEST(SettingsRun, ModalRunReturnsOneForOkAndWorksOnTheModuleSettings)
{
    test::GuiApp();
    test::TempDir dir;
    CurrentSettings().videoDir = dir.Path().string() + "/";
    CurrentSettings().videoDataRate = 3145728;
    QString seenTitle;
    QTimer::singleShot(50, [&] {
        auto* d = qobject_cast<QDialog*>(QApplication::activeModalWidget());
        ASSERT_NE(d, nullptr);
        seenTitle = d->windowTitle();
        auto* page = d->findChild<QWidget*>("videoPage_118");
        ASSERT_NE(page, nullptr);
        auto* rate = page->findChild<QLineEdit*>("datarate_1109");
        ASSERT_NE(rate, nullptr);
        rate->setText("4");
        d->findChild<QPushButton*>("ok_1")->click();
    });
    EXPECT_EQ(RunBatchSettingsDialog(nullptr), 1);
    EXPECT_EQ(seenTitle, "Batch Import Settings");
    EXPECT_EQ(CurrentSettings().videoDataRate, 4194304);

    QTimer::singleShot(50, [&] {
        auto* d = QApplication::activeModalWidget();
        ASSERT_NE(d, nullptr);
        QTest::keyClick(d, Qt::Key_Escape);
    });
    EXPECT_EQ(RunConversionSettingsDialog(nullptr, true, nullptr), 2);
    CurrentSettings() = ImportSettings{};
}

// The batch dialog driven through its widgets, offscreen unless a display is given.
#include <gtest/gtest.h>

#include <QAction>
#include <QHeaderView>
#include <QLabel>
#include <QLineEdit>
#include <QMenu>
#include <QPlainTextEdit>
#include <QProgressBar>
#include <QPushButton>
#include <QRadioButton>
#include <QTest>
#include <QTimer>

#include <fstream>

#include "tests/batch/BatchRunSupport.h"
#include "tests/controls/GuiApp.h"
#include "TempDir.h"
#include "batch/view/BatchImpDlg.h"
#include "controls/ColumnListView.h"
#include "zubimport/Import.h"
#include "zubimport/Prompt.h"

using namespace zub;
using namespace zub::batch;

namespace {

class ScriptedImporter final : public IBatchRowImporter {
public:
    std::vector<std::pair<char, std::string>> calls;
    RowImport ImportVideo(const std::string& p, const std::string&) override { return Do('v', p); }
    RowImport ImportAudio(const std::string& p, const std::string&) override { return Do('a', p); }
    RowImport ImportImages(const std::string& p, const std::string&) override { return Do('i', p); }

private:
    RowImport Do(char k, const std::string& p)
    {
        calls.emplace_back(k, p);
        RowImport r;
        r.ok = p.find("bad") == std::string::npos;
        r.resultText = r.ok ? "Done" : "";
        return r;
    }
};

class BatchDialogTest : public ::testing::Test {
protected:
    void SetUp() override
    {
        test::GuiApp();
        ForgetCapturedRangesForTesting();
        SetPatternListSourceForTesting([] { return PatternLists{"*.avi;*.mpg", "*.wav;*.mp3"}; });
        params_.mediaKindMode = 0;
        dlg_ = std::make_unique<CBatchImpDlg>(params_);
        dlg_->SetModuleFolderForTesting(module_.Path().string());
        dlg_->SetImporterForTesting(&importer_);
    }
    void TearDown() override
    {
        dlg_.reset();
        SetPatternListSourceForTesting({});
        ForgetCapturedRangesForTesting();
    }
    std::vector<std::string> Names() const
    {
        std::vector<std::string> out;
        for (int r = 0; r < dlg_->List()->topLevelItemCount(); ++r)
            out.push_back(dlg_->List()->topLevelItem(r)->text(kColFileName).toStdString());
        return out;
    }
    QAction* MenuAction(const QString& text) const
    {
        for (QAction* a : dlg_->ContextMenu()->actions())
            if (a->text() == text) return a;
        return nullptr;
    }

    test::TempDir module_;
    BatchDialogParams params_;
    ScriptedImporter importer_;
    std::unique_ptr<CBatchImpDlg> dlg_;
};

}  // namespace

TEST_F(BatchDialogTest, LayoutTextsAndColumns)
{
    for (const char* name : {"addButton", "removeButton", "sortButton", "settingsButton", "goButton", "cancelButton"})
        EXPECT_NE(dlg_->findChild<QPushButton*>(name), nullptr) << name;
    EXPECT_EQ(dlg_->findChild<QPushButton*>("addButton")->text(), "&Add");
    EXPECT_EQ(dlg_->findChild<QPushButton*>("removeButton")->text(), "&Remove");
    EXPECT_EQ(dlg_->findChild<QPushButton*>("sortButton")->text(), "S&ort");
    EXPECT_EQ(dlg_->findChild<QPushButton*>("settingsButton")->text(), "S&ettings");
    EXPECT_EQ(dlg_->findChild<QPushButton*>("goButton")->text(), "&Go!");
    EXPECT_EQ(dlg_->Hint()->text(), "To Import a Multimedia Video/Audio File, Add the file to the Files Selected List.");
    QStringList menu;
    for (QAction* a : dlg_->ContextMenu()->actions()) menu << a->text();
    EXPECT_EQ(menu.join('|'), "S&ort|Cu&t|&Copy|&Paste|&Delete|&Note...");
    controls::ColumnListView* list = dlg_->List();
    EXPECT_EQ(list->headerItem()->text(kColResult), "Result");
    for (int c : {kColStart, kColEnd, kColProps, kColNote}) EXPECT_TRUE(list->IsKeptHidden(c)) << c;
    for (int c : {kColFileName, kColType, kColResult}) EXPECT_TRUE(list->IsColumnShown(c)) << c;
    EXPECT_EQ(list->columnWidth(kColType), 50);
    EXPECT_EQ(list->columnWidth(kColResult), 60);
}

TEST_F(BatchDialogTest, AddClassifiesRemoveAndSort)
{
    dlg_->AddFiles({"/m/z.avi", "/m/b.wav", "/m/a.tga", "/m/notes.xyz"});
    EXPECT_EQ(Names(), (std::vector<std::string>{"/m/z.avi", "/m/b.wav", "/m/a.tga", "/m/notes.xyz"}));
    auto type = [&](int r) { return dlg_->List()->topLevelItem(r)->text(kColType).toStdString(); };
    EXPECT_EQ(type(0), "Video");
    EXPECT_EQ(type(1), "Audio");
    EXPECT_EQ(type(2), "Images");
    EXPECT_EQ(type(3), "Video");
    EXPECT_EQ(dlg_->List()->topLevelItem(1)->data(0, Qt::UserRole).toInt(), kTypeAudio);

    QTest::mouseClick(dlg_->findChild<QPushButton*>("sortButton"), Qt::LeftButton);
    EXPECT_EQ(Names(), (std::vector<std::string>{"/m/a.tga", "/m/b.wav", "/m/notes.xyz", "/m/z.avi"}));
    dlg_->SelectRows({1, 3});
    QTest::mouseClick(dlg_->findChild<QPushButton*>("removeButton"), Qt::LeftButton);
    EXPECT_EQ(Names(), (std::vector<std::string>{"/m/a.tga", "/m/notes.xyz"}));
}

TEST_F(BatchDialogTest, CutCopyPasteDeleteMoveWholeRows)
{
    dlg_->AddFiles({"/m/a.avi", "/m/b.wav", "/m/c.avi"});
    dlg_->ApplyNote({1}, "keep me", false);
    dlg_->SelectRows({1});
    MenuAction("Cu&t")->trigger();
    EXPECT_EQ(Names(), (std::vector<std::string>{"/m/a.avi", "/m/c.avi"}));
    dlg_->SelectRows({0});
    MenuAction("&Paste")->trigger();  // before the selection
    EXPECT_EQ(Names(), (std::vector<std::string>{"/m/b.wav", "/m/a.avi", "/m/c.avi"}));
    EXPECT_EQ(dlg_->Model().Row(0).note, "keep me");
    EXPECT_EQ(dlg_->Model().Row(0).type, kTypeAudio);
    dlg_->List()->clearSelection();
    dlg_->SelectRows({2});
    MenuAction("&Copy")->trigger();
    dlg_->List()->clearSelection();
    MenuAction("&Paste")->trigger();  // nothing selected: at the end
    EXPECT_EQ(Names(), (std::vector<std::string>{"/m/b.wav", "/m/a.avi", "/m/c.avi", "/m/c.avi"}));
    dlg_->SelectRows({0, 1});
    MenuAction("&Delete")->trigger();
    EXPECT_EQ(Names(), (std::vector<std::string>{"/m/c.avi", "/m/c.avi"}));
    MenuAction("S&ort")->trigger();
    EXPECT_EQ(Names().size(), 2u);
}

TEST_F(BatchDialogTest, NoteDialogReplacesOrAdds)
{
    dlg_->AddFiles({"/m/a.avi", "/m/b.avi", "/m/c.wav"});
    dlg_->SelectRows({0, 1});
    // Through the dialog: type a note, Replace (the default), OK.
    QTimer::singleShot(0, [] {
        auto* d = qobject_cast<QDialog*>(QApplication::activeModalWidget());
        ASSERT_NE(d, nullptr);
        EXPECT_EQ(d->windowTitle(), "Video Note");
        auto* replace = d->findChild<QRadioButton*>("replaceText");
        EXPECT_TRUE(replace->isChecked());
        d->findChild<QPlainTextEdit*>("noteText")->setPlainText("first");
        d->accept();
    });
    MenuAction("&Note...")->trigger();
    EXPECT_EQ(dlg_->Model().Row(0).note, "first");
    EXPECT_EQ(dlg_->Model().Row(1).note, "first");
    EXPECT_EQ(dlg_->Model().Row(2).note, "");
    QTimer::singleShot(0, [] {
        auto* d = qobject_cast<QDialog*>(QApplication::activeModalWidget());
        ASSERT_NE(d, nullptr);
        d->findChild<QPlainTextEdit*>("noteText")->setPlainText(" +more");
        d->findChild<QRadioButton*>("addText")->setChecked(true);
        d->accept();
    });
    dlg_->SelectRows({1});
    dlg_->EditNote();
    EXPECT_EQ(dlg_->Model().Row(0).note, "first");
    EXPECT_EQ(dlg_->Model().Row(1).note, "first +more");
    // The hidden Note column carries it.
    EXPECT_EQ(dlg_->List()->topLevelItem(1)->text(kColNote), "first +more");
    EXPECT_EQ(NoteTitleFor({kTypeAudio}), "Audio Note");
    EXPECT_EQ(NoteTitleFor({kTypeAudio, kTypeVideo}), "Note");
}

TEST_F(BatchDialogTest, ColumnChooserShowsAndHidesColumns)
{
    controls::ColumnListView* list = dlg_->List();
    std::vector<controls::ColumnListView::Choice> choice = list->CurrentChoice();
    ASSERT_EQ(choice.size(), 3u);  // the hidden data columns are not offered
    for (auto& c : choice)
        if (c.column == kColType) c.shown = false;
    list->ApplyChoice(choice);
    EXPECT_FALSE(list->IsColumnShown(kColType));
    EXPECT_TRUE(list->IsColumnShown(kColResult));
    for (auto& c : choice) c.shown = true;
    list->ApplyChoice(choice);
    EXPECT_TRUE(list->IsColumnShown(kColType));
}

TEST_F(BatchDialogTest, GoShowsResultsAndStaysOpenOnFailure)
{
    dlg_->AddFiles({"/m/a.avi", "/m/bad.wav", "/m/c.tga"});
    dlg_->show();
    QTest::mouseClick(dlg_->findChild<QPushButton*>("goButton"), Qt::LeftButton);
    ASSERT_EQ(importer_.calls.size(), 3u);
    EXPECT_EQ(importer_.calls[0].first, 'v');
    EXPECT_EQ(importer_.calls[1].first, 'a');
    EXPECT_EQ(importer_.calls[2].first, 'i');
    auto result = [&](int r) { return dlg_->List()->topLevelItem(r)->text(kColResult).toStdString(); };
    EXPECT_EQ(result(0), "Done");
    EXPECT_EQ(result(1), "Error");
    EXPECT_EQ(result(2), "Done");
    EXPECT_TRUE(dlg_->FailureMark());
    EXPECT_TRUE(dlg_->isVisible());  // a row failed: the results stay on screen
    EXPECT_EQ(dlg_->Progress()->value(), 3);

    // Without the failing row the dialog closes itself as Cancel would.
    dlg_->SelectRows({1});
    dlg_->RemoveSelected();
    QTest::mouseClick(dlg_->findChild<QPushButton*>("goButton"), Qt::LeftButton);
    EXPECT_FALSE(dlg_->isVisible());
    EXPECT_EQ(dlg_->result(), QDialog::Rejected);
}

TEST_F(BatchDialogTest, AddDialogWantsAFileName)
{
    auto prompt = std::make_shared<ScriptedPrompt>();
    ScopedPrompter scoped(prompt);
    test::TempDir dir;
    std::ofstream(dir / "x.avi") << "x";
    BatchAddFilesDialog add(dlg_.get(), dlg_->Filter(), QString::fromStdString(dir.Path().string()), 0);
    EXPECT_EQ(add.windowTitle(), "Batch Import");
    EXPECT_EQ(add.fileMode(), QFileDialog::ExistingFiles);
    EXPECT_EQ(add.nameFilters().front(), "All Supported Video Files (*.mxf *.mov *.avi *.mpg)");
    add.show();
    auto* name = add.findChild<QLineEdit*>("fileNameEdit");
    ASSERT_NE(name, nullptr);
    name->clear();
    add.accept();
    ASSERT_EQ(prompt->Texts().size(), 1u);
    EXPECT_EQ(prompt->Texts()[0], "Please enter a file name.");
    EXPECT_TRUE(add.isVisible());
    name->setText("x.avi");
    add.accept();
    EXPECT_EQ(add.result(), QDialog::Accepted);
    ASSERT_EQ(add.selectedFiles().size(), 1);
    EXPECT_TRUE(add.selectedFiles().front().endsWith("x.avi"));
}

TEST(BatchDialogRegistration, StartBatchImpDlgFindsTheDialog)
{
    test::GuiApp();
    EXPECT_EQ(RegisteredBatchDialogRunner(), &RunBatchImpDlg);
}

TEST(BatchDialogEntry, StartBatchImpDlgShowsTheDialogInAWidgetsHost)
{
    test::GuiApp();
    test::TempDir vol;
    test::UseTestVolume(vol);
    CBatchImpPrefsInfo prefs;
    prefs.strTitle = "Batch from the host";
    prefs.strSetting2 = "/clips/audio/";
    prefs.nDlgParam3 = 2;  // images only
    std::string seenTitle;
    int seenMode = -1;
    QTimer::singleShot(0, [&] {
        auto* d = dynamic_cast<CBatchImpDlg*>(QApplication::activeModalWidget());
        ASSERT_NE(d, nullptr);
        seenTitle = d->windowTitle().toStdString();
        seenMode = d->Filter().MediaKindMode();
        EXPECT_EQ(TheRecorder().kind, RecorderKind::Zub);  // open while the dialog runs
        d->findChild<QPushButton*>("cancelButton")->click();
    });
    EXPECT_EQ(StartBatchImpDlg(&prefs), 0);  // ended with Cancel
    EXPECT_EQ(seenTitle, "Batch from the host");
    EXPECT_EQ(seenMode, 2);
    EXPECT_EQ(prefs.strSetting2, "/clips/audio/");
    EXPECT_EQ(TheRecorder().kind, RecorderKind::Closed);
}

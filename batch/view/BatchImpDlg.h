// The batch import dialog: the "Files Selected" list with its buttons and context menu, the
// add-files and note dialogs, and Go!, which runs the list through the batch engine and shows
// each row's result. Thin over batch/BatchList.h and batch/BatchRun.h.
#pragma once

#include <QDialog>
#include <QFileDialog>

#include <atomic>
#include <vector>

#include "batch/BatchList.h"
#include "batch/BatchRun.h"
#include "batch/TypeFilter.h"

class QLabel;
class QMenu;
class QPlainTextEdit;
class QProgressBar;
class QPushButton;
class QRadioButton;

namespace zub::controls {
class ColumnListView;
}

namespace zub::batch {

inline constexpr const char* kBatchHint =
    "To Import a Multimedia Video/Audio File, Add the file to the Files Selected List.";
inline constexpr const char* kEnterFileName = "Please enter a file name.";

// "Batch Import": the file dialog of "&Add", several files at once. Confirming with an empty
// file name field says so and stays open.
class BatchAddFilesDialog : public QFileDialog {
public:
    BatchAddFilesDialog(QWidget* parent, const TypeFilter& filter, const QString& folder, int filterIndex);
    void accept() override;
    int FilterIndex() const;
};

// The Note dialog: a multi-line text and whether it replaces the note or is added to it.
class BatchNoteDialog : public QDialog {
public:
    BatchNoteDialog(const QString& title, const QString& text, QWidget* parent = nullptr);
    QString Text() const;
    bool Append() const;
    QPlainTextEdit* Edit() const { return edit_; }
    QRadioButton* ReplaceChoice() const { return replace_; }
    QRadioButton* AddChoice() const { return add_; }

private:
    QPlainTextEdit* edit_;
    QRadioButton* replace_;
    QRadioButton* add_;
};

// The three captions of the Note dialog, chosen by the rows it edits.
QString NoteTitleFor(const std::vector<int>& types);

class CBatchImpDlg : public QDialog {
public:
    explicit CBatchImpDlg(const BatchDialogParams& params, QWidget* parent = nullptr);
    ~CBatchImpDlg() override;

    // The list's operations, as the buttons and the context menu run them.
    void OnAdd();                        // the "Batch Import" file dialog
    void AddFiles(const QStringList& files);
    void RemoveSelected();               // "&Remove" and "&Delete"
    void Sort();
    void Cut();
    void Copy();
    void Paste();                        // before the first selected row, or at the end
    void EditNote();                     // the Note dialog for the selected rows
    void ApplyNote(const std::vector<int>& rows, const std::string& text, bool append);
    void OnSettings();                   // "Batch Import Settings"
    void OnGo();

    std::vector<int> SelectedRows() const;
    void SelectRows(const std::vector<int>& rows);

    BatchListModel& Model() { return model_; }
    controls::ColumnListView* List() const { return list_; }
    QMenu* ContextMenu() const { return menu_; }
    QProgressBar* Progress() const { return progress_; }
    QLabel* Hint() const { return hint_; }
    const TypeFilter& Filter() const { return filter_; }
    bool FailureMark() const { return failed_; }
    const BatchRunResult& LastRun() const { return lastRun_; }
    std::string LastProps() const { return lastProps_; }

    // Tests put their own importer and module folder in.
    void SetImporterForTesting(IBatchRowImporter* importer) { importer_ = importer; }
    void SetModuleFolderForTesting(const std::string& folder) { moduleFolder_ = folder; }

    void reject() override;

private:
    void Refresh();
    void SetRunning(bool running);

    BatchDialogParams params_;
    TypeFilter filter_;
    BatchListModel model_;
    controls::ColumnListView* list_ = nullptr;
    QMenu* menu_ = nullptr;
    QLabel* hint_ = nullptr;
    QProgressBar* progress_ = nullptr;
    std::vector<QPushButton*> buttons_;
    IBatchRowImporter* importer_ = nullptr;
    std::string moduleFolder_;
    BatchRunResult lastRun_;
    std::string lastProps_;
    bool failed_ = false;
    bool running_ = false;
    std::atomic<int> cancel_{0};
};

// Runs the dialog modally for StartBatchImpDlg: 1 when it ended with OK.
int RunBatchImpDlg(const BatchDialogParams& params, std::string* lastProps);

}  // namespace zub::batch

// The sequence dialog: a file browser with the import list below it, the sequence report,
// settings, profiles, and the import run behind "I&mport" with its progress, busy state and
// abort question. A thin view over RunImageSequence: everything it does can also be done
// without it.
#pragma once

#include <QDialog>

#include <atomic>
#include <string>
#include <vector>

#include "zubimport/ImportSettings.h"
#include "zubimport/Prefs.h"

class QCheckBox;
class QComboBox;
class QLabel;
class QProgressBar;
class QPushButton;
class QTreeView;
class QTreeWidget;
class QFileSystemModel;

namespace zub {

class ImgSeqDlg : public QDialog {
public:
    explicit ImgSeqDlg(QWidget* parent = nullptr, const std::vector<std::string>& initial = {},
                       bool initialNumbered = false);

    // The list's rows, in order.
    std::vector<std::string> Files() const;
    // Adds each path (and, numbered, the files that follow it) as "&Add" / "Add N&um'd" do.
    void AddPaths(const std::vector<std::string>& paths, bool numbered, bool checkFirst = true);
    std::string ClipName() const { return clipName_; }
    void SetClipName(const std::string& name) { clipName_ = name; }
    // The clip the last run made ("" when none).
    const std::string& ClipPath() const { return clipPath_; }

    // Opens "Import Sequence Settings" modally and takes what it holds on OK.
    void EditSettings();
    // Applies settings as the settings dialog does on OK (reloading the preview when the fit
    // or the swap changed).
    void ApplySettings(const ImportSettings& s, const std::string& clipName);
    bool LoadProfileFrom(const std::string& path);
    bool SaveProfileTo(const std::string& path);
    void UpdateReport();
    QString ReportText() const;

    // The preview: the current row fitted as it would be imported.
    void ShowPreview(bool on);
    int PreviewLoads() const { return previewLoads_; }

    void StartImport();
    bool Running() const { return running_; }

    void reject() override;  // Cancel and Escape: the abort question while running

protected:
    void dragEnterEvent(QDragEnterEvent* e) override;
    void dropEvent(QDropEvent* e) override;
    void resizeEvent(QResizeEvent* e) override;
    void showEvent(QShowEvent* e) override;
    bool eventFilter(QObject* watched, QEvent* e) override;

private:
    void SizeColumn();
    void EnterBusy();
    void LeaveBusy();
    void ReloadPreview();
    void AddSelected(bool numbered);

    QFileSystemModel* model_ = nullptr;
    QTreeView* browser_ = nullptr;
    QComboBox* filter_ = nullptr;
    QTreeWidget* list_ = nullptr;
    QLabel* report_ = nullptr;
    QCheckBox* showOnOutput_ = nullptr;
    QProgressBar* progress_ = nullptr;
    QPushButton* import_ = nullptr;
    QPushButton* cancel_ = nullptr;
    QLabel* preview_ = nullptr;
    int previewLoads_ = 0;
    std::string clipName_;
    std::string clipPath_;
    bool running_ = false;
    std::atomic<int> abortRequest_{0};
    std::atomic<int> showOnOutputFlag_{0};
    std::vector<QWidget*> disabled_;
};

// Registered with StartImgSeqDlg: the dialog when a widgets application runs.
bool RunImgSeqDialog(const CImgSeqPrefsInfo& prefs, bool& ok, std::string& clipPath);

}  // namespace zub

// "Import Sequence Settings": the sequence's own page (fit, resize method, field and contour
// options, fill gaps, clip name) before the shared Video and Alpha pages, in the shared tabbed
// dialog. Every page works on one settings record; Cancel puts it back as it was.
#pragma once

#include <memory>
#include <string>

#include "controls/TabbedDialog.h"
#include "zubimport/ImportSettings.h"

class QButtonGroup;
class QCheckBox;
class QComboBox;
class QLineEdit;

namespace zub {

// The "Import Sequence" page. Filled from the settings (and the clip name) when shown,
// written back when left; it has nothing to refuse.
class CImpSeqSettingsPage : public controls::CTabdDlgPage {
public:
    CImpSeqSettingsPage(ImportSettings& settings, std::string& clipName, QWidget* parent = nullptr);

    void OnSetActive() override;
    bool OnKillActive() override;

private:
    ImportSettings& settings_;
    std::string& clipName_;
    QButtonGroup* fitMode_ = nullptr;
    QComboBox* area_ = nullptr;
    QComboBox* method_ = nullptr;
    QCheckBox* swap_ = nullptr;
    QCheckBox* shift_ = nullptr;
    QCheckBox* adapt_ = nullptr;
    QCheckBox* alphaAdapt_ = nullptr;
    QCheckBox* fillGaps_ = nullptr;
    QLineEdit* name_ = nullptr;
};

// The dialog over `settings` and `clipName`, both written as the pages are left (and put back
// on Cancel): "Import Sequence", "Video", "Alpha".
std::unique_ptr<controls::CTabdDlg> MakeImpSeqSettingsDialog(QWidget* parent, ImportSettings& settings,
                                                             std::string& clipName);

}  // namespace zub

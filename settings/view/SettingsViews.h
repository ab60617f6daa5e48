// The Video (118), Alpha (117) and Audio (119) settings pages and the tabbed dialogs that show
// them: "Media Conversion Settings" behind the conversion dialog's Settings button and "Batch
// Import Settings" behind the batch import's. The pages are thin over settings/SettingsPages.h.
#pragma once

#include <QString>

#include <memory>
#include <vector>

#include "controls/TabbedDialog.h"
#include "settings/SettingsPages.h"

class QCheckBox;
class QComboBox;
class QLabel;
class QLineEdit;
class QPushButton;

namespace zub::controls {
class NumericEdit;
}

namespace zub::settings {

// The Video page, or on dialog 117 the Alpha page.
class CVidRecSettingsDlg : public controls::CTabdDlgPage {
public:
    CVidRecSettingsDlg(RatePage::Kind kind, ImportSettings& settings, QWidget* parent = nullptr);

    void OnSetActive() override;
    bool OnKillActive() override;

    RatePage& Model() { return model_; }

private:
    void ShowEnables();
    void Browse();

    RatePage model_;
    QCheckBox* createAlpha_ = nullptr;
    QCheckBox* sameAsVideo_ = nullptr;
    QLabel* rateLabel_ = nullptr;
    QCheckBox* uncompressed_ = nullptr;
    controls::NumericEdit* rate_ = nullptr;
    QLabel* mbLabel_ = nullptr;
    QCheckBox* fixedField_ = nullptr;
    QLineEdit* directory_ = nullptr;
    QPushButton* browse_ = nullptr;
};

class CAudRecSettingsDlg : public controls::CTabdDlgPage {
public:
    // withDvaOption: show the "dva" box (and store it).
    CAudRecSettingsDlg(ImportSettings& settings, bool withDvaOption, QWidget* parent = nullptr);

    void OnSetActive() override;
    bool OnKillActive() override;

    AudioPage& Model() { return model_; }

private:
    void Browse();

    AudioPage model_;
    QLineEdit* directory_ = nullptr;
    QComboBox* sampleRate_ = nullptr;
    QComboBox* channels_ = nullptr;
    QComboBox* dataBits_ = nullptr;
    QCheckBox* dva_ = nullptr;
};

// A page another dialog puts before the settings pages ("Convert Video", "Import Sequence").
// A CTabdDlgPage takes part in fill and apply and its own title is used when `title` is empty.
struct LeadingPage {
    QWidget* page = nullptr;  // the dialog takes ownership
    QString title;
};

struct SettingsDialogLayout {
    QString title;
    std::vector<LeadingPage> leading;
    bool video = true;
    bool alpha = false;
    bool audio = false;
    bool audioDvaOption = false;
};

// Builds the dialog over `settings`. Cancel (or Escape, or the close box) puts the settings
// back as they were when the dialog was built, undoing what pages applied when they were left.
std::unique_ptr<controls::CTabdDlg> MakeSettingsDialog(QWidget* parent, const SettingsDialogLayout& layout,
                                                       ImportSettings& settings = CurrentSettings());

// Runs a dialog built as above modally: 1 for OK, 2 for Cancel.
int RunSettingsDialog(QWidget* parent, const SettingsDialogLayout& layout, ImportSettings& settings = CurrentSettings());

// "Media Conversion Settings": "Convert Video" (the conversion dialog's own page, left out when
// null), Video, Alpha when alphaPage, Audio.
int RunConversionSettingsDialog(QWidget* parent, bool alphaPage, QWidget* convertVideoPage,
                                bool audioDvaOption = false);
SettingsDialogLayout ConversionSettingsLayout(bool alphaPage, QWidget* convertVideoPage, bool audioDvaOption = false);

// "Batch Import Settings": Video and Alpha.
int RunBatchSettingsDialog(QWidget* parent);
SettingsDialogLayout BatchSettingsLayout();

}  // namespace zub::settings

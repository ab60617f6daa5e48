// "Import Sequence Settings": the sequence's own page (fit, resize method, field and contour
// options, clip name) and thin Video and Alpha pages, editing a copy of the settings that is
// handed back only on OK. Kept thin so the shared settings pages can take the Video and Alpha
// tabs over.
#pragma once

#include <QDialog>

#include <string>

#include "zubimport/ImportSettings.h"

class QButtonGroup;
class QCheckBox;
class QComboBox;
class QDoubleSpinBox;
class QLineEdit;

namespace zub {

class SeqSettingsDlg : public QDialog {
public:
    SeqSettingsDlg(const ImportSettings& settings, const std::string& clipName, QWidget* parent = nullptr);

    // What the pages hold now (the fit word from the radio buttons and the two lists).
    ImportSettings Settings() const;
    std::string ClipName() const;

private:
    ImportSettings base_;
    QButtonGroup* fitMode_ = nullptr;
    QComboBox* area_ = nullptr;
    QComboBox* method_ = nullptr;
    QCheckBox* swap_ = nullptr;
    QCheckBox* shift_ = nullptr;
    QCheckBox* adapt_ = nullptr;
    QCheckBox* alphaAdapt_ = nullptr;
    QCheckBox* fillGaps_ = nullptr;
    QLineEdit* clipName_ = nullptr;
    QCheckBox* videoUncompressed_ = nullptr;
    QDoubleSpinBox* videoRate_ = nullptr;
    QCheckBox* fixedSize_ = nullptr;
    QLineEdit* videoDir_ = nullptr;
    QCheckBox* createAlpha_ = nullptr;
    QCheckBox* alphaSame_ = nullptr;
    QCheckBox* alphaUncompressed_ = nullptr;
    QDoubleSpinBox* alphaRate_ = nullptr;
};

}  // namespace zub

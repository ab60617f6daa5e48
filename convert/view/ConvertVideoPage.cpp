#include <QCheckBox>
#include <QComboBox>
#include <QFormLayout>
#include <QGroupBox>
#include <QVBoxLayout>

#include <algorithm>

#include "convert/view/ConvertView.h"
#include "imgseq/ImageFitting.h"

namespace zub {

namespace {

QComboBox* List(QWidget* parent, const char* name, const QStringList& entries)
{
    auto* box = new QComboBox(parent);
    box->setObjectName(name);
    box->addItems(entries);
    return box;
}

}  // namespace

ConvertVideoPage::ConvertVideoPage(ImportSettings& settings, QWidget* parent)
    : controls::CTabdDlgPage("Convert Video", parent), settings_(settings)
{
    setObjectName("convertVideoPage");
    // The same modes, areas and methods, in the same order, as the fit word numbers them.
    fitMode_ = List(this, "fitMode", {"Center", "Upper Left", "Upper Right", "Lower Left", "Lower Right", "Stretch All",
                                      "Fit Height", "Fit Width", "Fit All", "Stretch Height", "Stretch Width"});
    area_ = List(this, "area", {"Safe Title", "Safe Image", "Normal"});
    method_ = List(this, "resizeMethod", {"Nearest", "BiLinear", "BiCubic"});

    auto* top = new QVBoxLayout(this);
    auto* form = new QFormLayout();
    form->addRow("Fit &Mode:", fitMode_);
    form->addRow("&Fit Image Size to Video Size:", area_);
    form->addRow("&Resize Method:", method_);
    top->addLayout(form);
    auto* fields = new QGroupBox("Field Do&minance:", this);
    fields->setObjectName("fieldDominance");
    auto* fieldLayout = new QVBoxLayout(fields);
    swap_ = new QCheckBox("S&wap Field Scanlines", fields);
    swap_->setObjectName("swap");
    shift_ = new QCheckBox("Shift Image &Down One Scanline", fields);
    shift_->setObjectName("shift");
    fieldLayout->addWidget(swap_);
    fieldLayout->addWidget(shift_);
    top->addWidget(fields);
    top->addStretch(1);
}

void ConvertVideoPage::OnSetActive()
{
    const FitWordParts parts = SplitFitWord(settings_.fitWord);
    // A word from an older record may hold numbers the lists lack: show the first entry.
    auto pick = [](QComboBox* box, int index) { box->setCurrentIndex(index >= 0 && index < box->count() ? index : 0); };
    pick(fitMode_, parts.mode);
    pick(area_, parts.area);
    pick(method_, parts.method);
    swap_->setChecked(settings_.swapFields != 0);
    shift_->setChecked(settings_.shiftDown != 0);
}

bool ConvertVideoPage::OnKillActive()
{
    settings_.fitWord = MakeFitWord(fitMode_->currentIndex(), area_->currentIndex(), method_->currentIndex());
    settings_.swapFields = swap_->isChecked() ? 1 : 0;
    settings_.shiftDown = shift_->isChecked() ? 1 : 0;
    return true;
}

}  // namespace zub

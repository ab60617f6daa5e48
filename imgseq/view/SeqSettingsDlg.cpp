#include "imgseq/view/SeqSettingsDlg.h"

#include <QButtonGroup>
#include <QCheckBox>
#include <QComboBox>
#include <QFormLayout>
#include <QGridLayout>
#include <QGroupBox>
#include <QLabel>
#include <QLineEdit>
#include <QRadioButton>
#include <QVBoxLayout>

#include "imgseq/ImageFitting.h"
#include "settings/view/SettingsViews.h"

namespace zub {

namespace {

QCheckBox* Check(const char* text, QWidget* parent, const char* name)
{
    auto* c = new QCheckBox(QString::fromUtf8(text), parent);
    c->setObjectName(name);
    return c;
}

// The fit modes in the order of their control ids (1061 up): the mode is the id less 1061.
constexpr int kFirstFitControl = 1061;
const char* const kModes[] = {"&Center",    "Upper Left", "Upper Right", "Lower Left",     "Lower Right",  "&Stretch All",
                              "Fit Height", "Fit Width",  "Fit &All",    "Stretch Height", "Stretch Width"};

}  // namespace

CImpSeqSettingsPage::CImpSeqSettingsPage(ImportSettings& settings, std::string& clipName, QWidget* parent)
    : CTabdDlgPage("Import Sequence", parent), settings_(settings), clipName_(clipName)
{
    setObjectName("importSequencePage");
    auto* layout = new QVBoxLayout(this);
    auto* fitBox = new QGroupBox("Fit", this);
    auto* fitGrid = new QGridLayout(fitBox);
    fitMode_ = new QButtonGroup(this);
    for (int i = 0; i < 11; ++i) {
        auto* r = new QRadioButton(kModes[i], fitBox);
        r->setObjectName(QString("fitMode%1").arg(i));
        r->setProperty("controlId", kFirstFitControl + i);
        fitMode_->addButton(r, i);
        fitGrid->addWidget(r, i % 6, i / 6);
    }
    layout->addWidget(fitBox);

    auto* form = new QFormLayout();
    area_ = new QComboBox(this);
    area_->setObjectName("area");
    area_->addItems({"Safe Title", "Safe Image", "Normal"});
    method_ = new QComboBox(this);
    method_->setObjectName("resizeMethod");
    method_->addItems({"Nearest", "BiLinear", "BiCubic"});
    form->addRow("&Fit Image Size to Video Size:", area_);
    form->addRow("&Resize Method:", method_);
    layout->addLayout(form);

    auto* dominance = new QGroupBox("Field Do&minance:", this);
    auto* domLayout = new QVBoxLayout(dominance);
    swap_ = Check("S&wap Field Scanlines", dominance, "swap");
    shift_ = Check("Shift Image &Down One Scanline", dominance, "shift");
    domLayout->addWidget(swap_);
    domLayout->addWidget(shift_);
    layout->addWidget(dominance);

    auto* contour = new QGroupBox("Adaptive Contour Control", this);
    auto* contourLayout = new QVBoxLayout(contour);
    adapt_ = Check("Video", contour, "videoAdaptive");
    alphaAdapt_ = Check("Alpha", contour, "alphaAdaptive");
    contourLayout->addWidget(adapt_);
    contourLayout->addWidget(alphaAdapt_);
    layout->addWidget(contour);

    fillGaps_ = Check("Fill &gaps in the numbering", this, "fillGaps");
    layout->addWidget(fillGaps_);
    auto* nameForm = new QFormLayout();
    name_ = new QLineEdit(this);
    name_->setObjectName("clipName");
    nameForm->addRow("Clip &name:", name_);
    layout->addLayout(nameForm);
    layout->addStretch(1);

    OnSetActive();
}

void CImpSeqSettingsPage::OnSetActive()
{
    const FitWordParts parts = SplitFitWord(settings_.fitWord);
    // A fit word from a profile may hold values no control shows: nothing is checked or
    // selected then, and leaving the page keeps the stored part as it is.
    if (QAbstractButton* b = fitMode_->button(parts.mode)) {
        b->setChecked(true);
    } else if (QAbstractButton* checked = fitMode_->checkedButton()) {
        fitMode_->setExclusive(false);
        checked->setChecked(false);
        fitMode_->setExclusive(true);
    }
    area_->setCurrentIndex(parts.area >= 0 && parts.area < area_->count() ? parts.area : -1);
    method_->setCurrentIndex(parts.method >= 0 && parts.method < method_->count() ? parts.method : -1);
    swap_->setChecked(settings_.swapFields != 0);
    shift_->setChecked(settings_.shiftDown != 0);
    adapt_->setChecked(settings_.videoAdaptive != 0);
    alphaAdapt_->setChecked(settings_.alphaAdaptive != 0);
    fillGaps_->setChecked(settings_.fillGaps != 0);
    name_->setText(QString::fromStdString(clipName_));
}

bool CImpSeqSettingsPage::OnKillActive()
{
    const FitWordParts parts = SplitFitWord(settings_.fitWord);
    const int mode = fitMode_->checkedId() >= 0 ? fitMode_->checkedId() : parts.mode;
    const int area = area_->currentIndex() >= 0 ? area_->currentIndex() : parts.area;
    const int method = method_->currentIndex() >= 0 ? method_->currentIndex() : parts.method;
    // Unchanged parts keep the stored word whole (a negative or odd word from a profile).
    if (mode != parts.mode || area != parts.area || method != parts.method)
        settings_.fitWord = MakeFitWord(mode, area, method);
    settings_.swapFields = swap_->isChecked() ? 1 : 0;
    settings_.shiftDown = shift_->isChecked() ? 1 : 0;
    settings_.videoAdaptive = adapt_->isChecked() ? 1 : 0;
    settings_.alphaAdaptive = alphaAdapt_->isChecked() ? 1 : 0;
    settings_.fillGaps = fillGaps_->isChecked() ? 1 : 0;
    clipName_ = name_->text().toStdString();
    return true;
}

std::unique_ptr<controls::CTabdDlg> MakeImpSeqSettingsDialog(QWidget* parent, ImportSettings& settings,
                                                             std::string& clipName)
{
    settings::SettingsDialogLayout layout;
    layout.title = "Import Sequence Settings";
    layout.leading.push_back({new CImpSeqSettingsPage(settings, clipName), {}});
    layout.video = true;
    layout.alpha = true;
    layout.audio = false;
    auto dlg = settings::MakeSettingsDialog(parent, layout, settings);
    dlg->setObjectName("importSequenceSettings");
    // Cancel puts the settings back; the clip name goes back with them.
    const std::string nameBefore = clipName;
    auto* d = dlg.get();
    QObject::connect(d, &QDialog::rejected, d, [&clipName, nameBefore] { clipName = nameBefore; });
    return dlg;
}

}  // namespace zub

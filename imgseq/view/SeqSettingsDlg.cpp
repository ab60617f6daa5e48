#include "imgseq/view/SeqSettingsDlg.h"

#include <QButtonGroup>
#include <QCheckBox>
#include <QComboBox>
#include <QDialogButtonBox>
#include <QDoubleSpinBox>
#include <QFormLayout>
#include <QGridLayout>
#include <QGroupBox>
#include <QLabel>
#include <QLineEdit>
#include <QRadioButton>
#include <QTabWidget>
#include <QVBoxLayout>

#include "imgseq/ImageFitting.h"

namespace zub {

namespace {

constexpr double kMiB = 1024.0 * 1024.0;

QDoubleSpinBox* RateBox(std::int32_t rate, QWidget* parent, const char* name)
{
    auto* box = new QDoubleSpinBox(parent);
    box->setObjectName(name);
    box->setRange(0.1, 100.0);
    box->setDecimals(2);
    box->setSuffix(" MB/sec");
    box->setValue(rate / kMiB);
    return box;
}

QCheckBox* Check(const char* text, bool on, QWidget* parent, const char* name)
{
    auto* c = new QCheckBox(QString::fromUtf8(text), parent);
    c->setObjectName(name);
    c->setChecked(on);
    return c;
}

}  // namespace

SeqSettingsDlg::SeqSettingsDlg(const ImportSettings& s, const std::string& clipName, QWidget* parent)
    : QDialog(parent), base_(s)
{
    setWindowTitle("Import Sequence Settings");
    auto* tabs = new QTabWidget(this);
    tabs->setObjectName("tabs");

    // Import Sequence page.
    auto* seq = new QWidget(tabs);
    auto* seqLayout = new QVBoxLayout(seq);
    auto* fitBox = new QGroupBox("Fit", seq);
    auto* fitGrid = new QGridLayout(fitBox);
    fitMode_ = new QButtonGroup(this);
    static const char* const kModes[] = {"&Center",    "Upper Left", "Upper Right", "Lower Left",
                                         "Lower Right", "&Stretch All", "Fit Height", "Fit Width",
                                         "Fit &All",    "Stretch Height", "Stretch Width"};
    const FitWordParts parts = SplitFitWord(s.fitWord);
    for (int i = 0; i < 11; ++i) {
        auto* r = new QRadioButton(kModes[i], fitBox);
        r->setObjectName(QString("fitMode%1").arg(i));
        fitMode_->addButton(r, i);
        fitGrid->addWidget(r, i % 6, i / 6);
        r->setChecked(i == parts.mode);
    }
    seqLayout->addWidget(fitBox);
    auto* form = new QFormLayout();
    area_ = new QComboBox(seq);
    area_->setObjectName("area");
    area_->addItems({"Safe Title", "Safe Image", "Normal"});
    area_->setCurrentIndex(parts.area);
    method_ = new QComboBox(seq);
    method_->setObjectName("resizeMethod");
    method_->addItems({"Nearest", "BiLinear", "BiCubic"});
    method_->setCurrentIndex(parts.method);
    form->addRow("&Fit Image Size to Video Size:", area_);
    form->addRow("&Resize Method:", method_);
    seqLayout->addLayout(form);
    auto* dominance = new QGroupBox("Field Do&minance:", seq);
    auto* domLayout = new QVBoxLayout(dominance);
    swap_ = Check("S&wap Field Scanlines", s.swapFields, dominance, "swap");
    shift_ = Check("Shift Image &Down One Scanline", s.shiftDown, dominance, "shift");
    domLayout->addWidget(swap_);
    domLayout->addWidget(shift_);
    seqLayout->addWidget(dominance);
    auto* contour = new QGroupBox("Adaptive Contour Control", seq);
    auto* contourLayout = new QVBoxLayout(contour);
    adapt_ = Check("Video", s.videoAdaptive, contour, "videoAdaptive");
    alphaAdapt_ = Check("Alpha", s.alphaAdaptive, contour, "alphaAdaptive");
    contourLayout->addWidget(adapt_);
    contourLayout->addWidget(alphaAdapt_);
    seqLayout->addWidget(contour);
    fillGaps_ = Check("Fill &gaps in the numbering", s.fillGaps, seq, "fillGaps");
    seqLayout->addWidget(fillGaps_);
    auto* nameForm = new QFormLayout();
    clipName_ = new QLineEdit(QString::fromStdString(clipName), seq);
    clipName_->setObjectName("clipName");
    nameForm->addRow("Clip &name:", clipName_);
    seqLayout->addLayout(nameForm);
    tabs->addTab(seq, "Import Sequence");

    // Video page.
    auto* video = new QWidget(tabs);
    auto* vForm = new QFormLayout(video);
    videoUncompressed_ = Check("&Uncompressed", s.videoUncompressed, video, "videoUncompressed");
    videoRate_ = RateBox(s.videoDataRate, video, "videoDataRate");
    fixedSize_ = Check("Use &fixed field size", s.fixedFieldSize, video, "fixedFieldSize");
    videoDir_ = new QLineEdit(QString::fromStdString(s.videoDir), video);
    videoDir_->setObjectName("videoDir");
    vForm->addRow(videoUncompressed_);
    vForm->addRow("Data rate:", videoRate_);
    vForm->addRow(fixedSize_);
    vForm->addRow("Importing directory:", videoDir_);
    tabs->addTab(video, "Video");

    // Alpha page.
    auto* alpha = new QWidget(tabs);
    auto* aForm = new QFormLayout(alpha);
    createAlpha_ = Check("&Create alpha", s.createAlpha, alpha, "createAlpha");
    alphaSame_ = Check("Same as Video", s.alphaSameAsVideo, alpha, "alphaSameAsVideo");
    alphaUncompressed_ = Check("U&ncompressed", s.alphaUncompressed, alpha, "alphaUncompressed");
    alphaRate_ = RateBox(s.alphaDataRate, alpha, "alphaDataRate");
    aForm->addRow(createAlpha_);
    aForm->addRow(alphaSame_);
    aForm->addRow(alphaUncompressed_);
    aForm->addRow("Data rate:", alphaRate_);
    tabs->addTab(alpha, "Alpha");

    auto* buttons = new QDialogButtonBox(QDialogButtonBox::Ok | QDialogButtonBox::Cancel, this);
    connect(buttons, &QDialogButtonBox::accepted, this, &QDialog::accept);
    connect(buttons, &QDialogButtonBox::rejected, this, &QDialog::reject);
    auto* layout = new QVBoxLayout(this);
    layout->addWidget(tabs);
    layout->addWidget(buttons);
}

ImportSettings SeqSettingsDlg::Settings() const
{
    ImportSettings s = base_;
    s.fitWord = MakeFitWord(std::max(0, fitMode_->checkedId()), area_->currentIndex(), method_->currentIndex());
    s.swapFields = swap_->isChecked();
    s.shiftDown = shift_->isChecked();
    s.videoAdaptive = adapt_->isChecked();
    s.alphaAdaptive = alphaAdapt_->isChecked();
    s.fillGaps = fillGaps_->isChecked();
    s.videoUncompressed = videoUncompressed_->isChecked();
    // A rate the page shows unchanged keeps its exact byte value.
    if (std::abs(videoRate_->value() - base_.videoDataRate / kMiB) >= 0.005)
        s.videoDataRate = static_cast<std::int32_t>(videoRate_->value() * kMiB + 0.5);
    s.fixedFieldSize = fixedSize_->isChecked();
    s.videoDir = videoDir_->text().toStdString();
    if (!s.videoDir.empty() && s.videoDir.back() != '/' && s.videoDir.back() != '\\') s.videoDir += '/';
    s.createAlpha = createAlpha_->isChecked();
    s.alphaSameAsVideo = alphaSame_->isChecked();
    s.alphaUncompressed = alphaUncompressed_->isChecked();
    if (std::abs(alphaRate_->value() - base_.alphaDataRate / kMiB) >= 0.005)
        s.alphaDataRate = static_cast<std::int32_t>(alphaRate_->value() * kMiB + 0.5);
    return s;
}

std::string SeqSettingsDlg::ClipName() const
{
    return clipName_->text().toStdString();
}

}  // namespace zub

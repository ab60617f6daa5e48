#include <QCheckBox>
#include <QGridLayout>
#include <QHBoxLayout>
#include <QLabel>
#include <QLineEdit>
#include <QPushButton>
#include <QStyle>
#include <QVBoxLayout>

#include "controls/FolderPicker.h"
#include "controls/NumericEdit.h"
#include "settings/view/SettingsViews.h"
#include "zubimport/Prompt.h"

namespace zub::settings {

namespace {

QString Named(QWidget* w, const char* role, int id)
{
    const QString name = QStringLiteral("%1_%2").arg(role).arg(id);
    w->setObjectName(name);
    return name;
}

}  // namespace

CVidRecSettingsDlg::CVidRecSettingsDlg(RatePage::Kind kind, ImportSettings& settings, QWidget* parent)
    : CTabdDlgPage(kind == RatePage::Kind::Video ? "Video" : "Alpha", parent), model_(kind, settings)
{
    const bool video = kind == RatePage::Kind::Video;
    Named(this, video ? "videoPage" : "alphaPage", video ? 118 : 117);
    auto* top = new QVBoxLayout(this);

    if (model_.HasCreateAlpha()) {
        createAlpha_ = new QCheckBox("Create Alpha", this);
        Named(createAlpha_, "createAlpha", 1381);
        sameAsVideo_ = new QCheckBox("&Same as Video", this);
        Named(sameAsVideo_, "sameAsVideo", 1380);
        top->addWidget(createAlpha_);
        top->addWidget(sameAsVideo_);
        connect(createAlpha_, &QCheckBox::toggled, this, [this](bool on) {
            model_.SetCreateAlpha(on);
            ShowEnables();
        });
        connect(sameAsVideo_, &QCheckBox::toggled, this, [this](bool on) {
            model_.sameAsVideo = on;
            ShowEnables();
        });
    }

    auto* rateRow = new QGridLayout;
    rateLabel_ = new QLabel("Data &Rate:", this);
    Named(rateLabel_, "dataRateLabel", 1108);
    uncompressed_ = new QCheckBox("&Uncompressed", this);
    Named(uncompressed_, "uncompressed", 1124);
    rate_ = new controls::NumericEdit(this);
    Named(rate_, "datarate", 1109);
    rate_->Scroll()->setObjectName("datarateSpin_1109");
    rate_->SetRange(kRateMinHundredths, kRateMaxHundredths, kRatePlaces);
    rate_->SetMaxChars(kRateMaxChars);
    rate_->setAccessibleName("Data Rate");
    rateLabel_->setBuddy(rate_);
    mbLabel_ = new QLabel("MB/sec", this);
    Named(mbLabel_, "mbsec", 1130);
    rate_->setFixedWidth(rate_->fontMetrics().horizontalAdvance(QStringLiteral("00.000")) + 12);
    auto* editBox = new QHBoxLayout;
    editBox->setSpacing(0);
    editBox->addWidget(rate_);
    editBox->addWidget(rate_->Scroll());
    rateRow->addWidget(rateLabel_, 0, 0);
    rateRow->addLayout(editBox, 0, 1);
    rateRow->addWidget(mbLabel_, 0, 2);
    rateRow->addWidget(uncompressed_, 0, 4);
    rateRow->setColumnMinimumWidth(3, 12);
    rateRow->setColumnStretch(5, 1);
    top->addLayout(rateRow);
    connect(uncompressed_, &QCheckBox::toggled, this, [this](bool on) {
        model_.uncompressed = on;
        ShowEnables();
    });

    if (model_.HasFixedField()) {
        fixedField_ = new QCheckBox("Use &fixed field size", this);
        Named(fixedField_, "fixedFieldSize", 2353);
        top->addWidget(fixedField_);
    }

    if (model_.HasDirectory()) {
        auto* dirLabel = new QLabel("Importing &Directory:", this);
        Named(dirLabel, "directoryLabel", 2253);
        directory_ = new QLineEdit(this);
        Named(directory_, "directory", 2254);
        directory_->setAccessibleName("Importing Directory");
        dirLabel->setBuddy(directory_);
        browse_ = new QPushButton(this);
        Named(browse_, "browse", 1176);
        browse_->setIcon(style()->standardIcon(QStyle::SP_DirOpenIcon));
        browse_->setAccessibleName("Browse");
        browse_->setToolTip("Browse");
        browse_->setAutoDefault(false);
        auto* dirRow = new QHBoxLayout;
        dirRow->addWidget(directory_, 1);
        dirRow->addWidget(browse_);
        top->addWidget(dirLabel);
        top->addLayout(dirRow);
        connect(browse_, &QPushButton::clicked, this, [this] { Browse(); });
    }
    top->addStretch(1);

    // Keyboard order follows the page from top to bottom.
    QList<QWidget*> order;
    if (createAlpha_) order << createAlpha_ << sameAsVideo_;
    order << uncompressed_ << rate_;
    if (fixedField_) order << fixedField_;
    if (directory_) order << directory_ << browse_;
    for (int i = 1; i < order.size(); ++i) setTabOrder(order[i - 1], order[i]);

    OnSetActive();
}

void CVidRecSettingsDlg::OnSetActive()
{
    model_.Load();
    const QSignalBlocker b1(uncompressed_);
    if (createAlpha_) {
        const QSignalBlocker b2(createAlpha_);
        const QSignalBlocker b3(sameAsVideo_);
        createAlpha_->setChecked(model_.createAlpha);
        sameAsVideo_->setChecked(model_.sameAsVideo);
    }
    uncompressed_->setChecked(model_.uncompressed);
    rate_->setText(QString::fromStdString(model_.rateText));
    if (auto v = rate_->Value()) rate_->SetValue(*v);
    if (fixedField_) fixedField_->setChecked(model_.fixedFieldSize);
    if (directory_) directory_->setText(QString::fromStdString(model_.directory));
    ShowEnables();
}

void CVidRecSettingsDlg::ShowEnables()
{
    const RateEnables e = model_.Enables();
    if (sameAsVideo_) sameAsVideo_->setEnabled(e.sameAsVideo);
    rateLabel_->setEnabled(e.rateLabel);
    uncompressed_->setEnabled(e.uncompressed);
    rate_->setEnabled(e.rateEdit);
    mbLabel_->setEnabled(e.mbLabel);
    if (fixedField_) fixedField_->setEnabled(e.fixedField);
}

bool CVidRecSettingsDlg::OnKillActive()
{
    if (createAlpha_) {
        model_.createAlpha = createAlpha_->isChecked();
        model_.sameAsVideo = sameAsVideo_->isChecked();
    }
    model_.uncompressed = uncompressed_->isChecked();
    model_.rateText = rate_->text().toStdString();
    if (fixedField_) model_.fixedFieldSize = fixedField_->isChecked();
    if (directory_) model_.directory = directory_->text().toStdString();

    const ApplyResult r = model_.Apply();
    if (r) {
        if (directory_) directory_->setText(QString::fromStdString(model_.directory));
        return true;
    }
    MakeActive();
    if (r.field == Field::DataRate) {
        rate_->selectAll();
        rate_->setFocus();
        Prompter().Tell(r.message);
    } else {
        Prompter().Tell(r.message);
        if (directory_) directory_->setFocus();
    }
    return false;
}

void CVidRecSettingsDlg::Browse()
{
    const std::string picked = controls::PickFolder(this, kVideoBrowseTitle, directory_->text().toStdString());
    if (!picked.empty()) directory_->setText(QString::fromStdString(PickedFolderForEdit(picked)));
}

}  // namespace zub::settings

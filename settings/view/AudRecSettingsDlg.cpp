#include <QCheckBox>
#include <QComboBox>
#include <QGridLayout>
#include <QHBoxLayout>
#include <QLabel>
#include <QLineEdit>
#include <QPushButton>
#include <QStyle>
#include <QVBoxLayout>

#include "controls/FolderPicker.h"
#include "settings/view/SettingsViews.h"
#include "zubimport/Prompt.h"

namespace zub::settings {

CAudRecSettingsDlg::CAudRecSettingsDlg(ImportSettings& settings, bool withDvaOption, QWidget* parent)
    : CTabdDlgPage("Audio", parent), model_(settings, withDvaOption)
{
    setObjectName("audioPage_119");
    auto* top = new QVBoxLayout(this);

    auto* dirLabel = new QLabel("Importing &Directory:", this);
    dirLabel->setObjectName("directoryLabel");
    directory_ = new QLineEdit(this);
    directory_->setObjectName("directory_2255");
    directory_->setAccessibleName("Importing Directory");
    dirLabel->setBuddy(directory_);
    auto* browse = new QPushButton(this);
    browse->setObjectName("browse_1176");
    browse->setIcon(style()->standardIcon(QStyle::SP_DirOpenIcon));
    browse->setAccessibleName("Browse");
    browse->setToolTip("Browse");
    browse->setAutoDefault(false);
    auto* dirRow = new QHBoxLayout;
    dirRow->addWidget(directory_, 1);
    dirRow->addWidget(browse);
    top->addWidget(dirLabel);
    top->addLayout(dirRow);
    connect(browse, &QPushButton::clicked, this, [this] { Browse(); });

    auto* lists = new QGridLayout;
    auto addList = [&](int column, const char* label, const char* name, QStringList entries) {
        auto* l = new QLabel(label, this);
        auto* box = new QComboBox(this);
        box->setObjectName(name);
        box->addItems(entries);
        box->setAccessibleName(label);
        l->setBuddy(box);
        lists->addWidget(l, 0, column);
        lists->addWidget(box, 1, column);
        return box;
    };
    sampleRate_ = addList(0, "Sample Rate", "sampleRate_1128", {"48 kHz", "44 kHz", "32 kHz", "22 kHz", "11 kHz"});
    channels_ = addList(1, "Stereo/Mono", "channels_1131", {"Stereo", "Mono"});
    dataBits_ = addList(2, "Data Bits", "dataBits_1132", {"16", "8"});
    top->addLayout(lists);

    dva_ = new QCheckBox("dva", this);
    dva_->setObjectName("dva_1133");
    top->addWidget(dva_);
    dva_->setVisible(model_.DvaShown());
    dva_->setEnabled(model_.DvaShown());

    auto* note = new QLabel(
        "Audio Sample Rate, Mono/Stereo, and Sample Bits Attributes are determined by the source file.", this);
    note->setObjectName("note");
    note->setWordWrap(true);
    note->hide();
    top->addWidget(note);
    top->addStretch(1);

    setTabOrder(directory_, browse);
    setTabOrder(browse, sampleRate_);
    setTabOrder(sampleRate_, channels_);
    setTabOrder(channels_, dataBits_);
    setTabOrder(dataBits_, dva_);

    OnSetActive();
}

void CAudRecSettingsDlg::OnSetActive()
{
    model_.Load();
    sampleRate_->setCurrentIndex(model_.sampleRatePos);
    channels_->setCurrentIndex(model_.channelsPos);
    dataBits_->setCurrentIndex(model_.dataBitsPos);
    dva_->setChecked(model_.dva);
    directory_->setText(QString::fromStdString(model_.directory));
}

bool CAudRecSettingsDlg::OnKillActive()
{
    model_.sampleRatePos = sampleRate_->currentIndex();
    model_.channelsPos = channels_->currentIndex();
    model_.dataBitsPos = dataBits_->currentIndex();
    model_.dva = dva_->isChecked();
    model_.directory = directory_->text().toStdString();
    const ApplyResult r = model_.Apply();
    if (r) {
        directory_->setText(QString::fromStdString(model_.directory));
        return true;
    }
    MakeActive();
    Prompter().Tell(r.message);
    directory_->setFocus();
    return false;
}

void CAudRecSettingsDlg::Browse()
{
    const std::string picked = controls::PickFolder(this, kAudioBrowseTitle, directory_->text().toStdString());
    if (!picked.empty()) directory_->setText(QString::fromStdString(PickedFolderForEdit(picked)));
}

}  // namespace zub::settings

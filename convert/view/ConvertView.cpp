#include "convert/view/ConvertView.h"

#include <QCheckBox>
#include <QGridLayout>
#include <QHBoxLayout>
#include <QLabel>
#include <QLineEdit>
#include <QPlainTextEdit>
#include <QPushButton>
#include <QScrollBar>
#include <QSignalBlocker>
#include <QTextCursor>
#include <QVBoxLayout>

#include <algorithm>
#include <climits>

#include "controls/ProgressBar.h"
#include "convert/ConvertSession.h"
#include "settings/view/SettingsViews.h"

namespace zub {

namespace {

// Registered when the module is loaded, so CConvertDlg::Modal shows the dialog in a widgets host.
const bool g_registered = [] {
    RegisterConvertDialogRunner(&RunConvertDialog);
    return true;
}();

// Texts travel as the module's 8-bit strings.
QString Q(const std::string& s)
{
    return QString::fromLocal8Bit(s.c_str());
}

template <class W>
W* Named(W* w, const char* name)
{
    w->setObjectName(name);
    return w;
}

void SetChecked(QCheckBox* box, bool checked, bool enabled)
{
    const QSignalBlocker quiet(box);
    box->setChecked(checked);
    box->setEnabled(enabled);
}

}  // namespace

CConvertView::CConvertView(ConvertSession& session, QWidget* parent) : QDialog(parent), session_(session)
{
    setObjectName("mediaConversion_335");
    setWindowTitle("Media Conversion");

    clipName_ = Named(new QLineEdit(this), "clipName_1168");
    auto* nameLabel = Named(new QLabel("Clip &Name:", this), "clipNameLabel");
    nameLabel->setBuddy(clipName_);

    video_ = Named(new QCheckBox("&Video", this), "video_1127");
    audio_ = Named(new QCheckBox("A&udio", this), "audio_1129");
    dva_ = Named(new QCheckBox("&dva", this), "dva_1333");

    // Long paths: the box keeps one line per file and scrolls sideways to show the names' ends.
    fileNames_ = Named(new QPlainTextEdit(this), "fileNames_1173");
    fileNames_->setReadOnly(true);
    fileNames_->setLineWrapMode(QPlainTextEdit::NoWrap);
    fileNames_->setTabChangesFocus(true);
    fileNames_->setTextInteractionFlags(Qt::TextSelectableByKeyboard | Qt::TextSelectableByMouse);
    fileNames_->setFixedHeight(fileNames_->fontMetrics().lineSpacing() * 2 + 2 * fileNames_->frameWidth() + 12 +
                               fileNames_->horizontalScrollBar()->sizeHint().height());
    auto* namesLabel = Named(new QLabel("Filename(s):", this), "fileNamesLabel");
    namesLabel->setBuddy(fileNames_);

    showImages_ = Named(new QCheckBox("Show Images on Output", this), "showImages_1136");

    videoProgress_ = Named(new controls::ProgressBar(this), "videoProgress");
    videoProgress_->SetShowCounts(true);
    videoProgress_->SetRange(0, 0);
    audioProgress_ = Named(new controls::ProgressBar(this), "audioProgress");
    audioProgress_->SetRange(0, 100);
    auto* videoLabel = Named(new QLabel("Video:", this), "videoProgressLabel");
    auto* audioLabel = Named(new QLabel("Audio:", this), "audioProgressLabel");

    settings_ = Named(new QPushButton("&Settings...", this), "settings_2275");
    convert_ = Named(new QPushButton("Convert", this), "convert_1508");
    close_ = Named(new QPushButton("Cancel", this), "close_2");
    settings_->setAutoDefault(false);
    close_->setAutoDefault(false);
    convert_->setDefault(true);

    auto* top = new QVBoxLayout(this);
    auto* nameRow = new QHBoxLayout();
    nameRow->addWidget(nameLabel);
    nameRow->addWidget(clipName_, 1);
    top->addLayout(nameRow);
    auto* choices = new QHBoxLayout();
    choices->addWidget(video_);
    choices->addWidget(audio_);
    choices->addWidget(dva_);
    choices->addStretch(1);
    top->addLayout(choices);
    top->addWidget(namesLabel);
    top->addWidget(fileNames_);
    top->addWidget(showImages_);
    auto* bars = new QGridLayout();
    bars->addWidget(videoLabel, 0, 0);
    bars->addWidget(videoProgress_, 0, 1);
    bars->addWidget(audioLabel, 1, 0);
    bars->addWidget(audioProgress_, 1, 1);
    bars->setColumnStretch(1, 1);
    top->addLayout(bars);
    auto* buttons = new QHBoxLayout();
    buttons->addWidget(settings_);
    buttons->addStretch(1);
    buttons->addWidget(convert_);
    buttons->addWidget(close_);
    top->addLayout(buttons);
    resize(460, sizeHint().height());

    // Tab order follows the form from the name down to the buttons.
    setTabOrder(clipName_, video_);
    setTabOrder(video_, audio_);
    setTabOrder(audio_, dva_);
    setTabOrder(dva_, fileNames_);
    setTabOrder(fileNames_, showImages_);
    setTabOrder(showImages_, settings_);
    setTabOrder(settings_, convert_);
    setTabOrder(convert_, close_);

    // Only what the user does goes to the session; Refresh sets the controls with signals
    // blocked, so a shown state never echoes back as a change.
    connect(clipName_, &QLineEdit::textEdited, this,
            [this](const QString& t) { session_.SetClipName(t.toLocal8Bit().toStdString()); });
    connect(video_, &QCheckBox::clicked, this, [this](bool on) { session_.SetVideoChecked(on); });
    connect(audio_, &QCheckBox::clicked, this, [this](bool on) { session_.SetAudioChecked(on); });
    connect(dva_, &QCheckBox::clicked, this, [this](bool on) { session_.SetDvaChecked(on); });
    connect(showImages_, &QCheckBox::clicked, this, [this](bool on) {
        session_.SetShowImages(on);
        Refresh();
    });
    connect(settings_, &QPushButton::clicked, this, [this] { OnSettings(); });
    connect(convert_, &QPushButton::clicked, this, [this] { session_.OnConvert(); });
    connect(close_, &QPushButton::clicked, this, [this] { session_.OnCancel(); });

    session_.onViewChanged = [this] { Refresh(); };
    session_.onEnd = [this](int code) { OnSessionEnded(code); };
}

CConvertView::~CConvertView()
{
    session_.onViewChanged = nullptr;
    session_.onEnd = nullptr;
}

void CConvertView::Refresh()
{
    const ConvertViewState& v = session_.View();

    const QString name = Q(v.clipName);
    if (clipName_->text() != name) {
        const QSignalBlocker quiet(clipName_);
        clipName_->setText(name);
    }
    clipName_->setEnabled(v.nameEnabled);

    SetChecked(video_, v.videoChecked, v.videoEnabled);
    SetChecked(audio_, v.audioChecked, v.audioEnabled);
    SetChecked(dva_, v.dvaChecked, v.dvaEnabled);
    SetChecked(showImages_, v.showImagesChecked, v.showImagesEnabled);

    // The box shows one name a line; the caret goes to the end of the text, which scrolls the
    // last name's end (the clip name and extension) into view.
    QString names = Q(v.fileNames);
    names.replace("\r\n", "\n");
    if (fileNames_->toPlainText() != names) fileNames_->setPlainText(names);
    QTextCursor caret = fileNames_->textCursor();
    caret.movePosition(QTextCursor::End);
    fileNames_->setTextCursor(caret);
    fileNames_->ensureCursorVisible();

    settings_->setEnabled(v.settingsEnabled);
    convert_->setText(Q(v.convertLabel));
    convert_->setEnabled(v.convertEnabled);
    close_->setText(Q(v.closeLabel));
    close_->setEnabled(v.closeEnabled);

    // The bar takes ints; a frame budget as large as a whole volume is shown clipped.
    const int range = static_cast<int>(std::min<unsigned>(v.videoRange, INT_MAX));
    videoProgress_->SetRange(0, range);
    videoProgress_->SetPos(static_cast<int>(std::min<unsigned>(v.videoProgress, static_cast<unsigned>(range))));
    audioProgress_->SetPos(std::clamp(v.audioProgress, 0, 100));
}

void CConvertView::OnSettings()
{
    if (!settings_->isEnabled()) return;
    settings::RunConversionSettingsDialog(this, session_.AlphaPageWanted(), new ConvertVideoPage(CurrentSettings()));
    session_.SettingsChanged();
}

void CConvertView::reject()
{
    if (session_.Ended()) {
        OnSessionEnded(session_.EndCode());
        return;
    }
    // Once an abort was accepted the button is off, and so are Escape and the close box.
    if (close_->isEnabled()) session_.OnCancel();
}

void CConvertView::accept()
{
    if (convert_->isEnabled()) session_.OnConvert();
}

void CConvertView::done(int code)
{
    if (ending_) QDialog::done(code);
}

void CConvertView::OnSessionEnded(int code)
{
    ending_ = true;
    QDialog::done(code);
}

void RunConvertDialog(ConvertSession& session, void* parent)
{
    // Hosts hand their parent window as the widget it is.
    CConvertView view(session, static_cast<QWidget*>(parent));
    if (!session.Init() || session.Ended()) return;  // probing ended it, after saying why
    view.Refresh();
    view.exec();
}

}  // namespace zub

// The "Media Conversion" dialog: clip name, the Video / Audio / dva choices, the target file
// names, "Show Images on Output", Settings, Convert and the Cancel/Abort button, with the video
// (frames) and audio (percent) progress bars. Everything it shows comes from the session's view
// state and every control only calls the session's handler: the rules live in the engine, so a
// conversion behaves the same behind this dialog as it does headless.
#pragma once

#include <QDialog>

#include "controls/TabbedDialog.h"
#include "zubimport/ImportSettings.h"

class QCheckBox;
class QComboBox;
class QLabel;
class QLineEdit;
class QPlainTextEdit;
class QPushButton;

namespace zub {

class ConvertSession;

namespace controls {
class ProgressBar;
}

// The settings dialog's first page: how each decoded frame is laid into the recorder's frame
// (fit mode, safe area, resize method) and the field options, the values the conversion's
// frame path reads.
class ConvertVideoPage : public controls::CTabdDlgPage {
public:
    explicit ConvertVideoPage(ImportSettings& settings, QWidget* parent = nullptr);

    void OnSetActive() override;
    bool OnKillActive() override;

private:
    ImportSettings& settings_;
    QComboBox* fitMode_ = nullptr;
    QComboBox* area_ = nullptr;
    QComboBox* method_ = nullptr;
    QCheckBox* swap_ = nullptr;
    QCheckBox* shift_ = nullptr;
};

class CConvertView : public QDialog {
public:
    // The session must outlive the dialog. Call session.Init() after construction: the view
    // follows the session from its first change.
    explicit CConvertView(ConvertSession& session, QWidget* parent = nullptr);
    ~CConvertView() override;

    // Shows the session's view state in the controls.
    void Refresh();

    // The Settings button: "Media Conversion Settings", then the targets are named again.
    void OnSettings();

    // Escape and the window's close box act as the Cancel/Abort button.
    void reject() override;
    // Enter presses Convert (the default button) when it is enabled.
    void accept() override;
    // The dialog ends only when the session has ended, with the session's code.
    void done(int code) override;

    QLineEdit* ClipName() const { return clipName_; }
    QCheckBox* Video() const { return video_; }
    QCheckBox* Audio() const { return audio_; }
    QCheckBox* Dva() const { return dva_; }
    QPlainTextEdit* FileNames() const { return fileNames_; }
    QCheckBox* ShowImages() const { return showImages_; }
    QPushButton* Settings() const { return settings_; }
    QPushButton* Convert() const { return convert_; }
    QPushButton* Close() const { return close_; }
    controls::ProgressBar* VideoProgress() const { return videoProgress_; }
    controls::ProgressBar* AudioProgress() const { return audioProgress_; }

private:
    void OnSessionEnded(int code);

    ConvertSession& session_;
    bool ending_ = false;
    QLineEdit* clipName_ = nullptr;
    QCheckBox* video_ = nullptr;
    QCheckBox* audio_ = nullptr;
    QCheckBox* dva_ = nullptr;
    QPlainTextEdit* fileNames_ = nullptr;
    QCheckBox* showImages_ = nullptr;
    QPushButton* settings_ = nullptr;
    QPushButton* convert_ = nullptr;
    QPushButton* close_ = nullptr;
    controls::ProgressBar* videoProgress_ = nullptr;
    controls::ProgressBar* audioProgress_ = nullptr;
};

// What CConvertDlg::Modal runs under a widgets application: probes through the session, then
// shows the dialog modally until the session ends.
void RunConvertDialog(ConvertSession& session, void* parent);

}  // namespace zub

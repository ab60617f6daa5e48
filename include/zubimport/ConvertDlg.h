// The Media Conversion dialog class as the host sees it: its static preference copier, its
// public switches, and the audio conversion members. The dialog itself drives a headless
// engine; the members here delegate to the engines so they run without any window.
#pragma once

#include <memory>
#include <string>

#include "zubimport/Prefs.h"

namespace zub {

class CConvertDlg {
public:
    explicit CConvertDlg(std::string sourcePath = {});
    ~CConvertDlg();
    CConvertDlg(const CConvertDlg&) = delete;
    CConvertDlg& operator=(const CConvertDlg&) = delete;

    // toModule != 0: open the recorder from the record and copy its settings in (1), or show
    // string 10000 and return 0. toModule == 0: copy the settings out, close the recorder.
    static int CopyPrefs(int toModule, CConvertDlgPrefs& prefs);

    // Runs the dialog modally; 1 = done, 2 = nothing produced.
    int Modal(void* parent = nullptr);

    void SetReverseDV(int v) { reverseDV_ = v; }
    int GetBatchProcess() const { return batchProcess_; }
    void SetBatchProcess(int v) { batchProcess_ = v; }
    int GetAudioOnly() const { return audioOnly_; }
    void SetAudioOnly(int v) { audioOnly_ = v; }
    int GetSettingsOnly() const { return settingsOnly_; }
    void SetSettingsOnly(int v) { settingsOnly_ = v; }
    int GetSettingsButton() const { return settingsButton_; }
    void SetSettingsButton(int v) { settingsButton_ = v; }
    std::string GetStrSettings() const { return strSettings_; }
    void SetStrSettings(const char* s) { strSettings_ = s ? s : ""; }
    void SetAlphaPage(int v) { alphaPage_ = v; }

    // Audio conversion of a finished 16-bit WAVE file to the target format of the settings.
    int ConvertAudioFile(const char* source, const char* target);
    int GetAudioDetails(const std::string& file, long& rate, int& bits, int& stereo);
    unsigned long ConvertStereoWaveData(short* in, unsigned long outBytes, int bits, int stereo);
    unsigned long ConvertMonoWaveData(short* in, unsigned long outBytes, int bits, int stereo);
    int ReadSamplesFromFile(long count, unsigned char* buffer, unsigned long offset);

    const std::string& SourcePath() const { return source_; }

private:
public:
    struct AudioState;  // the audio conversion's open files and buffers (convert/audio)

private:

    std::string source_;
    int reverseDV_ = 0;
    int batchProcess_ = 0;
    int audioOnly_ = 0;
    int settingsOnly_ = 0;
    int settingsButton_ = 0;
    int alphaPage_ = 0;
    std::string strSettings_;
    // shared_ptr: its deleter is bound where AudioState is complete, so this header and the
    // destructor need not see it.
    std::shared_ptr<AudioState> audio_;
};

}  // namespace zub

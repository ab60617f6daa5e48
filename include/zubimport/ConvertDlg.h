// The Media Conversion dialog class as the host sees it: its static preference copier, its
// public switches, and the audio conversion members. The dialog itself drives a headless
// engine; the members here delegate to the engines so they run without any window.
#pragma once

#include <functional>
#include <memory>
#include <string>
#include <vector>

#include "zubimport/Prefs.h"

namespace zub {

class ConvertSession;

// What a host sees of a running conversion: the same figures the dialog's two progress bars
// show, delivered on the thread that runs the conversion's event loop.
struct ConvertProgress {
    unsigned framesDone = 0;
    unsigned totalFrames = 0;    // the clip's frame budget; 0 before Convert
    int audioPercent = 0;        // 0..100
    bool converting = false;     // false once the conversion has ended
};

// The outcome of the last Modal run, for hosts that report what was made.
struct ConvertReport {
    int endCode = 0;             // 1 done, 2 nothing produced or discarded
    bool converted = false;      // Convert was accepted and a conversion ran
    bool discarded = false;      // the files were deleted at the end
    std::string videoPath;       // the clip (.zub), "" when no video was converted
    std::string audioPath;       // the .wav or .dva, "" when no audio was converted
    bool madeDva = false;
    unsigned framesDone = 0;     // frames imported into the clip
    unsigned totalFrames = 0;    // the clip's frame budget
    bool alpha = false;          // a key track was made
    int videoRate = 0;           // bytes per second, -1 uncompressed
    std::vector<std::string> messages;  // every message shown (or suppressed in batch mode), in order
    std::string frameRateNote;   // a variable-rate source: conformed or not, frames repeated and dropped; "" otherwise
    double seconds = 0;          // from Convert to the end
};

class CConvertDlg {
public:
    // serverMode selects the server frame path (4:2:2 frames placed as they come).
    explicit CConvertDlg(std::string sourcePath = {}, int serverMode = 0);
    ~CConvertDlg();
    CConvertDlg(const CConvertDlg&) = delete;
    CConvertDlg& operator=(const CConvertDlg&) = delete;

    // toModule != 0: open the recorder from the record and copy its settings in (1), or show
    // string 10000 and return 0. toModule == 0: copy the settings out, close the recorder.
    static int CopyPrefs(int toModule, CConvertDlgPrefs& prefs);

    // Runs the dialog modally; 1 = done, 2 = nothing produced. Without a widgets application
    // the same conversion runs headless on an event loop (one is made when the host has none),
    // asking its questions through the module's prompter.
    int Modal(void* parent = nullptr);

    // 1 when some route can open the file for video or audio.
    static int ConvertableFile(const char* path, int serverFlag);
    // The files the last conversion made: the .dva alone; or the .wav and then the .zub; or the
    // .zub; or the .wav.
    void GetTargetFilePaths(std::string& first, std::string& second) const;
    // The last message the conversion showed or, in batch mode, would have shown; "" when none.
    std::string GetResultText() const;
    const ConvertReport& GetReport() const { return report_; }

    // Hosts: progress as it happens (called on the conversion's thread, about once a second
    // and at the end), and the Abort button. PressAbort may be called from any thread: it
    // asks the abort question like the dialog's button, or closes when nothing runs.
    void SetProgressCallback(std::function<void(const ConvertProgress&)> callback) { progress_ = std::move(callback); }
    void PressAbort();

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
    friend class ConvertSession;
    struct AudioState;  // the audio conversion's open files and buffers (convert/audio)

    std::string source_;
    int serverMode_ = 0;
    int reverseDV_ = 0;
    int batchProcess_ = 0;
    int audioOnly_ = 0;
    int settingsOnly_ = 0;
    int settingsButton_ = 0;
    int alphaPage_ = 1;
    std::string strSettings_;
    std::string videoPath_, audioPath_;
    int convertVideo_ = 0, convertAudio_ = 0, makeDva_ = 0;
    ConvertReport report_;
    std::function<void(const ConvertProgress&)> progress_;
    ConvertSession* session_ = nullptr;  // while Modal runs; guarded for PressAbort
    // Made on the first audio call; the destructor, out of line, is where AudioState is whole.
    std::unique_ptr<AudioState> audio_;
};

}  // namespace zub

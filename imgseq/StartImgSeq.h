// The image sequence entry: opens the recorder from the host's record, applies the record to
// the module's settings, runs the sequence dialog (or, for a given list of files, the run
// without any window), tells the host which clip was made, hands the settings back and
// closes the recorder. The exported StartImgSeqDlg is this with the module-wide notification
// and no file list.
#pragma once

#include <string>
#include <vector>

#include "imgseq/ImgSeqRun.h"
#include "zubimport/Prefs.h"

namespace zub {

// Called with (0, context, clip path) when a clip was made, whatever the dialog's result.
using ImgSeqNotifyFn = void (*)(int code, void* context, const char* clipPath);

// The host's record has no room for a callback, so a host that wants to hear of the clip
// registers one here; it stays until replaced (nullptr removes it).
void SetImgSeqNotification(ImgSeqNotifyFn notify, void* context);

struct ImgSeqEntryOptions {
    // Non-empty: no dialog; these images are imported with the settings the record gives
    // (the batch import and the command-line host).
    std::vector<std::string> files;
    std::string clipName;
    bool batchProcess = false;
    bool fillGaps = false;
    ImgSeqNotifyFn notify = nullptr;   // null: the registered one
    void* notifyContext = nullptr;
};

// 1 when the dialog ended with OK (headless: a clip was made), else 0.
int StartImgSeq(CImgSeqPrefsInfo* prefs, const ImgSeqEntryOptions& options, ImgSeqRunResult* run = nullptr);

// The sequence dialog, supplied by the dialog layer when it is loaded. It answers false when
// no widgets application runs (nothing was shown); otherwise it runs the dialog modally and
// fills `ok` and the path of the clip it made (empty when none).
using ImgSeqDialogFn = bool (*)(const CImgSeqPrefsInfo& prefs, bool& ok, std::string& clipPath);
void RegisterImgSeqDialog(ImgSeqDialogFn dialog);

}  // namespace zub

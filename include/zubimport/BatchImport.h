// The batch import's notification of the host: after a row made a clip (after every row, or
// only after the last one, as the record's notify-every-item flag says) the host's function
// is called with 0, that flag, the clip's path, the second target's path ("" when none) and
// the row's type (1 video, 2 audio, 3 images).
#pragma once

extern "C" {

typedef void (*BatchNotifyFn)(int zero, int notifyEveryItem, const char* clipPath, const char* secondPath, int type);

// The function StartBatchImpDlg hands to the batch dialog; null (the default) notifies nobody.
// A 32-bit record field cannot hold a function's address on this platform, so the host
// registers it here instead of passing it in nDlgParam1.
void ImportDllSetBatchNotify(BatchNotifyFn fn);
}

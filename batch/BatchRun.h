// The batch run ("Go!"): every row of the list through the importer of its type, then its
// companion program, then a read-back of what it made; results per row, the host notified of
// the clips made. Headless: the batch dialog, the command-line host and tests all call RunBatch.
#pragma once

#include <atomic>
#include <functional>
#include <memory>
#include <string>
#include <vector>

#include "batch/BatchList.h"
#include "zubimport/BatchImport.h"
#include "zubimport/Prefs.h"

namespace zub::batch {

// What one importer made of one row.
struct RowImport {
    bool ok = false;
    std::string resultText;   // the importer's own message, "" when it gave none
    std::string clipPath;     // the first target (clip, .wav or .dva)
    std::string secondPath;   // the second target ("" when none)
    long expectedFrames = -1; // frames the importer put into the video clip; -1 when it does not say
    std::string frameRateNote; // a variable-rate source: how its frames became the clip's; "" otherwise
};

// The seam to the two importers: the conversion engine for video and audio rows, the image
// sequence run for image rows. Each runs in batch mode: no questions, no message boxes.
class IBatchRowImporter {
public:
    virtual ~IBatchRowImporter() = default;
    virtual RowImport ImportVideo(const std::string& path, const std::string& props) = 0;
    virtual RowImport ImportAudio(const std::string& path, const std::string& props) = 0;
    virtual RowImport ImportImages(const std::string& path, const std::string& props) = 0;
};

// The importers of this module: CConvertDlg in batch mode (audio-only for audio rows) and the
// image sequence run with the single file.
std::unique_ptr<IBatchRowImporter> MakeModuleRowImporter();

struct BatchRunOptions {
    IBatchRowImporter* importer = nullptr;  // null: MakeModuleRowImporter()
    BatchNotifyFn notify = nullptr;         // the host's notification, may be null
    int notifyEveryItem = 0;                // 0: only after the last row
    void* parentWindow = nullptr;           // handed to the MXF unwrapper
    std::string moduleFolder;               // companions and libMXFWrap.so; "": ModuleFolderForBatch()
    bool verifyClips = true;                // read every clip back before a row counts as done
    // Called before each row (row index, row count) and once at the end (count, count).
    std::function<void(int row, int rows)> progress;
    // Non-zero stops the run before the next row; rows not reached keep no result.
    const std::atomic<int>* cancel = nullptr;
};

struct BatchRowResult {
    bool ok = false;
    bool ran = false;          // false for rows a cancel left out
    std::string result;        // the Result column
    std::string clipPath, secondPath;
    std::string frameRateNote;  // the importer's, kept whether the row succeeded or not
    bool notified = false;
};

struct BatchRunResult {
    std::vector<BatchRowResult> rows;
    bool anyFailed = false;    // the dialog's failure mark
    bool cancelled = false;
    bool closeDialog = false;  // no row failed: the dialog closes itself
};

// Runs the rows in order. The recorder must be open (StartBatchImpDlg and RunBatchWithPrefs
// open it). Per-row failures never stop the run.
BatchRunResult RunBatch(const std::vector<BatchRow>& rows, const BatchRunOptions& options);

// The whole entry headless, for hosts without a window: opens the recorder from the record
// (string 10000 and false when it cannot), applies the record's settings, runs the rows with
// the notification registered by the host, the record's notify-every-item flag (nDlgParam2),
// reads the settings back into the record and closes the recorder. *result gets the run.
bool RunBatchWithPrefs(CBatchImpPrefsInfo& prefs, const std::vector<BatchRow>& rows, BatchRunResult* result,
                       IBatchRowImporter* importer = nullptr);

// Checks that a file a row made holds what the importer reported: a clip's frame count as
// the recorder reads it, a WAVE file's header and data. "" when it does, else the reason.
std::string VerifyMadeFile(const std::string& path, long expectedFrames);

// The dialog's seam: the dialog layer registers how to run the batch dialog when a widgets
// application exists. It gets the record's title, dialog parameters and the notification and
// returns 1 for OK; *lastProps gets the settings string the dialog used last.
struct BatchDialogParams {
    std::string title;
    int dlgParam1 = 0;
    int notifyEveryItem = 0;
    int mediaKindMode = 1;
    BatchNotifyFn notify = nullptr;
};
using BatchDialogRunner = int (*)(const BatchDialogParams& params, std::string* lastProps);
void RegisterBatchDialogRunner(BatchDialogRunner runner);
BatchDialogRunner RegisteredBatchDialogRunner();
// The host's notification as registered with ImportDllSetBatchNotify.
BatchNotifyFn RegisteredBatchNotify();

}  // namespace zub::batch

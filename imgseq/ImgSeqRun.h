// The image sequence import run: one clip on the recorder volume made from a list of still
// images, one image per frame. Headless: the sequence dialog, the batch import and the
// command-line host all call RunImageSequence; questions go through the module's prompter
// (none at all in batch mode), and whoever owns a Cancel button asks the abort question
// (AskAbortQuestion) and hands the answer in through `abortRequest`.
//
// Images are decoded and fitted ahead of the frame being written, on worker threads, within
// a small window; frames still reach the recorder in list order and every question is asked
// on the caller's thread in that order.
#pragma once

#include <atomic>
#include <cstdint>
#include <functional>
#include <string>
#include <vector>

namespace zub {

class FrameHolder;

struct ImgSeqRunRequest {
    std::vector<std::string> files;        // one image per frame, in order
    std::string clipName;                  // empty: DefaultClipName(files[0], videoDir)
    bool batchProcess = false;             // no questions, next free name, failures discard
    bool fillGaps = false;                 // hold the previous frame for each missing number
    std::function<void(int done, int total)> progress;   // may be empty
    const std::atomic<int>* abortRequest = nullptr;      // 0 go on, -1 discard, 1 keep (polled per frame)

    // "Show Images on Output", read before every frame (ZUB only); null: the settings' value.
    const std::atomic<int>* showOnOutput = nullptr;
    // Called after each frame went to the recorder with the frame as imported (null when its
    // image did not load); the dialog's preview and message pump hang here.
    std::function<void(int frame, const FrameHolder* image)> frameDone;
    // Worker threads decoding ahead: -1 as many as the machine has cores (at most 4), 0 none
    // (every image is loaded on the caller's thread, as it is needed).
    int decodeThreads = -1;
};

struct ImgSeqRunResult {
    int endCode = 2;            // 1 clip made (complete or kept partial), 2 nothing made / discarded
    std::string clipPath;       // the clip that was made (empty when none)
    int framesWritten = 0;
    std::string message;        // the last message shown (or that batch mode suppressed); "" when none
    bool keptPartial = false;   // aborted with "keep": the clip holds the frames written so far
    int decodeWindow = 0;       // frames the workers were allowed to decode ahead
    int peakFramesAhead = 0;    // the most decoded frames held at once (bounded by the window)
};

// Runs with the module's CurrentSettings() and TheRecorder() (already open).
ImgSeqRunResult RunImageSequence(const ImgSeqRunRequest& request);

// The question a Cancel button asks while a run is going: -1 abort and discard (Yes), 1 abort
// and keep (No), 0 go on (Cancel).
int AskAbortQuestion();

// The texts the run shows.
inline constexpr const char* kAbortQuestion =
    "Abort and discard video file ?\nYES - aborts and discards the video file.\nNO - aborts and keeps the video "
    "file built so far.\nCancel - cancels the abort request and continues building the video file.";
inline constexpr const char* kNoSpaceText = "There is not enough space in the volume.";
inline constexpr const char* kExistsText = "%s exists already.";
inline constexpr const char* kCreateFailedText =
    "Failed to create video file.\r\nPlease make sure the video recording directory is properly set.\r\n\nImport "
    "of 32bit video files to a system drive are not supported.";
inline constexpr const char* kLoadFailedText = "Failed to load image into memory:\n%s\nContinue ?";
inline constexpr const char* kImportFailedText = "Failed to import image into video file.  Continue ?";
inline constexpr const char* kRateFailedText = "Failed to store video rate in file";

// Frames per second of a run's rate record: 24 with the fixed field size (film rate) flag,
// else 30 on a 525-line recorder, else 25.
int RunFramesPerSecond(bool fixedFieldSize, int lines);
// The 16-bit field at byte 24 of the clip's "ZUBV" record: bytes per frame in 512-byte units,
// from the video rate taken as an unsigned number (-1, uncompressed, is 0xFFFFFFFF).
std::uint16_t RateRecordSectors(std::int32_t videoRate, int framesPerSecond);

}  // namespace zub

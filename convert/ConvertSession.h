// The conversion engine behind CConvertDlg: probes the source when the dialog opens, names
// the targets, starts a conversion on Convert, takes each decoded frame through the image
// pipeline into the recorder, supervises the running streams once a second, finishes the files
// (association, rate record, audio format) and carries out errors and aborts.
//
// It is a QObject on the thread that runs the dialog's event loop. The graph route delivers
// frames on the media framework's streaming thread; that thread shares only the atomic flags
// below with the dialog thread and talks to it by posted events, exactly as the design's
// window messages do. Nothing here draws: a dialog (or a headless host) reads ViewState and
// calls the handlers.
#pragma once

#include <QObject>

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <deque>
#include <mutex>
#include <thread>
#include <cstdint>
#include <functional>
#include <memory>
#include <string>
#include <vector>

#include "convert/FrameScaler.h"
#include "device/RecorderDevice.h"
#include "graph/GraphVideoReader.h"
#include "imgseq/ImageFitting.h"
#include "zubimport/ConvertDlg.h"
#include "zubimport/Prompt.h"

namespace zub {

class CGraphAudioReader;
class CQuickTimeVideoSource;
class CQuickTimeAudioSource;

// Posted events, numbered as the window messages they stand for.
enum ConvertEvent : int {
    kEvConvertFrame = 0x40A,     // movie pump step
    kEvConvertError = 0x40B,     // a conversion error: ask whether to discard
    kEvStopVideo = 0x40D,        // the frame budget is used up
    kEvConvertAbort = 0x40E,     // carry out an abort asked while a frame was in progress
    kEvResizeError = 0x40F,      // the frame did not fit (width, height)
    kEvPressConvert = 0x5000,    // the Convert button, pressed by the batch mode or a host
    kEvPressAbort = 0x5001,      // the Abort button, pressed from any thread
};

// The controls of the dialog as the engine wants them shown.
struct ConvertViewState {
    std::string clipName;
    bool videoChecked = false, videoEnabled = false;
    bool audioChecked = false, audioEnabled = false;
    bool dvaChecked = false, dvaEnabled = false;
    bool showImagesChecked = false, showImagesEnabled = false;
    bool settingsEnabled = true;
    bool convertEnabled = true;
    bool nameEnabled = true;
    std::string convertLabel = "Convert";   // "OK" in settings-only mode
    std::string closeLabel = "Cancel";      // "&Abort" while converting
    bool closeEnabled = true;
    std::string fileNames;                  // the Filename(s) box
    unsigned videoProgress = 0, videoRange = 0;
    int audioProgress = 0;
    bool converting = false;
};

// The clip's frame budget from a duration and a time per frame (100 ns units): the nearest
// whole number of frames (1,001,000 / 333,667 gives 3). 0 when the rate is unknown.
unsigned FrameBudget(std::int64_t duration, std::int64_t timePerFrame);

class ConvertSession final : public QObject, public IVideoFrameSink {
public:
    explicit ConvertSession(CConvertDlg& owner);
    ~ConvertSession() override;
    ConvertSession(const ConvertSession&) = delete;
    ConvertSession& operator=(const ConvertSession&) = delete;

    // Probing when the dialog opens. False when the dialog ended there (EndCode() says how).
    bool Init();

    // Handlers of the dialog's controls.
    void SetClipName(const std::string& name);
    void SetVideoChecked(bool on);
    void SetAudioChecked(bool on);
    void SetDvaChecked(bool on);
    void SetShowImages(bool on);
    void SettingsChanged();  // after the settings dialog: recompute the targets
    void OnConvert();
    void OnCancel();         // the close button: Cancel, or Abort while converting

    // Without a window nobody is left to press a button after a Convert that did not start:
    // the session then ends as Cancel would.
    void SetHeadless(bool on) { headless_ = on; }

    bool Ended() const { return ended_; }
    // The switches the host set (settings-only, alpha page, batch ...).
    const CConvertDlg& Owner() const { return dlg_; }
    bool AlphaPageWanted() const;
    int EndCode() const { return endCode_; }
    const ConvertViewState& View() const { return view_; }

    // Called when the dialog ends (with its code) and whenever the view state changed.
    std::function<void(int)> onEnd;
    std::function<void()> onViewChanged;

    // The graph route's frame sink (streaming thread).
    int VideoCallback(const VideoSample& sample) override;

    // The frame path's pieces, reachable by tests. The compression of a working frame is split
    // over the pipeline's two workers (FitAndPack, then ImportPacked).
    int ServerVideoCompressFrame(std::uint8_t* data);
    // The sample as the server path receives it: 40-byte header and rows at its depth.
    bool ServerFrameFromSample(const VideoSample& sample, std::vector<std::uint8_t>& bitmap);

    // Timer 10's work; the error handlers run it directly.
    void CompletionStep();

    // Posts one of the events above to the session; safe from any thread.
    void Post(int type, int w = 0, int h = 0);

protected:
    void customEvent(QEvent* event) override;
    void timerEvent(QTimerEvent* event) override;

private:
    int ServerVideoCallback(const VideoSample& sample);
    int TakeFrame(const VideoSample& sample);
    int TakeMoviePicture();
    bool FitAndPack(Image& image, FrameHolder& holder);
    bool PlanarPlacement();  // sets placement_; false when the fit needs the general path
    int ImportPacked(const FrameHolder& holder, unsigned index);
    FrameImport ImportRecord(unsigned index, const void* data, FrameSource source) const;

    // The graph route's frames go through two workers, fitting and importing, so decoding,
    // scaling and compressing overlap on separate cores; one worker per stage keeps the order.
    struct FrameJob {
        Image image;
        FrameHolder holder;
        unsigned index = 0;
        VideoSample planar;  // the decoder's held picture, waiting for the scaler
    };
    void StartPipeline();
    void StopPipeline();
    void WaitPipelineIdle();
    bool PipelineIdle();
    void FitWorker();
    void ImportWorker();
    void FinishJob(std::unique_ptr<FrameJob> job);
    int Enqueue(std::unique_ptr<FrameJob> job, bool taken, std::deque<std::unique_ptr<FrameJob>>& stage);
    void End(int code);
    void UpdateTargets();
    void StreamChoiceChanged();
    bool FormTarget(const std::string& dir, const char* ext, std::string& path);
    bool PrepareTarget(std::string& path);
    bool SetUpFramePath();
    void ReleaseReaders();
    void StopGraphs();
    void StopVideoGraph();
    void OnConvertFrame();
    void OnConvertError();
    void OnResizeError(int w, int h);
    void AskDiscard(const std::string& text);
    void OnConvertAbort();
    void Changed();
    void ReportProgress();
    bool StreamsDone();
    void WriteDva();

    // Messages: every one is recorded for the report; `always` ones are shown in batch mode too.
    Answer Say(const std::string& text, Buttons buttons = Buttons::Ok, Icon icon = Icon::Warning,
               int defaultButton = 0, bool always = false);

    CConvertDlg& dlg_;
    ConvertViewState view_;
    bool ended_ = false;
    int endCode_ = 0;

    // Readers; null when absent.
    std::unique_ptr<CGraphVideoReader> graphVideo_;
    std::unique_ptr<CGraphAudioReader> graphAudio_;
    std::unique_ptr<CQuickTimeVideoSource> qtVideo_;
    std::unique_ptr<CQuickTimeAudioSource> qtAudio_;
    int qtVideoFinished_ = 1;
    int qtAudioFinished_ = 1;
    bool graphUsable_ = false;

    int hasVideo_ = 0, hasAudio_ = 0;
    bool sourceAlpha_ = false;
    int sourceWidth_ = 0, sourceHeight_ = 0, sourceBits_ = 0;
    int fitWidth_ = 0;  // the width the fit sees: the stored width, or the shown one for non-square pixels
    int choiceVideo_ = -1, choiceAudio_ = -1, choiceDva_ = -1;
    bool isMov_ = false;
    int movieParNum_ = 0, movieParDen_ = 0;  // the movie's pixel aspect as its container gives it; 0 unknown
    std::int64_t movieSpan_ = 0;  // a variable-rate movie's span (100 ns); 0 when its rate is constant
    bool SourceIsVariableRate() const { return (graphVideo_ && graphVideo_->IsVariableRate()) || movieSpan_ > 0; }

    // Convert-time copies of the settings: the streaming thread reads these, never the record.
    int videoUncompressed_ = 0, alphaUncompressed_ = 0;
    std::int32_t videoRate_ = -1, alphaRate_ = -1;
    bool createAlpha_ = false, alphaSame_ = false, fixedFieldSize_ = false;
    bool videoOption_ = false, alphaOption_ = false;
    std::int32_t fitWord_ = 0;
    bool swap_ = false, shift_ = false;
    bool isZub_ = true;
    int lines_ = 525;
    FrameSize frame_{};
    std::atomic<int> showImages_{0};

    std::int32_t videoItem_ = -1, alphaItem_ = -1;
    std::atomic<unsigned> framesDone_{0};
    unsigned totalFrames_ = 0;
    std::atomic<unsigned> audioProgress_{0};
    unsigned audioProgressShown_ = 0;

    int videoDone_ = 1, audioDone_ = 1;
    int convertVideo_ = 0, convertAudio_ = 0, makeDva_ = 0;
    std::string videoPath_, audioPath_;

    std::atomic<int> abortRequested_{0}, discardFiles_{0}, errorFlag_{0}, budgetReached_{0};
    std::atomic<int> callbackBusy_{0}, pendingAbort_{0};
    int inActionTimer_ = 0, errorPending_ = 0;
    int timer10_ = 0, timer2000_ = 0;
    int endPoll_ = 0;  // notices the end of the streams between two ticks
    bool convertPosted_ = false;
    bool headless_ = false;
    std::chrono::steady_clock::time_point startTick_{};

    // The server path's buffers (the working frames live in the pipeline's jobs).
    std::vector<std::uint8_t> serverBuffer_;
    std::vector<std::uint8_t> alphaBuffer_;
    std::vector<std::uint8_t> sampleBitmap_;  // streaming thread only

    static constexpr int kPipelineDepth = 4;  // frames in flight at most: bounds the memory
    std::mutex postMutex_;  // makes the event hand-over from the streaming thread visible to race checkers
    std::mutex pipeMutex_;
    std::condition_variable pipeCv_;
    std::deque<std::unique_ptr<FrameJob>> toFit_, toImport_, spare_;
    int inFlight_ = 0;
    bool stopWorkers_ = false;
    bool pipelineRunning_ = false;
    std::thread fitThread_, importThread_;
    std::atomic<unsigned> accepted_{0};
    bool planar_ = false;                // the decoder's planes are scaled straight into the frame
    ScaledPlacement placement_{};
    PlanarFrameScaler scaler_;           // the fit worker's
};

// The dialog layer (a part of its own, with widgets) registers how it shows a session; Modal
// uses it while a widgets application runs. The runner returns once the session has ended.
using ConvertDialogRunner = void (*)(ConvertSession& session, void* parent);
void RegisterConvertDialogRunner(ConvertDialogRunner runner);
ConvertDialogRunner RegisteredConvertDialogRunner();

}  // namespace zub

#include "imgseq/ImgSeqRun.h"

#include <algorithm>
#include <cstdio>
#include <cstring>
#include <thread>

#include "device/RecorderDevice.h"
#include "dva/DeleteOnFail.h"
#include "imgseq/FramePrefetch.h"
#include "imgseq/ImageFitting.h"
#include "imgseq/SequenceNaming.h"
#include "imgseq/SequenceReport.h"
#include "zubimport/ImportSettings.h"
#include "zubimport/Prompt.h"

namespace zub {

namespace {

std::string Format(const char* pattern, const std::string& value)
{
    const int n = std::snprintf(nullptr, 0, pattern, value.c_str());
    std::string out(static_cast<std::size_t>(std::max(n, 0)), '\0');
    std::snprintf(out.data(), out.size() + 1, pattern, value.c_str());
    return out;
}

// Gives a clip item back to the recorder when the run ends, however it ends.
class ClipItemHolder {
public:
    ClipItemHolder() = default;
    ~ClipItemHolder() { TheRecorder().ReleaseItem(item_); }
    ClipItemHolder(const ClipItemHolder&) = delete;
    ClipItemHolder& operator=(const ClipItemHolder&) = delete;
    void Take(std::int32_t item) { item_ = item; }
    std::int32_t Item() const { return item_; }

private:
    std::int32_t item_ = -1;
};

int DecodeThreads(int asked)
{
    if (asked >= 0) return std::min(asked, 16);
    const unsigned cores = std::thread::hardware_concurrency();
    return static_cast<int>(std::clamp(cores == 0 ? 1u : cores, 1u, 4u));
}

}  // namespace

int RunFramesPerSecond(bool fixedFieldSize, int lines)
{
    if (fixedFieldSize) return 24;
    return lines == 525 ? 30 : 25;
}

std::uint16_t RateRecordSectors(std::int32_t videoRate, int framesPerSecond)
{
    if (framesPerSecond <= 0) return 0;
    return static_cast<std::uint16_t>((static_cast<std::uint32_t>(videoRate) / static_cast<std::uint32_t>(framesPerSecond)) >> 9);
}

int AskAbortQuestion()
{
    switch (Prompter().Ask(PromptRequest{kAbortQuestion, {}, Buttons::YesNoCancel, Icon::Question, 0})) {
    case Answer::Yes: return -1;
    case Answer::No: return 1;
    default: return 0;
    }
}

ImgSeqRunResult RunImageSequence(const ImgSeqRunRequest& request)
{
    ImgSeqRunResult result;
    // An empty list makes nothing and asks nothing.
    if (request.files.empty()) return result;

    CRecorderDeviceInfo& recorder = TheRecorder();
    const ImportSettings settings = CurrentSettings();
    const bool batch = request.batchProcess;
    auto say = [&](const std::string& text) {
        result.message = text;
        if (!batch) Prompter().Tell(text, {}, Icon::Warning);
    };
    // Yes goes on; batch mode never asks and never goes on.
    auto goOn = [&](const std::string& text) {
        result.message = text;
        if (batch) return false;
        return Prompter().Ask(PromptRequest{text, {}, Buttons::YesNo, Icon::Question, 0}) == Answer::Yes;
    };
    if (recorder.handle == -1) {
        result.message = request.files.front() + ": the disk recorder is not open, no clip can be made";
        if (!batch) Prompter().Tell(result.message, {}, Icon::Error);
        return result;
    }

    // Where the clip goes; an unattended run never overwrites.
    const std::string clipName =
        request.clipName.empty() ? DefaultClipName(request.files.front(), settings.videoDir) : request.clipName;
    std::string clipPath = settings.videoDir + clipName + ".zub";
    if (batch)
        for (int guard = 0; FileExists(clipPath) && guard < 100000; ++guard) clipPath = NextSequenceName(clipPath);

    // Derived values, fixed for the whole run.
    const bool videoUncompressed = settings.videoUncompressed != 0;
    const bool createAlpha = settings.createAlpha != 0;
    const bool alphaSame = settings.alphaSameAsVideo != 0;
    const bool alphaUncompressed = settings.alphaUncompressed != 0;
    const std::int32_t videoRate = videoUncompressed ? -1 : settings.videoDataRate;
    const std::int32_t alphaRate = !createAlpha ? 0 : alphaSame ? videoRate : alphaUncompressed ? -1 : settings.alphaDataRate;
    const int fps = RunFramesPerSecond(settings.fixedFieldSize != 0, recorder.lines);
    const std::vector<std::size_t> plan = FramePlan(request.files, request.fillGaps);
    const int frameCount = static_cast<int>(plan.size());

    ClipSpec spec;
    spec.path = clipPath;
    spec.frames = frameCount;
    spec.videoRate = videoRate;
    spec.alphaRate = alphaRate;
    spec.videoUncompressed = videoUncompressed;
    spec.createAlpha = createAlpha;
    spec.alphaSameAsVideo = alphaSame;
    spec.alphaUncompressed = alphaUncompressed;
    spec.fixedFieldSize = settings.fixedFieldSize != 0;
    ClipItems items;
    switch (recorder.CreateClipItem(spec, items)) {
    case ClipStatus::Ok: break;
    case ClipStatus::NoSpace: say(kNoSpaceText); return result;
    case ClipStatus::Exists: say(Format(kExistsText, clipPath)); return result;
    case ClipStatus::Failed: say(kCreateFailedText); return result;
    }

    // Declared before the item holders so the items are given back before an unfinished
    // file is deleted.
    CDeleteOnFail discard(clipPath);
    ClipItemHolder videoItem, alphaItem;
    videoItem.Take(items.video);
    alphaItem.Take(items.alpha);
    recorder.SetOutputRouting();

    FramePrefetch::Options load;
    load.fitWord = settings.fitWord;
    load.swap = settings.swapFields != 0;
    load.shift = settings.shiftDown != 0;
    load.frameSize = {recorder.frameWidth, recorder.frameHeight};
    load.threads = DecodeThreads(request.decodeThreads);
    load.window = load.threads * 2;
    std::vector<std::string> rows = request.files;
    FramePrefetch prefetch(std::move(rows), load);

    FrameImport frame;
    frame.videoItem = items.video;
    frame.alphaItem = items.alpha;
    frame.source = FrameSource::Pipeline;
    frame.videoRate = videoRate;
    frame.alphaRate = alphaRate;
    frame.videoType = VideoTypeFor(videoUncompressed);
    frame.alphaType = AlphaTypeFor(createAlpha, alphaSame, alphaUncompressed, videoUncompressed);
    frame.videoOption = settings.videoAdaptive != 0;
    frame.alphaOption = settings.alphaAdaptive != 0;

    auto abortRequest = [&] { return request.abortRequest ? request.abortRequest->load() : 0; };
    auto showOnOutput = [&] {
        return request.showOnOutput ? request.showOnOutput->load() != 0 : settings.showImagesOnOutput != 0;
    };

    bool ended = false;  // a failure answered No, or any failure in batch mode: discard
    LoadedFrame current;
    std::size_t currentRow = static_cast<std::size_t>(-1);
    int i = 0;
    for (; i < frameCount && abortRequest() == 0; ++i) {
        if (request.progress) request.progress(i + 1, frameCount);
        const std::size_t row = plan[static_cast<std::size_t>(i)];
        if (row != currentRow) {  // a held frame (filling a gap) shows its row again
            currentRow = row;
            current = prefetch.Take(row);
            if (!current.ok && !goOn(Format(kLoadFailedText, request.files[row]))) {
                ended = true;
                break;
            }
        }
        // A frame whose image did not load is still offered: the recorder's answer decides.
        frame.frame = i;
        frame.data = current.ok ? current.frame.Block() : nullptr;
        if (recorder.ImportFrame(frame) == 1) {
            ++result.framesWritten;
        } else if (!goOn(kImportFailedText)) {
            ended = true;
            break;
        }
        if (recorder.IsZub() && showOnOutput() && frame.data)
            recorder.ShowImage(frame.data, FrameSource::Pipeline, videoUncompressed, videoRate);
        if (request.frameDone) request.frameDone(i, current.ok ? &current.frame : nullptr);
    }
    prefetch.Stop();
    result.decodeWindow = static_cast<int>(prefetch.Window());
    result.peakFramesAhead = static_cast<int>(prefetch.PeakHeld());
    if (ended) return result;  // the guard deletes the file

    std::uint8_t record[116] = {};
    const std::uint16_t sectors = RateRecordSectors(videoRate, fps);
    record[24] = static_cast<std::uint8_t>(sectors & 0xFF);
    record[25] = static_cast<std::uint8_t>(sectors >> 8);
    if (!recorder.SetFileAppInfo(clipPath.c_str(), record)) say(kRateFailedText);

    const int abort = abortRequest();
    if (abort == -1) return result;
    result.keptPartial = abort != 0 || i < frameCount;
    result.endCode = 1;
    result.clipPath = clipPath;
    discard.Release();
    CurrentSettings().showImagesOnOutput = showOnOutput() ? 1 : 0;
    return result;
}

}  // namespace zub

#include "convert/ConvertSession.h"

#include <QCoreApplication>
#include <QEvent>
#include <QTimerEvent>

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <future>
#include <optional>

extern "C" {
#include <libavutil/frame.h>
#include <libavutil/pixfmt.h>
}

#include "device/RecorderDevice.h"
#include "dva/DeleteOnFail.h"
#include "graph/GraphAudioReader.h"
#include "graph/SourceFacts.h"
#include "imgseq/SequenceNaming.h"
#include "quicktime/QuickTimeSource.h"
#include "zubimport/Dva.h"
#include "zubimport/ImportSettings.h"
#include "zubimport/Paths.h"

namespace zub {

namespace {

constexpr int kTimerPeriodMs = 1000;
constexpr int kScrollDelayMs = 200;
// How soon the end of the streams is noticed between the once-a-second ticks: a look costs
// a bus poll, and a conversion's last frames should not wait a twentieth of a second for it.
constexpr int kEndPollMs = 10;

// The messages of the conversion, as the user reads them.
constexpr const char* kFiltersMissing = "ZUB Direct Show Filters are not properly installed";
constexpr const char* kUnknownRate =
    "Unknown video frame rate.\r\n\r\nThe total number of frames in the clip cannot be determined.\r\n"
    "Progress bar might show invalid data.";
constexpr const char* kUnsupported =
    "File format unsupported by the current installation of Direct Show Filters and QuickTime conversion "
    "(QuickTime may not be installed)";
constexpr const char* kNoMemory = "Failed to allocate memory";
constexpr const char* kExists = "%s exists already. Do you want to overwrite it?";
constexpr const char* kDeleteFailed = "Failed to delete file";
constexpr const char* kDriveFull = "Drive is full (or failed to obtain ZUB drive info)";
constexpr const char* kNotEnoughSpace = "There is not enough space in the selected drive (or failed to obtain ZUB drive info)";
constexpr const char* kCreateNoSpace = "Failed to create video file: There is not enough space in the drive.";
constexpr const char* kCreateFailed = "Failed to create video file.";
constexpr const char* kDvaFailed = "Failed to associate video file with dva";
constexpr const char* kRateFailed = "Failed to store video rate in file";
constexpr const char* kConvertError = "Error occurred during conversion.\r\nDo you want to discard the media file ?";
constexpr const char* kResizeError = "An error occurred because of either wrong input width %d or wrong input height %d";
constexpr const char* kAbortQuestion =
    "Abort and discard media files ?\r\nYES - aborts and discards the media file.\r\n"
    "NO - aborts and keeps the media file built so far.\r\n"
    "Cancel - cancels the abort request and continues importing the media file.";

// The black pixel pair of the recorder's 4:2:2 format, as one little-endian 16-bit word.
constexpr std::uint16_t kBlack422 = 0x0F80;

class SizedEvent final : public QEvent {
public:
    SizedEvent(int type, int w, int h) : QEvent(static_cast<QEvent::Type>(QEvent::User + type)), width(w), height(h) {}
    int width, height;
};

std::string Printf1(const char* format, const std::string& arg)
{
    std::string out(std::strlen(format) + arg.size() + 16, '\0');
    const int n = std::snprintf(out.data(), out.size(), format, arg.c_str());
    out.resize(n > 0 ? static_cast<std::size_t>(n) : 0);
    return out;
}

BITMAPINFOHEADER BitmapHeader(int width, int height, int bits)
{
    BITMAPINFOHEADER h{};
    h.biSize = sizeof(BITMAPINFOHEADER);
    h.biWidth = width;
    h.biHeight = height;
    h.biPlanes = 1;
    h.biBitCount = static_cast<WORD>(bits);
    h.biCompression = 0;
    h.biSizeImage = static_cast<DWORD>(static_cast<std::int64_t>(width) * height * bits / 8);
    return h;
}

// A frame's stored rate record: 116 zero bytes with the sectors per frame at offset 24.
void RateRecord(std::uint8_t record[116], std::int32_t videoRate, bool fixedFieldSize, int lines)
{
    std::memset(record, 0, 116);
    const std::uint32_t divisor = fixedFieldSize ? 24u : (lines == 525 ? 30u : 25u);
    const std::uint32_t sectors = (static_cast<std::uint32_t>(videoRate) / divisor) >> 9;
    record[24] = static_cast<std::uint8_t>(sectors & 0xFF);
    record[25] = static_cast<std::uint8_t>((sectors >> 8) & 0xFF);
}

}  // namespace

unsigned FrameBudget(std::int64_t duration, std::int64_t timePerFrame)
{
    if (timePerFrame <= 0 || duration <= 0) return 0;
    const double frames = static_cast<double>(duration) / static_cast<double>(timePerFrame) + 0.5;
    return frames >= 4294967295.0 ? 0xFFFFFFFFu : static_cast<unsigned>(frames);
}

ConvertSession::ConvertSession(CConvertDlg& owner) : dlg_(owner) {}

bool ConvertSession::AlphaPageWanted() const { return dlg_.alphaPage_ != 0; }

ConvertSession::~ConvertSession()
{
    StopGraphs();
    StopPipeline();
    if (qtAudio_) qtAudio_->Finish(true);
    TheRecorder().ReleaseItem(videoItem_);
    TheRecorder().ReleaseItem(alphaItem_);
    ReleaseReaders();
}

void ConvertSession::ReleaseReaders()
{
    if (graphVideo_) graphVideo_->Close();
    if (graphAudio_) graphAudio_->Close();
    graphVideo_.reset();
    graphAudio_.reset();
    qtVideo_.reset();
    qtAudio_.reset();
}

Answer ConvertSession::Say(const std::string& text, Buttons buttons, Icon icon, int defaultButton, bool always)
{
    dlg_.report_.messages.push_back(text);
    const PromptRequest request{text, "Media Conversion", buttons, icon, defaultButton};
    if (dlg_.batchProcess_ && !always) return DefaultAnswer(request);
    return Prompter().Ask(request);
}

void ConvertSession::Changed()
{
    if (onViewChanged) onViewChanged();
}

void ConvertSession::End(int code)
{
    if (ended_) return;
    ended_ = true;
    endCode_ = code;
    if (timer10_) killTimer(timer10_);
    if (timer2000_) killTimer(timer2000_);
    if (endPoll_) killTimer(endPoll_);
    timer10_ = timer2000_ = endPoll_ = 0;
    view_.converting = false;
    ReportProgress();
    if (onEnd) onEnd(code);
}

void ConvertSession::Post(int type, int w, int h)
{
    // Qt's queue lock is invisible to ThreadSanitizer; this one orders the event's
    // construction here before its reading in customEvent.
    std::lock_guard<std::mutex> lock(postMutex_);
    QCoreApplication::postEvent(this, new SizedEvent(type, w, h));
}

// ---- opening ---------------------------------------------------------------------------

bool ConvertSession::Init()
{
    const std::string& src = dlg_.source_;

    // 1. The default clip name: cut at the last '.' of the whole path, then keep what follows
    //    the last separator (so a dotted folder names an extension-less file's clip).
    std::string name = src;
    if (const auto dot = name.rfind('.'); dot != std::string::npos) name.resize(dot);
    name = FileNamePart(name);
    choiceVideo_ = choiceAudio_ = choiceDva_ = -1;
    if (!dlg_.strSettings_.empty()) {
        if (!dlg_.audioOnly_) {
            const std::string& s = dlg_.strSettings_;
            const auto bar = s.find('|');
            name = s.substr(0, bar);
            if (bar != std::string::npos) {
                int v = 0, a = 0, d = 0;
                if (std::sscanf(s.c_str() + bar + 1, "%d,%d,%d", &v, &a, &d) == 3) {
                    choiceVideo_ = v;
                    choiceAudio_ = a;
                    choiceDva_ = d;
                }
            }
        } else {
            name = dlg_.strSettings_;
        }
    }

    // 2. Settings-only relabels Convert; the Settings button needs its switch.
    if (dlg_.settingsOnly_) view_.convertLabel = "OK";
    view_.settingsEnabled = dlg_.settingsButton_ && !dlg_.settingsOnly_;

    // 3. Movies go to the movie route directly.
    isMov_ = src.size() >= 4 && EqualsNoCase(std::string_view(src).substr(src.size() - 4), ".mov");

    // 4. The graph route's readers.
    graphVideo_ = std::make_unique<CGraphVideoReader>();
    graphAudio_ = std::make_unique<CGraphAudioReader>();
    std::string why;
    graphUsable_ = graphVideo_->Init(&why) && graphAudio_->Init(&why);
    if (!graphUsable_) Say(kFiltersMissing, Buttons::Ok, Icon::Warning, 0, true);

    // 5. Probe through the graph. Opened for the decoder's own planes already (what the
    // frame path takes whenever the fit is a plain scale), so Convert need not open it again;
    // the reader describes the picture the same either way.
    graphVideo_->SetPlanarOutput(!dlg_.serverMode_ && !std::getenv("ZUBIMPORT_CONVERT_PACKED"));
    // The sound's probe graph runs beside the picture's: the picture's start is mostly one
    // core decoding the first frames.
    std::string audioWhy;
    std::future<bool> audioOpened;
    if (graphUsable_ && !isMov_)
        audioOpened = std::async(std::launch::async, [this, src, &audioWhy] { return graphAudio_->OpenAudio(src, &audioWhy); });
    if (graphUsable_ && !isMov_ && !dlg_.audioOnly_) hasVideo_ = graphVideo_->OpenVideo(src, &why) ? 1 : 0;
    if (audioOpened.valid()) hasAudio_ = audioOpened.get() ? 1 : 0;
    // 6. A rate the graph cannot tell leaves the budget to the volume's free space.
    if (hasVideo_ && graphVideo_->TimePerFrame() == 0) Say(kUnknownRate, Buttons::Ok, Icon::Warning, 0, true);

    // 7. The movie route. A movie without a picture has no video to offer.
    if (!hasVideo_ && !hasAudio_) {
        graphVideo_.reset();
        graphAudio_.reset();
        qtVideo_ = std::make_unique<CQuickTimeVideoSource>();
        qtAudio_ = std::make_unique<CQuickTimeAudioSource>();
        // The container's own account of the picture is read beside the movie's opening:
        // each decodes the first frames, which for camera footage is a tenth of a second.
        std::future<std::optional<VideoFacts>> movieFacts;
        if (!dlg_.audioOnly_)
            movieFacts = std::async(std::launch::async, [src] {
                VideoFacts facts;
                return ReadVideoFacts(src, &facts) ? std::optional<VideoFacts>(facts) : std::nullopt;
            });
        if (qtVideo_->Start()) {
            if (!dlg_.audioOnly_ && qtVideo_->Open(src.c_str())) {
                int w = 0, h = 0;
                qtVideo_->GetFrameSize(w, h);
                hasVideo_ = (w > 0 && h > 0 && qtVideo_->CountFrames() > 0) ? 1 : 0;
            }
            hasAudio_ = qtAudio_->Open(src.c_str()) ? 1 : 0;
        }
        if (!hasVideo_) qtVideo_.reset();
        if (!hasAudio_) qtAudio_.reset();
        // The movie route steps sample by sample; whether the samples' durations vary, and
        // over what span, comes from the container as the graph route has it.
        const std::optional<VideoFacts> facts = movieFacts.valid() ? movieFacts.get() : std::nullopt;
        if (qtVideo_ && facts) {
            if (facts->variableRate && facts->span > 0) movieSpan_ = facts->span;
            movieParNum_ = facts->parNum;
            movieParDen_ = facts->parDen;
        }
    } else {
        if (!hasVideo_) graphVideo_.reset();
        if (!hasAudio_) graphAudio_.reset();
    }

    // Named as soon as it is known, so a dialog or host can say so before converting.
    if (SourceIsVariableRate()) dlg_.report_.frameRateNote = dlg_.source_ + ": variable frame rate";

    // 8. Nothing opened. The graph's reason for the sound goes to the report first: the
    // unsupported text names neither the file nor why.
    if (!hasVideo_ && !hasAudio_) {
        if (!audioWhy.empty()) dlg_.report_.messages.push_back(audioWhy);
        Say(kUnsupported, Buttons::Ok, Icon::Warning, 0, true);
        End(2);
        return false;
    }

    // 9. The frame path.
    if (hasVideo_ && !SetUpFramePath()) {
        Say(kNoMemory, Buttons::Ok, Icon::Error);
        End(2);
        return false;
    }

    // 10. The controls.
    const ImportSettings& s = CurrentSettings();
    view_.clipName = name;
    const bool both = hasVideo_ && hasAudio_;
    view_.videoChecked = hasVideo_ && (both ? (choiceVideo_ != -1 ? choiceVideo_ != 0 : s.defaultVideo != 0) : true);
    view_.videoEnabled = hasVideo_ != 0;
    view_.audioChecked = hasAudio_ && (both ? (choiceAudio_ != -1 ? choiceAudio_ != 0 : s.defaultAudio != 0) : true);
    view_.audioEnabled = hasAudio_ != 0;
    view_.dvaChecked = both && (choiceDva_ != -1 ? choiceDva_ != 0 : s.makeDva != 0);
    view_.dvaEnabled = view_.videoChecked && view_.audioChecked;
    view_.convertEnabled = view_.videoChecked || view_.audioChecked;

    // 11. Targets; the output display only with ZUB outside server mode.
    UpdateTargets();
    view_.showImagesEnabled = TheRecorder().IsZub() && !dlg_.serverMode_;
    view_.showImagesChecked = view_.showImagesEnabled && s.showImagesOnOutput != 0;

    // 12. Batch mode presses Convert by itself, once what is pending has run.
    if (dlg_.batchProcess_) {
        QCoreApplication::processEvents();
        Post(kEvPressConvert);
        convertPosted_ = true;
    }

    // 13. Scroll the file names to their end shortly after the dialog shows.
    timer2000_ = startTimer(kScrollDelayMs);
    Changed();
    return true;
}

bool ConvertSession::SetUpFramePath()
{
    const CRecorderDeviceInfo& rec = TheRecorder();
    frame_ = FrameSize{rec.frameWidth, rec.frameHeight};
    if (graphVideo_) {
        sourceWidth_ = graphVideo_->Width();
        sourceHeight_ = graphVideo_->Height();
        sourceBits_ = graphVideo_->BitsPerPixel();
        sourceAlpha_ = graphVideo_->HasAlpha();
    } else {
        qtVideo_->GetFrameSize(sourceWidth_, sourceHeight_);
        sourceBits_ = 24;
        sourceAlpha_ = false;
    }
    fitWidth_ = sourceWidth_;
    if (CurrentSettings().sourcePixelAspect) {
        // Read when the source was opened: reading the container again costs a decode of its
        // first frames.
        const int num = graphVideo_ ? graphVideo_->PixelAspectNum() : movieParNum_;
        const int den = graphVideo_ ? graphVideo_->PixelAspectDen() : movieParDen_;
        if (num > 0 && den > 0 && num != den) fitWidth_ = static_cast<int>(std::llround(double(sourceWidth_) * num / den));
    }
    if (qtVideo_ || (!dlg_.serverMode_ && !sourceAlpha_)) {
        // The frames in flight get their buffers as they come; one of each is had now so that
        // a picture too large for memory is refused before anything is created.
        Image probe;
        FrameHolder holder;
        return probe.Allocate(sourceWidth_, sourceHeight_, 32, false) && frame_.width > 0 && frame_.height > 0 &&
               holder.Allocate(frame_.width, frame_.height);
    }
    // Server frames and frames with alpha go to the recorder as they come, in a buffer of the
    // source's own depth (server mode: 16-bit 4:2:2).
    const int bits = dlg_.serverMode_ ? 16 : sourceBits_;
    const std::int64_t bytes = static_cast<std::int64_t>(sourceWidth_) * sourceHeight_ * bits / 8 + 40;
    const std::int64_t frameBytes = static_cast<std::int64_t>(frame_.width) * frame_.height * bits / 8 + 40;
    if (bytes <= 40 || frameBytes <= 40) return false;
    try {
        serverBuffer_.assign(static_cast<std::size_t>(std::max(bytes, frameBytes)), 0);
        if (sourceAlpha_ && (dlg_.reverseDV_ || CurrentSettings().createAlpha))
            alphaBuffer_.assign(static_cast<std::size_t>(bytes), 0);
    } catch (const std::bad_alloc&) {
        return false;
    }
    return true;
}

// ---- target names --------------------------------------------------------------------

bool ConvertSession::FormTarget(const std::string& dir, const char* ext, std::string& path)
{
    path.clear();
    if (dir.empty()) return false;
    path = dir + view_.clipName + ext;
    if (dlg_.batchProcess_) {
        for (int guard = 0; guard < 100000 && FileExists(path); ++guard) path = NextSequenceName(path);
    }
    return true;
}

void ConvertSession::UpdateTargets()
{
    const ImportSettings& s = CurrentSettings();
    std::string video, audio;
    if (view_.videoChecked && view_.audioChecked && view_.dvaChecked) {
        FormTarget(s.audioDir, ".dva", audio);
        view_.fileNames = audio;
    } else if (view_.videoChecked) {
        FormTarget(s.videoDir, ".zub", video);
        view_.fileNames = video;
        if (view_.audioChecked) {
            FormTarget(s.audioDir, ".wav", audio);
            view_.fileNames += "\r\n" + audio;
        }
    } else if (view_.audioChecked) {
        FormTarget(s.audioDir, ".wav", audio);
        view_.fileNames = audio;
    } else {
        view_.fileNames.clear();
    }
}

void ConvertSession::SetClipName(const std::string& name)
{
    view_.clipName = name;
    UpdateTargets();
    Changed();
}

void ConvertSession::SetVideoChecked(bool on)
{
    view_.videoChecked = on && view_.videoEnabled;
    StreamChoiceChanged();
}

void ConvertSession::SetAudioChecked(bool on)
{
    view_.audioChecked = on && view_.audioEnabled;
    StreamChoiceChanged();
}

// dva needs both streams; Convert needs one.
void ConvertSession::StreamChoiceChanged()
{
    view_.dvaEnabled = view_.videoChecked && view_.audioChecked;
    UpdateTargets();
    view_.convertEnabled = view_.videoChecked || view_.audioChecked;
    Changed();
}

void ConvertSession::SetDvaChecked(bool on)
{
    view_.dvaChecked = on;
    UpdateTargets();
    Changed();
}

void ConvertSession::SetShowImages(bool on)
{
    view_.showImagesChecked = on && view_.showImagesEnabled;
    showImages_.store(view_.showImagesChecked ? 1 : 0);
}

void ConvertSession::SettingsChanged()
{
    UpdateTargets();
    Changed();
}

// An existing target: batch mode ends the dialog; otherwise the user may replace it.
bool ConvertSession::PrepareTarget(std::string& path)
{
    if (dlg_.batchProcess_) {
        for (int guard = 0; guard < 100000 && FileExists(path); ++guard) path = NextSequenceName(path);
    }
    if (!FileExists(path)) return true;
    if (dlg_.batchProcess_) {
        dlg_.report_.messages.push_back(path + ": exists already");
        End(2);
        return false;
    }
    if (Say(Printf1(kExists, path), Buttons::YesNo, Icon::Question) != Answer::Yes) return false;
    std::error_code ec;
    if (!std::filesystem::remove(path, ec)) {
        Say(kDeleteFailed, Buttons::Ok, Icon::Error);
        return false;
    }
    return true;
}

// ---- Convert -------------------------------------------------------------------------

void ConvertSession::OnConvert()
{
    if (ended_ || view_.converting) return;
    ImportSettings& s = CurrentSettings();
    CRecorderDeviceInfo& rec = TheRecorder();

    // 1-3. What is wanted, and where it goes.
    const std::string clip = view_.clipName;
    int wantVideo = 0, wantAudio = 0, wantDva = 0;
    std::string video, audio;
    if (hasVideo_ && view_.videoChecked) {
        wantVideo = 1;
        video = s.videoDir + clip + ".zub";
        if (!PrepareTarget(video)) return;
    }
    if (hasAudio_ && view_.audioChecked) {
        wantAudio = 1;
        wantDva = wantVideo && view_.dvaChecked ? 1 : 0;
        audio = s.audioDir + clip + (wantDva ? ".dva" : ".wav");
        if (!PrepareTarget(audio)) return;
    }

    // 4. Nothing to do.
    if (!wantVideo && !wantAudio) {
        if (dlg_.batchProcess_) End(2);
        return;
    }

    // 5. The choices become the defaults.
    abortRequested_ = 0;
    discardFiles_ = 0;
    errorFlag_ = 0;
    if (hasVideo_ && hasAudio_) {
        s.defaultVideo = view_.videoChecked ? 1 : 0;
        s.defaultAudio = view_.audioChecked ? 1 : 0;
        s.makeDva = view_.dvaChecked ? 1 : 0;
    }
    s.showImagesOnOutput = view_.showImagesChecked ? 1 : 0;
    showImages_.store(view_.showImagesChecked ? 1 : 0);

    // 6. Settings only: hand back the name and the choices.
    if (dlg_.settingsOnly_) {
        if (!dlg_.audioOnly_) {
            char choices[48];
            std::snprintf(choices, sizeof choices, "|%d,%d,%d", view_.videoChecked ? 1 : 0, view_.audioChecked ? 1 : 0,
                          view_.dvaChecked ? 1 : 0);
            dlg_.strSettings_ = clip + choices;
        } else {
            dlg_.strSettings_ = clip;
        }
        End(1);
        return;
    }

    // Everything the frame path reads is copied now, so the streaming thread never reads the
    // settings record while a dialog may change it.
    isZub_ = rec.IsZub();
    lines_ = rec.lines;
    fixedFieldSize_ = s.fixedFieldSize != 0;
    videoOption_ = s.videoAdaptive != 0;
    alphaOption_ = s.alphaAdaptive != 0;
    fitWord_ = s.fitWord;
    swap_ = s.swapFields != 0;
    shift_ = s.shiftDown != 0;

    // 7. Video.
    if (wantVideo) {
        videoUncompressed_ = s.videoUncompressed;
        videoRate_ = videoUncompressed_ ? -1 : s.videoDataRate;
        createAlpha_ = s.createAlpha != 0;
        alphaSame_ = s.alphaSameAsVideo != 0;
        if (createAlpha_) {
            if (alphaSame_) {
                alphaUncompressed_ = videoUncompressed_;
                alphaRate_ = videoRate_;
            } else {
                alphaUncompressed_ = s.alphaUncompressed;
                alphaRate_ = alphaUncompressed_ ? -1 : s.alphaDataRate;
            }
        } else {
            alphaUncompressed_ = 0;
            alphaRate_ = 0;
        }

        // A variable-rate source is conformed to the clip's own rate, so the clip plays as long
        // as the source and its sound.
        // Unless asked to keep the frames as they come.
        const bool conform = s.keepVariableRateFrames == 0;
        const int clipNum = fixedFieldSize_ ? 24 : lines_ == 525 ? 30000 : 25;
        const int clipDen = clipNum == 30000 ? 1001 : 1;
        if (graphVideo_) {
            graphVideo_->SetConform(conform);
            if (graphVideo_->IsVariableRate() && graphVideo_->TimePerFrame() > 0)
                graphVideo_->SetConformRate(clipNum, clipDen);
        }
        if (qtVideo_ && conform && movieSpan_ > 0)
            qtVideo_->ConformTo((10'000'000LL * clipDen + clipNum / 2) / clipNum, movieSpan_);
        if (graphVideo_ && graphVideo_->TimePerFrame() > 0) {
            totalFrames_ = FrameBudget(graphVideo_->Duration(), graphVideo_->TimePerFrame());
        } else if (qtVideo_) {
            totalFrames_ = static_cast<unsigned>(std::max(0, qtVideo_->CountFrames()));
        } else {
            const std::int32_t fit =
                rec.QueryVolumeSpace(video.c_str(), videoRate_, alphaRate_, videoUncompressed_ != 0, alphaUncompressed_ != 0);
            if (fit <= 0) {
                Say(kDriveFull, Buttons::Ok, Icon::Error);
                if (dlg_.batchProcess_) End(2);
                return;
            }
            totalFrames_ = static_cast<unsigned>(fit);
        }

        const std::int32_t fit =
            rec.QueryVolumeSpace(video.c_str(), videoRate_, alphaRate_, videoUncompressed_ != 0, alphaUncompressed_ != 0);
        if (static_cast<std::int64_t>(std::max(0, fit)) < static_cast<std::int64_t>(totalFrames_)) {
            if (Say(kNotEnoughSpace, Buttons::OkCancel, Icon::Warning, 1, true) != Answer::Ok) {
                End(2);
                return;
            }
        }

        ClipSpec spec;
        spec.path = video;
        spec.frames = static_cast<std::int32_t>(totalFrames_);
        spec.videoRate = videoRate_;
        spec.alphaRate = alphaRate_;
        spec.videoUncompressed = videoUncompressed_ != 0;
        spec.createAlpha = createAlpha_;
        spec.alphaSameAsVideo = alphaSame_;
        spec.alphaUncompressed = alphaUncompressed_ != 0;
        spec.fixedFieldSize = fixedFieldSize_;
        ClipItems items;
        const ClipStatus status = rec.CreateClipItem(spec, items);
        if (status != ClipStatus::Ok) {
            Say(status == ClipStatus::NoSpace ? kCreateNoSpace : kCreateFailed, Buttons::Ok, Icon::Error);
            if (dlg_.batchProcess_) End(2);
            return;
        }
        videoItem_ = items.video;
        alphaItem_ = items.alpha;

        framesDone_ = 0;
        videoDone_ = 0;
        budgetReached_ = 0;
        if (graphVideo_) {
            accepted_ = 0;
            if (!dlg_.serverMode_ && !sourceAlpha_) {
                // A plain scale or a crop takes the decoder's planes, as the source was opened;
                // any other fit takes 24-bit rows, for which it is opened again.
                planar_ = !std::getenv("ZUBIMPORT_CONVERT_PACKED") && PlanarPlacement();
                if (planar_ != graphVideo_->PlanarOutput()) {
                    graphVideo_->SetPlanarOutput(planar_);
                    std::string why;
                    if (!graphVideo_->OpenVideo(dlg_.source_, &why) || graphVideo_->Width() != sourceWidth_ ||
                        graphVideo_->Height() != sourceHeight_) {
                        planar_ = false;
                        graphVideo_->SetPlanarOutput(false);
                        graphVideo_->OpenVideo(dlg_.source_, &why);
                    }
                }
                StartPipeline();
            }
            graphVideo_->SetFrameSink(this);
            std::string why;
            if (!graphVideo_->Run(&why)) {
                errorFlag_ = 1;
                dlg_.report_.messages.push_back(why);
                Post(kEvConvertError);
            }
        } else {
            accepted_ = 0;
            // A plain scale or a crop takes the movie decoder's own planes instead of a drawn
            // picture.
            planar_ = !std::getenv("ZUBIMPORT_CONVERT_PACKED") && PlanarPlacement();
            StartPipeline();
            qtVideoFinished_ = 0;
            Post(kEvConvertFrame);
        }
        view_.videoRange = totalFrames_;
        view_.videoProgress = 0;
    }

    // 8. Audio.
    if (wantAudio) {
        audioDone_ = 0;
        audioProgress_ = 0;
        audioProgressShown_ = 0;
        if (graphAudio_) {
            std::string why;
            if (!graphAudio_->Start(audio, &why)) {
                errorFlag_ = 1;
                dlg_.report_.messages.push_back(why);
                Post(kEvConvertError);
            }
        } else if (qtAudio_) {
            qtAudioFinished_ = 0;
            if (!(wantVideo && qtVideo_)) Post(kEvConvertFrame);
        }
        view_.audioProgress = 0;
    }

    // 9. Running.
    videoPath_ = wantVideo ? video : std::string();
    audioPath_ = wantAudio ? audio : std::string();
    convertVideo_ = wantVideo;
    convertAudio_ = wantAudio;
    makeDva_ = wantDva;
    dlg_.videoPath_ = videoPath_;
    dlg_.audioPath_ = audioPath_;
    dlg_.convertVideo_ = convertVideo_;
    dlg_.convertAudio_ = convertAudio_;
    dlg_.makeDva_ = makeDva_;
    dlg_.report_.converted = true;
    view_.nameEnabled = view_.videoEnabled = view_.audioEnabled = view_.dvaEnabled = false;
    view_.settingsEnabled = view_.convertEnabled = false;
    view_.closeLabel = "&Abort";
    view_.converting = true;
    timer10_ = startTimer(kTimerPeriodMs);
    endPoll_ = startTimer(kEndPollMs);
    startTick_ = std::chrono::steady_clock::now();
    Changed();
    ReportProgress();
}

// ---- the frame path ------------------------------------------------------------------

int ConvertSession::VideoCallback(const VideoSample& sample)
{
    if (graphVideo_ && (dlg_.serverMode_ || sourceAlpha_)) return ServerVideoCallback(sample);
    if (!graphVideo_ || errorFlag_) return 0;
    return TakeFrame(sample);
}

// Both routes' frames enter the pipeline here: the graph's on its streaming thread, the
// movie's on the dialog thread.
int ConvertSession::TakeFrame(const VideoSample& sample)
{
    if (errorFlag_) return 0;
    if (pendingAbort_) return 1;
    if (!sample.data || (sample.planar && !sample.keep) ||
        (!sample.planar && sample.bitsPerPixel != 24 && sample.bitsPerPixel != 32)) {
        errorFlag_ = 1;
        Post(kEvConvertError);
        return 0;
    }
    // A frame past the budget is not taken: the budget flag stops the graph.
    if (accepted_.load() >= totalFrames_) {
        budgetReached_ = 1;
        Post(kEvStopVideo);
        return 1;
    }

    std::unique_ptr<FrameJob> job;
    {
        std::unique_lock<std::mutex> lock(pipeMutex_);
        pipeCv_.wait(lock, [&] { return inFlight_ < kPipelineDepth || stopWorkers_ || errorFlag_.load(); });
        if (stopWorkers_ || errorFlag_) return 0;
        ++inFlight_;
        callbackBusy_ = 1;
        if (!spare_.empty()) {
            job = std::move(spare_.front());
            spare_.pop_front();
        }
    }
    if (!job) job = std::make_unique<FrameJob>();

    if (sample.planar) {
        // The decoder's picture is held, not copied: the fit worker converts and scales it in
        // one pass straight into the frame while this thread decodes the next one.
        job->planar = sample;
        return Enqueue(std::move(job), true, toFit_);
    }

    // The 24-bit rows carry the bitmap padding to 4 bytes; 32-bit rows are copied as they are.
    bool taken = true;
    Image& img = job->image;
    if (img.Width() != sample.width || img.Height() != sample.height || img.BitsPerPixel() != 32)
        taken = img.Allocate(sample.width, sample.height, 32, false);
    if (taken && sample.bitsPerPixel == 24) {
        const int padding = (4 - (sample.width * 3) % 4) % 4;
        const std::ptrdiff_t step = sample.stride ? sample.stride : static_cast<std::ptrdiff_t>(sample.width) * 3 + padding;
        for (int y = 0; y < sample.height; ++y) {
            const std::uint8_t* src = sample.data + step * y;
            std::uint8_t* d = img.Row(y);
            for (int x = 0; x < sample.width; ++x, src += 3, d += 4) {
                d[0] = src[0];
                d[1] = src[1];
                d[2] = src[2];
                d[3] = 255;
            }
        }
    } else if (taken) {
        for (int y = 0; y < sample.height; ++y)
            std::memcpy(img.Row(y), sample.data + sample.stride * y, static_cast<std::size_t>(sample.width) * 4);
    }
    return Enqueue(std::move(job), taken, toFit_);
}

// The movie's frame as the decoder made it, handed to the pipeline as planes when the
// scaler takes them (8-bit 4:2:0, studio range, the movie's own size): nothing is drawn at
// full size. -1 when the frame must be drawn instead; otherwise what TakeFrame answers.
int ConvertSession::TakeMoviePicture()
{
    // A turned picture is drawn upright instead.
    if (qtVideo_->Rotation() != 0) return -1;
    std::shared_ptr<AVFrame> picture(av_frame_alloc(), [](AVFrame* f) { av_frame_free(&f); });
    if (!picture || !qtVideo_->CurrentPicture(picture.get())) return -1;  // drawing tells why
    const AVFrame& f = *picture;
    if (f.format != AV_PIX_FMT_YUV420P || f.color_range == AVCOL_RANGE_JPEG || f.width != sourceWidth_ ||
        f.height != sourceHeight_ || f.linesize[0] <= 0 || f.linesize[1] <= 0 || f.linesize[2] <= 0)
        return -1;
    VideoSample sample;
    sample.planar = true;
    sample.width = f.width;
    sample.height = f.height;
    sample.bitsPerPixel = 12;
    for (int p = 0; p < 3; ++p) {
        sample.plane[p] = f.data[p];
        sample.planeStride[p] = f.linesize[p];
    }
    sample.data = sample.plane[0];
    sample.stride = sample.planeStride[0];
    sample.size = static_cast<std::size_t>(f.linesize[0]) * static_cast<std::size_t>(f.height);
    sample.keep = std::move(picture);
    return TakeFrame(sample);
}

// A taken frame gets its place in the clip and goes to its next stage; one that could not be
// taken is an error and leaves the pipeline.
int ConvertSession::Enqueue(std::unique_ptr<FrameJob> job, bool taken, std::deque<std::unique_ptr<FrameJob>>& stage)
{
    if (!taken) {
        errorFlag_ = 1;
        Post(kEvConvertError);
        FinishJob(std::move(job));
        return 0;
    }
    job->index = accepted_.fetch_add(1);
    {
        std::lock_guard<std::mutex> lock(pipeMutex_);
        stage.push_back(std::move(job));
    }
    pipeCv_.notify_all();
    return errorFlag_ ? 0 : 1;
}

void ConvertSession::StartPipeline()
{
    if (pipelineRunning_) return;
    stopWorkers_ = false;
    pipelineRunning_ = true;
    fitThread_ = std::thread([this] { FitWorker(); });
    importThread_ = std::thread([this] { ImportWorker(); });
}

void ConvertSession::StopPipeline()
{
    if (!pipelineRunning_) return;
    {
        std::lock_guard<std::mutex> lock(pipeMutex_);
        stopWorkers_ = true;
    }
    pipeCv_.notify_all();
    fitThread_.join();
    importThread_.join();
    pipelineRunning_ = false;
    toFit_.clear();
    toImport_.clear();
    inFlight_ = 0;
    callbackBusy_ = 0;
}

bool ConvertSession::PipelineIdle()
{
    std::lock_guard<std::mutex> lock(pipeMutex_);
    return inFlight_ == 0;
}

void ConvertSession::WaitPipelineIdle()
{
    if (!pipelineRunning_) return;
    std::unique_lock<std::mutex> lock(pipeMutex_);
    pipeCv_.wait(lock, [&] { return inFlight_ == 0; });
}

// A job leaves the pipeline: its buffers are kept for the next frame, and an abort that waited
// for the frames in flight is carried out now.
void ConvertSession::FinishJob(std::unique_ptr<FrameJob> job)
{
    bool idle = false;
    {
        std::lock_guard<std::mutex> lock(pipeMutex_);
        spare_.push_back(std::move(job));
        idle = --inFlight_ == 0;
        if (idle) callbackBusy_ = 0;
    }
    pipeCv_.notify_all();
    if (idle && pendingAbort_) Post(kEvConvertAbort);
}

void ConvertSession::FitWorker()
{
    for (;;) {
        std::unique_ptr<FrameJob> job;
        {
            std::unique_lock<std::mutex> lock(pipeMutex_);
            pipeCv_.wait(lock, [&] { return !toFit_.empty() || stopWorkers_; });
            if (toFit_.empty()) return;
            job = std::move(toFit_.front());
            toFit_.pop_front();
        }
        bool fitted = false;
        if (!errorFlag_) {
            if (job->planar.planar) {
                std::string why;
                fitted = scaler_.Scale(job->planar, placement_, SplitFitWord(fitWord_).method, frame_, job->holder, &why);
                if (!fitted) {
                    errorFlag_ = 1;
                    Post(kEvConvertError);
                }
            } else {
                fitted = FitAndPack(job->image, job->holder);
            }
        }
        // The decoder's picture goes back as soon as it has been scaled.
        job->planar = VideoSample{};
        if (!fitted) {
            FinishJob(std::move(job));
            continue;
        }
        {
            std::lock_guard<std::mutex> lock(pipeMutex_);
            toImport_.push_back(std::move(job));
        }
        pipeCv_.notify_all();
    }
}

void ConvertSession::ImportWorker()
{
    for (;;) {
        std::unique_ptr<FrameJob> job;
        {
            std::unique_lock<std::mutex> lock(pipeMutex_);
            pipeCv_.wait(lock, [&] { return !toImport_.empty() || (stopWorkers_ && toFit_.empty()); });
            if (toImport_.empty()) return;
            job = std::move(toImport_.front());
            toImport_.pop_front();
        }
        if (!errorFlag_) ImportPacked(job->holder, job->index);
        FinishJob(std::move(job));
    }
}

bool ConvertSession::PlanarPlacement()
{
    // A plain scale fits the picture by its shown shape; a crop places the stored pixels.
    return PlainScalePlacement(fitWidth_, sourceHeight_, fitWord_, swap_, shift_, frame_, &placement_) ||
           CropPlacement(sourceWidth_, sourceHeight_, fitWord_, swap_, shift_, frame_, &placement_);
}

bool ConvertSession::FitAndPack(Image& image, FrameHolder& holder)
{
    std::string why;
    if (PrepareImage(image, fitWord_, swap_, shift_, frame_, &why) && PackFrame(image, holder, &why)) return true;
    errorFlag_ = 1;
    Post(kEvConvertError);
    return false;
}

// The record of one frame for the recorder: the clip's items and rates as Convert fixed them.
FrameImport ConvertSession::ImportRecord(unsigned index, const void* data, FrameSource source) const
{
    FrameImport f;
    f.videoItem = videoItem_;
    f.alphaItem = alphaItem_;
    f.frame = static_cast<std::int32_t>(index);
    f.data = data;
    f.source = source;
    f.videoRate = videoRate_;
    f.alphaRate = alphaRate_;
    f.videoType = VideoTypeFor(videoUncompressed_ != 0);
    f.alphaType = AlphaTypeFor(createAlpha_, alphaSame_, alphaUncompressed_ != 0, videoUncompressed_ != 0);
    f.videoOption = videoOption_;
    f.alphaOption = alphaOption_;
    return f;
}

int ConvertSession::ImportPacked(const FrameHolder& holder, unsigned index)
{
    const FrameImport f = ImportRecord(index, holder.Block(), FrameSource::Pipeline);
    CRecorderDeviceInfo& rec = TheRecorder();
    if (!rec.ImportFrame(f)) {
        errorFlag_ = 1;
        Post(kEvConvertError);
        return 0;
    }
    if (isZub_ && showImages_.load()) rec.ShowImage(holder.Block(), FrameSource::Pipeline, videoUncompressed_ != 0, videoRate_);
    framesDone_.fetch_add(1);
    return 1;
}

// The sample as a device-independent bitmap: 32- and 24-bit rows bottom-up under a positive
// height, as the recorder reads such bitmaps; in server mode 16-bit 4:2:2 (top-down, the
// recorder's own order for that format).
bool ConvertSession::ServerFrameFromSample(const VideoSample& s, std::vector<std::uint8_t>& bitmap)
{
    const int bits = dlg_.serverMode_ ? 16 : s.bitsPerPixel;
    if (bits != 16 && bits != 24 && bits != 32) return false;
    const std::size_t rowBytes = static_cast<std::size_t>((static_cast<std::int64_t>(s.width) * bits + 31) / 32 * 4);
    bitmap.resize(40 + rowBytes * static_cast<std::size_t>(s.height));
    const BITMAPINFOHEADER h = BitmapHeader(s.width, s.height, bits);
    std::memcpy(bitmap.data(), &h, sizeof h);
    std::uint8_t* pixels = bitmap.data() + 40;
    if (bits != 16) {
        for (int y = 0; y < s.height; ++y)
            std::memcpy(pixels + rowBytes * static_cast<std::size_t>(s.height - 1 - y), s.data + s.stride * y,
                        std::min<std::size_t>(rowBytes, static_cast<std::size_t>(s.width) * bits / 8));
        return true;
    }
    // BT.601 studio range, chroma averaged over each pixel pair.
    const int bpp = s.bitsPerPixel / 8;
    for (int y = 0; y < s.height; ++y) {
        const std::uint8_t* src = s.data + s.stride * y;
        std::uint8_t* dst = pixels + rowBytes * static_cast<std::size_t>(y);
        for (int x = 0; x < s.width; x += 2) {
            const std::uint8_t* p0 = src + x * bpp;
            const std::uint8_t* p1 = x + 1 < s.width ? p0 + bpp : p0;
            auto luma = [](const std::uint8_t* p) {
                return static_cast<std::uint8_t>((66 * p[2] + 129 * p[1] + 25 * p[0] + 128 + (16 << 8)) >> 8);
            };
            const int b = (p0[0] + p1[0]) / 2, g = (p0[1] + p1[1]) / 2, r = (p0[2] + p1[2]) / 2;
            dst[x * 2 + 0] = static_cast<std::uint8_t>((-38 * r - 74 * g + 112 * b + 128 + (128 << 8)) >> 8);
            dst[x * 2 + 1] = luma(p0);
            if (x + 1 < s.width) {
                dst[x * 2 + 2] = static_cast<std::uint8_t>((112 * r - 94 * g - 18 * b + 128 + (128 << 8)) >> 8);
                dst[x * 2 + 3] = luma(p1);
            }
        }
    }
    return true;
}

int ConvertSession::ServerVideoCallback(const VideoSample& sample)
{
    if (!graphVideo_ || errorFlag_) return 0;
    if (pendingAbort_) return 1;
    if (!sample.data) {
        errorFlag_ = 1;
        Post(kEvConvertError);
        return 0;
    }
    callbackBusy_ = 1;
    int result = 0;
    if (!ServerFrameFromSample(sample, sampleBitmap_)) {
        errorFlag_ = 1;
        Post(kEvResizeError, sample.width, sample.height);
    } else {
        result = ServerVideoCompressFrame(sampleBitmap_.data());
    }
    callbackBusy_ = 0;
    if (pendingAbort_) Post(kEvConvertAbort);
    return result;
}

int ConvertSession::ServerVideoCompressFrame(std::uint8_t* data)
{
    if (errorFlag_) return 0;
    const unsigned done = framesDone_.load();
    if (done >= totalFrames_) {
        budgetReached_ = 1;
        Post(kEvStopVideo);
        return 1;
    }

    BITMAPINFOHEADER in{};
    std::memcpy(&in, data, sizeof in);
    const int w = in.biWidth;
    const int h = in.biHeight < 0 ? -in.biHeight : in.biHeight;
    const int depth = in.biBitCount;
    const int W = frame_.width, H = frame_.height;

    // Fit: same width, and the same height or six lines short (NTSC DV in a 486-line frame).
    bool fitted = false;
    if (!serverBuffer_.empty() && depth != 0 && w == W) {
        const std::size_t lineBytes = static_cast<std::size_t>(w) * depth / 8;
        if (h == H) {
            const std::size_t bytes = lineBytes * static_cast<std::size_t>(h) + 40;
            if (bytes <= serverBuffer_.size()) {
                std::memcpy(serverBuffer_.data(), data, bytes);
                fitted = true;
            }
        } else if (H - h == 6) {
            const std::size_t total = lineBytes * static_cast<std::size_t>(H) + 40;
            if (total <= serverBuffer_.size()) {
                const BITMAPINFOHEADER out = BitmapHeader(W, H, depth);
                std::memcpy(serverBuffer_.data(), &out, sizeof out);
                const int offset = (!sourceAlpha_ && dlg_.reverseDV_ && H == 486) ? 5 : 6;
                std::uint8_t* pixels = serverBuffer_.data() + 40;
                std::memcpy(pixels + lineBytes * static_cast<std::size_t>(offset), data + 40,
                            lineBytes * static_cast<std::size_t>(h));
                if (dlg_.serverMode_) {
                    // Each fill writes as many words as its band has bytes: twice the band.
                    const std::size_t upper = lineBytes * static_cast<std::size_t>(offset);
                    const std::size_t lower = lineBytes * static_cast<std::size_t>(H - h - offset);
                    const std::size_t pixelBytes = lineBytes * static_cast<std::size_t>(H);
                    for (std::size_t i = 0; i < upper && (i + 1) * 2 <= pixelBytes; ++i) {
                        pixels[i * 2] = kBlack422 & 0xFF;
                        pixels[i * 2 + 1] = kBlack422 >> 8;
                    }
                    for (std::size_t i = 0; i < lower && (i + 1) * 2 <= pixelBytes; ++i) {
                        const std::size_t at = pixelBytes - (i + 1) * 2;
                        pixels[at] = kBlack422 & 0xFF;
                        pixels[at + 1] = kBlack422 >> 8;
                    }
                }
                fitted = true;
            }
        }
    }
    if (!fitted) {
        errorFlag_ = 1;
        Post(kEvResizeError, w, h);
        return 0;
    }

    // The key copy for the devices that take it from a buffer of their own.
    if (sourceAlpha_ && !alphaBuffer_.empty() &&
        ((dlg_.reverseDV_ && lines_ != 525) || (createAlpha_ && !dlg_.serverMode_))) {
        std::memcpy(alphaBuffer_.data(), data, 40);
        const std::size_t line = static_cast<std::size_t>(w) * depth / 8;
        const std::size_t want = static_cast<std::size_t>(std::max(0, w - 1)) * depth / 8 * static_cast<std::size_t>(h);
        const std::size_t have = line * static_cast<std::size_t>(std::max(0, h - 1));
        std::memcpy(alphaBuffer_.data() + 40, data + 40 + line, std::min({want, have, alphaBuffer_.size() - 40}));
    }

    const FrameSource kind =
        dlg_.serverMode_ ? FrameSource::Server : (depth == 24 ? FrameSource::Bits24 : FrameSource::Pipeline);
    const FrameImport f = ImportRecord(done, serverBuffer_.data(), kind);
    CRecorderDeviceInfo& rec = TheRecorder();
    if (!rec.ImportFrame(f)) {
        errorFlag_ = 1;
        Post(kEvResizeError, 0, 0);
        return 0;
    }
    if (isZub_ && !dlg_.serverMode_ && showImages_.load())
        rec.ShowImage(serverBuffer_.data(), kind, videoUncompressed_ != 0, videoRate_);
    framesDone_.fetch_add(1);
    return 1;
}

// ---- supervision ---------------------------------------------------------------------

void ConvertSession::timerEvent(QTimerEvent* event)
{
    if (event->timerId() == timer2000_) {
        killTimer(timer2000_);
        timer2000_ = 0;
        Changed();  // the view puts the caret at the end of the file names
        return;
    }
    if (event->timerId() == timer10_) CompletionStep();
    // A conversion whose streams have all ended finishes now rather than at the next tick.
    if (event->timerId() == endPoll_ && timer10_ && StreamsDone()) CompletionStep();
}

bool ConvertSession::StreamsDone()
{
    const bool video = !convertVideo_ || videoDone_ ||
                       ((graphVideo_ ? graphVideo_->Finished() : qtVideoFinished_ != 0) && PipelineIdle());
    const bool audio = !convertAudio_ || audioDone_ ||
                       (qtAudio_ ? qtAudioFinished_ != 0 : graphAudio_ ? graphAudio_->Finished() : true);
    return video && audio;
}

void ConvertSession::StopVideoGraph()
{
    if (graphVideo_) graphVideo_->Stop();
    WaitPipelineIdle();  // the frames in flight finish (or are dropped after an error) first
}

void ConvertSession::StopGraphs()
{
    StopVideoGraph();
    if (graphAudio_ && !audioDone_) graphAudio_->Stop();
}

void ConvertSession::ReportProgress()
{
    dlg_.report_.framesDone = framesDone_.load();
    if (!dlg_.progress_) return;
    ConvertProgress p;
    p.framesDone = framesDone_.load();
    p.totalFrames = view_.videoRange;
    p.audioPercent = view_.audioProgress;
    p.converting = view_.converting;
    dlg_.progress_(p);
}

void ConvertSession::WriteDva()
{
    CDva dva;
    std::string tape, tc = "00:00:00:00";
    if (CurrentSettings().sourceTimecode) ReadTapeAndTimecode(dlg_.source_, &tape, &tc);
    if (!dva.WriteNew(audioPath_.c_str(), videoPath_.c_str(), tape.c_str(), tc.c_str())) Say(kDvaFailed, Buttons::Ok, Icon::Error);
}

void ConvertSession::CompletionStep()
{
    if (inActionTimer_ || ended_) return;
    // An abort that waited for frames in flight is carried out before the end is judged, so a
    // source that runs out meanwhile cannot turn it into a normal finish.
    if (pendingAbort_ && !abortRequested_ && PipelineIdle()) OnConvertAbort();
    inActionTimer_ = 1;
    CRecorderDeviceInfo& rec = TheRecorder();

    if (convertVideo_ && !videoDone_) {
        view_.videoProgress = framesDone_.load();
        const bool done = (graphVideo_ ? graphVideo_->Finished() : qtVideoFinished_ != 0) && PipelineIdle();
        if (done || abortRequested_ || errorFlag_ || budgetReached_) {
            if (done) view_.videoProgress = view_.videoRange;
            if (graphVideo_ && graphVideo_->IsVariableRate()) {
                dlg_.report_.frameRateNote = VariableRateNote(dlg_.source_, graphVideo_->Conforming(), graphVideo_->TimePerFrame(),
                                                              graphVideo_->FramesRepeated(), graphVideo_->FramesDropped());
                dlg_.report_.messages.push_back(dlg_.report_.frameRateNote);
            } else if (qtVideo_ && movieSpan_ > 0) {
                dlg_.report_.frameRateNote = VariableRateNote(dlg_.source_, qtVideo_->Conforming(), qtVideo_->TimePerFrame(),
                                                              qtVideo_->FramesRepeated(), qtVideo_->FramesDropped());
                dlg_.report_.messages.push_back(dlg_.report_.frameRateNote);
            }
            StopVideoGraph();
            rec.ReleaseItem(videoItem_);
            rec.ReleaseItem(alphaItem_);
            videoItem_ = alphaItem_ = -1;
            totalFrames_ = 0;
            videoDone_ = 1;
        }
    }

    if (convertAudio_ && !audioDone_) {
        bool done = false;
        if (qtAudio_) {
            view_.audioProgress = static_cast<int>(audioProgress_.load() % 100);
            audioProgressShown_ = audioProgress_.load();
            done = qtAudioFinished_ != 0;
        } else if (graphAudio_) {
            const std::int64_t duration = graphAudio_->Duration();
            const std::int64_t step = duration / 100;
            if (step > 0) view_.audioProgress = static_cast<int>(std::min<std::int64_t>(100, graphAudio_->Position() / step));
            done = graphAudio_->Finished();
        } else {
            done = true;
        }
        if (done || abortRequested_ || errorFlag_) {
            if (done) view_.audioProgress = 100;
            if (graphAudio_) graphAudio_->Stop();
            audioDone_ = 1;
        }
    }
    Changed();
    ReportProgress();

    // A stream still runs. The budget ends the video only: the sound is still being written and
    // is waited for, so the audio conversion below never reads a file still growing.
    const bool running = (convertVideo_ && !videoDone_) || (convertAudio_ && !audioDone_);
    if (running && !abortRequested_ && !errorFlag_) {
        if (errorPending_) {
            errorPending_ = 0;
            Post(kEvConvertError);
        }
        inActionTimer_ = 0;
        return;
    }

    // Finish.
    if (timer10_) killTimer(timer10_);
    if (endPoll_) killTimer(endPoll_);
    timer10_ = endPoll_ = 0;
    if (running) StopGraphs();  // an abort or error with a stream still open
    if (qtAudio_ && !qtAudioFinished_) {
        qtAudio_->Finish(true);
        qtAudioFinished_ = 1;
    }
    audioDone_ = videoDone_ = 1;
    const bool clean = !abortRequested_ && !discardFiles_ && !errorFlag_;

    if (makeDva_ && clean && !budgetReached_) WriteDva();
    if (convertVideo_ && clean && !budgetReached_) {
        std::uint8_t record[116];
        RateRecord(record, videoRate_, fixedFieldSize_, lines_);
        if (!rec.SetFileAppInfo(videoPath_.c_str(), record)) Say(kRateFailed, Buttons::Ok, Icon::Error);
    }
    if (convertAudio_ && clean) {
        // The format conversion goes through a scratch file beside the audio, so the final
        // copy never crosses file systems.
        const std::string scratch = DirectoryPart(audioPath_) + "tmp." + FileNamePart(audioPath_) + ".part";
        std::shared_ptr<IPrompt> quiet;
        if (dlg_.batchProcess_) quiet = std::make_shared<SilentPrompt>();
        {
            std::unique_ptr<ScopedPrompter> scope;
            if (quiet) scope = std::make_unique<ScopedPrompter>(quiet);
            if (dlg_.ConvertAudioFile(audioPath_.c_str(), scratch.c_str()) == 1)
                CDva::CopyCleanWavFile(scratch.c_str(), audioPath_.c_str());
        }
        std::error_code ec;
        std::filesystem::remove(scratch, ec);
        if (makeDva_ && !discardFiles_) WriteDva();
    }
    if (discardFiles_) {
        std::error_code ec;
        if (!videoPath_.empty()) std::filesystem::remove(videoPath_, ec);
        if (!audioPath_.empty()) std::filesystem::remove(audioPath_, ec);
    }

    ConvertReport& r = dlg_.report_;
    r.discarded = discardFiles_ != 0;
    r.videoPath = convertVideo_ ? videoPath_ : std::string();
    r.audioPath = convertAudio_ ? audioPath_ : std::string();
    r.madeDva = makeDva_ != 0;
    r.framesDone = framesDone_.load();
    r.alpha = createAlpha_;
    r.videoRate = videoRate_;
    r.seconds = std::chrono::duration<double>(std::chrono::steady_clock::now() - startTick_).count();
    inActionTimer_ = 0;
    End(discardFiles_ ? 2 : 1);
}

// ---- messages from the frame path and the buttons --------------------------------------

void ConvertSession::customEvent(QEvent* event)
{
    { std::lock_guard<std::mutex> lock(postMutex_); }
    const int type = static_cast<int>(event->type()) - static_cast<int>(QEvent::User);
    const auto* sized = dynamic_cast<SizedEvent*>(event);
    switch (type) {
    case kEvConvertFrame: OnConvertFrame(); break;
    case kEvConvertError: OnConvertError(); break;
    case kEvStopVideo: StopVideoGraph(); break;
    case kEvConvertAbort: OnConvertAbort(); break;
    case kEvResizeError: OnResizeError(sized ? sized->width : 0, sized ? sized->height : 0); break;
    case kEvPressConvert:
        OnConvert();
        if (headless_ && !ended_ && !view_.converting) End(2);
        break;
    case kEvPressAbort: OnCancel(); break;
    default: QObject::customEvent(event); break;
    }
}

void ConvertSession::OnConvertFrame()
{
    if (ended_ || (!qtVideo_ && !qtAudio_)) return;
    QCoreApplication::processEvents();  // stay responsive between frames
    if (ended_) return;

    if (abortRequested_) {
        qtVideoFinished_ = 1;
        if (qtAudio_ && !qtAudioFinished_) qtAudio_->Finish(true);
        qtAudioFinished_ = 1;
        return;
    }

    if (convertVideo_ && qtVideo_ && !qtVideoFinished_ && !pendingAbort_) {
        bool finished = true;
        const int tookPicture = planar_ ? TakeMoviePicture() : -1;
        if (tookPicture >= 0) {
            finished = !tookPicture || budgetReached_ || errorFlag_ || qtVideo_->AdvanceFrame() == -1;
        } else if (qtVideo_->RenderCurrentFrame()) {
            const DrawingContext* dc = qtVideo_->GetDrawingContext();
            if (dc && dc->bits) {
                // The drawn frame is a 24-bit top-down bitmap: fitted and imported by the
                // pipeline's workers while the next one is drawn.
                VideoSample sample;
                sample.data = dc->bits;
                sample.width = dc->header.biWidth;
                sample.height = dc->header.biHeight < 0 ? -dc->header.biHeight : dc->header.biHeight;
                sample.bitsPerPixel = 24;
                sample.stride = static_cast<std::ptrdiff_t>(dc->stride);
                sample.size = dc->stride * static_cast<std::size_t>(sample.height);
                const int ok = TakeFrame(sample);
                finished = !ok || budgetReached_ || errorFlag_ || qtVideo_->AdvanceFrame() == -1;
            } else {
                errorFlag_ = 1;
                Post(kEvConvertError);
            }
        } else {
            // A frame the decoder cannot draw ends the picture; what came before stays.
            dlg_.report_.messages.push_back(qtVideo_->LastError());
        }
        if (finished) qtVideoFinished_ = 1;
    }

    if (convertAudio_ && qtAudio_ && !qtAudioFinished_) {
        bool more = false;
        const std::uint64_t before = qtAudio_->BytesWritten();
        const bool ok = qtAudio_->ConvertChunk(audioPath_.c_str(), more);
        if (!ok || qtAudio_->BytesWritten() == before || !more) {
            if (!ok) dlg_.report_.messages.push_back(qtAudio_->LastError());
            qtAudio_->Finish(true);
            qtAudioFinished_ = 1;
        }
        if (audioProgress_.load() < audioProgressShown_ + 10) audioProgress_.fetch_add(1);
    }

    const bool videoOpen = convertVideo_ && qtVideo_ && !qtVideoFinished_;
    const bool audioOpen = convertAudio_ && qtAudio_ && !qtAudioFinished_;
    if (videoOpen || audioOpen) Post(kEvConvertFrame);
}

void ConvertSession::AskDiscard(const std::string& text)
{
    if (inActionTimer_) {
        errorPending_ = 1;
        return;
    }
    if (timer10_) killTimer(timer10_);
    timer10_ = 0;
    StopGraphs();
    if (Say(text, Buttons::YesNo, Icon::Question) == Answer::Yes || dlg_.batchProcess_) discardFiles_ = 1;
    CompletionStep();
}

void ConvertSession::OnConvertError()
{
    if (ended_) return;
    AskDiscard(kConvertError);
}

void ConvertSession::OnResizeError(int w, int h)
{
    if (ended_) return;
    char text[160];
    std::snprintf(text, sizeof text, kResizeError, w, h);
    AskDiscard(text);
}

void ConvertSession::OnCancel()
{
    if (ended_) return;
    if (videoDone_ && audioDone_) {
        // Nothing runs: close. But while the completion step finishes the files (a box about
        // them can be on screen) a host's press would end the session as "nothing produced"
        // beside the files being completed; the step ends the session itself.
        if (!inActionTimer_) End(2);
        return;
    }
    const Answer a = Say(kAbortQuestion, Buttons::YesNoCancel, Icon::Question, 0, true);
    if (a != Answer::Yes && a != Answer::No) return;
    if (ended_) return;
    view_.closeEnabled = false;
    Changed();
    if (!callbackBusy_) {
        if (a == Answer::Yes) discardFiles_ = 1;
        StopGraphs();
        abortRequested_ = 1;
    } else {
        pendingAbort_ = a == Answer::Yes ? -1 : 1;
        // The frame may have left between the two looks; then nobody else will carry it out.
        if (!callbackBusy_) Post(kEvConvertAbort);
    }
}

void ConvertSession::OnConvertAbort()
{
    if (ended_) return;
    if (pendingAbort_ < 0) discardFiles_ = 1;
    StopGraphs();
    abortRequested_ = 1;
}

}  // namespace zub

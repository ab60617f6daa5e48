#include "quicktime/QuickTimeSource.h"

#include <algorithm>
#include <limits>
#include <cerrno>
#include <cstring>
#include <mutex>

extern "C" {
#include <libavutil/mathematics.h>
}

namespace zub {

using namespace qt;

// ---- session ----

bool CQuickTimeSession::Start()
{
    if (mediaLayer_ != 0) mediaLayer_ = InitializeQTML(0);
    if (mediaLayer_ == 0 && movieToolbox_ != 0) movieToolbox_ = EnterMovies();
    return mediaLayer_ == 0 && movieToolbox_ == 0;
}

void CQuickTimeSession::Stop()
{
    if (movieToolbox_ == 0) ExitMovies();
    movieToolbox_ = 1;
    if (mediaLayer_ == 0) TerminateQTML();
    mediaLayer_ = 1;
}

// ---- video ----

namespace {

std::mutex& HookMutex()
{
    static std::mutex m;
    return m;
}

OpenFileDialogHook& Hook()
{
    static OpenFileDialogHook hook;
    return hook;
}

}  // namespace

CQuickTimeVideoSource::CQuickTimeVideoSource() = default;

CQuickTimeVideoSource::~CQuickTimeVideoSource()
{
    Release();
    session_.Stop();
}

void CQuickTimeVideoSource::SetOpenFileDialogHook(OpenFileDialogHook hook)
{
    std::lock_guard<std::mutex> lock(HookMutex());
    Hook() = std::move(hook);
}

void CQuickTimeVideoSource::Release()
{
    if (movieFile_) CloseMovieFile(movieFile_);
    if (movie_) movie_->SetGWorld(nullptr);
    movie_.reset();
    gworld_.reset();
    dc_.reset();
    bitmap_.clear();
    bitmap_.shrink_to_fit();
    currentTime_ = -1;
    slots_ = slot_ = 0;
    repeated_ = dropped_ = 0;
}

bool CQuickTimeVideoSource::Start() { return session_.Start(); }

bool CQuickTimeVideoSource::Open(const char* path)
{
    Release();
    error_.clear();
    std::string chosen;
    if (!path) {
        OpenFileDialogHook hook;
        {
            std::lock_guard<std::mutex> lock(HookMutex());
            hook = Hook();
        }
        if (!hook) {
            error_ = "no file-open dialog is available to choose a movie";
            return false;
        }
        OpenFileRequest request;
        if (!hook(request, &chosen) || chosen.empty()) {
            error_ = "no movie chosen";
            return false;
        }
        if (chosen.size() >= request.maxPath) {
            error_ = chosen + ": the name is longer than " + std::to_string(request.maxPath - 1) + " characters";
            return false;
        }
        path = chosen.c_str();
    }

    FSSpec spec;
    if (NativePathNameToFSSpec(path, &spec, 0) != noErr) {
        error_ = std::string(path) + ": not a usable path";
        return false;
    }
    if (OpenMovieFile(spec, &movieFile_, fsRdWrPerm) != noErr && OpenMovieFile(spec, &movieFile_, fsRdPerm) != noErr) {
        error_ = std::string(path) + ": cannot open the file: " + std::strerror(errno);
        return false;
    }
    if (Movie::FromFile(*movieFile_, &movie_, &error_) != noErr) {
        Release();
        return false;
    }

    const Rect box = movie_->Box();
    const int width = box.right - box.left;
    const int height = box.bottom - box.top;
    currentTime_ = -1;
    currentTime_ = movie_->NextInterestingTime(nextTimeMediaSample | nextTimeEdgeOK, VideoMediaType, 0, fixed1);

    // No bitmap for an empty box: a movie without video still opens.
    if (width > 0 && height > 0) {
        const std::size_t stride = (static_cast<std::size_t>(width) * 24 + 31) / 32 * 4;
        bitmap_.assign(stride * static_cast<std::size_t>(height) + qt::kDrawSlack, 0);
        dc_ = std::make_unique<DrawingContext>();
        dc_->header.biSize = sizeof(BITMAPINFOHEADER);
        dc_->header.biWidth = width;
        dc_->header.biHeight = -height;
        dc_->header.biPlanes = 1;
        dc_->header.biBitCount = 24;
        dc_->header.biCompression = BI_RGB;
        dc_->bits = bitmap_.data();
        dc_->stride = stride;
        gworld_ = std::make_unique<GWorld>(GWorld{bitmap_.data(), width, height, stride});
        movie_->SetGWorld(gworld_.get());
    }
    return true;
}

void CQuickTimeVideoSource::GetFrameSize(int& width, int& height) const
{
    const Rect box = movie_ ? movie_->Box() : Rect{};
    width = box.right - box.left;
    height = box.bottom - box.top;
}

const DrawingContext* CQuickTimeVideoSource::GetDrawingContext() const { return dc_.get(); }

int CQuickTimeVideoSource::Rotation() const { return movie_ ? movie_->Rotation() : 0; }

int CQuickTimeVideoSource::CountFrames() const
{
    if (!movie_) return 0;
    if (slots_ > 0) return static_cast<int>(std::min<std::int64_t>(slots_, std::numeric_limits<int>::max()));
    int count = 0;
    TimeValue t = movie_->NextInterestingTime(nextTimeMediaSample | nextTimeEdgeOK, VideoMediaType, 0, fixed1);
    while (t != -1) {
        ++count;
        t = movie_->NextInterestingTime(nextTimeMediaSample, VideoMediaType, t, 0);
    }
    return count;
}

bool CQuickTimeVideoSource::RenderCurrentFrame()
{
    if (!movie_) {
        error_ = "no movie is open";
        return false;
    }
    movie_->SetTimeValue(currentTime_);
    return movie_->Draw(&error_) == noErr;
}

bool CQuickTimeVideoSource::CurrentPicture(AVFrame* picture)
{
    if (!movie_) {
        error_ = "no movie is open";
        return false;
    }
    movie_->SetTimeValue(currentTime_);
    return movie_->CurrentPicture(picture, &error_) == noErr;
}

TimeValue CQuickTimeVideoSource::AdvanceFrame()
{
    if (!movie_ || currentTime_ == -1) return currentTime_ = -1;
    if (slots_ == 0) {
        currentTime_ = movie_->NextInterestingTime(nextTimeMediaSample, VideoMediaType, currentTime_, 0);
        return currentTime_;
    }
    if (++slot_ >= slots_) {
        // Samples after the last step never reach the clip.
        dropped_ += static_cast<std::int64_t>(movie_->VideoSampleCount()) - 1 - static_cast<std::int64_t>(shownOrdinal_);
        return currentTime_ = -1;
    }
    currentTime_ = SlotTime(slot_);
    const std::size_t ordinal = movie_->OrdinalAt(currentTime_);
    if (ordinal == shownOrdinal_)
        ++repeated_;
    else
        dropped_ += static_cast<std::int64_t>(ordinal - shownOrdinal_) - 1;
    shownOrdinal_ = ordinal;
    return currentTime_;
}

bool CQuickTimeVideoSource::ConformTo(std::int64_t timePerFrame, std::int64_t span)
{
    int num = 0, den = 0;
    if (movie_) movie_->VideoTimeBase(&num, &den);
    if (!movie_ || movie_->VideoSampleCount() == 0 || timePerFrame <= 0 || span <= 0 || num <= 0 || den <= 0)
        return false;
    const std::int64_t slots = (span + timePerFrame / 2) / timePerFrame;
    if (slots <= 0) return false;
    slots_ = slots;
    timePerFrame_ = timePerFrame;
    timeNum_ = num;
    timeDen_ = den;
    slot_ = 0;
    repeated_ = 0;
    currentTime_ = SlotTime(0);
    shownOrdinal_ = movie_->OrdinalAt(currentTime_);
    dropped_ = static_cast<std::int64_t>(shownOrdinal_);  // samples before the first step
    return true;
}

TimeValue CQuickTimeVideoSource::SlotTime(std::int64_t slot) const
{
    // The last movie time strictly before the step's middle: a sample starting there is
    // nearer this step than the next, as the graph's conform rounds a frame's time.
    const std::int64_t middle = slot * timePerFrame_ + timePerFrame_ / 2;
    const std::int64_t units =
        av_rescale_rnd(middle, timeDen_, static_cast<std::int64_t>(timeNum_) * 10'000'000, AV_ROUND_UP) - 1;
    return static_cast<TimeValue>(std::clamp<std::int64_t>(units, 0, std::numeric_limits<TimeValue>::max()));
}

// ---- audio ----

std::uint32_t WaveRateOf(UnsignedFixed rate)
{
    if (rate == (44100u << 16)) return 44100;
    if (rate == (48000u << 16)) return 48000;
    const auto s = static_cast<std::int32_t>(rate);
    return s < 0 ? 0 : static_cast<std::uint32_t>(s >> 16);
}

namespace {

// The converter's source: the next media sample of the sound track, or the end.
bool SoundSource(ExtendedSoundComponentData** data, void* refCon)
{
    auto* fill = static_cast<SoundFillRecord*>(refCon);
    auto& rec = fill->data;
    if (fill->currentTime >= fill->endTime) {
        fill->moreSource = false;
        rec.desc.sampleCount = 0;
        rec.desc.buffer = nullptr;
        rec.bufferSize = 0;
    }
    if (fill->moreSource) {
        Media::Sample s;
        std::string why;
        const OSErr err = fill->media->GetSample(fill->currentTime, fill->sourceBlock, fill->maxSourceBlock, &s, &why);
        // The end of the track reads as "no more data" without a reason; anything with a
        // reason is sound that exists but cannot be read, which must not pass for the end.
        if (err != noErr && !why.empty()) {
            fill->readError = err;
            if (fill->error) *fill->error = why;
        }
        if (err != noErr || s.numberOfSamples == 0) {
            fill->moreSource = false;
            rec.desc.sampleCount = 0;
            rec.desc.buffer = nullptr;
            rec.bufferSize = 0;
        } else {
            // A damaged table can put the next time past what the time type holds: that ends
            // the sound instead of wrapping back to its start.
            const std::int64_t next = static_cast<std::int64_t>(s.sampleTime) +
                                      static_cast<std::int64_t>(s.durationPerSample) * static_cast<std::int64_t>(s.numberOfSamples);
            if (next > std::numeric_limits<TimeValue>::max() || next <= s.sampleTime) fill->moreSource = false;
            fill->currentTime = static_cast<TimeValue>(std::clamp<std::int64_t>(next, 0, std::numeric_limits<TimeValue>::max()));
            rec.desc.sampleCount = static_cast<std::int32_t>(s.numberOfSamples * s.durationPerSample);
            rec.desc.buffer = fill->sourceBlock->data();
            rec.bufferSize = static_cast<std::int32_t>(s.size);
            rec.trimStart = s.trimStart;
            rec.trimEnd = s.trimEnd;
        }
    }
    *data = &rec;
    return fill->moreSource;
}

}  // namespace

CQuickTimeAudioSource::CQuickTimeAudioSource() = default;

CQuickTimeAudioSource::~CQuickTimeAudioSource()
{
    Finish(false);
    ReleaseMovie();
    session_.Stop();
}

bool CQuickTimeAudioSource::Fail(OSErr result, std::string why)
{
    result_ = result;
    error_ = std::move(why);
    return false;
}

void CQuickTimeAudioSource::ReleaseMovie()
{
    converter_.Close();
    media_.reset();
    movie_.reset();
    imported_ = false;
    sourceBlock_.clear();
    sourceBlock_.shrink_to_fit();
    output_.clear();
    output_.shrink_to_fit();
}

bool CQuickTimeAudioSource::Open(const char* path)
{
    Finish(false);
    ReleaseMovie();
    result_ = noErr;
    error_.clear();
    sourcePath_ = path ? path : "";

    FSSpec spec;
    if (OSErr err = NativePathNameToFSSpec(path, &spec, 0); err != noErr) return Fail(err, "no sound file given");
    OSType fileType = 0;
    if (OSErr err = FSpGetFInfo(spec, &fileType); err != noErr)
        return Fail(err, sourcePath_ + ": cannot read the file's information");

    if (fileType != SystemSoundFileType) {
        std::unique_ptr<MovieFile> file;
        if (OSErr err = OpenMovieFile(spec, &file, fsRdPerm); err != noErr)
            return Fail(err, sourcePath_ + ": cannot open the file: " + std::strerror(errno));
        std::string why;
        const OSErr err = Movie::FromFile(*file, &movie_, &why);
        CloseMovieFile(file);
        if (err != noErr) return Fail(err, why);
    } else {
        // A system sound file is imported into a new, empty movie.
        movie_ = Movie::NewEmpty();
        std::string why;
        if (movie_->ImportFile(spec, &why) != noErr) {
            // An import that cannot read the file leaves the movie empty: it has no sound track.
            return Fail(invalidTrack, sourcePath_ + ": cannot import the system sound file: " + why);
        }
        imported_ = true;
    }

    int track = -1;
    if (OSErr err = movie_->IndTrackType(1, SoundMediaType, &track); err != noErr)
        return Fail(err, sourcePath_ + ": the movie has no sound track");
    if (OSErr err = movie_->TrackMedia(track, &media_); err != noErr)
        return Fail(err, sourcePath_ + ": the sound track has no media");

    std::string why;
    if (OSErr err = media_->SampleDescription(1, &sourceDesc_, &why); err != noErr)
        return Fail(err, why.empty() ? sourcePath_ + ": unreadable sound description" : why);
    std::vector<std::uint8_t> atom;
    const bool haveAtom = media_->SoundDescriptionExtension(siDecompressionParams, &atom) == noErr;

    // The source buffer is sized from the description: a damaged one claiming thousands of
    // channels would ask for gigabytes before anything else looked at it.
    if (sourceDesc_.numChannels < 1 || sourceDesc_.numChannels > kMaxSoundChannels)
        return Fail(badFormat, sourcePath_ + ": the sound description claims " + std::to_string(sourceDesc_.numChannels) +
                                   " channels (1 to " + std::to_string(kMaxSoundChannels) + " are read)");

    SoundComponentData input{};
    input.format = sourceDesc_.dataFormat;
    input.numChannels = sourceDesc_.numChannels;
    input.sampleSize = sourceDesc_.sampleSize;
    input.sampleRate = sourceDesc_.sampleRate;
    SoundComponentData output = input;
    output.format = kSoundNotCompressed;
    // The audio conversion takes one or two channels: more are folded into stereo here,
    // which leaves such sound to the decoding converter rather than the pass-through.
    output.numChannels = static_cast<std::int16_t>(std::min<int>(input.numChannels, kMaxOutputChannels));
    if (OSErr err = converter_.Open(&input, &output); err != noErr)
        return Fail(err, sourcePath_ + ": no converter for sound of type '" + OSTypeText(input.format) + "'");
    if (haveAtom) {
        const OSErr err = converter_.SetInfo(siDecompressionParams, &atom);
        if (err != noErr && err != siUnknownInfoType)
            return Fail(err, sourcePath_ + ": the converter refused the decompression parameters");
    }

    fill_ = SoundFillRecord{};
    fill_.maxSourceBlock = (static_cast<std::size_t>(sourceDesc_.sampleRate >> 16) + 1000) *
                           static_cast<std::size_t>(sourceDesc_.numChannels) * 4;
    output_.assign(kOutputBufferBytes, 0);

    if (OSErr err = converter_.BeginConversion(); err != noErr)
        return Fail(err, sourcePath_ + ": cannot start the sound conversion: " + converter_.LastError());

    converting_ = 1;
    header_ = OutputSoundHeader{};
    header_.samplePtr = output_.data();
    header_.numChannels = output.numChannels;
    header_.sampleRate = output.sampleRate;
    header_.sampleSize = output.sampleSize;

    sourceBlock_.reserve(fill_.maxSourceBlock);
    fill_.data.desc = input;
    fill_.data.desc.flags = kExtendedSoundData;
    fill_.data.desc.buffer = sourceBlock_.data();
    fill_.data.recordSize = 40;
    fill_.data.extendedFlags = kExtendedSoundBufferSizeValid | kExtendedSoundSampleCountNotValid;
    fill_.sourceBlock = &sourceBlock_;
    fill_.media = media_.get();
    fill_.currentTime = 0;
    fill_.endTime = media_->Duration();
    fill_.moreSource = true;
    fill_.variableBitRate = sourceDesc_.compressionID == -2;
    fill_.error = &error_;
    return true;
}

bool CQuickTimeAudioSource::CreateWav(const char* path)
{
    if (!path || !*path) return Fail(paramErr, "no WAVE file given");
    wavPath_ = path;
    dataBytes_ = 0;
    writeFailed_ = false;
    auto file = std::make_unique<CMmioFile>(path, nullptr, MMIO_CREATE | MMIO_WRITE);
    if (!file->IsOpen()) return Fail(fnfErr, file->GetError());
    wavGuard_ = std::make_unique<CDeleteOnFail>(wavPath_);
    wav_ = std::move(file);

    const std::uint32_t rate = WaveRateOf(header_.sampleRate);
    const auto channels = static_cast<std::uint16_t>(header_.numChannels);
    const auto blockAlign = static_cast<std::uint16_t>(channels * (header_.sampleSize / 8));
    WAVEFORMATEX fmt{};
    fmt.wFormatTag = WAVE_FORMAT_PCM;
    fmt.nChannels = channels;
    fmt.nSamplesPerSec = rate;
    fmt.nAvgBytesPerSec = rate * blockAlign;
    fmt.nBlockAlign = blockAlign;
    fmt.wBitsPerSample = channels ? static_cast<WORD>(blockAlign / channels * 8) : 0;

    riffChunk_ = MMCKINFO{};
    riffChunk_.fccType = MakeFourCC('W', 'A', 'V', 'E');
    MMCKINFO fmtChunk{};
    fmtChunk.ckid = MakeFourCC('f', 'm', 't', ' ');
    dataChunk_ = MMCKINFO{};
    dataChunk_.ckid = MakeFourCC('d', 'a', 't', 'a');
    // The 16-byte PCM record: the format without its extra-size word.
    if (!wav_->CreateChunk(riffChunk_, MMIO_CREATERIFF) || !wav_->CreateChunk(fmtChunk, 0) ||
        wav_->Write(&fmt, 16) != 16 || !wav_->Ascend(fmtChunk) || !wav_->CreateChunk(dataChunk_, 0)) {
        writeFailed_ = true;
        return Fail(ioErr, wav_->GetError());
    }
    return true;
}

bool CQuickTimeAudioSource::WriteFrames(std::uint32_t frames)
{
    header_.numFrames = frames;
    const std::uint64_t bytes =
        static_cast<std::uint64_t>(frames) * static_cast<std::uint64_t>(header_.numChannels) * (header_.sampleSize / 8);
    // Frames the buffer cannot hold would be sound reported but never written.
    if (bytes > output_.size()) {
        writeFailed_ = true;
        return Fail(ioErr, sourcePath_ + ": the sound converter reported " + std::to_string(frames) +
                               " frames, more than its buffer holds");
    }
    const auto n = static_cast<std::size_t>(bytes);
    if (dataBytes_ + n > 0xFFFFFFFFull - 64) {
        writeFailed_ = true;
        return Fail(ioErr, wavPath_ + ": the sound is too long for a WAVE file");
    }
    if (n > 0 && wav_->Write(output_.data(), static_cast<long>(n)) != static_cast<long>(n)) {
        writeFailed_ = true;
        return Fail(ioErr, wav_->GetError());
    }
    dataBytes_ += n;
    return true;
}

bool CQuickTimeAudioSource::CloseWav()
{
    bool ok = !writeFailed_ && wav_->Ascend(dataChunk_) && wav_->Ascend(riffChunk_);
    if (!ok && error_.empty()) error_ = wav_->GetError();
    if (!wav_->Close()) {
        if (ok) error_ = wav_->GetError();
        ok = false;
    }
    wav_.reset();
    // A WAVE that could not be completed is not left behind as if it were one.
    if (ok) wavGuard_->Release();
    wavGuard_.reset();
    return ok;
}

bool CQuickTimeAudioSource::ConvertChunk(const char* wavPath, bool& more)
{
    more = false;
    if (!converting_) return Fail(paramErr, sourcePath_ + ": no sound conversion is open");
    if (!wav_ && !CreateWav(wavPath)) return false;
    std::uint32_t bytes = 0, frames = 0, flags = 0;
    if (OSErr err = converter_.FillBuffer(SoundSource, &fill_, output_.data(), kOutputBufferBytes, &bytes, &frames, &flags);
        err != noErr)
        return Fail(err, sourcePath_ + ": sound conversion failed: " + converter_.LastError());
    if (!WriteFrames(frames)) return false;
    if (fill_.readError != noErr) return Fail(fill_.readError, error_.empty() ? sourcePath_ + ": cannot read the sound" : error_);
    more = (flags & kSoundConverterHasLeftOverData) != 0;
    return true;
}

bool CQuickTimeAudioSource::Finish(bool writeLeftover)
{
    bool result = writeLeftover;
    if (converting_) {
        std::uint32_t frames = 0, bytes = 0;
        const OSErr err = converter_.EndConversion(output_.data(), &frames, &bytes);
        if (err == noErr && writeLeftover && frames > 0 && wav_ && !WriteFrames(frames)) result = false;
        converting_ = 0;
    }
    if (wav_) {
        if (writeFailed_) result = false;
        if (!CloseWav()) result = false;
    }
    converter_.Close();
    imported_ = false;
    media_.reset();
    movie_.reset();
    return result;
}

}  // namespace zub

// The movie route of the conversion: a video source that draws movie frames one by one into
// a 24-bit top-down bitmap, and an audio source that writes a movie's first sound track as a
// PCM WAVE file one output buffer at a time, so the dialog stays responsive between steps.
// Both are used from one thread (the conversion dialog's); neither locks.
#pragma once

#include <cstdint>
#include <cstdio>
#include <functional>
#include <memory>
#include <string>
#include <vector>

#include "dva/DeleteOnFail.h"
#include "dva/MmioFile.h"
#include "quicktime/MovieToolbox.h"
#include "quicktime/SoundConverter.h"
#include "zubimport/Platform.h"

namespace zub {

// Start/stop state of the movie toolbox, one per source object. 1 = not started, 0 = started.
class CQuickTimeSession {
public:
    CQuickTimeSession() = default;
    ~CQuickTimeSession() { Stop(); }
    CQuickTimeSession(const CQuickTimeSession&) = delete;
    CQuickTimeSession& operator=(const CQuickTimeSession&) = delete;

    bool Start();
    void Stop();
    std::int16_t MediaLayerStatus() const { return mediaLayer_; }
    std::int16_t MovieToolboxStatus() const { return movieToolbox_; }

private:
    std::int16_t mediaLayer_ = 1;
    std::int16_t movieToolbox_ = 1;
};

// The memory drawing context with its bitmap selected: a 40-byte header (negative height:
// rows top-down) and rows of `stride` bytes (width × 3 rounded up to 4), blue, green, red.
struct DrawingContext {
    BITMAPINFOHEADER header{};
    std::uint8_t* bits = nullptr;
    std::size_t stride = 0;
};

// What the video source asks of a file-open dialog when it is opened without a path.
struct OpenFileRequest {
    std::string filterName = "QuickTime Movies (*.mov)";
    std::string filterPattern = "*.mov";
    std::size_t maxPath = 256;  // the longest name the dialog may hand back, terminator included
    bool pathMustExist = true;
    bool fileMustExist = true;
};
// Shows the dialog; true with the chosen path, false when cancelled.
using OpenFileDialogHook = std::function<bool(const OpenFileRequest& request, std::string* path)>;

class CQuickTimeVideoSource {
public:
    CQuickTimeVideoSource();
    ~CQuickTimeVideoSource();
    CQuickTimeVideoSource(const CQuickTimeVideoSource&) = delete;
    CQuickTimeVideoSource& operator=(const CQuickTimeVideoSource&) = delete;

    // The dialog layer installs the file-open dialog here; without one, Open(nullptr) fails.
    static void SetOpenFileDialogHook(OpenFileDialogHook hook);

    bool Start();
    // Opens the movie (path nullptr: asks the dialog hook). A movie without video opens too,
    // with a 0 x 0 frame and no frames.
    bool Open(const char* path);
    void GetFrameSize(int& width, int& height) const;
    // nullptr while no bitmap exists (no movie, or a movie without video).
    const DrawingContext* GetDrawingContext() const;
    int CountFrames() const;
    // Clockwise degrees the movie turns its picture when drawn (0 without a movie).
    int Rotation() const;
    // Draws the frame at the current time into the bitmap; false (with LastError) when no
    // frame could be drawn.
    bool RenderCurrentFrame();
    // The frame at the current time as decoded, without drawing it: `picture` gets a new
    // reference to the decoder's frame. False (with LastError) when there is none.
    bool CurrentPicture(AVFrame* picture);
    // The next video sample's time, -1 after the last one. While conforming: the next step
    // of the grid.
    qt::TimeValue AdvanceFrame();

    // Steps a movie whose frame durations vary on a constant grid instead of sample by
    // sample: `timePerFrame` apart over `span` (100 ns units; the source's first frame's start
    // to its last frame's end), each step showing the sample a player at that rate would show
    // (the last one starting before the step's middle), so the picture keeps the sound's
    // length. CountFrames then counts the grid. Starts over at the first step. False, and
    // nothing changes, without video or with an empty grid.
    bool ConformTo(std::int64_t timePerFrame, std::int64_t span);
    bool Conforming() const { return slots_ > 0; }
    std::int64_t TimePerFrame() const { return timePerFrame_; }
    // Steps that showed the previous step's sample again, and samples no step showed (those
    // after the last step counted once the grid has run out).
    std::int64_t FramesRepeated() const { return repeated_; }
    std::int64_t FramesDropped() const { return dropped_; }

    qt::TimeValue CurrentTime() const { return currentTime_; }
    const std::string& LastError() const { return error_; }

private:
    void Release();
    qt::TimeValue SlotTime(std::int64_t slot) const;

    CQuickTimeSession session_;
    std::unique_ptr<qt::Movie> movie_;
    std::unique_ptr<qt::MovieFile> movieFile_;
    qt::TimeValue currentTime_ = -1;
    std::vector<std::uint8_t> bitmap_;
    std::unique_ptr<DrawingContext> dc_;
    std::unique_ptr<qt::GWorld> gworld_;
    std::string error_;

    // The conform grid; slots_ 0 while samples are stepped one by one.
    std::int64_t slots_ = 0;
    std::int64_t slot_ = 0;
    std::int64_t timePerFrame_ = 0;
    int timeNum_ = 0, timeDen_ = 0;
    std::size_t shownOrdinal_ = 0;
    std::int64_t repeated_ = 0;
    std::int64_t dropped_ = 0;
};

// Describes the converted sound the output buffer holds.
struct OutputSoundHeader {
    std::uint8_t* samplePtr = nullptr;
    std::int32_t numChannels = 0;
    qt::UnsignedFixed sampleRate = 0;
    std::uint8_t encode = 0xFE;
    std::uint8_t baseFrequency = 60;
    std::uint32_t numFrames = 0;
    qt::OSType format = qt::kSoundNotCompressed;
    std::int16_t compressionID = -1;
    std::int16_t sampleSize = 0;
};

// What the converter's source callback reads and fills.
struct SoundFillRecord {
    qt::ExtendedSoundComponentData data;
    std::vector<std::uint8_t>* sourceBlock = nullptr;
    qt::Media* media = nullptr;
    qt::TimeValue currentTime = 0;
    qt::TimeValue endTime = 0;
    std::size_t maxSourceBlock = 0;
    bool moreSource = true;
    bool variableBitRate = false;
    std::string* error = nullptr;  // a failed media read leaves its reason here
    qt::OSErr readError = qt::noErr;  // a read that failed (not the sound's end) stops the sound with this
};

// The most channels a sound description may claim and still be read.
inline constexpr int kMaxSoundChannels = 64;
// The most channels the WAVE gets; surround is mixed down to stereo.
inline constexpr int kMaxOutputChannels = 2;

class CQuickTimeAudioSource {
public:
    static constexpr std::uint32_t kOutputBufferBytes = 65536;

    CQuickTimeAudioSource();
    ~CQuickTimeAudioSource();
    CQuickTimeAudioSource(const CQuickTimeAudioSource&) = delete;
    CQuickTimeAudioSource& operator=(const CQuickTimeAudioSource&) = delete;

    // Finds the first sound track and prepares its conversion; nothing is written yet.
    bool Open(const char* path);
    // Creates the WAVE file on the first call, then appends at most one output buffer.
    // `more` is true while the converter holds further data.
    bool ConvertChunk(const char* wavPath, bool& more);
    // Ends the conversion and closes the WAVE file; returns writeLeftover unless a write or
    // the close failed. Safe to call more than once.
    bool Finish(bool writeLeftover);

    // The toolbox result of the last failure (-2009: no sound track, -2008: no media).
    qt::OSErr LastResult() const { return result_; }
    const std::string& LastError() const { return error_; }
    const OutputSoundHeader& Header() const { return header_; }
    const qt::SoundDescription& SourceDescription() const { return sourceDesc_; }
    bool PassingThrough() const { return converter_.PassingThrough(); }
    std::uint64_t BytesWritten() const { return dataBytes_; }

private:
    bool Fail(qt::OSErr result, std::string why);
    bool CreateWav(const char* path);
    bool WriteFrames(std::uint32_t frames);
    bool CloseWav();
    void ReleaseMovie();

    CQuickTimeSession session_;
    std::unique_ptr<qt::Movie> movie_;
    std::unique_ptr<qt::Media> media_;
    bool imported_ = false;  // a system sound file brought into a new movie
    int converting_ = 0;
    qt::CPassThroughSoundConverter converter_;
    std::vector<std::uint8_t> output_;
    OutputSoundHeader header_;
    std::vector<std::uint8_t> sourceBlock_;
    SoundFillRecord fill_;
    qt::SoundDescription sourceDesc_;

    // The WAVE file being written, its open chunks, and the guard that removes it unless it
    // was completed.
    std::unique_ptr<CMmioFile> wav_;
    MMCKINFO riffChunk_{};
    MMCKINFO dataChunk_{};
    std::unique_ptr<CDeleteOnFail> wavGuard_;
    std::string wavPath_;
    std::uint64_t dataBytes_ = 0;
    bool writeFailed_ = false;

    qt::OSErr result_ = qt::noErr;
    std::string error_;
    std::string sourcePath_;
};

// The WAVE "fmt " rate for a 16.16 sound rate: exactly 44100 or 48000 as such; anything else
// read as a signed 16.16 value and truncated, negative giving 0 (so 37800 Hz is written as 0).
std::uint32_t WaveRateOf(qt::UnsignedFixed rate);

}  // namespace zub

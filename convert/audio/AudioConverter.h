// Audio conversion of a finished 16-bit PCM WAVE file to the target format of the audio
// settings: lower sample rate, 8 or 16 bits, mono or stereo. This is the engine behind the
// conversion dialog's ConvertAudioFile and its helpers; it needs no dialog, only a prompt.
//
// The conversion streams: source samples are staged and resampled block by block and each
// converted block is written out at once, so memory stays bounded on any file length. The
// bytes written are those of one pass over the whole file (tests hold it to that).
//
// One conversion runs in three steps: validate (read the source's format and decide whether
// there is anything to do, with the user's messages), open (source read-only, target created,
// header written, resampler set up) and stream (block by block, reporting progress and
// stopping when asked to, in which case the unfinished target is removed).
#pragma once

#include <atomic>
#include <cstddef>
#include <cstdint>
#include <functional>
#include <memory>
#include <string>
#include <vector>

#include "convert/audio/PolyphaseResampler.h"

namespace zub {

class IPrompt;
struct ImportSettings;

namespace audio {

// ConvertAudioFile's result when writing the target failed after it was opened. It is
// non-zero on purpose: the engine goes on to copy whatever was written over the audio file.
inline constexpr int kTargetWriteFailed = static_cast<int>(0xE0040200u);

// Default output frames per block: 128 KiB of 16-bit stereo output, so that a block's staged
// source, raw bytes and output (about 420 KiB together) stay in a 1 MiB second-level cache.
// Measured on a 600 s file: the same speed as 64 Ki frames and smaller blocks' per-block
// overhead gone by here, at a lower peak.
inline constexpr std::size_t kDefaultBlockFrames = 32768;

struct AudioTarget {
    long rate = 48000;
    int bits = 16;
    int stereo = 1;
};

// Called from the converting thread after each block with the fraction (0 .. 1) of the
// target's audio written so far; the last call, on success, is 1.
using AudioProgress = std::function<void(double fraction)>;

// The audio settings page's list positions as a target format: rate index 0..4 = 48000,
// 44100, 32000, 22050, 11025 (anything else 48000); channels 0 = stereo, else mono; sample
// size 1 = 8 bits, else 16.
long RateForIndex(int index);
AudioTarget TargetFromSettings(const ImportSettings& settings);

// One 16-bit sample as an unsigned 8-bit one: rounds half up except at the very top, where
// adding the rounding bias would overflow.
inline unsigned char SampleTo8Bit(std::int16_t s)
{
    const int v = s < 32640 ? s + 128 : s;
    return static_cast<unsigned char>((v >> 8) + 128);
}

// Width and channel conversion from 16-bit frames (two samples per frame for the stereo
// variant, one for mono) to the target layout, little-endian, stopping after exactly
// outBytes bytes. bits: 8 means 8 bits, anything else 16. stereo: non-zero for a
// two-channel target. A stereo source going to mono keeps the left channel. Return outBytes.
unsigned long ConvertStereoFrames(const std::int16_t* in, unsigned char* out, unsigned long outBytes, int bits,
                                  int stereo);
unsigned long ConvertMonoFrames(const std::int16_t* in, unsigned char* out, unsigned long outBytes, int bits,
                                int stereo);

class AudioConverter {
public:
    AudioConverter();
    ~AudioConverter();
    AudioConverter(const AudioConverter&) = delete;
    AudioConverter& operator=(const AudioConverter&) = delete;

    // Converts source into target (see ConvertAudioFile): 1 done, 0 nothing done or an error
    // shown through prompt, kTargetWriteFailed when writing the target failed. progress may
    // be empty. When *cancel becomes true the conversion stops at the next block, removes the
    // target and returns 0 with LastError() saying so; nothing is shown to the user.
    int Convert(const char* source, const char* target, const AudioTarget& to, IPrompt& prompt,
                const AudioProgress& progress = {}, const std::atomic<bool>* cancel = nullptr);

    // Reads a WAVE file's format through the RIFF layer: 1 with rate, bits and stereo set
    // for PCM, 1 or 2 channels, 1000 .. 384000 Hz, 8 or 16 bits; else 0 with the outputs
    // untouched and the reason (naming the file) in *why when given.
    static int ReadFormat(const std::string& file, long& rate, int& bits, int& stereo, std::string* why = nullptr);

    // The dialog's helpers over this converter's state: width/channel conversion into the
    // output buffer (grown to outBytes), and reading count bytes of the open source's audio
    // from offset bytes after its 44-byte header (read errors leave the buffer as it was).
    unsigned long ConvertStereo(const short* in, unsigned long outBytes, int bits, int stereo);
    unsigned long ConvertMono(const short* in, unsigned long outBytes, int bits, int stereo);
    int ReadSamples(long count, unsigned char* buffer, unsigned long offset);

    // Output frames resampled per block; 0 converts the whole file as one block.
    void SetBlockFrames(std::size_t frames) { blockFrames_ = frames; }

    // The output buffer of ConvertStereo / ConvertMono, or the last block a conversion had to
    // convert (16-bit blocks already in the target's layout are written as they are).
    const std::vector<unsigned char>& Output() const { return output_; }
    // Source bytes per output byte after the width and channel change (step 10's ratio).
    double Ratio() const { return ratio_; }
    const PolyphaseResampler& Resampler() const { return resampler_; }
    // Bytes of audio the last conversion wrote after the header.
    unsigned long OutBytes() const { return outBytes_; }
    // Why the last conversion or read stopped, naming the file; empty after success.
    const std::string& LastError() const { return error_; }
    // True when the last conversion stopped because it was cancelled.
    bool Cancelled() const { return cancelled_; }

private:
    struct Fd;
    // What validation learnt about one conversion, carried through open and stream.
    struct Job {
        std::string source, target;
        long rate = 0;
        int bits = 0, stereo = 0;
        std::int64_t size = 0;    // source file length in bytes
        std::int64_t frames = 0;  // source sample frames after the canonical header
        long targetRate = 0;
        int targetBits = 16, targetStereo = 1;
    };
    // Each returns true to go on; otherwise result holds the conversion's return value.
    bool Validate(const char* source, const char* target, const AudioTarget& to, IPrompt& prompt, Job& job,
                  int& result);
    bool Open(const Job& job, IPrompt& prompt, int& result);
    int Stream(const Job& job, const AudioProgress& progress, const std::atomic<bool>* cancel);
    int WriteFailed(const std::string& why);
    // ReadSamples' work: the bytes actually read.
    std::size_t ReadAudio(long count, unsigned char* buffer, unsigned long offset);
    // Resamples outputs first .. first + count into inter (count frames of `channels`
    // interleaved samples), staging the source range they need straight from the file.
    // channels is the source's, or 1 for a stereo source going to mono: only its left channel
    // is kept, so only the left channel is read and filtered.
    void ResampleBlock(const Job& job, std::int64_t first, std::size_t count, std::int64_t produced, int channels,
                       std::vector<std::int16_t>& inter);

    std::unique_ptr<Fd> source_;
    std::unique_ptr<Fd> target_;
    std::vector<unsigned char> output_;
    std::vector<unsigned char> raw_;
    std::vector<std::int16_t> stage_;
    double ratio_ = 1.0;
    PolyphaseResampler resampler_;
    std::size_t blockFrames_ = kDefaultBlockFrames;
    unsigned long outBytes_ = 0;
    std::string error_;
    bool cancelled_ = false;
};

}  // namespace audio
}  // namespace zub

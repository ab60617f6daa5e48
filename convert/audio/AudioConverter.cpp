#include "convert/audio/AudioConverter.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <bit>
#include <cerrno>
#include <cstring>

#include "convert/audio/ResampleSimd.h"
#include "dva/DeleteOnFail.h"
#include "dva/MmioFile.h"
#include "platform/ByteOrder.h"
#include "platform/FileIo.h"
#include "zubimport/ImportSettings.h"
#include "zubimport/Prompt.h"

namespace zub::audio {

namespace {

// The conversion's messages, in the order they can appear.
constexpr const char* kInappropriate = "Inappropriate setting of target audio format";
constexpr const char* kNowSame = "Target audio format is now same as source";
constexpr const char* kNeeds16Bit = "The source sample rate must be 16 bit for any conversion to be done";
constexpr const char* kReadError = "Error when reading source audio file";
constexpr const char* kWriteError = "Error when writing target audio file";
constexpr const char* kReaderError = "Failed to open audio item.";

// The canonical WAVE header the conversion assumes: audio data starts here.
constexpr int kHeaderBytes = 44;

template <bool StereoSource>
unsigned long ConvertFrames(const std::int16_t* in, unsigned char* out, unsigned long outBytes, int bits, int stereo)
{
    const bool eight = bits == 8;
    const auto frameBytes = static_cast<unsigned long>((eight ? 1 : 2) * (stereo ? 2 : 1));
    const std::size_t whole = outBytes / frameBytes;
    auto left = [in](std::size_t f) { return in[StereoSource ? 2 * f : f]; };
    auto right = [in](std::size_t f) { return in[StereoSource ? 2 * f + 1 : f]; };
    // One plain loop per layout, so each is a straight run the compiler can vectorise.
    if (eight && stereo) {
        for (std::size_t f = 0; f < whole; ++f) {
            out[2 * f] = SampleTo8Bit(left(f));
            out[2 * f + 1] = SampleTo8Bit(right(f));
        }
    } else if (eight) {
        for (std::size_t f = 0; f < whole; ++f) out[f] = SampleTo8Bit(left(f));
    } else if (stereo) {
        for (std::size_t f = 0; f < whole; ++f) {
            WriteLe16(out + 4 * f, static_cast<std::uint16_t>(left(f)));
            WriteLe16(out + 4 * f + 2, static_cast<std::uint16_t>(right(f)));
        }
    } else {
        for (std::size_t f = 0; f < whole; ++f) WriteLe16(out + 2 * f, static_cast<std::uint16_t>(left(f)));
    }
    // A target length that ends inside a frame gets that frame's first bytes, so the result is
    // exactly outBytes long whatever the caller asks for.
    if (const unsigned long rest = outBytes - whole * frameBytes) {
        unsigned char frame[4];
        if (eight) {
            frame[0] = SampleTo8Bit(left(whole));
            frame[1] = SampleTo8Bit(right(whole));
        } else {
            WriteLe16(frame, static_cast<std::uint16_t>(left(whole)));
            WriteLe16(frame + 2, static_cast<std::uint16_t>(right(whole)));
        }
        std::memcpy(out + whole * frameBytes, frame, rest);
    }
    return outBytes;
}

}  // namespace

struct AudioConverter::Fd {
    int fd = -1;
    explicit Fd(int f) : fd(f) {}
    ~Fd()
    {
        if (fd >= 0) ::close(fd);
    }
    Fd(const Fd&) = delete;
    Fd& operator=(const Fd&) = delete;
    bool Close()
    {
        const int f = fd;
        fd = -1;
        return f < 0 || ::close(f) == 0;
    }
};

long RateForIndex(int index)
{
    switch (index) {
    case 1: return 44100;
    case 2: return 32000;
    case 3: return 22050;
    case 4: return 11025;
    default: return 48000;
    }
}

AudioTarget TargetFromSettings(const ImportSettings& settings)
{
    AudioTarget t;
    t.rate = RateForIndex(settings.audioRateIndex);
    t.stereo = settings.audioChannels == 0 ? 1 : 0;
    t.bits = settings.audioSampleSize == 1 ? 8 : 16;
    return t;
}

unsigned long ConvertStereoFrames(const std::int16_t* in, unsigned char* out, unsigned long outBytes, int bits,
                                  int stereo)
{
    return ConvertFrames<true>(in, out, outBytes, bits, stereo);
}

unsigned long ConvertMonoFrames(const std::int16_t* in, unsigned char* out, unsigned long outBytes, int bits,
                                int stereo)
{
    return ConvertFrames<false>(in, out, outBytes, bits, stereo);
}

AudioConverter::AudioConverter() = default;
AudioConverter::~AudioConverter() = default;

int AudioConverter::ReadFormat(const std::string& file, long& rate, int& bits, int& stereo, std::string* why)
{
    auto fail = [&](const std::string& reason) {
        if (why) *why = reason;
        return 0;
    };
    CMmioFile f(file.c_str(), nullptr, MMIO_ALLOCBUF);
    if (!f.IsOpen()) return fail(f.GetError().empty() ? file + ": cannot open" : f.GetError());
    MMCKINFO riff;
    riff.fccType = MakeFourCC('W', 'A', 'V', 'E');
    if (!f.Descend(riff, nullptr, MMIO_FINDRIFF)) return fail(file + ": not a RIFF WAVE file");
    MMCKINFO fmt;
    fmt.ckid = MakeFourCC('f', 'm', 't', ' ');
    if (!f.Descend(fmt, &riff, MMIO_FINDCHUNK)) return fail(file + ": no \"fmt \" chunk");
    if (fmt.cksize < 16) return fail(file + ": \"fmt \" chunk shorter than 16 bytes");
    unsigned char b[16];
    if (f.Read(b, 16) != 16) return fail(file + ": \"fmt \" chunk cut short");

    const unsigned tag = ReadLe16(b);
    const unsigned channels = ReadLe16(b + 2);
    const std::uint32_t sampleRate = ReadLe32(b + 4);
    const unsigned sampleBits = ReadLe16(b + 14);
    if (tag != WAVE_FORMAT_PCM) return fail(file + ": not PCM (format tag " + std::to_string(tag) + ")");
    if (channels != 1 && channels != 2) return fail(file + ": " + std::to_string(channels) + " channels");
    if (sampleRate < 1000 || sampleRate > 384000)
        return fail(file + ": sample rate " + std::to_string(sampleRate) + " Hz out of range");
    if (sampleBits != 8 && sampleBits != 16) return fail(file + ": " + std::to_string(sampleBits) + " bits per sample");

    rate = static_cast<long>(sampleRate);
    bits = static_cast<int>(sampleBits);
    stereo = channels == 2 ? 1 : 0;
    if (why) why->clear();
    return 1;
}

unsigned long AudioConverter::ConvertStereo(const short* in, unsigned long outBytes, int bits, int stereo)
{
    if (output_.size() < outBytes) output_.resize(outBytes);
    if (!in) return outBytes;
    return ConvertStereoFrames(in, output_.data(), outBytes, bits, stereo);
}

unsigned long AudioConverter::ConvertMono(const short* in, unsigned long outBytes, int bits, int stereo)
{
    if (output_.size() < outBytes) output_.resize(outBytes);
    if (!in) return outBytes;
    return ConvertMonoFrames(in, output_.data(), outBytes, bits, stereo);
}

int AudioConverter::ReadSamples(long count, unsigned char* buffer, unsigned long offset)
{
    ReadAudio(count, buffer, offset);
    return 1;
}

std::size_t AudioConverter::ReadAudio(long count, unsigned char* buffer, unsigned long offset)
{
    if (!source_ || source_->fd < 0 || count <= 0 || !buffer) return 0;
    auto at = static_cast<off_t>(kHeaderBytes + static_cast<off_t>(offset));
    auto left = static_cast<std::size_t>(count);
    std::size_t got = 0;
    while (left > 0) {
        const ssize_t n = ::pread(source_->fd, buffer + got, left, at);
        if (n < 0 && errno == EINTR) continue;
        if (n <= 0) break;  // the rest of the buffer keeps what the caller put there (zeros)
        got += static_cast<std::size_t>(n);
        left -= static_cast<std::size_t>(n);
        at += n;
    }
    return got;
}

int AudioConverter::WriteFailed(const std::string& why)
{
    error_ = why;
    if (target_) target_->Close();
    target_.reset();
    source_.reset();
    return kTargetWriteFailed;
}

void AudioConverter::ResampleBlock(const Job& job, std::int64_t first, std::size_t count, std::int64_t produced,
                                   int channels, std::vector<std::int16_t>& inter)
{
    // Outputs past the last source position stay zero, as in a zero-filled whole-file buffer.
    const std::int64_t have = std::clamp<std::int64_t>(produced - first, 0, static_cast<std::int64_t>(count));
    const auto n = static_cast<std::size_t>(have);
    inter.resize(count * static_cast<std::size_t>(channels));
    std::fill(inter.begin() + static_cast<std::ptrdiff_t>(n * static_cast<std::size_t>(channels)), inter.end(), 0);
    if (n == 0) return;

    std::int64_t begin, end;
    resampler_.SourceSpan(first, n, begin, end);
    const auto span = static_cast<std::size_t>(end - begin);
    stage_.resize(span * static_cast<std::size_t>(channels));

    // Only the part inside the file is read; the margins before the start and after the end
    // are zero.
    const std::int64_t readBegin = std::clamp<std::int64_t>(begin, 0, std::max<std::int64_t>(job.frames, 0));
    const std::int64_t readEnd = std::clamp<std::int64_t>(end, readBegin, std::max<std::int64_t>(job.frames, 0));
    const auto skip = static_cast<std::size_t>(readBegin - begin);
    const auto readFrames = static_cast<std::size_t>(readEnd - readBegin);
    for (int c = 0; c < channels; ++c) {
        std::int16_t* plane = stage_.data() + static_cast<std::size_t>(c) * span;
        std::fill(plane, plane + skip, 0);
        std::fill(plane + skip + readFrames, plane + span, 0);
    }
    if (readFrames > 0) {
        const int srcChannels = job.stereo ? 2 : 1;
        const int bytesPerSample = job.bits / 8;
        const auto frameBytes = static_cast<std::size_t>(srcChannels * bytesPerSample);
        raw_.resize(readFrames * frameBytes);
        // A short read leaves zeros, as an unread part of a zeroed whole-file buffer would.
        const std::size_t got = ReadAudio(static_cast<long>(raw_.size()), raw_.data(),
                                            static_cast<unsigned long>(readBegin) * static_cast<unsigned long>(frameBytes));
        std::fill(raw_.begin() + static_cast<std::ptrdiff_t>(got), raw_.end(), 0);
        const unsigned char* p = raw_.data();
        std::int16_t* left = stage_.data() + skip;
        if (bytesPerSample == 2 && std::endian::native == std::endian::little) {
            const auto* s = reinterpret_cast<const std::int16_t*>(p);
            if (srcChannels == 1)
                std::memcpy(left, s, readFrames * 2);
            else if (channels == 2)
                simd::Deinterleave(s, readFrames, left, left + span);
            else
                for (std::size_t i = 0; i < readFrames; ++i) left[i] = s[2 * i];
        } else {
            for (std::size_t i = 0; i < readFrames; ++i) {
                for (int c = 0; c < srcChannels; ++c) {
                    std::int16_t v;
                    if (bytesPerSample == 2) {
                        v = static_cast<std::int16_t>(ReadLe16(p));
                        p += 2;
                    } else {
                        v = static_cast<std::int16_t>((*p++ - 128) * 256);
                    }
                    if (c < channels) left[static_cast<std::size_t>(c) * span + i] = v;
                }
            }
        }
    }

    if (channels == 2)
        resampler_.RunStereo(first, n, stage_.data(), stage_.data() + span, begin, inter.data());
    else
        resampler_.Run(first, n, stage_.data(), begin, inter.data());
}

bool AudioConverter::Validate(const char* source, const char* target, const AudioTarget& to, IPrompt& prompt,
                              Job& job, int& result)
{
    result = 0;
    if (!source || !target) {
        error_ = "no source or target file name";
        return false;
    }
    job.source = source;
    job.target = target;
    if (!ReadFormat(job.source, job.rate, job.bits, job.stereo, &error_)) return false;
    struct stat st {};
    if (::stat(source, &st) != 0) {
        error_ = SysError(job.source, "cannot stat");
        return false;
    }
    job.size = st.st_size;
    job.frames = ((job.size - kHeaderBytes) / (job.bits / 8)) / (job.stereo ? 2 : 1);
    job.targetRate = to.rate;
    job.targetBits = to.bits == 8 ? 8 : 16;
    job.targetStereo = to.stereo ? 1 : 0;

    if (job.rate < job.targetRate || job.bits < job.targetBits) {
        prompt.Tell(kInappropriate);
        prompt.Tell(kNowSame);
        error_ = job.source + ": the target format is above the source's";
        return false;
    }
    if (job.rate == job.targetRate && job.bits == job.targetBits && job.stereo == job.targetStereo) return false;
    if (job.bits == 8) {
        prompt.Tell(kNeeds16Bit);
        prompt.Tell(kNowSame);
        error_ = job.source + ": 8-bit sources are not converted";
        return false;
    }
    return true;
}

bool AudioConverter::Open(const Job& job, IPrompt& prompt, int& result)
{
    result = 0;
    // Only ever read: the source may sit on a read-only volume or be shared with a player.
    const int in = ::open(job.source.c_str(), O_RDONLY | O_CLOEXEC);
    if (in < 0) {
        error_ = SysError(job.source, "cannot open for reading");
        prompt.Tell(kReadError);
        return false;
    }
    source_ = std::make_unique<Fd>(in);
    const int out = ::open(job.target.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0644);
    if (out < 0) {
        error_ = SysError(job.target, "cannot create");
        source_.reset();
        prompt.Tell(kWriteError);
        return false;
    }
    target_ = std::make_unique<Fd>(out);

    // The source's header with the target's format; the chunk sizes stay the source's and are
    // put right when the result is copied into place.
    unsigned char header[kHeaderBytes] = {};
    for (std::size_t got = 0; got < sizeof header;) {
        const ssize_t n = ::pread(in, header + got, sizeof header - got, static_cast<off_t>(got));
        if (n < 0 && errno == EINTR) continue;
        if (n <= 0) break;
        got += static_cast<std::size_t>(n);
    }
    const int targetChannels = job.targetStereo ? 2 : 1;
    WriteLe16(header + 22, static_cast<std::uint32_t>(targetChannels));
    WriteLe32(header + 24, static_cast<std::uint32_t>(job.targetRate));
    WriteLe32(header + 28, static_cast<std::uint32_t>(job.targetRate * job.targetBits * targetChannels) >> 3);
    WriteLe16(header + 32, static_cast<std::uint32_t>(targetChannels * job.targetBits / 8));
    WriteLe16(header + 34, static_cast<std::uint32_t>(job.targetBits));
    if (!WriteAllAt(out, header, sizeof header, 0)) {
        result = WriteFailed(SysError(job.target, "cannot write the header"));
        return false;
    }

    // The audio reader: a source too short to hold the header has nothing to read. The target
    // keeps its header, as a failed reader always left it.
    if (job.size < kHeaderBytes || !resampler_.Setup(job.rate, job.targetRate, 0)) {
        error_ = job.source + ": " + (job.size < kHeaderBytes ? "shorter than a WAVE header" : resampler_.Error());
        source_.reset();
        target_.reset();
        prompt.Tell(kReaderError);
        return false;
    }
    return true;
}

int AudioConverter::Stream(const Job& job, const AudioProgress& progress, const std::atomic<bool>* cancel)
{
    // An unfinished target is removed when the conversion is cancelled (or unwinds); a failed
    // write keeps what was written, which the engine copies over the audio file regardless.
    CDeleteOnFail discard(job.target);

    const int targetChannels = job.targetStereo ? 2 : 1;
    if (job.stereo)
        ratio_ = (job.targetStereo ? 1.0 : 2.0) * (job.targetBits == 8 ? 2.0 : 1.0);
    else if (job.targetBits == 8)
        ratio_ = job.targetStereo ? 1.0 : 2.0;
    else
        ratio_ = job.targetStereo ? 0.5 : 1.0;
    const double exact = static_cast<double>(job.size - kHeaderBytes) * static_cast<double>(job.targetRate) /
                         static_cast<double>(job.rate) / ratio_;
    outBytes_ = static_cast<unsigned long>(exact);

    const unsigned long frameBytes = static_cast<unsigned long>((job.targetBits / 8) * targetChannels);
    const auto needFrames = static_cast<std::int64_t>((outBytes_ + frameBytes - 1) / frameBytes);
    const std::int64_t produced = resampler_.OutputCount(job.frames);
    const auto block = static_cast<std::int64_t>(
        blockFrames_ ? blockFrames_ : static_cast<std::size_t>(std::max<std::int64_t>(needFrames, 1)));
    // A stereo source going to mono keeps its left channel, so the right one is never filtered.
    const int channels = job.stereo && job.targetStereo ? 2 : 1;
    // 16-bit samples already in the target's layout are the target's bytes on this machine.
    const bool direct = job.targetBits == 16 && channels == targetChannels && std::endian::native == std::endian::little;

    std::vector<std::int16_t> inter;
    unsigned long written = 0;
    for (std::int64_t first = 0; written < outBytes_; first += block) {
        if (cancel && cancel->load(std::memory_order_relaxed)) {
            cancelled_ = true;
            error_ = job.target + ": conversion cancelled";
            source_.reset();
            target_.reset();
            return 0;
        }
        const auto count = static_cast<std::size_t>(std::min(block, needFrames - first));
        ResampleBlock(job, first, count, produced, channels, inter);
        const unsigned long bytes = std::min<unsigned long>(outBytes_ - written, count * frameBytes);
        const unsigned char* data;
        if (direct) {
            data = reinterpret_cast<const unsigned char*>(inter.data());
        } else {
            output_.resize(bytes);
            if (channels == 2)
                ConvertStereoFrames(inter.data(), output_.data(), bytes, job.targetBits, job.targetStereo);
            else
                ConvertMonoFrames(inter.data(), output_.data(), bytes, job.targetBits, job.targetStereo);
            data = output_.data();
        }
        if (!WriteAllAt(target_->fd, data, bytes, static_cast<off_t>(kHeaderBytes + written))) {
            discard.Release();
            return WriteFailed(SysError(job.target, "cannot write the audio"));
        }
        written += bytes;
        if (progress) progress(outBytes_ ? static_cast<double>(written) / static_cast<double>(outBytes_) : 1.0);
    }
    if (outBytes_ == 0 && progress) progress(1.0);

    discard.Release();
    source_.reset();
    if (!target_->Close()) {
        target_.reset();
        return WriteFailed(SysError(job.target, "cannot close"));
    }
    target_.reset();
    return 1;
}

int AudioConverter::Convert(const char* source, const char* target, const AudioTarget& to, IPrompt& prompt,
                            const AudioProgress& progress, const std::atomic<bool>* cancel)
{
    error_.clear();
    cancelled_ = false;
    outBytes_ = 0;
    source_.reset();
    target_.reset();

    Job job;
    int result = 0;
    if (!Validate(source, target, to, prompt, job, result)) return result;
    // Asked to stop before anything was made: leave the target alone.
    if (cancel && cancel->load(std::memory_order_relaxed)) {
        cancelled_ = true;
        error_ = job.target + ": conversion cancelled";
        return 0;
    }
    if (!Open(job, prompt, result)) return result;
    return Stream(job, progress, cancel);
}

}  // namespace zub::audio

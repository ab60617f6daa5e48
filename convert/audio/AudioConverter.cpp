#include "AudioConverter.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>

#include "MmioFile.h"
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

std::uint16_t Le16(const unsigned char* p) { return static_cast<std::uint16_t>(p[0] | (p[1] << 8)); }
std::uint32_t Le32(const unsigned char* p)
{
    return static_cast<std::uint32_t>(p[0]) | (static_cast<std::uint32_t>(p[1]) << 8) |
           (static_cast<std::uint32_t>(p[2]) << 16) | (static_cast<std::uint32_t>(p[3]) << 24);
}
void Put16(unsigned char* p, std::uint32_t v)
{
    p[0] = static_cast<unsigned char>(v);
    p[1] = static_cast<unsigned char>(v >> 8);
}
void Put32(unsigned char* p, std::uint32_t v)
{
    Put16(p, v);
    Put16(p + 2, v >> 16);
}

std::string SysError(const std::string& file, const char* what)
{
    return file + ": " + what + ": " + std::strerror(errno);
}

bool WriteAll(int fd, const unsigned char* data, std::size_t count, off_t at)
{
    while (count > 0) {
        const ssize_t n = ::pwrite(fd, data, count, at);
        if (n < 0 && errno == EINTR) continue;
        if (n <= 0) {
            if (n == 0) errno = ENOSPC;
            return false;
        }
        data += n;
        count -= static_cast<std::size_t>(n);
        at += n;
    }
    return true;
}

template <bool StereoSource>
unsigned long ConvertFrames(const std::int16_t* in, unsigned char* out, unsigned long outBytes, int bits, int stereo)
{
    const bool eight = bits == 8;
    const int frameBytes = (eight ? 1 : 2) * (stereo ? 2 : 1);
    unsigned long written = 0;
    std::size_t f = 0;
    // Whole frames first; a target length that ends inside a frame gets that frame's first
    // bytes, so the result is exactly outBytes long whatever the caller asks for.
    while (written < outBytes) {
        const std::int16_t left = in[StereoSource ? 2 * f : f];
        const std::int16_t right = StereoSource ? in[2 * f + 1] : left;
        unsigned char frame[4];
        if (eight) {
            frame[0] = SampleTo8Bit(left);
            frame[1] = SampleTo8Bit(right);
        } else {
            Put16(frame, static_cast<std::uint16_t>(left));
            Put16(frame + 2, static_cast<std::uint16_t>(right));
        }
        const unsigned long n = std::min<unsigned long>(static_cast<unsigned long>(frameBytes), outBytes - written);
        std::memcpy(out + written, frame, n);
        written += n;
        ++f;
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

    const unsigned tag = Le16(b);
    const unsigned channels = Le16(b + 2);
    const std::uint32_t sampleRate = Le32(b + 4);
    const unsigned sampleBits = Le16(b + 14);
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
    if (!source_ || source_->fd < 0 || count <= 0 || !buffer) return 1;
    auto at = static_cast<off_t>(kHeaderBytes + static_cast<off_t>(offset));
    auto left = static_cast<std::size_t>(count);
    while (left > 0) {
        const ssize_t n = ::pread(source_->fd, buffer, left, at);
        if (n < 0 && errno == EINTR) continue;
        if (n <= 0) break;  // the rest of the buffer keeps what the caller put there (zeros)
        buffer += n;
        left -= static_cast<std::size_t>(n);
        at += n;
    }
    return 1;
}

int AudioConverter::WriteFailed(const std::string& why)
{
    error_ = why;
    if (target_) target_->Close();
    target_.reset();
    source_.reset();
    return kTargetWriteFailed;
}

void AudioConverter::ResampleBlock(std::int64_t first, std::size_t count, std::int64_t produced, std::int64_t frames,
                                   int channels, int bytesPerSample, std::vector<std::int16_t>& inter)
{
    // Outputs past the last source position stay zero, as in a zero-filled whole-file buffer.
    const std::int64_t have = std::clamp<std::int64_t>(produced - first, 0, static_cast<std::int64_t>(count));
    if (have == 0) return;
    const auto n = static_cast<std::size_t>(have);

    std::int64_t begin, end;
    resampler_.SourceSpan(first, n, begin, end);
    const auto span = static_cast<std::size_t>(end - begin);
    stage_.assign(span * static_cast<std::size_t>(channels), 0);

    // Only the part inside the file is read; the margins before the start and after the end
    // stay zero.
    const std::int64_t readBegin = std::max<std::int64_t>(begin, 0);
    const std::int64_t readEnd = std::min(end, frames);
    if (readEnd > readBegin) {
        const auto frameBytes = static_cast<std::size_t>(channels * bytesPerSample);
        const auto readFrames = static_cast<std::size_t>(readEnd - readBegin);
        raw_.assign(readFrames * frameBytes, 0);
        ReadSamples(static_cast<long>(raw_.size()), raw_.data(),
                    static_cast<unsigned long>(readBegin) * static_cast<unsigned long>(frameBytes));
        const auto skip = static_cast<std::size_t>(readBegin - begin);
        const unsigned char* p = raw_.data();
        for (std::size_t i = 0; i < readFrames; ++i) {
            for (int c = 0; c < channels; ++c) {
                std::int16_t s;
                if (bytesPerSample == 2) {
                    s = static_cast<std::int16_t>(Le16(p));
                    p += 2;
                } else {
                    s = static_cast<std::int16_t>((*p++ - 128) * 256);
                }
                stage_[static_cast<std::size_t>(c) * span + skip + i] = s;
            }
        }
    }

    channelOut_.resize(n);
    for (int c = 0; c < channels; ++c) {
        resampler_.Run(first, n, stage_.data() + static_cast<std::size_t>(c) * span, begin, channelOut_.data());
        for (std::size_t k = 0; k < n; ++k) inter[k * static_cast<std::size_t>(channels) + static_cast<std::size_t>(c)] = channelOut_[k];
    }
}

int AudioConverter::Convert(const char* source, const char* target, const AudioTarget& to, IPrompt& prompt)
{
    error_.clear();
    outBytes_ = 0;
    source_.reset();
    target_.reset();
    if (!source || !target) {
        error_ = "no source or target file name";
        return 0;
    }

    long rate = 0;
    int bits = 0, stereo = 0;
    if (!ReadFormat(source, rate, bits, stereo, &error_)) return 0;
    struct stat st {};
    if (::stat(source, &st) != 0) {
        error_ = SysError(source, "cannot stat");
        return 0;
    }
    const std::int64_t size = st.st_size;
    const int srcChannels = stereo ? 2 : 1;
    const int bytesPerSample = bits / 8;
    const std::int64_t frames = ((size - kHeaderBytes) / bytesPerSample) / srcChannels;

    const long targetRate = to.rate;
    const int targetBits = to.bits == 8 ? 8 : 16;
    const int targetStereo = to.stereo ? 1 : 0;

    if (rate < targetRate || bits < targetBits) {
        prompt.Tell(kInappropriate);
        prompt.Tell(kNowSame);
        error_ = std::string(source) + ": the target format is above the source's";
        return 0;
    }
    if (rate == targetRate && bits == targetBits && stereo == targetStereo) return 0;
    if (bits == 8) {
        prompt.Tell(kNeeds16Bit);
        prompt.Tell(kNowSame);
        error_ = std::string(source) + ": 8-bit sources are not converted";
        return 0;
    }

    const int in = ::open(source, O_RDWR | O_CLOEXEC);
    if (in < 0) {
        error_ = SysError(source, "cannot open for reading");
        prompt.Tell(kReadError);
        return 0;
    }
    source_ = std::make_unique<Fd>(in);
    const int out = ::open(target, O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0644);
    if (out < 0) {
        error_ = SysError(target, "cannot create");
        source_.reset();
        prompt.Tell(kWriteError);
        return 0;
    }
    target_ = std::make_unique<Fd>(out);
    targetPath_ = target;

    // The source's header with the target's format; the chunk sizes stay the source's and are
    // put right when the result is copied into place.
    unsigned char header[kHeaderBytes] = {};
    for (std::size_t got = 0; got < sizeof header;) {
        const ssize_t n = ::pread(in, header + got, sizeof header - got, static_cast<off_t>(got));
        if (n < 0 && errno == EINTR) continue;
        if (n <= 0) break;
        got += static_cast<std::size_t>(n);
    }
    const int targetChannels = targetStereo ? 2 : 1;
    Put16(header + 22, static_cast<std::uint32_t>(targetChannels));
    Put32(header + 24, static_cast<std::uint32_t>(targetRate));
    Put32(header + 28, static_cast<std::uint32_t>(targetRate * targetBits * targetChannels) >> 3);
    Put16(header + 32, static_cast<std::uint32_t>(targetChannels * targetBits / 8));
    Put16(header + 34, static_cast<std::uint32_t>(targetBits));
    if (!WriteAll(out, header, sizeof header, 0)) return WriteFailed(SysError(target, "cannot write the header"));

    // The audio reader: a source too short to hold the header has nothing to read.
    if (size < kHeaderBytes || !resampler_.Setup(rate, targetRate, 0)) {
        error_ = std::string(source) + ": " +
                 (size < kHeaderBytes ? "shorter than a WAVE header" : resampler_.Error());
        source_.reset();
        target_.reset();
        prompt.Tell(kReaderError);
        return 0;
    }

    if (stereo)
        ratio_ = (targetStereo ? 1.0 : 2.0) * (targetBits == 8 ? 2.0 : 1.0);
    else if (targetBits == 8)
        ratio_ = targetStereo ? 1.0 : 2.0;
    else
        ratio_ = targetStereo ? 0.5 : 1.0;
    const double exact = static_cast<double>(size - kHeaderBytes) * static_cast<double>(targetRate) /
                         static_cast<double>(rate) / ratio_;
    outBytes_ = static_cast<unsigned long>(exact);

    const unsigned long frameBytes = static_cast<unsigned long>((targetBits / 8) * targetChannels);
    const auto needFrames = static_cast<std::int64_t>((outBytes_ + frameBytes - 1) / frameBytes);
    const std::int64_t produced = resampler_.OutputCount(frames);
    const auto block = static_cast<std::int64_t>(blockFrames_ ? blockFrames_ : static_cast<std::size_t>(std::max<std::int64_t>(needFrames, 1)));

    std::vector<std::int16_t> inter;
    unsigned long written = 0;
    for (std::int64_t first = 0; written < outBytes_; first += block) {
        const auto count = static_cast<std::size_t>(std::min(block, needFrames - first));
        inter.assign(count * static_cast<std::size_t>(srcChannels), 0);
        ResampleBlock(first, count, produced, frames, srcChannels, bytesPerSample, inter);
        const unsigned long bytes = std::min<unsigned long>(outBytes_ - written, count * frameBytes);
        output_.resize(bytes);
        if (stereo)
            ConvertStereoFrames(inter.data(), output_.data(), bytes, targetBits, targetStereo);
        else
            ConvertMonoFrames(inter.data(), output_.data(), bytes, targetBits, targetStereo);
        if (!WriteAll(out, output_.data(), bytes, static_cast<off_t>(kHeaderBytes + written)))
            return WriteFailed(SysError(target, "cannot write the audio"));
        written += bytes;
    }

    source_.reset();
    if (!target_->Close()) {
        target_.reset();
        return WriteFailed(SysError(target, "cannot close"));
    }
    target_.reset();
    return 1;
}

}  // namespace zub::audio

// The WAVE utilities of CDva. The copy loops keep the behaviour files in the field were made
// with: the clean copy runs from the source's audio to the end of the source file, and the
// partial copy keeps the source's block alignment even when it changes the channel count.
#include <sys/stat.h>

#include <algorithm>
#include <cstring>
#include <memory>
#include <vector>

#include "dva/DeleteOnFail.h"
#include "dva/DvaInternal.h"
#include "platform/Error.h"
#include "zubimport/Dva.h"

namespace zub {

namespace dva {

namespace {
using Errors = zub::LastError<struct DvaErrors>;
}

void ClearError() { Errors::Clear(); }
const std::string& LastError() { return Errors::Get(); }
void SetError(std::string text) { Errors::Set(std::move(text)); }

bool FailFrom(const CMmioFile& file)
{
    SetError(file.GetError());
    return false;
}

bool FailWith(const std::string& file, const std::string& why)
{
    SetError((file.empty() ? std::string("(no file)") : file) + ": " + why);
    return false;
}

bool OpenWaveFormat(const char* src, WaveSource& out)
{
    if (!out.file.Open(src, nullptr, MMIO_ALLOCBUF)) return FailFrom(out.file);
    out.riff = {};
    out.riff.fccType = kWave;
    if (!out.file.Descend(out.riff, nullptr, MMIO_FINDRIFF))
        return FailWith(out.file.Path(), "not a RIFF WAVE file");
    out.fmt = {};
    out.fmt.ckid = kFmt;
    if (!out.file.Descend(out.fmt, &out.riff, MMIO_FINDCHUNK)) return FailWith(out.file.Path(), "no \"fmt \" chunk");
    if (out.fmt.cksize < 14) return FailWith(out.file.Path(), "\"fmt \" chunk shorter than 14 bytes");
    std::memset(&out.format, 0, sizeof out.format);
    const long want = static_cast<long>(std::min<DWORD>(out.fmt.cksize, sizeof out.format));
    if (out.file.Read(&out.format, want) != want) return FailWith(out.file.Path(), "\"fmt \" chunk is cut short");
    return true;
}

}  // namespace dva

using namespace dva;

namespace {

// Checks that src holds PCM audio the copies can handle and finds its audio data. avail is
// the number of whole blocks of audio the "data" chunk announces (a size of 0 or one with the
// top bit set counts as 0x7FFFFFFF).
bool OpenCopySource(const char* src, WaveSource& s, long& avail)
{
    if (!OpenWaveFormat(src, s)) return false;
    PcmWaveFormat& f = s.format;
    if (f.wFormatTag != WAVE_FORMAT_PCM) return FailWith(s.file.Path(), "not PCM audio");
    if (f.nBlockAlign == 0) return FailWith(s.file.Path(), "block alignment is 0");
    if (f.wBitsPerSample == 0) {
        if (f.nChannels == 0 || f.nBlockAlign % f.nChannels != 0)
            return FailWith(s.file.Path(), "bits per sample missing and not derivable from the block alignment");
        f.wBitsPerSample = static_cast<WORD>(f.nBlockAlign / f.nChannels * 8);
    }
    if (!s.file.Ascend(s.fmt)) return FailFrom(s.file);
    MMCKINFO data{};
    data.ckid = kData;
    if (!s.file.Descend(data, &s.riff, MMIO_FINDCHUNK)) return FailWith(s.file.Path(), "no \"data\" chunk");
    std::int32_t size = static_cast<std::int32_t>(data.cksize);
    if (size < 1) size = 0x7FFFFFFF;
    avail = size - size % f.nBlockAlign;
    return true;
}

bool SameFile(const char* a, const char* b)
{
    struct stat sa {}, sb {};
    return stat(a, &sa) == 0 && stat(b, &sb) == 0 && sa.st_dev == sb.st_dev && sa.st_ino == sb.st_ino;
}

// Writes dst's RIFF header and format chunk and opens its "data" chunk.
bool BeginTarget(CMmioFile& out, const char* dst, const PcmWaveFormat& format, MMCKINFO& riff, MMCKINFO& data,
                 CDeleteOnFail& guard)
{
    if (!out.Open(dst, nullptr, MMIO_CREATE | MMIO_WRITE)) return FailFrom(out);
    guard.Arm(dst);
    riff = {};
    riff.fccType = kWave;
    if (!out.CreateChunk(riff, MMIO_CREATERIFF)) return FailFrom(out);
    MMCKINFO fmt{};
    fmt.ckid = kFmt;
    if (!out.CreateChunk(fmt, 0)) return FailFrom(out);
    if (out.Write(&format, sizeof format) != static_cast<long>(sizeof format)) return FailFrom(out);
    if (!out.Ascend(fmt)) return FailFrom(out);
    data = {};
    data.ckid = kData;
    if (!out.CreateChunk(data, 0)) return FailFrom(out);
    return true;
}

bool FinishTarget(CMmioFile& out, MMCKINFO& riff, MMCKINFO& data, CDeleteOnFail& guard)
{
    if (!out.Ascend(data) || !out.Ascend(riff) || !out.Close()) return FailFrom(out);
    guard.Release();
    return true;
}

bool CheckTarget(const char* src, const char* dst)
{
    if (!dst || !*dst) return FailWith("", "no target file name given");
    if (src && SameFile(src, dst)) return FailWith(dst, "target is the source file itself");
    return true;
}

}  // namespace

int CDva::IsMutedDva(const char* file)
{
    ClearError();
    WaveSource s;
    if (!OpenWaveFormat(file, s)) return 0;
    if (s.format.wFormatTag != 0) return 0;
    if (!s.file.Ascend(s.fmt)) return FailFrom(s.file);
    MMCKINFO data{};
    data.ckid = kData;
    if (!s.file.Descend(data, &s.riff, MMIO_FINDCHUNK)) return FailWith(s.file.Path(), "no \"data\" chunk");
    return 1;
}

int CDva::CopyCleanWavFile(const char* src, const char* dst)
{
    ClearError();
    WaveSource s;
    long avail = 0;
    if (!OpenCopySource(src, s, avail)) return 0;
    if (!CheckTarget(src, dst)) return 0;
    const long block = s.format.nBlockAlign;

    CDeleteOnFail guard;
    CMmioFile out;
    MMCKINFO riff, data;
    if (!BeginTarget(out, dst, s.format, riff, data, guard)) return 0;

    constexpr long kBuffer = 0x20000;
    std::vector<char> buffer(kBuffer);
    for (;;) {
        // avail only bounds each request: the copy runs until the source is exhausted.
        long request = std::min(avail, kBuffer);
        request -= request % block;
        if (request < 1) break;
        const long got = s.file.Read(buffer.data(), request);
        if (got < 0) return FailFrom(s.file);
        if (got < 1) break;
        if (out.Write(buffer.data(), got) != got) return FailFrom(out);
    }
    return FinishTarget(out, riff, data, guard) ? 1 : 0;
}

int CDva::CopyPartialWavFile(const char* src, const char* dst, char* data, long length, int stereo)
{
    ClearError();
    WaveSource s;
    long avail = 0;
    if (!OpenCopySource(src, s, avail)) return 0;
    if (!CheckTarget(src, dst)) return 0;
    if (!data && length > 0) return FailWith(dst, "no audio given");
    PcmWaveFormat format = s.format;
    format.nChannels = stereo ? 2 : 1;
    // Block alignment stays as the source has it, as files made this way always had it.
    format.nAvgBytesPerSec = (format.nSamplesPerSec * format.wBitsPerSample * format.nChannels) >> 3;
    const long block = format.nBlockAlign;

    CDeleteOnFail guard;
    CMmioFile out;
    MMCKINFO riff, dataCk;
    if (!BeginTarget(out, dst, format, riff, dataCk, guard)) return 0;

    constexpr long kPass = 0x80000;
    long done = 0;
    // Passes follow one another in the caller's block, so small ones (a source announcing
    // little audio bounds every pass) are gathered into writes of up to one pass buffer.
    long pending = 0;
    while (done < length) {
        long pass = std::min({avail, kPass, length - done});
        pass -= pass % block;
        if (pass < 1) break;
        done += pass;
        pending += pass;
        if (pending >= kPass) {
            if (out.Write(data + done - pending, pending) != pending) return FailFrom(out);
            pending = 0;
        }
    }
    if (pending && out.Write(data + done - pending, pending) != pending) return FailFrom(out);
    return FinishTarget(out, riff, dataCk, guard) ? 1 : 0;
}

std::string CDva::GetLastError() { return dva::LastError(); }

}  // namespace zub

// WAVE files reach the module from anywhere: recorded by other programs, cut short by a full
// disk, hand-edited. Each input is one such file, read by the format check of the conversion
// dialog, copied clean and partially by the WAVE utilities and converted to a lower format.
// What comes out must be a well-formed file saying what the inputs say, and what fails must
// leave no target behind.
#include <sys/stat.h>
#include <unistd.h>

#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>
#include <vector>

#include "fuzz/FuzzSupport.h"
#include "platform/ByteOrder.h"
#include "convert/audio/AudioConverter.h"
#include "zubimport/Dva.h"
#include "zubimport/Prompt.h"

using namespace zub;

namespace {

[[noreturn]] void Fault(const char* what, const std::string& detail = {}) { fuzz::Fault("wave", what, detail); }
std::string Scratch(const char* suffix) { return fuzz::Scratch("wave", suffix); }
void Store(const std::string& path, const std::uint8_t* data, std::size_t size)
{
    if (!fuzz::Store(path, data, size)) Fault("cannot write", path);
}
using fuzz::Slurp;
using fuzz::Exists;
constexpr auto Le32 = ReadLe32;
constexpr auto Le16 = ReadLe16;

// A file the utilities write is always laid out the one way: RIFF header, a 16-byte "fmt "
// chunk, then "data" up to the end (padded to even). Read it independently of the RIFF layer
// so a writer fault cannot hide behind the same reader.
struct Written {
    std::uint8_t fmt[16];
    std::vector<std::uint8_t> data;
};

Written ReadWritten(const std::string& path)
{
    const std::vector<std::uint8_t> b = Slurp(path);
    if (b.size() < 44) Fault("written file shorter than its header", path);
    if (std::memcmp(b.data(), "RIFF", 4) || std::memcmp(b.data() + 8, "WAVEfmt ", 8)) Fault("written header", path);
    if (Le32(b.data() + 4) != b.size() - 8) Fault("RIFF size is not the file's", path);
    if (Le32(b.data() + 16) != 16) Fault("written format chunk is not 16 bytes", path);
    if (std::memcmp(b.data() + 36, "data", 4)) Fault("no data chunk after the format", path);
    const std::uint32_t n = Le32(b.data() + 40);
    if (44 + n + (n & 1) != b.size()) Fault("data size does not reach the end", path);
    Written w;
    std::memcpy(w.fmt, b.data() + 20, 16);
    w.data.assign(b.begin() + 44, b.begin() + 44 + n);
    return w;
}

void CheckFailure(const std::string& out, const char* what)
{
    if (Exists(out)) Fault("a failed copy left its target", what);
    if (CDva::GetLastError().empty()) Fault("a failed copy gave no reason", what);
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size)
{
    static const std::string in = Scratch(".wav");
    static const std::string out = Scratch("-out.wav");
    std::remove(out.c_str());
    Store(in, data, size);

    // The conversion dialog's format check: accepted formats are the ones it promises.
    long rate = -7;
    int bits = -7, stereo = -7;
    std::string why;
    const int known = audio::AudioConverter::ReadFormat(in, rate, bits, stereo, &why);
    if (known) {
        if (rate < 1000 || rate > 384000 || (bits != 8 && bits != 16) || (stereo != 0 && stereo != 1))
            Fault("accepted an unsupported format");
    } else if (rate != -7 || bits != -7 || stereo != -7) {
        Fault("a refused format changed its outputs");
    } else if (why.find(in) == std::string::npos) {
        Fault("refusal does not name the file", why);
    }

    // Clean copy: the target holds the source's format and a tail of the source file.
    if (CDva::CopyCleanWavFile(in.c_str(), out.c_str())) {
        const Written w = ReadWritten(out);
        if (w.data.size() > size || (!w.data.empty() && std::memcmp(data + size - w.data.size(), w.data.data(), w.data.size())))
            Fault("clean copy is not the end of the source");
        if (Le16(w.fmt) != 1) Fault("clean copy is not PCM");
        std::remove(out.c_str());
    } else {
        CheckFailure(out, "clean");
    }

    // Partial copy of caller's audio: whole source blocks of it, in the channel count asked.
    static std::vector<char> audio = [] {
        std::vector<char> v(3000);
        for (std::size_t i = 0; i < v.size(); ++i) v[i] = static_cast<char>(i * 7 + 1);
        return v;
    }();
    const long length = size ? static_cast<long>(data[size - 1]) * 11 : 0;
    const int wantStereo = size > 1 ? data[size - 2] & 1 : 0;
    if (CDva::CopyPartialWavFile(in.c_str(), out.c_str(), audio.data(), length, wantStereo)) {
        const Written w = ReadWritten(out);
        if (Le16(w.fmt + 2) != (wantStereo ? 2 : 1)) Fault("partial copy has the wrong channel count");
        const std::uint16_t block = Le16(w.fmt + 12);
        if (block == 0 || w.data.size() > static_cast<std::size_t>(length) || w.data.size() % block)
            Fault("partial copy is not whole blocks of the audio given");
        if (!w.data.empty() && std::memcmp(w.data.data(), audio.data(), w.data.size()))
            Fault("partial copy changed the audio");
        std::remove(out.c_str());
    } else {
        CheckFailure(out, "partial");
    }

    // Conversion down to a format picked by the input: a finished target is its header plus
    // exactly the bytes reported.
    if (known && size) {
        static const long rates[] = {48000, 44100, 32000, 22050, 11025};
        const std::uint8_t pick = data[0] ^ data[size / 2];
        audio::AudioTarget to{rates[pick % 5], (pick & 8) ? 8 : 16, (pick & 16) ? 1 : 0};
        SilentPrompt silent;
        audio::AudioConverter conv;
        conv.SetBlockFrames(1 + pick % 700);
        const int r = conv.Convert(in.c_str(), out.c_str(), to, silent);
        if (r == 1) {
            const std::vector<std::uint8_t> t = Slurp(out);
            if (t.size() != 44 + conv.OutBytes()) Fault("converted size is not the header and the audio reported");
            const int ch = to.stereo ? 2 : 1;
            if (Le16(t.data() + 22) != ch || Le32(t.data() + 24) != static_cast<std::uint32_t>(to.rate) ||
                Le16(t.data() + 32) != ch * to.bits / 8 || Le16(t.data() + 34) != to.bits)
                Fault("converted header does not state the target format");
        } else if (r == 0 && conv.LastError().empty() && Exists(out)) {
            Fault("a conversion that did nothing made a target");
        }
        std::remove(out.c_str());
    }
    return 0;
}

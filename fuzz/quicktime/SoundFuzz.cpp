// A movie's sound description reaches the movie route only through the demuxer, so each input
// is written as a movie file and taken through the audio source the conversion uses: open
// (first sound track, its description, the converter chosen for it), then the WAVE file
// written buffer by buffer. A WAVE file left behind must hold exactly the bytes reported, in
// the format the header announces; a failure must name the movie.
#include <sys/stat.h>
#include <unistd.h>

#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>
#include <vector>

extern "C" {
#include <libavutil/log.h>
}

#include "fuzz/FuzzSupport.h"
#include "platform/ByteOrder.h"
#include "quicktime/QuickTimeSource.h"

using namespace zub;

namespace {

[[noreturn]] void Fault(const char* what, const std::string& detail = {}) { fuzz::Fault("sound", what, detail); }
std::string Scratch(const char* suffix) { return fuzz::Scratch("sound", suffix); }
using fuzz::Slurp;
using fuzz::Exists;
constexpr auto Le32 = ReadLe32;
constexpr auto Le16 = ReadLe16;

// Finds a chunk of the WAVE file's top level; offset of its body, or 0.
std::size_t FindChunk(const std::vector<std::uint8_t>& b, const char* id, std::uint32_t* size)
{
    for (std::size_t at = 12; at + 8 <= b.size();) {
        const std::uint32_t n = Le32(b.data() + at + 4);
        if (!std::memcmp(b.data() + at, id, 4)) {
            *size = n;
            return at + 8;
        }
        at += 8 + std::size_t(n) + (n & 1);
    }
    return 0;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size)
{
    // The demuxer's complaints about broken movies are expected here, thousands a second.
    static const bool quiet = (av_log_set_level(AV_LOG_QUIET), true);
    (void)quiet;
    static const std::string movie = Scratch(".mov");
    static const std::string wav = Scratch("-out.wav");
    FILE* f = std::fopen(movie.c_str(), "wb");
    if (!f) Fault("cannot write", movie);
    if (size) std::fwrite(data, 1, size, f);
    std::fclose(f);
    std::remove(wav.c_str());

    CQuickTimeAudioSource source;
    if (!source.Open(movie.c_str())) {
        if (source.LastError().find(movie) == std::string::npos) Fault("open failure does not name the movie", source.LastError());
        return 0;
    }
    const OutputSoundHeader& h = source.Header();
    if (h.numChannels <= 0 || (h.sampleSize != 8 && h.sampleSize != 16 && h.sampleSize != 24 && h.sampleSize != 32))
        Fault("open accepted a sound it cannot write");

    // A bounded number of buffers keeps one input quick; a longer sound stops early, which
    // is the dialog's abort path.
    bool more = true;
    bool ok = true;
    int chunks = 0;
    while (more && ok && chunks < 64) {
        ok = source.ConvertChunk(wav.c_str(), more);
        ++chunks;
    }
    const bool finished = !more && ok;
    const bool closed = source.Finish(finished);
    if (!ok && source.LastError().empty()) Fault("a failed conversion gave no reason");
    if (closed && !finished) Fault("Finish(false) reported success");
    // A conversion stopped early keeps what it completed; whatever is kept must read whole.
    if (!Exists(wav)) {
        if (closed) Fault("a finished conversion left no WAVE file");
        return 0;
    }

    const std::vector<std::uint8_t> b = Slurp(wav);
    if (b.size() < 12 || std::memcmp(b.data(), "RIFF", 4) || std::memcmp(b.data() + 8, "WAVE", 4))
        Fault("finished file is not a WAVE file");
    if (Le32(b.data() + 4) != b.size() - 8) Fault("RIFF size is not the file's");
    std::uint32_t fmtSize = 0, dataSize = 0;
    const std::size_t fmt = FindChunk(b, "fmt ", &fmtSize);
    const std::size_t dat = FindChunk(b, "data", &dataSize);
    if (!fmt || fmtSize < 16 || fmt + 16 > b.size()) Fault("no format chunk");
    if (!dat || dat + dataSize > b.size()) Fault("no whole data chunk");
    if (dataSize != source.BytesWritten()) Fault("data size is not the bytes written");
    const std::uint16_t channels = Le16(b.data() + fmt + 2);
    const std::uint16_t block = Le16(b.data() + fmt + 12);
    if (channels != h.numChannels || Le16(b.data() + fmt + 14) != h.sampleSize) Fault("format is not the header's");
    if (block == 0 || dataSize % block) Fault("data is not whole sample frames");
    return 0;
}

// The clip reader over arbitrary files: every size and offset in a clip comes from the file,
// so none may take the reader outside it.
#include <unistd.h>

#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <string>
#include <vector>

#include "recorder/ClipFile.h"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size)
{
    static const std::string path = [] {
        const char* tmp = std::getenv("TMPDIR");
        return std::string(tmp && *tmp ? tmp : "/tmp") + "/zubclip-fuzz-" + std::to_string(getpid()) + ".zub";
    }();
    FILE* f = std::fopen(path.c_str(), "wb");
    if (!f) return 0;
    std::fwrite(data, 1, size, f);
    std::fclose(f);
    std::string error;
    auto r = zub::rec::ClipReader::Open(path, &error);
    if (!r) return 0;
    std::vector<std::uint8_t> pixels;
    for (int t = 0; t < 2; ++t) {
        const auto track = static_cast<zub::rec::Track>(t);
        const std::uint32_t n = r->FramesReadable(track);
        for (std::uint32_t i = 0; i < n && i < 4; ++i) r->Decode(track, i, pixels, &error);
    }
    return 0;
}

// Softimage PIC stills come from anywhere a user can pick one: every byte is untrusted.
#include <cstdint>
#include <cstdlib>
#include <string>
#include <vector>

#include "imgseq/imaging/SoftimagePic.h"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size)
{
    std::vector<std::uint8_t> pixels;
    int width = 0, height = 0;
    std::string why;
    const bool ok = zub::imaging::DecodeSoftimagePic(
        data, size,
        [&](int w, int h) -> std::uint8_t* {
            // The size check must already have held the picture to what the file can carry:
            // at best one long run of 65535 pixels per 4 bytes.
            if (w <= 0 || h <= 0 || std::size_t(w) * h > size / 4 * 65535) std::abort();
            // Refusing large pictures keeps the fuzzer fast and exercises the refusal path.
            if (std::size_t(w) * h > (std::size_t(1) << 22)) return nullptr;
            width = w;
            height = h;
            pixels.assign(std::size_t(w) * h * 4, 0xCD);
            return pixels.data();
        },
        &why);
    if (!ok && why.empty()) std::abort();  // every failure says why
    if (ok) {
        // Every pixel is written: none keeps the fill pattern in all four bytes.
        for (std::size_t i = 0; i < pixels.size(); i += 4)
            if (pixels[i] == 0xCD && pixels[i + 1] == 0xCD && pixels[i + 2] == 0xCD && pixels[i + 3] == 0xCD)
                std::abort();
        if (width == 0 || height == 0) std::abort();
    }
    return 0;
}

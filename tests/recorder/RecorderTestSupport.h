// Helpers of the substitute recorder tests: frame holders of known pictures, running zubclip
// and reading its PNGs back through ffmpeg (a decoder we did not write).
#pragma once

#include <sys/wait.h>

#include <algorithm>
#include <cmath>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>
#include <vector>

#include "device/RecorderDevice.h"
#include "zubimport/Platform.h"
#include "Tool.h"

namespace zub::test {

// A picture as top-down BGRA.
struct Picture {
    int width = 720;
    int height = 486;
    std::vector<std::uint8_t> bgra;
    std::uint8_t* At(int x, int y) { return bgra.data() + (static_cast<std::size_t>(y) * width + x) * 4; }
    const std::uint8_t* At(int x, int y) const { return bgra.data() + (static_cast<std::size_t>(y) * width + x) * 4; }
};

// The frame holder: 40-byte header, rows bottom-up.
inline std::vector<std::uint8_t> Holder(const Picture& p)
{
    std::vector<std::uint8_t> h(40 + p.bgra.size());
    BITMAPINFOHEADER bi{};
    bi.biSize = 40;
    bi.biWidth = p.width;
    bi.biHeight = p.height;
    bi.biPlanes = 1;
    bi.biBitCount = 32;
    bi.biSizeImage = static_cast<DWORD>(p.bgra.size());
    std::memcpy(h.data(), &bi, 40);
    const std::size_t row = static_cast<std::size_t>(p.width) * 4;
    for (int y = 0; y < p.height; ++y)
        std::memcpy(h.data() + 40 + row * (p.height - 1 - y), p.bgra.data() + row * y, row);
    return h;
}

// Natural-looking content: gradients, a moving soft bar, fine detail that differs between
// the two fields, and a key that is a moving disc with a soft edge.
inline Picture TestPicture(int frame, int width = 720, int height = 486, int noise = 0)
{
    Picture p;
    p.width = width;
    p.height = height;
    p.bgra.resize(static_cast<std::size_t>(width) * height * 4);
    for (int y = 0; y < height; ++y)
        for (int x = 0; x < width; ++x) {
            std::uint8_t* px = p.At(x, y);
            const double bar = 100.0 * std::sin((x + 3 * frame * 8) / 40.0);
            const int field = (y & 1) && x > width / 2 ? 40 : 0;
            // Grain that defeats compression, the same for every run.
            const int grain = noise ? static_cast<int>((x * 7919u + y * 104729u + frame * 31u) * 2654435761u >> 24) %
                                              (2 * noise + 1) - noise
                                    : 0;
            px[0] = static_cast<std::uint8_t>(std::clamp(x * 255 / width + grain, 0, 255));
            px[1] = static_cast<std::uint8_t>(std::clamp(y * 200 / height + field + grain, 0, 255));
            px[2] = static_cast<std::uint8_t>(std::clamp(static_cast<int>(128 + bar) + grain, 0, 255));
            const double dx = x - (200 + frame * 20), dy = y - height / 2.0;
            const double r = std::sqrt(dx * dx + dy * dy);
            px[3] = static_cast<std::uint8_t>(r < 100 ? 255 : r > 140 ? 0 : 255 - (r - 100) * 255 / 40);
        }
    return p;
}

// The import of one frame into a clip made from `spec`.
inline FrameImport FrameFor(const ClipSpec& spec, const ClipItems& items, int frame, const void* data)
{
    FrameImport f;
    f.videoItem = items.video;
    f.alphaItem = items.alpha;
    f.frame = frame;
    f.data = data;
    f.videoRate = spec.videoRate;
    f.alphaRate = spec.alphaRate;
    f.videoType = VideoTypeFor(spec.videoUncompressed);
    f.alphaType =
        AlphaTypeFor(spec.createAlpha, spec.alphaSameAsVideo, spec.alphaUncompressed, spec.videoUncompressed);
    return f;
}

inline std::string Shell(const std::string& command, int* status = nullptr)
{
    return zub::test::Capture(command, status);
}

// A PNG as top-down BGRA (or grey), decoded by ffmpeg.
inline std::vector<std::uint8_t> ReadPng(const std::string& path, bool grey = false)
{
    const std::string s = Shell("ffmpeg -v error -i '" + path + "' -f rawvideo -pix_fmt " + (grey ? "gray" : "bgra") + " -");
    return {s.begin(), s.end()};
}

// PSNR over the colour channels (or the one grey channel).
inline double Psnr(const std::vector<std::uint8_t>& a, const std::vector<std::uint8_t>& b, int stride, int channels)
{
    if (a.size() != b.size() || a.empty()) return 0;
    double se = 0;
    std::size_t n = 0;
    for (std::size_t i = 0; i < a.size(); i += stride)
        for (int c = 0; c < channels; ++c) {
            const double d = static_cast<double>(a[i + c]) - b[i + c];
            se += d * d;
            ++n;
        }
    if (se == 0) return 99.0;
    return 10.0 * std::log10(255.0 * 255.0 / (se / n));
}

}  // namespace zub::test

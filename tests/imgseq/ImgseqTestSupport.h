// Shared pieces of the image sequence tests: synthetic images, running outside tools, and
// pointing the loader at the imaging library of this build.
#pragma once

#include <spawn.h>
#include <sys/wait.h>

#include <cmath>
#include <cstdint>
#include <cstdlib>
#include <fstream>
#include <functional>
#include <string>
#include <vector>

#include "imgseq/ImageFitting.h"
#include "imgseq/ImagingLibrary.h"
#include "Tool.h"

extern char** environ;

namespace zub::test {

// Test binaries sit in bin/, the library in lib/: name it before the first load.
inline const bool kImagingLibrarySet = [] {
    setenv(kImagingLibraryEnv, ZUB_TEST_IMAGING_LIBRARY, 1);
    return true;
}();

struct Bgra {
    std::uint8_t b = 0, g = 0, r = 0, a = 0;
    bool operator==(const Bgra&) const = default;
};

inline Bgra PixelAt(const Image& img, int x, int y)
{
    const std::uint8_t* p = img.Row(y) + x * 4;
    return {p[0], p[1], p[2], p[3]};
}

inline Image MakeImage(int w, int h, const std::function<Bgra(int, int)>& f)
{
    Image img;
    if (!img.Allocate(w, h, 32)) std::abort();
    for (int y = 0; y < h; ++y)
        for (int x = 0; x < w; ++x) {
            const Bgra c = f(x, y);
            std::uint8_t* p = img.Row(y) + x * 4;
            p[0] = c.b;
            p[1] = c.g;
            p[2] = c.r;
            p[3] = c.a;
        }
    return img;
}

// Every pixel different from its neighbours and never all zero (alpha 1..255).
inline Bgra Hashed(int x, int y)
{
    std::uint32_t v = static_cast<std::uint32_t>(x) * 73856093u ^ static_cast<std::uint32_t>(y) * 19349663u;
    v ^= v >> 13;
    v *= 0x5bd1e995u;
    return {std::uint8_t(v), std::uint8_t(v >> 8), std::uint8_t(v >> 16), std::uint8_t(1 + (v >> 24) % 255)};
}

// Runs a program with arguments (no shell); its exit status, or -1.
using zub::test::Run;

// Binary PPM (P6) of the colour of an image.
inline void WritePpm(const std::string& path, const Image& img)
{
    std::ofstream out(path, std::ios::binary);
    out << "P6\n" << img.Width() << " " << img.Height() << "\n255\n";
    for (int y = 0; y < img.Height(); ++y)
        for (int x = 0; x < img.Width(); ++x) {
            const Bgra c = PixelAt(img, x, y);
            out.put(char(c.r)).put(char(c.g)).put(char(c.b));
        }
}

// Reads a binary PPM written by a tool with "P6 w h 255" and single whitespace.
inline bool ReadPpm(const std::string& path, Image& img)
{
    std::ifstream in(path, std::ios::binary);
    std::string magic;
    int w = 0, h = 0, max = 0;
    in >> magic >> w >> h >> max;
    in.get();
    if (magic != "P6" || max != 255 || !img.Allocate(w, h, 32)) return false;
    for (int y = 0; y < h; ++y)
        for (int x = 0; x < w; ++x) {
            char rgb[3];
            if (!in.read(rgb, 3)) return false;
            std::uint8_t* p = img.Row(y) + x * 4;
            p[0] = std::uint8_t(rgb[2]);
            p[1] = std::uint8_t(rgb[1]);
            p[2] = std::uint8_t(rgb[0]);
            p[3] = 255;
        }
    return true;
}

// PSNR of the colour channels over the whole image, in dB (99 when identical).
inline double Psnr(const Image& a, const Image& b)
{
    if (a.Width() != b.Width() || a.Height() != b.Height()) return 0;
    double se = 0;
    for (int y = 0; y < a.Height(); ++y)
        for (int x = 0; x < a.Width(); ++x) {
            const Bgra p = PixelAt(a, x, y), q = PixelAt(b, x, y);
            se += (p.b - q.b) * (p.b - q.b) + (p.g - q.g) * (p.g - q.g) + (p.r - q.r) * (p.r - q.r);
        }
    const double mse = se / (3.0 * a.Width() * a.Height());
    return mse == 0 ? 99 : 10 * std::log10(255.0 * 255.0 / mse);
}

// The frame holder's pixels as a top-down image again.
inline Image Unpack(const FrameHolder& f)
{
    const BITMAPINFOHEADER* h = f.Header();
    Image img;
    if (!h || !img.Allocate(h->biWidth, h->biHeight, 32)) std::abort();
    const std::size_t n = std::size_t(h->biWidth) * 4;
    for (int y = 0; y < h->biHeight; ++y)
        std::copy_n(f.Pixels() + std::size_t(h->biHeight - 1 - y) * n, n, img.Row(y));
    return img;
}

}  // namespace zub::test

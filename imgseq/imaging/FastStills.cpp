#include "imgseq/imaging/FastStills.h"

#include <turbojpeg.h>

#include <algorithm>
#include <cstring>
#include <memory>

#include "platform/ByteOrder.h"
#include "platform/Error.h"

namespace zub::imaging {

namespace {

bool Damaged(std::string* error, std::string why)
{
    return Fail(error, Error{{}, std::move(why)});
}

bool NoMemory(std::string* error, int w, int h)
{
    return Damaged(error, "no memory for a " + std::to_string(w) + "x" + std::to_string(h) + " image");
}

// The TGA 2.0 extension area's attributes type: 0 means the alpha bytes hold nothing; -1
// when the file has no such area.
int AlphaType(const std::uint8_t* data, std::size_t size)
{
    static const char kSignature[] = "TRUEVISION-XFILE.";
    if (size < 18 + 26 || std::memcmp(data + size - 18, kSignature, 18) != 0) return -1;
    const std::uint8_t* footer = data + size - 26;
    const std::uint32_t ext = ReadLe32(footer);
    if (ext == 0 || ext + 495 > size - 26) return -1;
    return data[ext + 494];
}

struct TgaLayout {
    int width = 0, height = 0;
    unsigned bpp = 0;           // bytes per stored pixel, 3 or 4
    bool runLength = false;
    bool topDown = false;
    std::size_t pixels = 0;     // offset of the pixel data
};

// The layouts the direct readers take; false for any other, which goes to the general reader.
bool ReadTgaLayout(const std::uint8_t* data, std::size_t size, TgaLayout& t)
{
    if (size < 18) return false;
    const unsigned idLength = data[0], mapType = data[1], type = data[2];
    const unsigned mapLength = ReadLe16(data + 5), mapDepth = data[7];
    const int width = static_cast<int>(ReadLe16(data + 12)), height = static_cast<int>(ReadLe16(data + 14));
    const unsigned depth = data[16], descriptor = data[17];
    if ((type != 2 && type != 10) || mapType > 1 || (depth != 24 && depth != 32)) return false;
    if (descriptor & 0x10) return false;  // right to left
    const unsigned alphaBits = descriptor & 0x0F;
    if ((depth == 24 && alphaBits != 0) || (depth == 32 && alphaBits != 8 && alphaBits != 0)) return false;
    if (width <= 0 || height <= 0) return false;
    // A 32-bit file whose alpha is declared empty is shown opaque, as the other readers do;
    // one that does not say is read as it is only when it says 8 alpha bits.
    const int alphaType = AlphaType(data, size);
    if (depth == 32 && (alphaBits == 0 || alphaType == 0 || alphaType == 4)) return false;
    t.width = width;
    t.height = height;
    t.bpp = depth / 8;
    t.runLength = type == 10;
    t.topDown = (descriptor & 0x20) != 0;
    t.pixels = 18 + idLength + (mapType ? mapLength * ((mapDepth + 7) / 8) : 0);
    return true;
}

// Where decoded pixels go: packed B, G, R, A rows.
struct PackedSink {
    std::uint8_t* base;
    std::size_t rowBytes;
    std::uint8_t* d = nullptr;
    void Row(int y) { d = base + rowBytes * static_cast<std::size_t>(y); }
    void Run(std::uint32_t value, std::size_t n)
    {
        for (std::size_t k = 0; k < n; ++k, d += 4) std::memcpy(d, &value, 4);
    }
    void Copy32(const std::uint8_t* s, std::size_t n)
    {
        std::memcpy(d, s, n * 4);
        d += n * 4;
    }
    void Copy24(const std::uint8_t* s, std::size_t n)
    {
        for (std::size_t k = 0; k < n; ++k, s += 3, d += 4) {
            d[0] = s[0];
            d[1] = s[1];
            d[2] = s[2];
            d[3] = 255;
        }
    }
};

// Or one plane per channel; the alpha plane only when the file has alpha.
template <bool kAlpha>
struct PlanarSink {
    std::uint8_t* p[4];
    std::size_t width;
    std::size_t at = 0;
    std::uint8_t alphaAll = 0xFF;
    void Row(int y) { at = width * static_cast<std::size_t>(y); }
    void Run(std::uint32_t value, std::size_t n)
    {
        std::memset(p[0] + at, static_cast<int>(value & 0xFF), n);
        std::memset(p[1] + at, static_cast<int>((value >> 8) & 0xFF), n);
        std::memset(p[2] + at, static_cast<int>((value >> 16) & 0xFF), n);
        if constexpr (kAlpha) {
            std::memset(p[3] + at, static_cast<int>(value >> 24), n);
            alphaAll &= static_cast<std::uint8_t>(value >> 24);
        }
        at += n;
    }
    void Copy32(const std::uint8_t* s, std::size_t n)
    {
        std::uint8_t* __restrict b = p[0] + at;
        std::uint8_t* __restrict g = p[1] + at;
        std::uint8_t* __restrict r = p[2] + at;
        std::uint8_t* __restrict a = p[3] + at;
        std::uint8_t all = alphaAll;
        for (std::size_t k = 0; k < n; ++k, s += 4) {
            b[k] = s[0];
            g[k] = s[1];
            r[k] = s[2];
            a[k] = s[3];
            all &= s[3];
        }
        alphaAll = all;
        at += n;
    }
    void Copy24(const std::uint8_t* s, std::size_t n)
    {
        std::uint8_t* __restrict b = p[0] + at;
        std::uint8_t* __restrict g = p[1] + at;
        std::uint8_t* __restrict r = p[2] + at;
        for (std::size_t k = 0; k < n; ++k, s += 3) {
            b[k] = s[0];
            g[k] = s[1];
            r[k] = s[2];
        }
        at += n;
    }
};

template <class Sink>
bool DecodeTgaPixels(const std::uint8_t* data, std::size_t size, const TgaLayout& t, Sink& out, std::string* error)
{
    const int width = t.width, height = t.height;
    const unsigned bpp = t.bpp;
    auto row = [&](int y) { out.Row(t.topDown ? y : height - 1 - y); };
    const std::uint8_t* s = data + t.pixels;
    const std::uint8_t* end = data + size;

    if (!t.runLength) {
        const std::size_t rowBytes = static_cast<std::size_t>(width) * bpp;
        if (static_cast<std::size_t>(end - s) / rowBytes < static_cast<std::size_t>(height))
            return Damaged(error, "the pixels are cut short");
        for (int y = 0; y < height; ++y, s += rowBytes) {
            row(y);
            if (bpp == 4) out.Copy32(s, static_cast<std::size_t>(width));
            else out.Copy24(s, static_cast<std::size_t>(width));
        }
        return true;
    }

    // Run-length packets may run from one row into the next: each packet is laid down in
    // pieces that stay within a row.
    int y = 0, x = 0;
    row(0);
    while (y < height) {
        if (s >= end) return Damaged(error, "the run-length pixels are cut short");
        const unsigned head = *s++;
        std::size_t count = (head & 0x7F) + 1;
        const bool run = (head & 0x80) != 0;
        if (static_cast<std::size_t>(end - s) < (run ? 1 : count) * bpp)
            return Damaged(error, "the run-length pixels are cut short");
        std::uint32_t value = 0;
        if (run) {
            value = std::uint32_t(s[0]) | (std::uint32_t(s[1]) << 8) | (std::uint32_t(s[2]) << 16) |
                    (bpp == 4 ? std::uint32_t(s[3]) << 24 : 0xFF000000u);
            s += bpp;
        }
        while (count > 0 && y < height) {
            const std::size_t n = std::min<std::size_t>(count, static_cast<std::size_t>(width - x));
            if (run) {
                out.Run(value, n);
            } else if (bpp == 4) {
                out.Copy32(s, n);
                s += n * 4;
            } else {
                out.Copy24(s, n);
                s += n * 3;
            }
            x += static_cast<int>(n);
            count -= n;
            if (x == width && ++y < height) {
                x = 0;
                row(y);
            }
        }
    }
    return true;
}

}  // namespace

bool DecodeTga(const std::uint8_t* data, std::size_t size, const FastAllocate& allocate, bool* taken,
               std::string* error)
{
    TgaLayout t;
    *taken = ReadTgaLayout(data, size, t);
    if (!*taken) return true;
    if (t.pixels > size) return Damaged(error, "the header runs past the end of the file");
    std::uint8_t* out = allocate(t.width, t.height);
    if (!out) return NoMemory(error, t.width, t.height);
    PackedSink sink{out, static_cast<std::size_t>(t.width) * 4};
    return DecodeTgaPixels(data, size, t, sink, error);
}

bool DecodeTgaPlanes(const std::uint8_t* data, std::size_t size, const PlanesAllocate& allocate, bool* opaque,
                     bool* taken, std::string* error)
{
    TgaLayout t;
    *taken = ReadTgaLayout(data, size, t);
    if (!*taken) return true;
    if (t.pixels > size) return Damaged(error, "the header runs past the end of the file");
    std::uint8_t* planes[4] = {};
    if (!allocate(t.width, t.height, planes)) return NoMemory(error, t.width, t.height);
    if (t.bpp == 3) {
        PlanarSink<false> sink{{planes[0], planes[1], planes[2], planes[3]}, static_cast<std::size_t>(t.width)};
        *opaque = true;
        return DecodeTgaPixels(data, size, t, sink, error);
    }
    PlanarSink<true> sink{{planes[0], planes[1], planes[2], planes[3]}, static_cast<std::size_t>(t.width)};
    const bool ok = DecodeTgaPixels(data, size, t, sink, error);
    *opaque = sink.alphaAll == 0xFF;
    return ok;
}

namespace {

struct TjFree {
    void operator()(void* h) const { tjDestroy(h); }
};

// One decompressor per thread, kept: making one costs more than a small picture.
void* Decompressor()
{
    thread_local std::unique_ptr<void, TjFree> handle(tjInitDecompress());
    return handle.get();
}

bool ReadJpegHeader(void* tj, const std::uint8_t* data, std::size_t size, int* width, int* height)
{
    int w = 0, h = 0, subsamp = 0, colorspace = 0;
    if (!tj || tjDecompressHeader3(tj, data, static_cast<unsigned long>(size), &w, &h, &subsamp, &colorspace) != 0)
        return false;  // the general reader says why
    if (colorspace != TJCS_YCbCr && colorspace != TJCS_GRAY && colorspace != TJCS_RGB) return false;
    if (w <= 0 || h <= 0) return false;
    *width = w;
    *height = h;
    return true;
}

int Scaled(int side, int denominator)
{
    return (side + denominator - 1) / denominator;
}

}  // namespace

bool JpegSize(const std::uint8_t* data, std::size_t size, int* width, int* height)
{
    return ReadJpegHeader(Decompressor(), data, size, width, height);
}

int JpegReduction(int width, int height, int minWidth, int minHeight)
{
    // Only the factors this TurboJPEG offers, and of those only 1/2, 1/4 and 1/8: libjpeg-turbo
    // runs their reduced inverse transforms in SIMD (1/8 is the DC term alone); the other
    // eighths go through plain C and save little.
    int count = 0;
    const tjscalingfactor* factors = tjGetScalingFactors(&count);
    int best = 1;
    for (int d = 2; d <= 8; d *= 2) {
        bool offered = false;
        for (int i = 0; factors && i < count; ++i)
            if (factors[i].num == 1 && factors[i].denom == d) offered = true;
        if (!offered || Scaled(width, d) < minWidth || Scaled(height, d) < minHeight) break;
        best = d;
    }
    return best;
}

bool DecodeJpeg(const std::uint8_t* data, std::size_t size, const FastAllocate& allocate, bool* taken,
                std::string* error, int denominator)
{
    void* tj = Decompressor();
    int w = 0, h = 0;
    *taken = ReadJpegHeader(tj, data, size, &w, &h);
    if (!*taken) return true;
    if (denominator != 1 && denominator != 2 && denominator != 4 && denominator != 8)
        return Damaged(error, "no reduction by 1/" + std::to_string(denominator));
    // TurboJPEG rounds a reduced side up, as Scaled does.
    w = Scaled(w, denominator);
    h = Scaled(h, denominator);
    std::uint8_t* out = allocate(w, h);
    if (!out) return NoMemory(error, w, h);
    if (tjDecompress2(tj, data, static_cast<unsigned long>(size), out, w, w * 4, h, TJPF_BGRA, 0) != 0) {
        // A warning (a few bad bytes at the end) still gives a picture, as libjpeg does.
        const char* why = tjGetErrorStr2(tj);
        if (tjGetErrorCode(tj) != TJERR_WARNING) return Damaged(error, why ? why : "JPEG decoding failed");
    }
    return true;
}

}  // namespace zub::imaging

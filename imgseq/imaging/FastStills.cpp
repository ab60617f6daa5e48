#include "imgseq/imaging/FastStills.h"

#include <turbojpeg.h>

#include <algorithm>
#include <cstring>
#include <memory>

#include "platform/ByteOrder.h"

namespace zub::imaging {

namespace {

FastResult Failed(std::string* error, std::string why)
{
    if (error) *error = std::move(why);
    return FastResult::Failed;
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

}  // namespace

FastResult DecodeTga(const std::uint8_t* data, std::size_t size, const FastAllocate& allocate, std::string* error)
{
    if (size < 18) return FastResult::NotMine;
    const unsigned idLength = data[0], mapType = data[1], type = data[2];
    const unsigned mapLength = ReadLe16(data + 5), mapDepth = data[7];
    const int width = static_cast<int>(ReadLe16(data + 12)), height = static_cast<int>(ReadLe16(data + 14));
    const unsigned depth = data[16], descriptor = data[17];
    if ((type != 2 && type != 10) || mapType > 1 || (depth != 24 && depth != 32)) return FastResult::NotMine;
    if (descriptor & 0x10) return FastResult::NotMine;  // right to left
    const unsigned alphaBits = descriptor & 0x0F;
    if ((depth == 24 && alphaBits != 0) || (depth == 32 && alphaBits != 8 && alphaBits != 0)) return FastResult::NotMine;
    if (width <= 0 || height <= 0) return FastResult::NotMine;
    // A 32-bit file whose alpha is declared empty is shown opaque, as the other readers do;
    // one that does not say is read as it is only when it says 8 alpha bits.
    const int alphaType = AlphaType(data, size);
    if (depth == 32 && (alphaBits == 0 || alphaType == 0 || alphaType == 4)) return FastResult::NotMine;

    std::size_t at = 18 + idLength + (mapType ? mapLength * ((mapDepth + 7) / 8) : 0);
    if (at > size) return Failed(error, "the header runs past the end of the file");
    const bool topDown = (descriptor & 0x20) != 0;
    const unsigned bpp = depth / 8;
    std::uint8_t* out = allocate(width, height);
    if (!out) return Failed(error, "no memory for a " + std::to_string(width) + "x" + std::to_string(height) + " image");
    const std::size_t rowBytes = static_cast<std::size_t>(width) * 4;
    auto rowOf = [&](int y) { return out + rowBytes * static_cast<std::size_t>(topDown ? y : height - 1 - y); };

    if (type == 2) {
        const std::size_t need = static_cast<std::size_t>(width) * height * bpp;
        if (size - at < need) return Failed(error, "the pixels are cut short");
        const std::uint8_t* s = data + at;
        for (int y = 0; y < height; ++y) {
            std::uint8_t* d = rowOf(y);
            if (bpp == 4) {
                std::memcpy(d, s, rowBytes);
                s += rowBytes;
            } else {
                for (int x = 0; x < width; ++x, s += 3, d += 4) {
                    d[0] = s[0];
                    d[1] = s[1];
                    d[2] = s[2];
                    d[3] = 255;
                }
            }
        }
        return FastResult::Decoded;
    }

    // Run-length packets may run from one row into the next: each packet is laid down in
    // pieces that stay within a row.
    const std::uint8_t* s = data + at;
    const std::uint8_t* end = data + size;
    int y = 0, x = 0;
    std::uint8_t* d = rowOf(0);
    while (y < height) {
        if (s >= end) return Failed(error, "the run-length pixels are cut short");
        const unsigned head = *s++;
        std::size_t count = (head & 0x7F) + 1;
        const bool run = (head & 0x80) != 0;
        if (static_cast<std::size_t>(end - s) < (run ? 1 : count) * bpp)
            return Failed(error, "the run-length pixels are cut short");
        std::uint32_t value = 0;
        if (run) {
            value = std::uint32_t(s[0]) | (std::uint32_t(s[1]) << 8) | (std::uint32_t(s[2]) << 16) |
                    (bpp == 4 ? std::uint32_t(s[3]) << 24 : 0xFF000000u);
            s += bpp;
        }
        while (count > 0 && y < height) {
            const std::size_t n = std::min<std::size_t>(count, static_cast<std::size_t>(width - x));
            if (run) {
                for (std::size_t k = 0; k < n; ++k) std::memcpy(d + 4 * k, &value, 4);
            } else if (bpp == 4) {
                std::memcpy(d, s, n * 4);
                s += n * 4;
            } else {
                for (std::size_t k = 0; k < n; ++k, s += 3) {
                    const std::uint32_t v = std::uint32_t(s[0]) | (std::uint32_t(s[1]) << 8) |
                                            (std::uint32_t(s[2]) << 16) | 0xFF000000u;
                    std::memcpy(d + 4 * k, &v, 4);
                }
            }
            d += 4 * n;
            x += static_cast<int>(n);
            count -= n;
            if (x == width && ++y < height) {
                x = 0;
                d = rowOf(y);
            }
        }
    }
    return FastResult::Decoded;
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

FastResult DecodeJpeg(const std::uint8_t* data, std::size_t size, const FastAllocate& allocate, std::string* error,
                      int denominator)
{
    void* tj = Decompressor();
    int w = 0, h = 0;
    if (!ReadJpegHeader(tj, data, size, &w, &h)) return FastResult::NotMine;
    if (denominator != 1 && denominator != 2 && denominator != 4 && denominator != 8)
        return Failed(error, "no reduction by 1/" + std::to_string(denominator));
    // TurboJPEG rounds a reduced side up, as Scaled does.
    w = Scaled(w, denominator);
    h = Scaled(h, denominator);
    std::uint8_t* out = allocate(w, h);
    if (!out) return Failed(error, "no memory for a " + std::to_string(w) + "x" + std::to_string(h) + " image");
    if (tjDecompress2(tj, data, static_cast<unsigned long>(size), out, w, w * 4, h, TJPF_BGRA, 0) != 0) {
        // A warning (a few bad bytes at the end) still gives a picture, as libjpeg does.
        const char* why = tjGetErrorStr2(tj);
        if (tjGetErrorCode(tj) != TJERR_WARNING) return Failed(error, why ? why : "JPEG decoding failed");
    }
    return FastResult::Decoded;
}

}  // namespace zub::imaging

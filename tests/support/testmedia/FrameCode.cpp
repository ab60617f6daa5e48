// The picture code of test frames: painting, locating and reading it back. Everything is in
// coordinates relative to the picture so that any resize reads the same cells.
#include <algorithm>
#include <cmath>
#include <cstdint>

#include "tests/support/testmedia/TestMedia.h"

namespace zub::testmedia {
namespace {

constexpr int kDataBits = 16;
constexpr int kCheckBits = 4;
constexpr int kCols = 10;
constexpr int kRows = 2;
static_assert(kCols * kRows == kDataBits + kCheckBits);

constexpr double kCodeLeft = 0.10, kCodeRight = 0.90, kCodeTop = 0.35, kCodeBottom = 0.85;
constexpr double kPatchTop = 0.08, kPatchBottom = 0.22;
constexpr double kPatchLeft[3] = {0.10, 0.40, 0.70};
constexpr double kPatchWidth = 0.20;
constexpr std::uint8_t kGrey = 128;
// Anything brighter than this belongs to the picture; letterbox bars are darker.
constexpr int kBrightThreshold = 48;

struct Channels {
    int r, g, b, a;  // byte offsets, -1 when absent
};

Channels ChannelsOf(PixelFormat f)
{
    switch (f) {
    case PixelFormat::Rgb24: return {0, 1, 2, -1};
    case PixelFormat::Bgr24: return {2, 1, 0, -1};
    case PixelFormat::Rgba32: return {0, 1, 2, 3};
    case PixelFormat::Bgra32: return {2, 1, 0, 3};
    case PixelFormat::Argb32: return {1, 2, 3, 0};
    case PixelFormat::Bgrx32: return {2, 1, 0, -1};
    case PixelFormat::Gray8: return {0, 0, 0, -1};
    }
    return {0, 1, 2, -1};
}

int CheckOf(int number)
{
    int sum = 0;
    for (int i = 0; i < kDataBits; i += 4) sum += (number >> i) & 0xF;
    return (sum + 5) & 0xF;
}

std::uint32_t CodeWord(int number)
{
    const int n = number & 0xFFFF;
    return (static_cast<std::uint32_t>(n) << kCheckBits) | static_cast<std::uint32_t>(CheckOf(n));
}

bool CodeBit(std::uint32_t word, int row, int col)
{
    const int index = row * kCols + col;  // most significant bit first
    return (word >> (kDataBits + kCheckBits - 1 - index)) & 1u;
}

struct Rgba {
    std::uint8_t r, g, b, a;
};

// What frame `word` looks like at relative position (fx, fy).
Rgba PixelAt(double fx, double fy, std::uint32_t word)
{
    if (fy >= kPatchTop && fy < kPatchBottom) {
        for (int p = 0; p < 3; ++p) {
            if (fx >= kPatchLeft[p] && fx < kPatchLeft[p] + kPatchWidth) {
                return {static_cast<std::uint8_t>(p == 0 ? 255 : 0), static_cast<std::uint8_t>(p == 1 ? 255 : 0),
                        static_cast<std::uint8_t>(p == 2 ? 255 : 0), 255};
            }
        }
    }
    if (fy >= kCodeTop && fy < kCodeBottom && fx >= kCodeLeft && fx < kCodeRight) {
        const int col = std::min(kCols - 1, static_cast<int>((fx - kCodeLeft) / (kCodeRight - kCodeLeft) * kCols));
        const int row = std::min(kRows - 1, static_cast<int>((fy - kCodeTop) / (kCodeBottom - kCodeTop) * kRows));
        const bool bit = CodeBit(word, row, col);
        const std::uint8_t v = bit ? 255 : 0;
        return {v, v, v, static_cast<std::uint8_t>(bit ? 0 : 255)};
    }
    return {kGrey, kGrey, kGrey, 255};
}

int LumaOf(int r, int g, int b) { return (77 * r + 150 * g + 29 * b) >> 8; }

// Reads one plane of an image as 0..255 values.
class PlaneReader {
public:
    PlaneReader(const ImageView& image, Plane plane) : image_(image), ch_(ChannelsOf(image.format)), plane_(plane),
        bpp_(BytesPerPixel(image.format)) {}

    bool Valid() const
    {
        return image_.data && image_.width > 0 && image_.height > 0 && (plane_ == Plane::Luma || ch_.a >= 0);
    }

    int At(int x, int y) const
    {
        const std::uint8_t* p = image_.data + y * image_.stride + static_cast<std::ptrdiff_t>(x) * bpp_;
        if (plane_ == Plane::Alpha) return p[ch_.a];
        if (image_.format == PixelFormat::Gray8) return p[0];
        return LumaOf(p[ch_.r], p[ch_.g], p[ch_.b]);
    }

    const ImageView& Image() const { return image_; }

private:
    ImageView image_;
    Channels ch_;
    Plane plane_;
    int bpp_;
};

struct Box {
    int x0, y0, x1, y1;  // half-open
};

// Finds the picture's extent: rows and columns with enough bright pixels. The code and patch
// bands always leave at least a fifth of each row and column grey, so a fraction well below
// that separates picture from black bars.
bool LocatePicture(const PlaneReader& pr, Box* box)
{
    const int w = pr.Image().width, h = pr.Image().height;
    auto rowBright = [&](int y, int x0, int x1) {
        int n = 0;
        for (int x = x0; x < x1; ++x) n += pr.At(x, y) > kBrightThreshold;
        return n;
    };
    auto colBright = [&](int x, int y0, int y1) {
        int n = 0;
        for (int y = y0; y < y1; ++y) n += pr.At(x, y) > kBrightThreshold;
        return n;
    };
    Box b{0, 0, w, h};
    for (int pass = 0; pass < 2; ++pass) {
        const int needRow = std::max(1, (b.x1 - b.x0) / 16);
        int y0 = -1, y1 = -1;
        for (int y = 0; y < h; ++y) {
            if (rowBright(y, b.x0, b.x1) >= needRow) {
                if (y0 < 0) y0 = y;
                y1 = y + 1;
            }
        }
        if (y0 < 0) return false;
        const int needCol = std::max(1, (y1 - y0) / 8);
        int x0 = -1, x1 = -1;
        for (int x = 0; x < w; ++x) {
            if (colBright(x, y0, y1) >= needCol) {
                if (x0 < 0) x0 = x;
                x1 = x + 1;
            }
        }
        if (x0 < 0) return false;
        b = {x0, y0, x1, y1};
    }
    if (b.x1 - b.x0 < kCols * 2 || b.y1 - b.y0 < 8) return false;
    *box = b;
    return true;
}

// Mean of the plane over the centre half of a relative rectangle of the box.
double MeanOver(const PlaneReader& pr, const Box& box, double fx0, double fy0, double fx1, double fy1, int channel = -1)
{
    const double bw = box.x1 - box.x0, bh = box.y1 - box.y0;
    const double cx0 = fx0 + (fx1 - fx0) * 0.25, cx1 = fx1 - (fx1 - fx0) * 0.25;
    const double cy0 = fy0 + (fy1 - fy0) * 0.25, cy1 = fy1 - (fy1 - fy0) * 0.25;
    int x0 = box.x0 + static_cast<int>(std::floor(cx0 * bw));
    int x1 = box.x0 + static_cast<int>(std::ceil(cx1 * bw));
    int y0 = box.y0 + static_cast<int>(std::floor(cy0 * bh));
    int y1 = box.y0 + static_cast<int>(std::ceil(cy1 * bh));
    x1 = std::max(x1, x0 + 1);
    y1 = std::max(y1, y0 + 1);
    const ImageView& im = pr.Image();
    const Channels ch = ChannelsOf(im.format);
    const int bpp = BytesPerPixel(im.format);
    double sum = 0;
    long n = 0;
    for (int y = y0; y < y1 && y < im.height; ++y) {
        for (int x = x0; x < x1 && x < im.width; ++x) {
            if (channel < 0) {
                sum += pr.At(x, y);
            } else {
                const std::uint8_t* p = im.data + y * im.stride + static_cast<std::ptrdiff_t>(x) * bpp;
                const int off = channel == 0 ? ch.r : channel == 1 ? ch.g : ch.b;
                sum += p[off];
            }
            ++n;
        }
    }
    return n ? sum / n : 0;
}

}  // namespace

int BytesPerPixel(PixelFormat format)
{
    switch (format) {
    case PixelFormat::Rgb24:
    case PixelFormat::Bgr24: return 3;
    case PixelFormat::Gray8: return 1;
    default: return 4;
    }
}

ImageView BottomUp(const std::uint8_t* buffer, int width, int height, std::ptrdiff_t rowBytes, PixelFormat format)
{
    ImageView v;
    v.data = height > 0 ? buffer + (height - 1) * rowBytes : buffer;
    v.width = width;
    v.height = height;
    v.stride = -rowBytes;
    v.format = format;
    return v;
}

void PaintFrame(std::uint8_t* data, int width, int height, std::ptrdiff_t stride, PixelFormat format, int number,
                bool alpha)
{
    const std::uint32_t word = CodeWord(number);
    const Channels ch = ChannelsOf(format);
    const int bpp = BytesPerPixel(format);
    for (int y = 0; y < height; ++y) {
        std::uint8_t* row = data + y * stride;
        const double fy = (y + 0.5) / height;
        for (int x = 0; x < width; ++x) {
            const Rgba c = PixelAt((x + 0.5) / width, fy, word);
            std::uint8_t* p = row + static_cast<std::ptrdiff_t>(x) * bpp;
            if (format == PixelFormat::Gray8) {
                p[0] = static_cast<std::uint8_t>(LumaOf(c.r, c.g, c.b));
                continue;
            }
            p[ch.r] = c.r;
            p[ch.g] = c.g;
            p[ch.b] = c.b;
            if (bpp == 4) {
                const int a = ch.a >= 0 ? ch.a : 3;
                p[a] = alpha ? c.a : 255;
            }
        }
    }
}

int ReadFrameNumber(const ImageView& image, Plane plane)
{
    PlaneReader pr(image, plane);
    if (!pr.Valid()) return -1;
    Box box;
    if (!LocatePicture(pr, &box)) return -1;
    std::uint32_t word = 0;
    for (int row = 0; row < kRows; ++row) {
        for (int col = 0; col < kCols; ++col) {
            const double fx0 = kCodeLeft + (kCodeRight - kCodeLeft) * col / kCols;
            const double fx1 = kCodeLeft + (kCodeRight - kCodeLeft) * (col + 1) / kCols;
            const double fy0 = kCodeTop + (kCodeBottom - kCodeTop) * row / kRows;
            const double fy1 = kCodeTop + (kCodeBottom - kCodeTop) * (row + 1) / kRows;
            const double mean = MeanOver(pr, box, fx0, fy0, fx1, fy1);
            const bool bit = plane == Plane::Alpha ? mean < 128 : mean >= 128;
            word = (word << 1) | (bit ? 1u : 0u);
        }
    }
    const int number = static_cast<int>(word >> kCheckBits);
    if (static_cast<int>(word & 0xF) != CheckOf(number)) return -1;
    return number;
}

bool ReadPatchColours(const ImageView& image, std::array<std::array<int, 3>, 3>* rgb)
{
    PlaneReader pr(image, Plane::Luma);
    if (!pr.Valid() || image.format == PixelFormat::Gray8) return false;
    Box box;
    if (!LocatePicture(pr, &box)) return false;
    for (int p = 0; p < 3; ++p) {
        for (int c = 0; c < 3; ++c) {
            (*rgb)[p][c] = static_cast<int>(std::lround(
                MeanOver(pr, box, kPatchLeft[p], kPatchTop, kPatchLeft[p] + kPatchWidth, kPatchBottom, c)));
        }
    }
    return true;
}

ToneAnalysis AnalyzeTone(const std::int16_t* samples, std::size_t frames, int channels, int channel, int sampleRate,
                         double hz)
{
    ToneAnalysis out;
    if (!samples || frames == 0 || channels <= 0 || channel < 0 || channel >= channels || sampleRate <= 0) return out;
    // Least-squares fit of a*sin + b*cos + c, solved through the 3x3 normal equations.
    double m[3][3] = {}, v[3] = {};
    const double w = 2.0 * M_PI * hz / sampleRate;
    for (std::size_t i = 0; i < frames; ++i) {
        const double y = samples[i * channels + channel] / 32768.0;
        const double basis[3] = {std::sin(w * i), std::cos(w * i), 1.0};
        for (int r = 0; r < 3; ++r) {
            v[r] += basis[r] * y;
            for (int c = 0; c < 3; ++c) m[r][c] += basis[r] * basis[c];
        }
    }
    // Gaussian elimination with partial pivoting.
    double a[3][4];
    for (int r = 0; r < 3; ++r) {
        for (int c = 0; c < 3; ++c) a[r][c] = m[r][c];
        a[r][3] = v[r];
    }
    for (int k = 0; k < 3; ++k) {
        int piv = k;
        for (int r = k + 1; r < 3; ++r)
            if (std::fabs(a[r][k]) > std::fabs(a[piv][k])) piv = r;
        if (std::fabs(a[piv][k]) < 1e-12) return out;
        for (int c = 0; c < 4; ++c) std::swap(a[k][c], a[piv][c]);
        for (int r = 0; r < 3; ++r) {
            if (r == k) continue;
            const double f = a[r][k] / a[k][k];
            for (int c = k; c < 4; ++c) a[r][c] -= f * a[k][c];
        }
    }
    const double s = a[0][3] / a[0][0], co = a[1][3] / a[1][1], dc = a[2][3] / a[2][2];
    out.amplitude = std::hypot(s, co);
    out.phase = std::atan2(co, s);
    out.dc = dc;
    double resid = 0;
    for (std::size_t i = 0; i < frames; ++i) {
        const double y = samples[i * channels + channel] / 32768.0;
        const double e = y - (s * std::sin(w * i) + co * std::cos(w * i) + dc);
        resid += e * e;
    }
    const double signal = out.amplitude * out.amplitude / 2.0 * static_cast<double>(frames);
    out.snrDb = resid > 0 ? 10.0 * std::log10(signal / resid) : 200.0;
    return out;
}

}  // namespace zub::testmedia

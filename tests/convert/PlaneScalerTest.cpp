// The conversion's own plane scaler against libswscale, which it stands in for: the same
// picture through both must agree closely at every shape the frame path meets (shrinks, the
// odd sizes, enlargements, sources narrower than a vector block, very wide sources), flat
// planes must stay exactly flat, and nothing outside a row's width may leak in.
#include <gtest/gtest.h>

extern "C" {
#include <libswscale/swscale.h>
}

#include <cmath>
#include <cstdint>
#include <iostream>
#include <memory>
#include <random>
#include <string>
#include <vector>

#include "convert/PlaneScaler.h"

using zub::PlaneScaler;

namespace {

struct Plane {
    int width = 0, height = 0, stride = 0;
    std::vector<std::uint8_t> bytes;
    std::uint8_t* Row(int y) { return bytes.data() + static_cast<std::size_t>(y) * stride; }
    const std::uint8_t* Row(int y) const { return bytes.data() + static_cast<std::size_t>(y) * stride; }
};

Plane MakePlane(int w, int h, int padding = 0, std::uint8_t fill = 0)
{
    Plane p;
    p.width = w;
    p.height = h;
    p.stride = w + padding;
    p.bytes.assign(static_cast<std::size_t>(p.stride) * h, fill);
    return p;
}

// Something like a photograph: smooth shading, fine texture, hard edges and noise, so that
// every tap of a filter matters somewhere.
Plane Picture(int w, int h, unsigned seed, int padding = 0)
{
    Plane p = MakePlane(w, h, padding, 0xEE);
    std::mt19937 rng(seed);
    std::uniform_int_distribution<int> noise(-12, 12);
    for (int y = 0; y < h; ++y)
        for (int x = 0; x < w; ++x) {
            double v = 128 + 70 * std::sin(x * 0.013 + y * 0.021) + 30 * std::sin(x * 0.31) * std::cos(y * 0.17);
            if ((x / 37 + y / 23) % 5 == 0) v = v > 128 ? 235 : 16;  // blocks with hard edges
            p.Row(y)[x] = static_cast<std::uint8_t>(std::clamp<int>(static_cast<int>(v) + noise(rng), 0, 255));
        }
    return p;
}

Plane Ours(const Plane& src, int dw, int dh, PlaneScaler::Kernel kernel, int padding = 0)
{
    PlaneScaler scaler;
    Plane out = MakePlane(dw, dh, padding, 0xEE);
    EXPECT_TRUE(scaler.Configure(src.width, src.height, dw, dh, kernel));
    scaler.Scale(src.bytes.data(), src.stride, out.bytes.data(), out.stride);
    return out;
}

Plane Swscale(const Plane& src, int dw, int dh, PlaneScaler::Kernel kernel)
{
    const int flags = kernel == PlaneScaler::Kernel::Bicubic ? SWS_BICUBIC : SWS_BILINEAR;
    std::unique_ptr<SwsContext, void (*)(SwsContext*)> sws(
        sws_getContext(src.width, src.height, AV_PIX_FMT_GRAY8, dw, dh, AV_PIX_FMT_GRAY8, flags | SWS_ACCURATE_RND,
                       nullptr, nullptr, nullptr),
        sws_freeContext);
    Plane out = MakePlane(dw, dh);
    if (!sws) {
        ADD_FAILURE() << "libswscale has no scaler for this shape";
        return out;
    }
    const std::uint8_t* in[4] = {src.bytes.data()};
    const int inStride[4] = {src.stride};
    std::uint8_t* o[4] = {out.bytes.data()};
    const int oStride[4] = {out.stride};
    EXPECT_EQ(sws_scale(sws.get(), in, inStride, 0, src.height, o, oStride), dh);
    return out;
}

double Psnr(const Plane& a, const Plane& b)
{
    double sum = 0;
    for (int y = 0; y < a.height; ++y)
        for (int x = 0; x < a.width; ++x) {
            const double d = a.Row(y)[x] - b.Row(y)[x];
            sum += d * d;
        }
    const double mse = sum / (static_cast<double>(a.width) * a.height);
    return mse == 0 ? 99 : 10 * std::log10(255.0 * 255.0 / mse);
}

struct Shape {
    int sw, sh, dw, dh;
    double agreement = 60;  // dB against libswscale
};

std::string Name(const Shape& s)
{
    return std::to_string(s.sw) + "x" + std::to_string(s.sh) + " -> " + std::to_string(s.dw) + "x" + std::to_string(s.dh);
}

const Shape kShapes[] = {
    {1920, 1080, 720, 486},  // HD luma into the frame
    {960, 540, 360, 486},    // its chroma: narrower, but more rows than it had
    {1280, 720, 720, 405},   // fitted by width
    {1918, 1078, 719, 485},  // odd sizes everywhere
    {640, 480, 720, 486},    // an enlargement
    {3840, 1080, 720, 486},  // windows of two vector blocks
    {7680, 1080, 720, 486},  // and of more
    {7, 5, 720, 486, 40},    // narrower than a vector block: a hundredfold enlargement
    {720, 1, 720, 486},      // a single row
};

}  // namespace

TEST(PlaneScaler, AgreesWithLibswscaleAtEveryShape)
{
    unsigned seed = 1;
    for (const Shape& s : kShapes)
        for (PlaneScaler::Kernel kernel : {PlaneScaler::Kernel::Bicubic, PlaneScaler::Kernel::Bilinear}) {
            SCOPED_TRACE(Name(s) + (kernel == PlaneScaler::Kernel::Bicubic ? " bicubic" : " bilinear"));
            const Plane src = Picture(s.sw, s.sh, seed++);
            const double psnr = Psnr(Ours(src, s.dw, s.dh, kernel), Swscale(src, s.dw, s.dh, kernel));
            // The two differ by rounding only (65 dB and more; a tiny picture blown up a
            // hundredfold meets libswscale's different edges). A window off by half a sample,
            // a wrong weight or a skipped row costs far more.
            EXPECT_GE(psnr, s.agreement);
        }
}

TEST(PlaneScaler, FlatStaysFlatAndOneToOneIsExact)
{
    for (const Shape& s : kShapes)
        for (int value : {0, 77, 255}) {
            SCOPED_TRACE(Name(s) + " value " + std::to_string(value));
            const Plane flat = MakePlane(s.sw, s.sh, 0, static_cast<std::uint8_t>(value));
            const Plane out = Ours(flat, s.dw, s.dh, PlaneScaler::Kernel::Bicubic);
            int wrong = 0;
            for (std::uint8_t b : out.bytes) wrong += b != value;
            EXPECT_EQ(wrong, 0);
        }
    const Plane src = Picture(720, 486, 99);
    for (PlaneScaler::Kernel kernel : {PlaneScaler::Kernel::Bicubic, PlaneScaler::Kernel::Bilinear}) {
        const Plane same = Ours(src, 720, 486, kernel);
        int moved = 0;
        for (std::size_t i = 0; i < src.bytes.size(); ++i) moved += same.bytes[i] != src.bytes[i];
        EXPECT_EQ(moved, 0);
    }
}

TEST(PlaneScaler, ReadsAndWritesOnlyInsideEachRow)
{
    // The same picture tightly packed and with marked padding after every row, in and out.
    for (const Shape& s : kShapes) {
        SCOPED_TRACE(Name(s));
        const Plane tight = Picture(s.sw, s.sh, 7);
        Plane padded = Picture(s.sw, s.sh, 7, 45);
        for (int y = 0; y < padded.height; ++y)
            for (int x = s.sw; x < padded.stride; ++x) padded.Row(y)[x] = static_cast<std::uint8_t>(x * 37);
        const Plane a = Ours(tight, s.dw, s.dh, PlaneScaler::Kernel::Bicubic);
        const Plane b = Ours(padded, s.dw, s.dh, PlaneScaler::Kernel::Bicubic, 21);
        int differ = 0, spilled = 0;
        for (int y = 0; y < s.dh; ++y) {
            for (int x = 0; x < s.dw; ++x) differ += a.Row(y)[x] != b.Row(y)[x];
            for (int x = s.dw; x < b.stride; ++x) spilled += b.Row(y)[x] != 0xEE;
        }
        EXPECT_EQ(differ, 0);
        EXPECT_EQ(spilled, 0);
    }
}

TEST(PlaneScaler, AWindowIsExactlyThatPartOfTheWholePicture)
{
    // A picture scaled past the frame is made only where it shows; that part must be the
    // very bytes of the whole scaled picture.
    const Plane src = Picture(1900, 1080, 11);
    for (PlaneScaler::Kernel kernel : {PlaneScaler::Kernel::Bicubic, PlaneScaler::Kernel::Bilinear})
        for (const zub::PlaneWindow w : {zub::PlaneWindow{66, 0, 721, 486}, zub::PlaneWindow{67, 5, 700, 400},
                                         zub::PlaneWindow{0, 0, 855, 486}, zub::PlaneWindow{854, 485, 1, 1}}) {
            SCOPED_TRACE(std::to_string(w.x) + "," + std::to_string(w.y) + " " + std::to_string(w.width) + "x" +
                         std::to_string(w.height));
            const Plane whole = Ours(src, 855, 486, kernel);
            PlaneScaler scaler;
            ASSERT_TRUE(scaler.Configure(src.width, src.height, 855, 486, kernel, w));
            Plane part = MakePlane(w.width, w.height);
            scaler.Scale(src.bytes.data(), src.stride, part.bytes.data(), part.stride);
            int differ = 0;
            for (int y = 0; y < w.height; ++y)
                for (int x = 0; x < w.width; ++x) differ += part.Row(y)[x] != whole.Row(w.y + y)[w.x + x];
            EXPECT_EQ(differ, 0);
        }
    PlaneScaler scaler;
    EXPECT_FALSE(scaler.Configure(1900, 1080, 855, 486, PlaneScaler::Kernel::Bicubic, {800, 0, 56, 486}));
}

TEST(PlaneScaler, RefusesSizesItCannotMake)
{
    PlaneScaler scaler;
    EXPECT_FALSE(scaler.Configure(0, 10, 10, 10, PlaneScaler::Kernel::Bicubic));
    EXPECT_FALSE(scaler.Configure(10, 10, 10, 40000, PlaneScaler::Kernel::Bicubic));
    EXPECT_TRUE(scaler.Configure(1, 1, 3, 3, PlaneScaler::Kernel::Bicubic));
}

namespace {

// Full-range noise and single-sample stripes: the largest overshoots the cubic makes, so the
// clamps at both ends of the 8-bit range are met.
Plane Harsh(int w, int h, unsigned seed)
{
    Plane p = MakePlane(w, h, 3, 0xEE);
    std::mt19937 rng(seed);
    std::uniform_int_distribution<int> byte(0, 255);
    for (int y = 0; y < h; ++y)
        for (int x = 0; x < w; ++x)
            p.Row(y)[x] = (x / 97 + y / 61) % 2 ? static_cast<std::uint8_t>(byte(rng)) : ((x + y) % 2 ? 255 : 0);
    return p;
}

struct Job {
    PlaneScaler::Kernel kernel;
    int dw, dh;
    zub::PlaneWindow window;
    double ratioX = 0, ratioY = 0, phaseX = 0;
};

Plane ScaleWith(const Plane& src, const Job& r, PlaneScaler::Code code)
{
    PlaneScaler::LimitCode(code);
    PlaneScaler scaler;
    const int w = r.window.width ? r.window.width : r.dw, h = r.window.height ? r.window.height : r.dh;
    Plane out = MakePlane(w, h, 5, 0xEE);
    EXPECT_TRUE(scaler.Configure(src.width, src.height, r.dw, r.dh, r.kernel, r.window, r.ratioX, r.ratioY, r.phaseX));
    scaler.Scale(src.bytes.data(), src.stride, out.bytes.data(), out.stride);
    PlaneScaler::LimitCode(PlaneScaler::Code::Best);
    return out;
}

}  // namespace

TEST(PlaneScaler, VectorCodeMakesExactlyThePlainArithmeticsBytes)
{
    if (!PlaneScaler::LimitCode(PlaneScaler::Code::Avx2)) GTEST_SKIP() << "this processor has no AVX2: only the plain code runs here";
    // The fused multiply-add is compared too where the processor has it.
    std::vector<PlaneScaler::Code> codes = {PlaneScaler::Code::Avx2};
    if (PlaneScaler::LimitCode(PlaneScaler::Code::Best)) codes.push_back(PlaneScaler::Code::Best);
    else std::cout << "[          ] this processor has no AVX-512 VNNI: its path is not compared\n";
    std::vector<std::pair<int, int>> sources = {
        {1920, 1080}, {960, 540}, {1280, 720}, {640, 360}, {1918, 1078}, {959, 539}, {640, 480}, {720, 486},
        {3840, 2160}, {7, 5},     {1, 1},     {16, 16},   {17, 9},     {31, 33},   {32, 32},   {33, 31},
        {47, 20},     {48, 21},   {63, 64},   {65, 66},   {100, 3},    {2, 200},   {4096, 7},  {719, 485}};
    std::vector<std::pair<int, int>> targets = {{720, 486}, {360, 486}, {719, 485}, {13, 11}, {1, 1},
                                                {64, 33},   {361, 243}, {8, 900},   {1500, 2}};
    unsigned seed = 1;
    int runs = 0;
    for (const auto& [sw, sh] : sources) {
        const Plane pictures[] = {Picture(sw, sh, seed++, 7), Harsh(sw, sh, seed++)};
        for (const auto& [dw, dh] : targets)
            for (PlaneScaler::Kernel kernel : {PlaneScaler::Kernel::Bicubic, PlaneScaler::Kernel::Bilinear}) {
                std::vector<Job> shapes = {{kernel, dw, dh, {}}};
                // A part of the picture, and a chroma plane at its picture's own ratio and phase.
                if (dw > 4 && dh > 4) shapes.push_back({kernel, dw, dh, {dw / 3, dh / 4, dw - dw / 3 - 1, dh / 2}});
                shapes.push_back({kernel, dw, dh, {}, static_cast<double>(sw) / dw * 1.003,
                                  static_cast<double>(sh) / dh * 0.997, 0.5});
                for (const Job& r : shapes)
                    for (const Plane& src : pictures) {
                        SCOPED_TRACE(std::to_string(sw) + "x" + std::to_string(sh) + " -> " + std::to_string(dw) + "x" +
                                     std::to_string(dh) + (kernel == PlaneScaler::Kernel::Bicubic ? " bicubic" : " bilinear") +
                                     " window " + std::to_string(r.window.x) + "," + std::to_string(r.window.y) +
                                     " ratio " + std::to_string(r.ratioX));
                        const Plane plain = ScaleWith(src, r, PlaneScaler::Code::Plain);
                        for (PlaneScaler::Code code : codes) {
                            const Plane vector = ScaleWith(src, r, code);
                            ASSERT_EQ(plain.bytes.size(), vector.bytes.size());
                            int differ = 0, first = -1;
                            for (std::size_t i = 0; i < plain.bytes.size(); ++i)
                                if (plain.bytes[i] != vector.bytes[i]) {
                                    if (first < 0) first = static_cast<int>(i);
                                    ++differ;
                                }
                            EXPECT_EQ(differ, 0) << (code == PlaneScaler::Code::Best ? "fused" : "AVX2") << " first at byte " << first;
                            ++runs;
                        }
                    }
            }
    }
    EXPECT_GT(runs, 900);
    PlaneScaler::LimitCode(PlaneScaler::Code::Best);
}

TEST(PlaneScaler, APictureComesOutTheSameWhateverTheScalerMadeBefore)
{
    // The scaler keeps its buffers from picture to picture; nothing of the last one may show.
    const Job jobs[] = {{PlaneScaler::Kernel::Bicubic, 720, 486, {}},
                        {PlaneScaler::Kernel::Bicubic, 855, 483, {66, 3, 700, 477}},
                        {PlaneScaler::Kernel::Bilinear, 361, 243, {}, 1918.0 / 361 * 1.001, 1078.0 / 243, 0.5}};
    for (const Job& r : jobs) {
        SCOPED_TRACE(std::to_string(r.dw) + "x" + std::to_string(r.dh));
        const Plane before = Harsh(1918, 1078, 5), picture = Picture(1918, 1078, 6, 3);
        const Plane fresh = ScaleWith(picture, r, PlaneScaler::Code::Best);
        PlaneScaler scaler;
        const int w = r.window.width ? r.window.width : r.dw, h = r.window.height ? r.window.height : r.dh;
        ASSERT_TRUE(scaler.Configure(1918, 1078, r.dw, r.dh, r.kernel, r.window, r.ratioX, r.ratioY, r.phaseX));
        Plane out = MakePlane(w, h, 5, 0xEE);
        scaler.Scale(before.bytes.data(), before.stride, out.bytes.data(), out.stride);
        scaler.Scale(picture.bytes.data(), picture.stride, out.bytes.data(), out.stride);
        int differ = 0;
        for (std::size_t i = 0; i < out.bytes.size(); ++i) differ += out.bytes[i] != fresh.bytes[i];
        EXPECT_EQ(differ, 0);
    }
}

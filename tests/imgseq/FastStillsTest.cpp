// The direct TGA and JPEG readers give the same pixels as the general reader (OpenImageIO)
// and, for TGA, as ffmpeg's decoder, on files written by ffmpeg in every layout they take.
#include <gtest/gtest.h>

#include <cmath>
#include <cstdlib>
#include <cstring>

#include "tests/imgseq/RunTestSupport.h"
#include "imgseq/ImageFitting.h"

using namespace zub;
using namespace zub::test;

namespace {

std::vector<std::uint8_t> Decode(const std::string& path, bool general)
{
    if (general) setenv("ZUBIMPORT_IMAGING_GENERAL_ONLY", "1", 1);
    else unsetenv("ZUBIMPORT_IMAGING_GENERAL_ONLY");
    Image img;
    std::string err;
    const bool ok = ReadImageFile(path, img, &err);
    unsetenv("ZUBIMPORT_IMAGING_GENERAL_ONLY");
    if (!ok) {
        ADD_FAILURE() << err;
        return {};
    }
    return {img.Data(), img.Data() + std::size_t(img.BytesPerRow()) * img.Height()};
}

std::string Make(const std::string& dir, const std::string& name, const std::vector<std::string>& options)
{
    const std::string out = dir + name;
    std::vector<std::string> args = {"ffmpeg", "-nostdin", "-loglevel", "error", "-y", "-f", "lavfi", "-i",
                                     "testsrc2=size=333x201,format=rgba,geq=r='r(X,Y)':g='g(X,Y)':b='b(X,Y)':a='X+Y'",
                                     "-frames:v", "1"};
    args.insert(args.end(), options.begin(), options.end());
    args.push_back(out);
    EXPECT_EQ(zub::test::Run(args), 0) << name;
    return out;
}

}  // namespace

TEST(FastStills, TgaInEveryLayoutReadsAsTheOtherDecodersReadIt)
{
    TempDir dir;
    const std::string d = dir.Path().string() + "/";
    const std::vector<std::pair<std::string, std::vector<std::string>>> cases = {
        {"rgb-rle.tga", {"-pix_fmt", "bgr24"}},
        {"rgb-raw.tga", {"-pix_fmt", "bgr24", "-rle", "0"}},
        {"rgba-rle.tga", {"-pix_fmt", "bgra"}},
        {"rgba-raw.tga", {"-pix_fmt", "bgra", "-rle", "0"}},
        {"grey.tga", {"-pix_fmt", "gray"}},  // not taken by the direct reader
    };
    for (const auto& [name, options] : cases) {
        SCOPED_TRACE(name);
        const std::string path = Make(d, name, options);
        const auto fast = Decode(path, false);
        const auto general = Decode(path, true);
        ASSERT_EQ(fast.size(), std::size_t(333) * 201 * 4);
        EXPECT_EQ(fast, general);
        const std::string ff = Capture("ffmpeg -v error -i " + Quote(path) + " -f rawvideo -pix_fmt bgra -");
        EXPECT_EQ(fast, std::vector<std::uint8_t>(ff.begin(), ff.end()));
    }
}

TEST(FastStills, JpegReadsAsTheGeneralReaderReadsIt)
{
    TempDir dir;
    const std::string d = dir.Path().string() + "/";
    const std::vector<std::pair<std::string, std::vector<std::string>>> cases = {
        {"420.jpg", {"-pix_fmt", "yuvj420p", "-q:v", "3"}},
        {"422.jpg", {"-pix_fmt", "yuvj422p", "-q:v", "3"}},
        {"444.jpg", {"-pix_fmt", "yuvj444p", "-q:v", "3"}},
        {"grey.jpg", {"-pix_fmt", "gray", "-q:v", "3"}},
    };
    for (const auto& [name, options] : cases) {
        SCOPED_TRACE(name);
        const std::string path = Make(d, name, options);
        const auto fast = Decode(path, false);
        const auto general = Decode(path, true);
        ASSERT_EQ(fast.size(), std::size_t(333) * 201 * 4);
        EXPECT_EQ(fast, general);
    }
}

TEST(FastStills, DamagedTgaIsRefusedWithTheFileNamed)
{
    TempDir dir;
    const std::string path = Make(dir.Path().string() + "/", "cut.tga", {"-pix_fmt", "bgr24", "-rle", "0"});
    std::filesystem::resize_file(path, 5000);
    Image img;
    std::string err;
    EXPECT_FALSE(ReadImageFile(path, img, &err));
    EXPECT_NE(err.find(path), std::string::npos) << err;
    EXPECT_NE(err.find("cut short"), std::string::npos) << err;
}

// Splitting into planes and joining again is exact at any width, with alpha that varies and
// with alpha that is opaque throughout (whose plane is not scaled at all).
TEST(FastStills, PlaneSplitKeepsEveryByteAtAnyWidth)
{
    for (int w : {1, 15, 16, 17, 33, 250}) {
        for (bool opaque : {false, true}) {
            SCOPED_TRACE(std::to_string(w) + (opaque ? " opaque" : " varied alpha"));
            Image img;
            ASSERT_TRUE(img.Allocate(w, 7, 32));
            for (int y = 0; y < 7; ++y)
                for (int x = 0; x < w; ++x) {
                    std::uint8_t* p = img.Row(y) + 4 * x;
                    p[0] = std::uint8_t(x * 7 + y);
                    p[1] = std::uint8_t(x * 13 + 3 * y);
                    p[2] = std::uint8_t(x * 29 + 5 * y);
                    p[3] = opaque ? 255 : std::uint8_t(x == w - 1 && y == 6 ? 254 : 255 - x % 3);
                }
            const std::vector<std::uint8_t> before(img.Data(), img.Data() + std::size_t(img.BytesPerRow()) * 7);
            std::string err;
            ASSERT_TRUE(ResizeImage(img, w, 7, kResizeNearest, &err)) << err;
            EXPECT_EQ(std::vector<std::uint8_t>(img.Data(), img.Data() + std::size_t(img.BytesPerRow()) * 7), before);
            // Scaled down, an opaque picture stays opaque and a see-through one does not.
            ASSERT_TRUE(ResizeImage(img, std::max(1, w / 2), 3, kResizeBiCubic, &err)) << err;
            bool allOpaque = true;
            for (int y = 0; y < img.Height(); ++y)
                for (int x = 0; x < img.Width(); ++x) allOpaque &= img.Row(y)[4 * x + 3] == 255;
            if (opaque || w > 2) {
                EXPECT_EQ(allOpaque, opaque);
            }
        }
    }
}

// Run-length packets that carry on from one row into the next (ffmpeg never writes them, other
// programs do), in both row orders and both depths.
TEST(FastStills, RunLengthPacketsCrossingRowsReadAsTheGeneralReaderReadsThem)
{
    TempDir dir;
    for (int depth : {24, 32}) {
        for (bool topDown : {false, true}) {
            SCOPED_TRACE(std::to_string(depth) + (topDown ? " top-down" : " bottom-up"));
            const int w = 5, h = 4, bpp = depth / 8;
            std::string f(18, '\0');
            f[2] = 10;
            f[12] = char(w);
            f[14] = char(h);
            f[16] = char(depth);
            f[17] = char((depth == 32 ? 8 : 0) | (topDown ? 0x20 : 0));
            auto pixel = [&](int i) {
                std::string p = {char(10 * i), char(100 + i), char(200 - i)};
                if (bpp == 4) p += char(128 + i);
                return p;
            };
            // 7 raw pixels (row 0 and two of row 1), a run of 9 (rest of row 1, all of row 2,
            // one of row 3), 4 raw pixels.
            f += char(6);
            for (int i = 0; i < 7; ++i) f += pixel(i);
            f += char(0x80 | 8);
            f += pixel(50);
            f += char(3);
            for (int i = 0; i < 4; ++i) f += pixel(60 + i);
            const std::string path = dir / ("x" + std::to_string(depth) + (topDown ? "t" : "b") + ".tga");
            std::ofstream(path, std::ios::binary) << f;
            const auto fast = Decode(path, false);
            const auto general = Decode(path, true);
            ASSERT_EQ(fast.size(), std::size_t(w) * h * 4);
            EXPECT_EQ(fast, general);
            const std::string ff = Capture("ffmpeg -v error -i " + Quote(path) + " -f rawvideo -pix_fmt bgra -");
            EXPECT_EQ(fast, std::vector<std::uint8_t>(ff.begin(), ff.end()));

            // Resized, the file goes straight into the scaler's planes: the frame must be the
            // packed picture resized, byte for byte.
            const std::int32_t word = MakeFitWord(kFitStretchAll, kAreaSafeImage, kResizeBiLinear);
            FrameHolder planar, packed;
            Image img;
            std::string e;
            ASSERT_TRUE(LoadFrame(path, word, false, false, {720, 486}, planar, &e)) << e;
            ASSERT_TRUE(ReadImageFile(path, img, &e) && PrepareImage(img, word, false, false, {720, 486}, &e) &&
                        PackFrame(img, packed, &e))
                << e;
            ASSERT_EQ(planar.BlockSize(), packed.BlockSize());
            EXPECT_EQ(std::memcmp(planar.Block(), packed.Block(), planar.BlockSize()), 0);
        }
    }
}

// LoadFrame without field operations decodes and resizes in one step, and may decode a
// shrinking JPEG at a reduced size in the DCT domain. These tests hold that route against the
// plain one (full decode, then the fit with its filter: ReadImageFile + PrepareImage +
// PackFrame): exactly equal wherever no reduction applies, and, where one does, judged by
// ffmpeg's psnr filter on pictures it generated.
#include <gtest/gtest.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <regex>
#include <string>
#include <vector>

#include "imgseq/ImageFitting.h"
#include "tests/imgseq/ImgseqTestSupport.h"
#include "TempDir.h"
#include "Tool.h"

using namespace zub;

namespace {

constexpr FrameSize kNtsc{720, 486};

// One still made by ffmpeg from a lavfi source, in the format its extension says.
std::string MakeStill(const zub::test::TempDir& dir, const std::string& name, const std::string& source,
                      const std::vector<std::string>& extra = {})
{
    std::vector<std::string> args = {"ffmpeg", "-nostdin", "-loglevel", "error", "-y", "-f", "lavfi", "-i", source,
                                     "-frames:v", "1"};
    args.insert(args.end(), extra.begin(), extra.end());
    args.push_back(dir / name);
    EXPECT_EQ(zub::test::Run(args), 0) << source;
    return dir / name;
}

// The plain route: the whole picture decoded, then shifted/swapped/fitted/packed.
bool FullRoute(const std::string& path, std::int32_t word, FrameHolder& frame, std::string* error)
{
    Image image;
    return ReadImageFile(path, image, error) && PrepareImage(image, word, false, false, kNtsc, error) &&
           PackFrame(image, frame, error);
}

bool SameFrame(const FrameHolder& a, const FrameHolder& b)
{
    return a.BlockSize() == b.BlockSize() && std::memcmp(a.Block(), b.Block(), a.BlockSize()) == 0;
}

void WriteRaw(const std::string& path, const FrameHolder& f)
{
    std::ofstream o(path, std::ios::binary);
    o.write(reinterpret_cast<const char*>(f.Pixels()), static_cast<std::streamsize>(f.BlockSize() - 40));
}

// ffmpeg's PSNR of the colour of two frames (alpha left out), in dB; -1 when it says nothing.
double FfmpegPsnr(const zub::test::TempDir& dir, const FrameHolder& a, const FrameHolder& b)
{
    WriteRaw(dir / "a.bgra", a);
    WriteRaw(dir / "b.bgra", b);
    const std::string size = std::to_string(a.Header()->biWidth) + "x" + std::to_string(a.Header()->biHeight);
    const std::string out = zub::test::Capture(
        "ffmpeg -nostdin -hide_banner -f rawvideo -pix_fmt bgra -s " + size + " -i '" + (dir / "a.bgra") +
        "' -f rawvideo -pix_fmt bgra -s " + size + " -i '" + (dir / "b.bgra") +
        "' -lavfi '[0]format=gbrp[x];[1]format=gbrp[y];[x][y]psnr' -f null - 2>&1");
    std::smatch m;
    if (!std::regex_search(out, m, std::regex("average:([0-9.]+|inf)"))) return -1;
    return m[1] == "inf" ? 1000 : std::atof(m[1].str().c_str());
}

}  // namespace

// Everything that is not a JPEG decodes at full size and is resized by the same scaler, so
// the one-step route must give the very bytes of the plain one, in every kind of fit.
TEST(ScaledDecode, OtherFormatsGiveExactlyThePlainRoute)
{
    zub::test::TempDir dir;
    const std::string src = "testsrc2=size=1000x700";
    const std::vector<std::string> files = {
        MakeStill(dir, "rle.tga", src),
        MakeStill(dir, "alpha.tga", src + ",format=rgba,geq=r='r(X,Y)':g='g(X,Y)':b='b(X,Y)':a='X/4'"),
        MakeStill(dir, "raw.tga", src, {"-rle", "0"}),
        MakeStill(dir, "rawalpha.tga", src + ",format=rgba,geq=r='r(X,Y)':g='g(X,Y)':b='b(X,Y)':a='Y/3'", {"-rle", "0"}),
        MakeStill(dir, "opaque.tga", src + ",format=rgba", {"-rle", "0"}),
        // Smaller than the frame, exactly the Safe Title target, exactly the frame.
        MakeStill(dir, "small.tga", "testsrc2=size=300x200"),
        MakeStill(dir, "title.bmp", "testsrc2=size=576x388"),
        MakeStill(dir, "frame.tga", "testsrc2=size=720x486"),
        MakeStill(dir, "plain.bmp", src),
        MakeStill(dir, "plain.tif", src),
    };
    const std::int32_t words[] = {
        MakeFitWord(kFitAll, kAreaNormal, kResizeBiCubic),      MakeFitWord(kFitAll, kAreaSafeTitle, kResizeBiLinear),
        MakeFitWord(kFitStretchAll, kAreaNormal, kResizeNearest), MakeFitWord(kFitHeight, kAreaSafeImage, kResizeBiCubic),
        MakeFitWord(kFitWidth, kAreaNormal, kResizeBiLinear),    MakeFitWord(kFitStretchHeight, kAreaNormal, kResizeBiCubic),
        MakeFitWord(kFitStretchWidth, kAreaSafeTitle, kResizeNearest), MakeFitWord(kFitCenter, kAreaNormal, kResizeBiCubic),
        MakeFitWord(kFitLowerRight, kAreaSafeImage, kResizeNearest),
        MakeFitWord(kFitUpperRight, kAreaSafeTitle, kResizeBiCubic), MakeFitWord(kFitLowerLeft, kAreaNormal, kResizeBiCubic),
    };
    for (const auto& file : files)
        for (const std::int32_t word : words) {
            FrameHolder plain, oneStep;
            std::string e1, e2;
            ASSERT_TRUE(FullRoute(file, word, plain, &e1)) << e1;
            ASSERT_TRUE(LoadFrame(file, word, false, false, kNtsc, oneStep, &e2)) << e2;
            EXPECT_TRUE(SameFrame(plain, oneStep)) << file << " fit word " << word;
        }
}

// A 1080p JPEG shrunk into 720 x 486 with a smoothing filter is decoded at 960 x 540: the
// frame must look the same as the full decode put through the same filter, and it must
// really be the reduced route (not byte-equal), or this test proves nothing.
TEST(ScaledDecode, ReducedJpegLooksLikeTheFullDecode)
{
    zub::test::TempDir dir;
    const std::string sources[] = {"mandelbrot=size=1920x1080", "testsrc=size=1920x1080"};
    int n = 0;
    for (const auto& source : sources) {
        const std::string file = MakeStill(dir, std::to_string(n++) + ".jpg", source, {"-q:v", "2"});
        for (const int method : {kResizeBiLinear, kResizeBiCubic}) {
            const std::int32_t word = MakeFitWord(kFitStretchAll, kAreaNormal, method);
            FrameHolder plain, oneStep;
            std::string e1, e2;
            ASSERT_TRUE(FullRoute(file, word, plain, &e1)) << e1;
            ASSERT_TRUE(LoadFrame(file, word, false, false, kNtsc, oneStep, &e2)) << e2;
            EXPECT_FALSE(SameFrame(plain, oneStep)) << source << ": the reduced decode was not taken";
            const double psnr = FfmpegPsnr(dir, plain, oneStep);
            EXPECT_GE(psnr, 40.0) << source << " method " << method;
            std::printf("%s, method %d: %.2f dB\n", source.c_str(), method, psnr);
        }
    }
}

// No reduction where half the size would fall below the target on either side, and none for
// a nearest-pixel shrink, which must pick pixels of the full picture: both byte-equal.
TEST(ScaledDecode, JpegIsNotReducedBelowTheTargetNorForNearest)
{
    zub::test::TempDir dir;
    // 1400 x 1080: half is 700 wide, under 720.
    const std::string narrow = MakeStill(dir, "narrow.jpg", "mandelbrot=size=1400x1080", {"-q:v", "2"});
    // 1920 x 900: half is 450 high, under 486.
    const std::string flat = MakeStill(dir, "flat.jpg", "mandelbrot=size=1920x900", {"-q:v", "2"});
    const std::string wide = MakeStill(dir, "wide.jpg", "mandelbrot=size=1920x1080", {"-q:v", "2"});
    struct Case {
        std::string file;
        std::int32_t word;
    } cases[] = {
        {narrow, MakeFitWord(kFitStretchAll, kAreaNormal, kResizeBiCubic)},
        {flat, MakeFitWord(kFitStretchAll, kAreaNormal, kResizeBiCubic)},
        {wide, MakeFitWord(kFitStretchAll, kAreaNormal, kResizeNearest)},
        {wide, MakeFitWord(kFitAll, kAreaSafeTitle, kResizeNearest)},
        // Crops take the picture's own pixels: never reduced.
        {wide, MakeFitWord(kFitCenter, kAreaNormal, kResizeBiCubic)},
    };
    for (const auto& c : cases) {
        FrameHolder plain, oneStep;
        std::string e1, e2;
        ASSERT_TRUE(FullRoute(c.file, c.word, plain, &e1)) << e1;
        ASSERT_TRUE(LoadFrame(c.file, c.word, false, false, kNtsc, oneStep, &e2)) << e2;
        EXPECT_TRUE(SameFrame(plain, oneStep)) << c.file << " fit word " << c.word;
    }
}

// The one-step route fails as the plain one does: the same messages for a bad fit word and a
// damaged file.
TEST(ScaledDecode, FailuresReadAsBefore)
{
    zub::test::TempDir dir;
    const std::string file = MakeStill(dir, "pic.jpg", "testsrc2=size=1920x1080");
    for (const std::int32_t word : {MakeFitWord(kFitAll, kAreaNormal, 3), MakeFitWord(11, kAreaNormal, 2),
                                    MakeFitWord(kFitAll, 3, kResizeBiCubic)}) {
        FrameHolder plain, oneStep;
        std::string e1, e2;
        Image image;
        ASSERT_TRUE(ReadImageFile(file, image, &e1)) << e1;
        EXPECT_FALSE(PrepareImage(image, word, false, false, kNtsc, &e1));
        EXPECT_FALSE(LoadFrame(file, word, false, false, kNtsc, oneStep, &e2));
        EXPECT_EQ(e2, file + ": " + e1);
    }
    // Cut in the middle of its entropy-coded data.
    std::ifstream in(file, std::ios::binary);
    std::string bytes((std::istreambuf_iterator<char>(in)), {});
    const std::string cut = dir / "cut.jpg";
    std::ofstream(cut, std::ios::binary).write(bytes.data(), static_cast<std::streamsize>(bytes.size() / 3));
    std::ofstream(dir / "junk.jpg", std::ios::binary) << "not a picture at all";
    for (const std::string& bad : {dir / "junk.jpg"}) {
        FrameHolder frame;
        std::string e1, e2;
        Image image;
        EXPECT_FALSE(ReadImageFile(bad, image, &e1));
        EXPECT_FALSE(LoadFrame(bad, MakeFitWord(kFitAll, kAreaNormal, kResizeBiCubic), false, false, kNtsc, frame, &e2));
        EXPECT_EQ(e1, e2);
        EXPECT_EQ(e2.rfind(bad + ": ", 0), 0u) << e2;
    }
    // A TGA cut short fails alike on both routes, with the file and the reason, whether it is
    // resized (read into planes) or kept at its size.
    const std::string tga = MakeStill(dir, "full.tga", "testsrc2=size=1000x700", {"-rle", "0"});
    std::ifstream tin(tga, std::ios::binary);
    std::string tgaBytes((std::istreambuf_iterator<char>(tin)), {});
    const std::string cutTga = dir / "cut.tga";
    std::ofstream(cutTga, std::ios::binary).write(tgaBytes.data(), static_cast<std::streamsize>(tgaBytes.size() / 2));
    for (const std::int32_t word : {MakeFitWord(kFitAll, kAreaNormal, kResizeBiCubic), MakeFitWord(kFitCenter, kAreaNormal, 0)}) {
        FrameHolder frame;
        std::string e1, e2;
        EXPECT_FALSE(FullRoute(cutTga, word, frame, &e1));
        EXPECT_FALSE(LoadFrame(cutTga, word, false, false, kNtsc, frame, &e2));
        EXPECT_EQ(e1, e2);
        EXPECT_EQ(e2, cutTga + ": the pixels are cut short");
    }
    // A truncated JPEG still gives a picture (libjpeg pads it) on both routes, alike in size.
    FrameHolder plain, oneStep;
    std::string e1, e2;
    const bool a = FullRoute(cut, MakeFitWord(kFitAll, kAreaNormal, kResizeBiCubic), plain, &e1);
    const bool b = LoadFrame(cut, MakeFitWord(kFitAll, kAreaNormal, kResizeBiCubic), false, false, kNtsc, oneStep, &e2);
    EXPECT_EQ(a, b) << e1 << " / " << e2;
    if (a && b) {
        EXPECT_EQ(plain.BlockSize(), oneStep.BlockSize());
    }
}

// The direct TGA and JPEG readers give the same pixels as the general reader (OpenImageIO)
// and, for TGA, as ffmpeg's decoder, on files written by ffmpeg in every layout they take.
#include <gtest/gtest.h>

#include <cmath>
#include <cstdlib>

#include "RunTestSupport.h"
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

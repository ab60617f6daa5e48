// The generator is only useful if an independent decoder (ffmpeg, sox) sees in its files what
// the generator promises: the codecs and sound formats asked for, and the frame numbers and
// tones that other areas' tests will look for.
#include <gtest/gtest.h>

#include <array>
#include <cmath>
#include <cstdio>
#include <cstring>
#include <filesystem>
#include <memory>
#include <string>
#include <vector>

#include "TempDir.h"
#include "TestMedia.h"
#include "Tool.h"

namespace zt = zub::testmedia;

namespace {


std::string Probe(const std::string& path, const std::string& entries, const std::string& stream = "")
{
    std::string out = zub::test::Capture("ffprobe -v error " + (stream.empty() ? "" : "-select_streams " + stream + " ") +
                          "-show_entries " + entries + " -of default=nw=1:nk=1 '" + path + "'");
    while (!out.empty() && (out.back() == '\n' || out.back() == '\r')) out.pop_back();
    return out;
}

// Every frame of a movie as ffmpeg decodes it, resized to w x h.
std::vector<std::vector<uint8_t>> DecodeFrames(const std::string& path, int w, int h, const char* pixFmt, int bpp)
{
    const std::string raw = zub::test::Capture("ffmpeg -v error -i '" + path + "' -fps_mode passthrough -f rawvideo -pix_fmt " + pixFmt + " -s " +
                                std::to_string(w) + "x" + std::to_string(h) + " -");
    std::vector<std::vector<uint8_t>> frames;
    const size_t size = static_cast<size_t>(w) * h * bpp;
    for (size_t off = 0; off + size <= raw.size(); off += size) frames.emplace_back(raw.begin() + off, raw.begin() + off + size);
    return frames;
}

std::vector<int16_t> DecodeSound(const std::string& path, int channels)
{
    const std::string raw = zub::test::Capture("ffmpeg -v error -i '" + path + "' -f s16le -ac " + std::to_string(channels) + " -");
    std::vector<int16_t> s(raw.size() / 2);
    std::memcpy(s.data(), raw.data(), s.size() * 2);
    return s;
}

struct Painted {
    std::vector<uint8_t> buf;
    zt::ImageView view;
};

Painted Paint(int w, int h, zt::PixelFormat f, int number, bool alpha, int pad = 0)
{
    Painted p;
    const std::ptrdiff_t stride = static_cast<std::ptrdiff_t>(w) * zt::BytesPerPixel(f) + pad;
    p.buf.assign(stride * h, 0xEE);
    zt::PaintFrame(p.buf.data(), w, h, stride, f, number, alpha);
    p.view = {p.buf.data(), w, h, stride, f};
    return p;
}

TEST(FrameCode, ReadsBackInEveryLayoutStrideAndOrientation)
{
    using F = zt::PixelFormat;
    for (F f : {F::Rgb24, F::Bgr24, F::Rgba32, F::Bgra32, F::Argb32, F::Bgrx32, F::Gray8}) {
        for (int number : {0, 1, 29, 1234, 65535}) {
            Painted p = Paint(97, 61, f, number, true, 5);
            EXPECT_EQ(zt::ReadFrameNumber(p.view), number) << static_cast<int>(f);
        }
    }
    // A bottom-up buffer read through the helper; read top-down by mistake it gives no number.
    Painted p = Paint(120, 90, F::Bgra32, 4321, false);
    std::vector<uint8_t> flipped(p.buf.size());
    const size_t row = 120 * 4;
    for (int y = 0; y < 90; ++y) std::memcpy(&flipped[(89 - y) * row], &p.buf[y * row], row);
    EXPECT_EQ(zt::ReadFrameNumber(zt::BottomUp(flipped.data(), 120, 90, row, F::Bgra32)), 4321);
    EXPECT_EQ(zt::ReadFrameNumber({flipped.data(), 120, 90, static_cast<std::ptrdiff_t>(row), F::Bgra32}), -1);
}

TEST(FrameCode, AlphaPlaneCarriesTheInvertedCodeAndThePlanesCannotBeConfused)
{
    Painted p = Paint(160, 120, zt::PixelFormat::Bgra32, 777, true);
    EXPECT_EQ(zt::ReadFrameNumber(p.view, zt::Plane::Alpha), 777);
    EXPECT_EQ(zt::ReadFrameNumber(p.view, zt::Plane::Luma), 777);
    // Alpha's code read as if it were luma (a key clip shown as grey) fails the check.
    std::vector<uint8_t> grey(160 * 120);
    for (size_t i = 0; i < grey.size(); ++i) grey[i] = p.buf[i * 4 + 3];
    EXPECT_EQ(zt::ReadFrameNumber({grey.data(), 160, 120, 160, zt::PixelFormat::Gray8}), -1);
    EXPECT_EQ(zt::ReadFrameNumber({grey.data(), 160, 120, 160, zt::PixelFormat::Gray8}, zt::Plane::Alpha), -1);
    // Without alpha painted, the alpha plane is opaque and holds no code.
    Painted opaque = Paint(160, 120, zt::PixelFormat::Bgra32, 777, false);
    EXPECT_EQ(zt::ReadFrameNumber(opaque.view, zt::Plane::Alpha), -1);
}

TEST(FrameCode, FindsThePictureInsideBlackBarsAndRejectsDamage)
{
    // A 4:3 picture letterboxed and pillarboxed inside a bigger black frame.
    for (auto [ox, oy, w, h] : {std::array<int, 4>{40, 0, 240, 180}, std::array<int, 4>{0, 30, 320, 180}}) {
        std::vector<uint8_t> frame(320 * 240 * 3, 0);
        zt::PaintFrame(frame.data() + (oy * 320 + ox) * 3, w, h, 320 * 3, zt::PixelFormat::Rgb24, 4242, false);
        EXPECT_EQ(zt::ReadFrameNumber({frame.data(), 320, 240, 320 * 3, zt::PixelFormat::Rgb24}), 4242);
    }
    // Any one cell flipped is caught by the check.
    Painted p = Paint(200, 100, zt::PixelFormat::Gray8, 0x5A5A, false);
    for (int cell = 0; cell < 20; ++cell) {
        std::vector<uint8_t> copy = p.buf;
        const int col = cell % 10, rowIndex = cell / 10;
        const int cx = static_cast<int>((0.10 + 0.08 * col + 0.04) * 200);
        const int cy = static_cast<int>((0.35 + 0.25 * rowIndex + 0.125) * 100);
        const uint8_t v = copy[cy * 200 + cx] > 128 ? 0 : 255;
        for (int y = cy - 6; y <= cy + 6; ++y)
            for (int x = cx - 4; x <= cx + 4; ++x) copy[y * 200 + x] = v;
        EXPECT_EQ(zt::ReadFrameNumber({copy.data(), 200, 100, 200, zt::PixelFormat::Gray8}), -1) << cell;
    }
    std::vector<uint8_t> black(64 * 64 * 3, 0);
    EXPECT_EQ(zt::ReadFrameNumber({black.data(), 64, 64, 64 * 3, zt::PixelFormat::Bgr24}), -1);
}

struct MovieCase {
    const char* preset;
    const char* videoCodec;  // as ffprobe names it; "" for none
    const char* soundTag;    // ffprobe's codec_tag_string or codec name; "" for none
    bool alpha;
};

void PrintTo(const MovieCase& c, std::ostream* os) { *os << c.preset; }

class Presets : public ::testing::TestWithParam<MovieCase> {};

TEST_P(Presets, IndependentDecoderSeesCodecsFrameNumbersAndTone)
{
    const MovieCase& c = GetParam();
    zub::test::TempDir dir;
    std::string error;
    const std::string path = zt::MakePreset(dir.Path().string(), c.preset, &error);
    ASSERT_FALSE(path.empty()) << error;
    zt::MediaSpec spec;
    ASSERT_TRUE(zt::Preset(c.preset, &spec));

    if (*c.videoCodec) {
        EXPECT_EQ(Probe(path, "stream=codec_name", "v:0"), c.videoCodec);
        // Decoded by ffmpeg and shrunk to another aspect, every frame still reads back, in order.
        const int bpp = c.alpha ? 4 : 3;
        const auto frames = DecodeFrames(path, 200, 150, c.alpha ? "bgra" : "bgr24", bpp);
        ASSERT_EQ(static_cast<int>(frames.size()), spec.frames);
        for (int i = 0; i < spec.frames; ++i) {
            zt::ImageView v{frames[i].data(), 200, 150, 200 * bpp, c.alpha ? zt::PixelFormat::Bgra32 : zt::PixelFormat::Bgr24};
            EXPECT_EQ(zt::ReadFrameNumber(v), i) << "frame " << i;
            if (c.alpha) {
                EXPECT_EQ(zt::ReadFrameNumber(v, zt::Plane::Alpha), i) << "alpha of frame " << i;
            }
        }
        std::array<std::array<int, 3>, 3> patches{};
        zt::ImageView first{frames[0].data(), 200, 150, 200 * bpp, c.alpha ? zt::PixelFormat::Bgra32 : zt::PixelFormat::Bgr24};
        ASSERT_TRUE(zt::ReadPatchColours(first, &patches));
        for (int p = 0; p < 3; ++p)
            for (int ch = 0; ch < 3; ++ch) {
                if (p == ch) {
                    EXPECT_GT(patches[p][ch], 200) << c.preset << " patch " << p;
                } else {
                    EXPECT_LT(patches[p][ch], 60) << c.preset << " patch " << p;
                }
            }
    } else {
        EXPECT_EQ(Probe(path, "stream=codec_type", "v"), "");
    }

    if (*c.soundTag) {
        const std::string tag = Probe(path, "stream=codec_tag_string", "a:0");
        const std::string name = Probe(path, "stream=codec_name", "a:0");
        EXPECT_TRUE(tag == c.soundTag || name == c.soundTag) << tag << " / " << name;
        EXPECT_EQ(Probe(path, "stream=sample_rate", "a:0"), std::to_string(spec.sampleRate));
        EXPECT_EQ(Probe(path, "stream=channels", "a:0"), std::to_string(spec.channels));
        const std::vector<int16_t> pcm = DecodeSound(path, spec.channels);
        const size_t frames = pcm.size() / spec.channels;
        ASSERT_GT(frames, static_cast<size_t>(spec.sampleRate / 2));
        // Lossy codecs delay and smear the start: measure the middle.
        const size_t from = frames / 4, count = frames / 2;
        for (int ch = 0; ch < spec.channels; ++ch) {
            const zt::ToneAnalysis t = zt::AnalyzeTone(pcm.data() + from * spec.channels, count, spec.channels, ch,
                                                       spec.sampleRate, spec.toneHz);
            EXPECT_NEAR(t.amplitude, spec.toneLevel, 0.03) << c.preset << " channel " << ch;
            EXPECT_GT(t.snrDb, 25.0) << c.preset << " channel " << ch;
        }
    } else {
        EXPECT_EQ(Probe(path, "stream=codec_type", "a"), "");
    }
}

INSTANTIATE_TEST_SUITE_P(
    Movies, Presets,
    ::testing::Values(MovieCase{"mp4_h264_aac", "h264", "mp4a", false}, MovieCase{"mp4_mpeg4_aac", "mpeg4", "mp4a", false},
                      MovieCase{"mkv_h264_vorbis", "h264", "vorbis", false},
                      MovieCase{"avi_mpeg4_pcm", "mpeg4", "pcm_s16le", false},
                      MovieCase{"avi_mjpeg_pcm", "mjpeg", "pcm_s16le", false},
                      MovieCase{"avi_raw_pcm", "rawvideo", "pcm_s16le", false},
                      MovieCase{"mpg_mpeg2_mp2", "mpeg2video", "mp2", false},
                      MovieCase{"mov_twos", "h264", "twos", false}, MovieCase{"mov_sowt", "h264", "sowt", false},
                      MovieCase{"mov_raw8", "h264", "raw ", false}, MovieCase{"mov_twos8", "h264", "twos", false},
                      MovieCase{"mov_ima4", "mjpeg", "ima4", false}, MovieCase{"mov_aac", "mpeg4", "mp4a", false},
                      MovieCase{"mov_sound_only", "", "twos", false}, MovieCase{"mov_no_sound", "h264", "", false},
                      MovieCase{"mov_qtrle_alpha", "qtrle", "sowt", true}, MovieCase{"mov_png_alpha", "png", "", true},
                      MovieCase{"mov_prores4444", "prores", "", true}),
    [](const ::testing::TestParamInfo<MovieCase>& i) { return std::string(i.param.preset); });

TEST(Wave, SoxReadsFormatAndTheToneIsWhereItShouldBe)
{
    zub::test::TempDir dir;
    struct Case {
        int bits, rate, channels;
        double hz, level;
    };
    for (const Case& c : {Case{8, 22050, 1, 440, 0.8}, Case{8, 44100, 2, 1000, 0.5}, Case{16, 48000, 1, 997, 0.25},
                          Case{16, 32000, 2, 3000, 0.9}}) {
        const std::string path = dir / ("t" + std::to_string(c.bits) + "_" + std::to_string(c.rate) + ".wav");
        std::string error;
        ASSERT_TRUE(zt::MakeWave(path, c.bits, c.rate, c.channels, 0.5, c.hz, c.level, &error)) << error;
        EXPECT_EQ(zub::test::Capture("soxi -r '" + path + "'"), std::to_string(c.rate) + "\n");
        EXPECT_EQ(zub::test::Capture("soxi -c '" + path + "'"), std::to_string(c.channels) + "\n");
        EXPECT_EQ(zub::test::Capture("soxi -b '" + path + "'"), std::to_string(c.bits) + "\n");
        EXPECT_EQ(zub::test::Capture("soxi -s '" + path + "'"), std::to_string(c.rate / 2) + "\n");
        const std::string raw = zub::test::Capture("sox '" + path + "' -t raw -e signed -b 16 -");
        std::vector<int16_t> pcm(raw.size() / 2);
        std::memcpy(pcm.data(), raw.data(), pcm.size() * 2);
        ASSERT_EQ(pcm.size(), static_cast<size_t>(c.rate / 2 * c.channels));
        for (int ch = 0; ch < c.channels; ++ch) {
            const zt::ToneAnalysis t = zt::AnalyzeTone(pcm.data(), pcm.size() / c.channels, c.channels, ch, c.rate, c.hz);
            EXPECT_NEAR(t.amplitude, c.level, 0.01);
            EXPECT_NEAR(t.phase, 0.0, 0.05);  // starts at phase 0, so resampler delay is measurable
            EXPECT_GT(t.snrDb, c.bits == 8 ? 35.0 : 70.0);
            // The fit is specific: a neighbouring frequency finds little of the tone.
            EXPECT_LT(zt::AnalyzeTone(pcm.data(), pcm.size() / c.channels, c.channels, ch, c.rate, c.hz * 1.1).amplitude,
                      c.level * 0.2);
        }
    }
}

TEST(Generator, UnknownRateFileHasNoStoredRate)
{
    zub::test::TempDir dir;
    std::string error;
    const std::string path = zt::MakePreset(dir.Path().string(), "mkv_unknown_rate", &error);
    ASSERT_FALSE(path.empty()) << error;
    EXPECT_EQ(Probe(path, "stream=avg_frame_rate", "v:0"), "0/0");
    EXPECT_EQ(DecodeFrames(path, 64, 48, "gray", 1).size(), 30u);
}

// Grain is what makes a benchmark's stream cost what a camera's does: ffmpeg must still read
// every frame's number through it, it must change from frame to frame (still noise would cost
// nothing to code), and the same spec must make the same file.
TEST(Generator, GrainKeepsTheFrameNumbersMovesEveryFrameAndRepeats)
{
    zub::test::TempDir dir;
    zt::MediaSpec spec;
    spec.width = 320;
    spec.height = 240;
    spec.frames = 6;
    spec.video = zt::VideoCodec::H264;
    std::string error;
    const std::string clean = dir / "clean.mp4", grain = dir / "grain.mp4", again = dir / "again.mp4";
    ASSERT_TRUE(zt::MakeMedia(clean, spec, &error)) << error;
    spec.grain = 12;
    ASSERT_TRUE(zt::MakeMedia(grain, spec, &error)) << error;
    ASSERT_TRUE(zt::MakeMedia(again, spec, &error)) << error;

    const auto frames = DecodeFrames(grain, 320, 240, "gray", 1);
    ASSERT_EQ(frames.size(), 6u);
    for (int i = 0; i < 6; ++i) {
        zt::ImageView v{frames[i].data(), 320, 240, 320, zt::PixelFormat::Gray8};
        EXPECT_EQ(zt::ReadFrameNumber(v), i) << "frame " << i;
    }
    // Between two frames most samples differ, and by about what the grain allows.
    const auto cleanFrames = DecodeFrames(clean, 320, 240, "gray", 1);
    ASSERT_EQ(cleanFrames.size(), 6u);
    int moved = 0;
    double spread = 0;
    for (std::size_t k = 0; k < frames[2].size(); ++k) {
        const int d = frames[2][k] - cleanFrames[2][k];
        moved += frames[2][k] != frames[3][k];
        spread += d * d;
    }
    EXPECT_GT(moved, static_cast<int>(frames[2].size() * 3 / 4));
    const double rms = std::sqrt(spread / frames[2].size());
    EXPECT_GT(rms, 3.0);
    EXPECT_LT(rms, 12.0);
    EXPECT_GT(std::filesystem::file_size(grain), 4 * std::filesystem::file_size(clean));
    EXPECT_EQ(zub::test::Capture("cmp '" + grain + "' '" + again + "' && echo same"), "same\n");
}

TEST(Generator, FailuresNameTheFileAndLeaveNothing)
{
    zub::test::TempDir dir;
    std::string error;
    const std::string noFolder = dir / "missing/x.mp4";
    EXPECT_FALSE(zt::MakeMedia(noFolder, zt::MediaSpec{}, &error));
    EXPECT_NE(error.find(noFolder), std::string::npos) << error;

    // MPEG-2 cannot code 7 frames per second: the encoder refuses after the file was named.
    zt::MediaSpec bad;
    bad.video = zt::VideoCodec::Mpeg2;
    bad.fpsNum = 7;
    const std::string path = dir / "bad.mpg";
    error.clear();
    EXPECT_FALSE(zt::MakeMedia(path, bad, &error));
    EXPECT_NE(error.find("bad.mpg"), std::string::npos) << error;
    EXPECT_FALSE(std::filesystem::exists(path));

    zt::MediaSpec nothing;
    nothing.video = zt::VideoCodec::None;
    EXPECT_FALSE(zt::MakeMedia(dir / "n.mov", nothing, &error));
    EXPECT_TRUE(zt::MakePreset(dir.Path().string(), "no_such_recipe", &error).empty());
    EXPECT_FALSE(zt::MakeWave(dir / "w.wav", 24, 48000, 2, 1.0, 1000, 0.5, &error));
    EXPECT_TRUE(std::filesystem::is_empty(dir.Path()));
}

}  // namespace

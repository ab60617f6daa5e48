// Reader-level checks of what the conversion relies on beyond decoding: downmix levels,
// sound starting with the picture, variable frame rate, rotation, aspect and timecode.
#include <gtest/gtest.h>

#include <cstdlib>
#include <filesystem>

#include "tests/formats/FormatSupport.h"
#include "TempDir.h"
#include "TestMedia.h"

namespace zub::formats {
namespace {

namespace tm = zub::testmedia;

TEST(SourceFacts, UncompressedSoundLengthIsExactInEveryContainer)
{
    test::TempDir dir;
    for (const char* ext : {".wav", ".aiff", ".mov"}) {
        const std::string path = dir / (std::string("tone") + ext);
        const char* codec = std::string(ext) == ".wav" ? "pcm_s16le" : "pcm_s16be";
        ASSERT_EQ(Ffmpeg("-f lavfi -i sine=frequency=1000:sample_rate=48000:duration=1.5 -ac 2 -c:a " + std::string(codec) +
                         " '" + path + "'"),
                  "");
        AudioFacts facts;
        std::string why;
        ASSERT_TRUE(ReadAudioFacts(path, &facts, &why)) << why;
        EXPECT_EQ(facts.samples, 72000) << ext;
        EXPECT_EQ(facts.startSkip, 0) << ext;
        EXPECT_EQ(facts.rate, 48000);
        EXPECT_EQ(facts.channels, 2);
    }
}

// A transport stream has no index: its picture's frames and its sound's length come from one
// walk through its packets, and must agree with what ffmpeg decodes. The reading is kept for
// the next reader of the same file, but not once the file has been replaced.
TEST(SourceFacts, PictureSoundAndTapeComeFromOneReadingThatAChangedFileRenews)
{
    test::TempDir dir;
    const std::string path = dir / "camera.ts";
    const auto make = [&](int rate, double seconds) {
        const std::string d = std::to_string(seconds);
        return Ffmpeg("-f lavfi -i testsrc2=size=320x240:rate=" + std::to_string(rate) + ":duration=" + d +
                      " -f lavfi -i sine=frequency=1000:sample_rate=48000:duration=" + d +
                      " -c:v mpeg2video -c:a mp2 -f mpegts '" + path + "'");
    };
    for (const auto& [rate, seconds] : {std::pair{25, 2.0}, std::pair{30, 3.0}}) {
        SCOPED_TRACE(rate);
        ASSERT_EQ(make(rate, seconds), "");
        VideoFacts video;
        AudioFacts audio;
        std::string why, tape, timecode;
        ASSERT_TRUE(ReadVideoFacts(path, &video, &why)) << why;
        ASSERT_TRUE(ReadAudioFacts(path, &audio, &why)) << why;
        ASSERT_TRUE(ReadTapeAndTimecode(path, &tape, &timecode, &why)) << why;
        EXPECT_EQ(video.frames, ProbeFrames(path));
        EXPECT_EQ(video.frames, static_cast<std::int64_t>(rate * seconds));
        EXPECT_EQ(video.rateNum, rate);
        EXPECT_EQ(video.rateDen, 1);
        EXPECT_FALSE(video.variableRate);
        EXPECT_EQ(audio.rate, 48000);
        EXPECT_EQ(audio.samples, FfmpegSoundFrames(path));
        EXPECT_NEAR(static_cast<double>(audio.samples), 48000 * seconds, 1152);  // whole 1152-sample blocks
        EXPECT_EQ(video.container, "mpegts");
        EXPECT_EQ(audio.codec, "mp2");
    }
}

// Six channels, a distinct tone each (FL, FR, FC, LFE, SL, SR), in a lossless file and in
// the surround codecs editors receive. The channels are mapped by name: left to guess, the
// joining filter puts the first (mono, hence "centre") input on the centre.
class Downmix : public ::testing::TestWithParam<const char*> {};

TEST_P(Downmix, SurroundBecomesStereoWithCentreAndSurroundsAtMinusThreeDecibels)
{
    test::TempDir dir;
    const std::string codec = GetParam();
    if (!HaveEncoder(codec)) GTEST_SKIP() << "this ffmpeg has no " << codec << " encoder";
    const double hz[6] = {500, 700, 1100, 150, 1300, 1700};
    std::string in;
    for (double f : hz) in += "-f lavfi -i sine=frequency=" + std::to_string(f) + ":sample_rate=48000:duration=2 ";
    const std::string ext = codec == "flac" ? ".flac" : codec == "aac" ? ".m4a" : "." + codec;
    const std::string path = dir / ("surround" + ext);
    ASSERT_EQ(Ffmpeg(in + "-filter_complex \"join=inputs=6:channel_layout=5.1(side):"
                          "map=0.0-FL|1.0-FR|2.0-FC|3.0-LFE|4.0-SL|5.0-SR\" -c:a " + codec + " -b:a 640k '" + path + "'"),
              "");
    CGraphAudioReader reader;
    std::string error;
    ASSERT_TRUE(WriteGraphWave(path, dir / "out.wav", &reader, &error)) << error;
    EXPECT_EQ(reader.Channels(), 6);
    EXPECT_EQ(reader.OutputChannels(), 2);
    Wave w;
    ASSERT_TRUE(ReadWave(dir / "out.wav", &w, &error)) << error;
    ASSERT_EQ(w.channels, 2);
    ASSERT_EQ(w.bits, 16);
    const double peak = 0.125;  // ffmpeg's sine source
    auto level = [&](int channel, double f) {
        return tm::AnalyzeTone(w.samples.data(), static_cast<std::size_t>(w.Frames()), 2, channel, w.rate, f).amplitude / peak;
    };
    const double g = 0.7071;
    EXPECT_NEAR(level(0, 500), 1.0, 0.02);
    EXPECT_NEAR(level(1, 700), 1.0, 0.02);
    EXPECT_LT(level(0, 700), 0.01);
    EXPECT_LT(level(1, 500), 0.01);
    EXPECT_NEAR(level(0, 1100), g, 0.02);
    EXPECT_NEAR(level(1, 1100), g, 0.02);
    EXPECT_NEAR(level(0, 1300), g, 0.02);
    EXPECT_LT(level(1, 1300), 0.01);
    EXPECT_NEAR(level(1, 1700), g, 0.02);
    EXPECT_LT(level(0, 1700), 0.01);
    EXPECT_LT(level(0, 150), 0.01) << "LFE left out";
    EXPECT_LT(level(1, 150), 0.01) << "LFE left out";
}

INSTANTIATE_TEST_SUITE_P(Codecs, Downmix, ::testing::Values("flac", "ac3", "aac"));

// A click at 0.5 s in the source is at 0.5 s in what the reader writes: priming removed.
TEST(Priming, SoundStartsWithThePictureAndKeepsItsLength)
{
    test::TempDir dir;
    const std::string click = dir / "click.wav";
    ASSERT_EQ(Ffmpeg("-f lavfi -i \"aevalsrc=exprs='if(between(t\\,0.5\\,0.501)\\,0.8\\,0)':s=48000:d=2\" -ac 2 '" + click + "'"), "");
    for (const char* ext : {".m4a", ".mp3"}) {
        SCOPED_TRACE(ext);
        const std::string path = dir / (std::string("click") + ext);
        ASSERT_EQ(Ffmpeg("-i '" + click + "' -c:a " + (std::string(ext) == ".mp3" ? "libmp3lame" : "aac") + " '" + path + "'"), "");
        CGraphAudioReader reader;
        std::string error;
        const std::string out = dir / (std::string("out") + ext + ".wav");
        ASSERT_TRUE(WriteGraphWave(path, out, &reader, &error)) << error;
        Wave w;
        ASSERT_TRUE(ReadWave(out, &w, &error)) << error;
        ASSERT_EQ(w.rate, 48000);
        std::int64_t at = -1;
        for (std::int64_t i = 0; i < w.Frames(); ++i) {
            if (w.samples[static_cast<std::size_t>(i * w.channels)] > 16000) {
                at = i;
                break;
            }
        }
        EXPECT_NEAR(static_cast<double>(at) / w.rate, 0.5, 0.001);
        EXPECT_NEAR(static_cast<double>(w.Frames()) / w.rate, 2.0, 1.0 / 30);
    }
}

// 30 frames at 30 fps, then 30 at 15 fps: 2.97 s.
TEST(VariableRate, ConformedByTimestampsOrDeliveredAsIs)
{
    test::TempDir dir;
    const std::string path = dir / "vfr.mp4";
    ASSERT_EQ(Ffmpeg("-f lavfi -i testsrc2=size=160x120:rate=30:duration=2 -vf \"setpts='if(lt(N,30),N/30,1+(N-30)/15)/TB'\" "
                     "-fps_mode passthrough -c:v libx264 -preset ultrafast -video_track_timescale 90000 '" + path + "'"),
              "");
    std::string error;
    {
        CGraphVideoReader reader;
        ASSERT_TRUE(reader.OpenVideo(path, &error)) << error;
        EXPECT_TRUE(reader.IsVariableRate());
        EXPECT_TRUE(reader.Conforming());
        EXPECT_EQ(reader.SourceFrames(), 60);
        ASSERT_EQ(reader.TimePerFrame(), 333333);
        const std::int64_t budget = (reader.Duration() + reader.TimePerFrame() / 2) / reader.TimePerFrame();
        EXPECT_EQ(budget, 89);  // 2.9667 s at 30 fps
        FrameCounter sink;
        ASSERT_TRUE(RunToEnd(reader, &sink, &error)) << error;
        EXPECT_EQ(sink.frames, 89);
        EXPECT_EQ(reader.FramesRepeated(), 29);
        EXPECT_EQ(reader.FramesDropped(), 0);
        for (std::size_t k = 0; k < sink.times.size(); ++k) EXPECT_EQ(sink.times[k], static_cast<std::int64_t>(k) * 333333);
    }
    {
        CGraphVideoReader reader;
        ASSERT_TRUE(reader.OpenVideo(path, &error)) << error;
        reader.SetConformRate(30000, 1001);
        const std::int64_t budget = (reader.Duration() + reader.TimePerFrame() / 2) / reader.TimePerFrame();
        EXPECT_NEAR(static_cast<double>(budget), 2.9667 * 30000 / 1001, 1.0);
        reader.SetConform(false);
        EXPECT_FALSE(reader.Conforming());
        const std::int64_t asIs = (reader.Duration() + reader.TimePerFrame() / 2) / reader.TimePerFrame();
        EXPECT_EQ(asIs, 60);
        FrameCounter sink;
        ASSERT_TRUE(RunToEnd(reader, &sink, &error)) << error;
        EXPECT_EQ(sink.frames, 60);
        EXPECT_EQ(reader.FramesRepeated(), 0);
    }
}

// A white block in the stored picture's top-left corner; the container says turn 90 degrees
// clockwise. ffmpeg's own upright picture is the reference.
TEST(Rotation, RotatedSourceArrivesUpright)
{
    test::TempDir dir;
    const std::string path = dir / "rotated.mp4";
    ASSERT_EQ(Ffmpeg("-f lavfi -i color=c=black:s=320x240:r=30:d=1 -vf drawbox=x=0:y=0:w=60:h=60:color=white:t=fill "
                     "-c:v libx264 -preset ultrafast -pix_fmt yuv420p '" + path + "'"),
              "");
    std::string why;
    ASSERT_TRUE(SetTrackRotation(path, 90, &why)) << why;
    const std::string upright = dir / "upright.png";
    ASSERT_EQ(Ffmpeg("-i '" + path + "' -frames:v 1 '" + upright + "'"), "");
    int uw = 0, uh = 0;
    ProbeSize(upright, &uw, &uh);
    // Where the white block is in ffmpeg's upright frame, as a grey 8-bit raw dump.
    const std::string gray = dir / "upright.gray";
    ASSERT_EQ(Ffmpeg("-i '" + upright + "' -f rawvideo -pix_fmt gray '" + gray + "'"), "");
    std::ifstream g(gray, std::ios::binary);
    std::vector<char> ref((std::istreambuf_iterator<char>(g)), std::istreambuf_iterator<char>());
    ASSERT_EQ(ref.size(), static_cast<std::size_t>(uw * uh));
    // Both deliveries the conversion uses: bitmap rows, and the decoder's planes when the fit
    // is a plain scale.
    for (const bool planar : {false, true}) {
        SCOPED_TRACE(planar ? "planar" : "rows");
        CGraphVideoReader reader;
        reader.SetPlanarOutput(planar);
        std::string error;
        ASSERT_TRUE(reader.OpenVideo(path, &error)) << error;
        EXPECT_EQ(reader.Rotation(), 90);
        EXPECT_EQ(reader.Width(), uw);
        EXPECT_EQ(reader.Height(), uh);
        FrameCounter sink;
        sink.keep = true;
        ASSERT_TRUE(RunToEnd(reader, &sink, &error)) << error;
        ASSERT_FALSE(sink.pictures.empty());
        EXPECT_EQ(sink.sizes, (std::set<std::pair<int, int>>{{uw, uh}}));
        const auto& pic = sink.pictures[0];
        // Rows: the green byte of BGR; planes: the luma.
        const int bpp = planar ? 1 : reader.BitsPerPixel() / 8;
        const int offset = planar ? 0 : 1;
        int agree = 0, total = 0;
        for (int y = 5; y < uh; y += 10) {
            for (int x = 5; x < uw; x += 10) {
                const bool refWhite = static_cast<std::uint8_t>(ref[static_cast<std::size_t>(y * uw + x)]) > 128;
                const bool ourWhite = pic[static_cast<std::size_t>(y * sink.strides[0] + x * bpp + offset)] > 128;
                agree += refWhite == ourWhite;
                ++total;
            }
        }
        EXPECT_EQ(agree, total);
    }
}

// GIF pictures decode as 32-bit whether or not they have see-through parts: only a GIF whose
// first frame has a transparent colour is a source with alpha.
TEST(Alpha, GifHasAlphaOnlyWithATransparentColour)
{
    test::TempDir dir;
    const std::string opaque = dir / "opaque.gif";
    const std::string clear = dir / "clear.gif";
    ASSERT_EQ(Ffmpeg("-f lavfi -i testsrc2=size=64x64:rate=10:duration=1 -c:v gif '" + opaque + "'"), "");
    ASSERT_EQ(Ffmpeg("-f lavfi -i \"color=c=red:s=64x64:r=10:d=1,format=rgba,geq=r='r(X,Y)':g='g(X,Y)':b='b(X,Y)':"
                     "a='if(lt(X,32),0,255)'\" -vf \"split[a][b];[a]palettegen=reserve_transparent=1[p];"
                     "[b][p]paletteuse=alpha_threshold=128\" -c:v gif '" + clear + "'"),
              "");
    std::string error;
    for (const bool transparent : {false, true}) {
        CGraphVideoReader reader;
        ASSERT_TRUE(reader.OpenVideo(transparent ? clear : opaque, &error)) << error;
        EXPECT_EQ(reader.HasAlpha(), transparent);
        EXPECT_EQ(reader.BitsPerPixel(), transparent ? 32 : 24);
        FrameCounter sink;
        sink.keep = true;
        ASSERT_TRUE(RunToEnd(reader, &sink, &error)) << error;
        ASSERT_FALSE(sink.pictures.empty());
        if (transparent) {
            // Left half see-through, right half solid.
            const auto& pic = sink.pictures[0];
            EXPECT_LT(pic[static_cast<std::size_t>(10 * sink.strides[0] + 5 * 4 + 3)], 16);
            EXPECT_GT(pic[static_cast<std::size_t>(10 * sink.strides[0] + 50 * 4 + 3)], 240);
        }
    }
}

}  // namespace
}  // namespace zub::formats

namespace zub::formats {
namespace {

// Points $TMPDIR somewhere else for one test.
class ScopedTmpDir {
public:
    explicit ScopedTmpDir(const std::string& dir)
    {
        if (const char* old = std::getenv("TMPDIR")) old_ = old, had_ = true;
        ::setenv("TMPDIR", dir.c_str(), 1);
    }
    ~ScopedTmpDir()
    {
        if (had_)
            ::setenv("TMPDIR", old_.c_str(), 1);
        else
            ::unsetenv("TMPDIR");
    }

private:
    std::string old_;
    bool had_ = false;
};

int FilesIn(const std::string& dir)
{
    int n = 0;
    for ([[maybe_unused]] const auto& e : std::filesystem::directory_iterator(dir)) ++n;
    return n;
}

// An OP-Atom file is read from a copy of its streams, which lives only while it is open:
// every frame arrives, the copy is gone when the reader closes, and a copy that cannot be
// made is a failure naming the source, with nothing left behind.
TEST(OpAtom, ReadFromAScratchCopyRemovedOnEveryPath)
{
    if (!HaveEncoder("dnxhd")) GTEST_SKIP() << "this ffmpeg has no dnxhd encoder";
    test::TempDir dir, scratch;
    const std::string path = dir / "atom.mxf";
    ASSERT_EQ(Ffmpeg("-f lavfi -i testsrc2=size=1280x720:rate=25:duration=1.2 -c:v dnxhd -b:v 90M -pix_fmt yuv422p "
                     "-f mxf_opatom '" + path + "'"),
              "");
    VideoFacts facts;
    ASSERT_TRUE(ReadVideoFacts(path, &facts));
    EXPECT_TRUE(facts.opAtom);
    ScopedTmpDir tmp(scratch.Path().string());
    std::string error;
    {
        CGraphVideoReader reader;
        ASSERT_TRUE(reader.OpenVideo(path, &error)) << error;
        EXPECT_EQ(FilesIn(scratch.Path().string()), 1) << "the copy the graph reads";
        FrameCounter sink;
        ASSERT_TRUE(RunToEnd(reader, &sink, &error)) << error;
        EXPECT_EQ(sink.frames, ProbeFrames(path));
        EXPECT_EQ(sink.frames, 30);
        reader.Close();
        EXPECT_EQ(FilesIn(scratch.Path().string()), 0);
    }
    {
        CGraphVideoReader reader;
        ASSERT_TRUE(reader.OpenVideo(path, &error)) << error;
    }
    EXPECT_EQ(FilesIn(scratch.Path().string()), 0) << "destroyed while open";

    // An OP1a file, which the graph reads as it is, makes no copy.
    const std::string op1a = dir / "op1a.mxf";
    ASSERT_EQ(Ffmpeg("-f lavfi -i testsrc2=size=320x240:rate=25:duration=1 -c:v mpeg2video -f mxf '" + op1a + "'"), "");
    ASSERT_TRUE(ReadVideoFacts(op1a, &facts));
    EXPECT_FALSE(facts.opAtom);
    {
        CGraphVideoReader reader;
        ASSERT_TRUE(reader.OpenVideo(op1a, &error)) << error;
        EXPECT_EQ(FilesIn(scratch.Path().string()), 0);
    }

    ScopedTmpDir nowhere(scratch / "no-such-folder");
    CGraphVideoReader reader;
    EXPECT_FALSE(reader.OpenVideo(path, &error));
    EXPECT_EQ(error.rfind(path, 0), 0u) << error;
    EXPECT_NE(error.find("scratch copy"), std::string::npos) << error;
    EXPECT_EQ(FilesIn(scratch.Path().string()), 0);
}

}  // namespace
}  // namespace zub::formats

namespace zub::formats {
namespace {

TEST(VariableRateNote, SaysWhatConformingDidInTheUsersTerms)
{
    EXPECT_EQ(VariableRateNote("/m/a.mp4", true, 333667, 12, 3),
              "/m/a.mp4: variable frame rate, conformed to 29.97 fps: 12 frames repeated, 3 frames dropped");
    EXPECT_EQ(VariableRateNote("b.mov", true, 400000, 1, 0),
              "b.mov: variable frame rate, conformed to 25 fps: 1 frame repeated, 0 frames dropped");
    EXPECT_EQ(VariableRateNote("c.mkv", true, 416667, 0, 1),
              "c.mkv: variable frame rate, conformed to 24 fps: 0 frames repeated, 1 frame dropped");
    EXPECT_EQ(VariableRateNote("d.mp4", false, 333667, 0, 0), "d.mp4: variable frame rate, frames kept as delivered");
}

// Standard rates 0.1% apart (24 and 24000/1001) are told apart by which is nearer.
TEST(RateOfDuration, NearestStandardRateWins)
{
    int num = 0, den = 0;
    RateOfDuration(1.0 / 24, &num, &den);
    EXPECT_EQ(num * 1000 / den, 24000);
    RateOfDuration(1001.0 / 24000, &num, &den);
    EXPECT_EQ(num, 24000);
    EXPECT_EQ(den, 1001);
    RateOfDuration(1001.0 / 30000, &num, &den);
    EXPECT_EQ(num, 30000);
    EXPECT_EQ(den, 1001);
}

}  // namespace
}  // namespace zub::formats

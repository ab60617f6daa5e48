// Every format of the list, made by ffmpeg at test time, read by each route the list names:
// frames delivered and the frame budget equal ffprobe's count, sound comes out as 16-bit
// WAVE of at most two channels as long as the source within one video frame. Formats no
// route reads are refused with the file named. The README's table is the list's.
#include <gtest/gtest.h>

#include <fstream>
#include <sstream>

#include "tests/formats/FormatSupport.h"
#include "TempDir.h"

namespace zub::formats {
namespace {

constexpr double kFrame = 1.0 / 30;  // one video frame of the clip, the sync tolerance

class Matrix : public ::testing::TestWithParam<Format> {
protected:
    static void SetUpTestSuite() { dir_ = new test::TempDir; }
    static void TearDownTestSuite()
    {
        delete dir_;
        dir_ = nullptr;
    }
    // Makes the entry's file once; skips (saying why) when this ffmpeg cannot encode it.
    std::string Source()
    {
        const Format& f = GetParam();
        const std::string path = *dir_ / (std::string(f.id) + f.ext);
        if (!std::ifstream(path).good()) {
            const std::string why = MakeFormat(f, path);
            EXPECT_EQ(why, "") << "making " << path;
            if (!why.empty()) return {};
        }
        return path;
    }
    static test::TempDir* dir_;
};
test::TempDir* Matrix::dir_ = nullptr;

// The graph route always writes 16 bits; the movie route passes uncompressed sound of other
// widths through as designed (the audio conversion takes 8, 16 and 24 bits).
void CheckSound(const Format& f, const std::string& source, const std::string& wavePath, int bits = 16)
{
    Wave w;
    std::string why;
    ASSERT_TRUE(ReadWave(wavePath, &w, &why)) << why;
    EXPECT_EQ(w.format, 1);
    EXPECT_EQ(w.bits, bits);
    EXPECT_GE(w.channels, 1);
    EXPECT_LE(w.channels, 2) << "more than two channels reach the audio conversion";
    ASSERT_GT(w.rate, 0);
    const double ours = static_cast<double>(w.Frames()) / w.rate;
    const double ffmpegs = static_cast<double>(FfmpegSoundFrames(source)) / w.rate;
    EXPECT_NEAR(ours, ffmpegs, kFrame) << "against ffmpeg's own decoding of " << source;
    EXPECT_NEAR(ours, f.seconds, kFrame) << "against the tone the source was made from";
}

TEST_P(Matrix, GraphRoute)
{
    const Format& f = GetParam();
    if (!HaveEncoder(f.encoder)) GTEST_SKIP() << "this ffmpeg has no " << f.encoder << " encoder";
    const std::string path = Source();
    ASSERT_FALSE(path.empty());
    std::string error;
    if (!(f.routes & kGraph)) {
        // Sound the graph opens but cannot always write is not claimed, and not refused either.
        if (!f.video) GTEST_SKIP() << f.note;
        CGraphVideoReader video;
        EXPECT_FALSE(video.OpenVideo(path, &error)) << "the list says nothing reads it";
        EXPECT_NE(error.find(path), std::string::npos) << error;
        return;
    }
    if (f.video) {
        CGraphVideoReader reader;
        ASSERT_TRUE(reader.OpenVideo(path, &error)) << error;
        const std::int64_t want = ProbeFrames(path);
        ASSERT_GT(want, 0);
        int w = 0, h = 0;
        ProbeSize(path, &w, &h);
        EXPECT_EQ(reader.Width(), w);
        EXPECT_EQ(reader.Height(), h);
        EXPECT_FALSE(reader.IsVariableRate());
        ASSERT_GT(reader.TimePerFrame(), 0);
        // The conversion's budget: duration over time per frame, to the nearest frame.
        const std::int64_t budget = (reader.Duration() + reader.TimePerFrame() / 2) / reader.TimePerFrame();
        EXPECT_EQ(budget, want) << "duration " << reader.Duration() << ", time per frame " << reader.TimePerFrame();
        EXPECT_EQ(reader.SourceFrames(), want);
        // Only a source with see-through parts gets a key track.
        EXPECT_EQ(reader.HasAlpha(), std::string(f.codec).find("alpha") != std::string::npos);
        FrameCounter sink;
        ASSERT_TRUE(RunToEnd(reader, &sink, &error)) << error;
        EXPECT_EQ(sink.frames, want);
        EXPECT_EQ(sink.unreadable, 0);
    } else {
        CGraphAudioReader reader;
        const std::string wave = *dir_ / (std::string(f.id) + ".graph.wav");
        ASSERT_TRUE(WriteGraphWave(path, wave, &reader, &error)) << error;
        EXPECT_EQ(reader.Channels(), f.channels);
        EXPECT_NEAR(reader.Duration() / 1e7, f.seconds, kFrame) << "the progress divides by this";
        CheckSound(f, path, wave);
    }
}

TEST_P(Matrix, MovieRoute)
{
    const Format& f = GetParam();
    if (!HaveEncoder(f.encoder)) GTEST_SKIP() << "this ffmpeg has no " << f.encoder << " encoder";
    const std::string path = Source();
    ASSERT_FALSE(path.empty());
    if (!(f.routes & kMovie)) {
        if (f.routes != kNone) GTEST_SKIP() << "read by the graph route; the movie route reads movies";
        CQuickTimeVideoSource video;
        ASSERT_TRUE(video.Start());
        EXPECT_FALSE(video.Open(path.c_str()));
        EXPECT_NE(video.LastError().find(path), std::string::npos) << video.LastError();
        return;
    }
    if (f.video) {
        CQuickTimeVideoSource video;
        ASSERT_TRUE(video.Start());
        ASSERT_TRUE(video.Open(path.c_str())) << video.LastError();
        const std::int64_t want = ProbeFrames(path);
        EXPECT_EQ(video.CountFrames(), want);
        int w = 0, h = 0, pw = 0, ph = 0;
        video.GetFrameSize(w, h);
        ProbeSize(path, &pw, &ph);
        EXPECT_EQ(w, pw);
        EXPECT_EQ(h, ph);
        std::int64_t drawn = 0;
        for (int guard = 0; video.CurrentTime() != -1 && guard < 100000; ++guard) {
            ASSERT_TRUE(video.RenderCurrentFrame()) << video.LastError();
            ++drawn;
            video.AdvanceFrame();
        }
        EXPECT_EQ(drawn, want);
    } else {
        std::string error;
        const std::string wave = *dir_ / (std::string(f.id) + ".movie.wav");
        ASSERT_TRUE(WriteMovieWave(path, wave, &error)) << error;
        CheckSound(f, path, wave, std::string(f.codec) == "PCM 24-bit" ? 24 : 16);
    }
}

INSTANTIATE_TEST_SUITE_P(Formats, Matrix, ::testing::ValuesIn(Formats()),
                         [](const ::testing::TestParamInfo<Format>& info) { return std::string(info.param.id); });

TEST(FormatTable, ReadmeTableIsTheList)
{
    std::ifstream in(std::string(ZUB_SOURCE_DIR) + "/README.md");
    ASSERT_TRUE(in.good());
    std::stringstream text;
    text << in.rdbuf();
    const std::string readme = text.str();
    const std::string begin = "<!-- format table: generated from tests/formats/FormatList.h -->\n";
    const std::string end = "<!-- end of format table -->";
    const auto a = readme.find(begin);
    const auto b = readme.find(end);
    ASSERT_NE(a, std::string::npos) << "README.md has no format table; it should read:\n" << begin << ReadmeTable() << end;
    ASSERT_NE(b, std::string::npos);
    EXPECT_EQ(readme.substr(a + begin.size(), b - a - begin.size()), ReadmeTable())
        << "README.md's format table differs from the list; it should read:\n"
        << ReadmeTable();
}

}  // namespace
}  // namespace zub::formats

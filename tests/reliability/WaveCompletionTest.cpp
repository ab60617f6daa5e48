// The conversion's WAVE writer completes its header only when the end of the stream reaches
// it; a stream that never starts or a writing cut short leaves the sizes it made up. The audio
// reader checks what is on disk when the writing ends: these tests give it headers as the
// writer leaves them, and a writing ended mid-stream, and read the result with sox.
#include <thread>

#include "tests/reliability/Harness.h"
#include "graph/GraphAudioReader.h"

using namespace zub;
using namespace zub::rel;

namespace {

std::string Le32(std::uint32_t v)
{
    std::string s(4, '\0');
    for (int i = 0; i < 4; ++i) s[i] = char((v >> (8 * i)) & 0xFF);
    return s;
}

// The header the writer puts down before any sound, with its made-up sizes.
std::string PlaceholderHeader(int channels, int rate)
{
    std::string h = "RIFF" + Le32(0x7FFF0024u) + "WAVE";
    const int align = 2 * channels;
    h += "fmt " + Le32(16);
    h += std::string("\x01\x00", 2) + char(channels) + '\0';
    h += Le32(std::uint32_t(rate)) + Le32(std::uint32_t(rate * align));
    h += char(align) + std::string("\0\x10\0", 3);
    h += "data" + Le32(0x7FFF0000u);
    return h;
}

std::string Samples(std::size_t bytes)
{
    std::string s(bytes, '\0');
    for (std::size_t i = 0; i < bytes; ++i) s[i] = char(i * 7 + 3);
    return s;
}

// sox's own count of sample frames, or -1 when it cannot read the file.
long SoxFrames(const std::string& path)
{
    int status = -1;
    const std::string out = Capture("sox --i -s " + Sh(path) + " 2>&1", &status);
    return status == 0 ? std::atol(out.c_str()) : -1;
}

class WaveCompletion : public ::testing::Test {
protected:
    TempDir dir_;
    std::string Path(const char* name) const { return (dir_.Path() / name).string(); }
};

}  // namespace

TEST_F(WaveCompletion, MadeUpSizesAreSetFromTheWholeFramesOnDisk)
{
    const std::string wave = Path("placeholder.wav");
    const std::string header = PlaceholderHeader(2, 48000);
    const std::string sound = Samples(1000 * 4);
    WriteBytes(wave, header + sound + "\x01\x02\x03");  // and a frame cut short
    std::int64_t frames = -1;
    std::string error;
    ASSERT_TRUE(CompleteWrittenWave(wave, &frames, &error)) << error;
    EXPECT_EQ(frames, 1000);
    const std::string after = Slurp(wave);
    ASSERT_EQ(after.size(), header.size() + sound.size());
    EXPECT_EQ(after.substr(header.size()), sound) << "the sound itself was changed";
    EXPECT_EQ(CheckWaveSizes(wave), "");
    EXPECT_EQ(SoxFrames(wave), 1000);
}

TEST_F(WaveCompletion, AHeaderWithNothingAfterItIsMadeTrueAndReported)
{
    const std::string wave = Path("nothing.wav");
    WriteBytes(wave, PlaceholderHeader(1, 22050) + "\x05");
    std::int64_t frames = -1;
    std::string error;
    EXPECT_FALSE(CompleteWrittenWave(wave, &frames, &error));
    EXPECT_EQ(frames, 0);
    EXPECT_EQ(error, wave + ": no whole sample frame was written");
    EXPECT_EQ(CheckWaveSizes(wave), "");
    EXPECT_EQ(SoxFrames(wave), 0);
}

TEST_F(WaveCompletion, AWaveThatTellsTheTruthIsLeftAsItIs)
{
    // As the writer leaves it when the stream ends: the sound, then its tags.
    const std::string wave = Path("true.wav");
    std::string body = "WAVEfmt " + Le32(16) + std::string("\x01\x00\x02\x00", 4) + Le32(44100) + Le32(44100 * 4) +
                       std::string("\x04\x00\x10\x00", 4);
    const std::string sound = Samples(300 * 4);
    body += "data" + Le32(std::uint32_t(sound.size())) + sound;
    body += "LIST" + Le32(10) + "INFOISFT" + Le32(2) + "z";  // odd: padded
    body += '\0';
    const std::string bytes = "RIFF" + Le32(std::uint32_t(body.size())) + body;
    WriteBytes(wave, bytes);
    std::int64_t frames = -1;
    std::string error;
    ASSERT_TRUE(CompleteWrittenWave(wave, &frames, &error)) << error;
    EXPECT_EQ(frames, 300);
    EXPECT_EQ(Slurp(wave), bytes);
}

TEST_F(WaveCompletion, WhatIsNoWaveIsRefusedNamingTheFile)
{
    const std::string wave = Path("text.wav");
    WriteBytes(wave, "no header at all, just words");
    std::int64_t frames = -1;
    std::string error;
    EXPECT_FALSE(CompleteWrittenWave(wave, &frames, &error));
    EXPECT_EQ(error, wave + ": the WAVE writer left no RIFF header");
    EXPECT_EQ(Slurp(wave), "no header at all, just words");
    EXPECT_FALSE(CompleteWrittenWave(Path("missing.wav"), &frames, &error));
    EXPECT_EQ(error.rfind(Path("missing.wav") + ": ", 0), 0u) << error;
}

// The reader ended while the stream is still running (an abort, a host closing the job): the
// writer never sees the end of the stream, and the WAVE still tells what it holds.
TEST_F(WaveCompletion, AWritingEndedMidStreamLeavesATrueWave)
{
    const std::string source = Path("long.wav");
    std::string error;
    ASSERT_TRUE(testmedia::MakeWave(source, 16, 48000, 2, 60.0, 440.0, 0.5, &error)) << error;
    const std::string wave = Path("written.wav");
    const Outcome o = RunGuarded(60, [&] {
        Outcome out;
        CGraphAudioReader reader;
        std::string why;
        if (!reader.OpenAudio(source, &why) || !reader.Start(wave, &why)) {
            out.message = why;
            return out;
        }
        // Some sound on disk, far from the end.
        const auto until = std::chrono::steady_clock::now() + std::chrono::seconds(20);
        while (std::chrono::steady_clock::now() < until) {
            std::error_code ec;
            if (fs::file_size(wave, ec) > 200000 && !ec) break;
            std::this_thread::sleep_for(std::chrono::milliseconds(1));
        }
        reader.Close();
        out.frames = int(reader.FramesWritten());
        out.endCode = 1;
        return out;
    });
    ASSERT_TRUE(o.reported && !o.timedOut && o.signal == 0) << o.Describe();
    ASSERT_EQ(o.endCode, 1) << o.Describe();
    EXPECT_GT(o.frames, 0);
    EXPECT_LT(o.frames, 60 * 48000) << "the writing was meant to end early";
    EXPECT_EQ(CheckWaveSizes(wave), "");
    EXPECT_EQ(SoxFrames(wave), o.frames);
}

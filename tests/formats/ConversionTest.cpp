// Every video format of the list taken through the whole conversion, headless, onto the
// substitute recorder: the clip zubclip reads back holds as many frames as ffprobe counts in
// the source (a variable-rate source: its length at the clip's rate), and the sound beside it
// is 16-bit, one or two channels, as long as the source's within one frame of the clip.
#include <gtest/gtest.h>

#include <cmath>
#include <cstdlib>
#include <filesystem>
#include <regex>
#include <string>

#include "tests/formats/FormatSupport.h"
#include "ScratchVolume.h"
#include "TempDir.h"
#include "Tool.h"
#include "device/RecorderBackends.h"
#include "device/RecorderDevice.h"
#include "imgseq/ImageFitting.h"
#include "zubimport/ConvertDlg.h"
#include "zubimport/ImportSettings.h"
#include "zubimport/Prompt.h"

namespace zub::formats {
namespace {

const std::string kZubclip = ZUB_TEST_BIN_DIR "zubclip";
constexpr double kClipRate = 30000.0 / 1001;  // a 525-line volume
constexpr double kClipFrame = 1 / kClipRate;

int ClipFrames(const std::string& clip, std::string* text)
{
    *text = test::Capture(kZubclip + " info '" + clip + "' 2>&1");
    std::smatch m;
    if (std::regex_search(*text, m, std::regex("frames readable: video (\\d+)"))) return std::stoi(m[1]);
    return -1;
}

struct Sound {
    int rate = 0, channels = 0, bits = 0;
    double seconds = 0;
};

Sound Sox(const std::string& path)
{
    Sound s;
    s.rate = std::atoi(test::CaptureLine("sox --i -r '" + path + "'").c_str());
    s.channels = std::atoi(test::CaptureLine("sox --i -c '" + path + "'").c_str());
    s.bits = std::atoi(test::CaptureLine("sox --i -b '" + path + "'").c_str());
    s.seconds = std::atof(test::CaptureLine("sox --i -D '" + path + "'").c_str());
    return s;
}

// The source's sound as ffmpeg plays it, in seconds; -1 without sound.
double SourceSoundSeconds(const std::string& path)
{
    const int rate = std::atoi(test::CaptureLine("ffprobe -v error -select_streams a:0 -show_entries stream=sample_rate "
                                                 "-of csv=p=0 '" + path + "'").c_str());
    if (rate <= 0) return -1;
    return static_cast<double>(FfmpegSoundFrames(path)) / rate;
}

// A scratch recorder volume at 525 lines with the module's settings pointed at it; every
// question is answered with its default button and recorded.
class Conversion : public ::testing::Test {
protected:
    void SetUp() override
    {
        saved_ = CurrentSettings();
        zub::test::UseScratchVolume(vol, ZUB_TEST_RECORDER_DIR, ZUB_TEST_IMAGING);
        TheRecorder().CloseDevice();
        ASSERT_EQ(TheRecorder().OpenDeviceWithInfo(1, 0, 0), 1) << CRecorderDevice::GetError();
    }
    void TearDown() override
    {
        TheRecorder().CloseDevice();
        CurrentSettings() = saved_;
    }

    // Converts `source` with picture and sound; the clip's frames and the sound's length are
    // checked against `frames` and the source's own sound.
    void ConvertAndCheck(const std::string& source, const std::string& stem, double frames, double frameTolerance)
    {
        CConvertDlg dlg(source);
        ASSERT_EQ(dlg.Modal(), 1) << ::testing::PrintToString(prompt_->Texts());
        std::string text;
        const int got = ClipFrames(vol / ("video/" + stem + ".zub"), &text);
        EXPECT_NEAR(got, frames, frameTolerance) << text;
        EXPECT_EQ(dlg.GetReport().framesDone, static_cast<unsigned>(std::max(got, 0)));
        const double sourceSound = SourceSoundSeconds(source);
        const std::string wave = vol / ("audio/" + stem + ".wav");
        if (sourceSound < 0) {
            EXPECT_FALSE(std::filesystem::exists(wave));
            return;
        }
        ASSERT_TRUE(std::filesystem::exists(wave)) << ::testing::PrintToString(dlg.GetReport().messages);
        const Sound s = Sox(wave);
        EXPECT_EQ(s.bits, 16);
        EXPECT_GE(s.channels, 1);
        EXPECT_LE(s.channels, 2);
        EXPECT_NEAR(s.seconds, sourceSound, kClipFrame) << "sound against the source's";
    }

    test::TempDir vol, media;
    std::shared_ptr<ScriptedPrompt> prompt_ = std::make_shared<ScriptedPrompt>();
    ScopedPrompter scope_{prompt_};

private:
    ImportSettings saved_;
};

// Containers with no place for sound beside the picture.
bool SilentOnly(const Format& f)
{
    const std::string ext = f.ext, args = f.args;
    return ext == ".m2v" || ext == ".gif" || args.find("mxf_opatom") != std::string::npos;
}

class ConversionMatrix : public Conversion, public ::testing::WithParamInterface<Format> {};

TEST_P(ConversionMatrix, ClipHasEveryFrameAndSoundKeepsItsLength)
{
    Format f = GetParam();
    if (!HaveEncoder(f.encoder)) GTEST_SKIP() << "this ffmpeg has no " << f.encoder << " encoder";
    if (f.channels == 0 && !SilentOnly(f)) f.channels = 2;  // a stereo tone beside the picture
    const std::string source = media / (std::string(f.id) + f.ext);
    ASSERT_EQ(MakeFormat(f, source), "") << "making " << source;
    if (f.routes == kNone) {
        CConvertDlg dlg(source);
        EXPECT_EQ(dlg.Modal(), 2) << "the list says nothing reads it";
        EXPECT_FALSE(std::filesystem::exists(vol / ("video/" + std::string(f.id) + ".zub")));
        return;
    }
    const std::int64_t want = ProbeFrames(source);
    ASSERT_GT(want, 0);
    ConvertAndCheck(source, f.id, static_cast<double>(want), 0);
}

std::vector<Format> VideoRows()
{
    std::vector<Format> rows;
    for (const Format& f : Formats()) {
        if (f.video) rows.push_back(f);
    }
    return rows;
}

INSTANTIATE_TEST_SUITE_P(Formats, ConversionMatrix, ::testing::ValuesIn(VideoRows()),
                         [](const ::testing::TestParamInfo<Format>& info) { return std::string(info.param.id); });

// 30 frames at 30 fps, then 30 at 15 fps, with a tone as long: conformed, the clip plays as
// long as the source at the clip's rate, and as long as its sound.
TEST_F(Conversion, VariableRateSourceKeepsItsLengthAtTheClipRate)
{
    if (!HaveEncoder("libx264")) GTEST_SKIP() << "this ffmpeg has no libx264 encoder";
    const std::string source = media / "vfr.mp4";
    ASSERT_EQ(Ffmpeg("-f lavfi -i testsrc2=size=160x120:rate=30:duration=2 -f lavfi -i sine=frequency=1000:sample_rate=48000 "
                     "-vf \"setpts='if(lt(N,30),N/30,1+(N-30)/15)/TB'\" -fps_mode:v passthrough -c:v libx264 -preset ultrafast "
                     "-c:a aac -t 2.9667 -video_track_timescale 90000 '" + source + "'"),
              "");
    ASSERT_EQ(ProbeFrames(source), 60);
    const double seconds = 2.9667;
    ConvertAndCheck(source, "vfr", seconds * kClipRate, 1);
    std::string text;
    const double clipSeconds = ClipFrames(vol / "video/vfr.zub", &text) / kClipRate;
    EXPECT_NEAR(clipSeconds, Sox(vol / "audio/vfr.wav").seconds, kClipFrame) << "picture against sound";
}

// Six channels beside the picture reach the clip's sound as two.
TEST_F(Conversion, SurroundSoundBesideThePictureBecomesStereo)
{
    if (!HaveEncoder("libx264")) GTEST_SKIP() << "this ffmpeg has no libx264 encoder";
    const std::string source = media / "surround.mp4";
    ASSERT_EQ(Ffmpeg("-f lavfi -i testsrc2=size=160x120:rate=30:duration=2 -f lavfi -i sine=frequency=1000:sample_rate=48000:"
                     "duration=2 -c:v libx264 -preset ultrafast -c:a aac -ac 6 '" + source + "'"),
              "");
    ConvertAndCheck(source, "surround", static_cast<double>(ProbeFrames(source)), 0);
    EXPECT_EQ(Sox(vol / "audio/surround.wav").channels, 2);
}

}  // namespace
}  // namespace zub::formats

// Every video format of the list taken through the whole conversion, headless, onto the
// substitute recorder: the clip zubclip reads back holds as many frames as ffprobe counts in
// the source (a variable-rate source: its length at the clip's rate), and the sound beside it
// is 16-bit, one or two channels, as long as the source's within one frame of the clip.
#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <regex>
#include <string>
#include <vector>

#include "tests/formats/FormatSupport.h"
#include "graph/SourceFacts.h"
#include "ScratchVolume.h"
#include "TempDir.h"
#include "Tool.h"
#include "device/RecorderBackends.h"
#include "device/RecorderDevice.h"
#include "imgseq/ImageFitting.h"
#include "zubimport/ConvertDlg.h"
#include "zubimport/Dva.h"
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
        lastReport_ = dlg.GetReport();
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
    ConvertReport lastReport_;  // of the last ConvertAndCheck
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

class VariableRate : public Conversion, public ::testing::WithParamInterface<const char*> {
protected:
    // 30 frames at 30 fps, then 30 at 15 fps, with a tone as long; .mp4 goes through the
    // graph, .mov through the movie route.
    std::string MakeSource(const std::string& stem)
    {
        const std::string source = media / (stem + GetParam());
        const std::string made = Ffmpeg("-f lavfi -i testsrc2=size=160x120:rate=30:duration=2 -f lavfi -i "
                                        "sine=frequency=1000:sample_rate=48000 -vf \"setpts='if(lt(N,30),N/30,1+(N-30)/15)/TB'\" "
                                        "-fps_mode:v passthrough -c:v libx264 -preset ultrafast -c:a aac -t 2.9667 "
                                        "-video_track_timescale 90000 '" + source + "'");
        return made.empty() ? source : "";
    }
};

// Conformed, the clip plays as long as the source at the clip's rate, and as long as its
// sound; the report names the variable rate and what conforming did.
TEST_P(VariableRate, ConformedTheClipKeepsTheSourcesLength)
{
    if (!HaveEncoder("libx264")) GTEST_SKIP() << "this ffmpeg has no libx264 encoder";
    const std::string source = MakeSource("vfr");
    ASSERT_NE(source, "");
    ASSERT_EQ(ProbeFrames(source), 60);
    const double seconds = 2.9667;
    ConvertAndCheck(source, "vfr", seconds * kClipRate, 1);
    std::string text;
    const int clipFrames = ClipFrames(vol / "video/vfr.zub", &text);
    const double clipSeconds = clipFrames / kClipRate;
    EXPECT_NEAR(clipSeconds, Sox(vol / "audio/vfr.wav").seconds, kClipFrame) << "picture against sound";

    // The frames repeated less those dropped are what the clip holds beyond the source's 60.
    const ConvertReport& r = lastReport_;
    std::smatch m;
    ASSERT_TRUE(std::regex_search(r.frameRateNote, m,
                                  std::regex("^(.*): variable frame rate, conformed to 29\\.97 fps: (\\d+) frames? repeated, "
                                             "(\\d+) frames? dropped$")))
        << r.frameRateNote;
    EXPECT_EQ(m[1].str(), source);
    EXPECT_EQ(std::stoi(m[2]) - std::stoi(m[3]), clipFrames - 60);
    EXPECT_GT(std::stoi(m[2]), 0);
    EXPECT_NE(std::find(r.messages.begin(), r.messages.end(), r.frameRateNote), r.messages.end())
        << "the note is among the conversion's messages";
}

// Asked to keep the frames as delivered, each source frame is one clip frame, and the report
// says the rate varied and nothing was conformed.
TEST_P(VariableRate, KeptAsDeliveredEveryFrameOnce)
{
    if (!HaveEncoder("libx264")) GTEST_SKIP() << "this ffmpeg has no libx264 encoder";
    const std::string source = MakeSource("kept");
    ASSERT_NE(source, "");
    CurrentSettings().keepVariableRateFrames = 1;
    CurrentSettings().defaultAudio = 0;
    CConvertDlg dlg(source);
    ASSERT_EQ(dlg.Modal(), 1) << ::testing::PrintToString(prompt_->Texts());
    std::string text;
    EXPECT_EQ(ClipFrames(vol / "video/kept.zub", &text), 60) << text;
    EXPECT_EQ(dlg.GetReport().frameRateNote, source + ": variable frame rate, frames kept as delivered");
}

// Probing alone already names the variable rate: settings-only ends without converting.
TEST_P(VariableRate, NamedByTheProbe)
{
    if (!HaveEncoder("libx264")) GTEST_SKIP() << "this ffmpeg has no libx264 encoder";
    const std::string source = MakeSource("probed");
    ASSERT_NE(source, "");
    CConvertDlg dlg(source);
    dlg.SetSettingsOnly(1);
    ASSERT_EQ(dlg.Modal(), 1) << ::testing::PrintToString(prompt_->Texts());
    EXPECT_EQ(dlg.GetReport().frameRateNote, source + ": variable frame rate");
    EXPECT_FALSE(std::filesystem::exists(vol / "video/probed.zub"));
}

INSTANTIATE_TEST_SUITE_P(Routes, VariableRate, ::testing::Values(".mp4", ".mov"),
                         [](const ::testing::TestParamInfo<const char*>& info) { return std::string(info.param + 1); });

TEST_F(Conversion, ConstantRateSourceHasNoFrameRateNote)
{
    if (!HaveEncoder("libx264")) GTEST_SKIP() << "this ffmpeg has no libx264 encoder";
    const std::string source = media / "cfr.mp4";
    ASSERT_EQ(Ffmpeg("-f lavfi -i testsrc2=size=160x120:rate=30000/1001:duration=1 -c:v libx264 -preset ultrafast '" +
                     source + "'"),
              "");
    ConvertAndCheck(source, "cfr", static_cast<double>(ProbeFrames(source)), 0);
    EXPECT_EQ(lastReport_.frameRateNote, "");
    for (const std::string& m : lastReport_.messages) EXPECT_EQ(m.find("variable frame rate"), std::string::npos) << m;
}

// Mean luma of each of the clip's frames first..last, as ffmpeg measures the PNG files zubclip
// exports; empty when they cannot be had.
std::vector<double> ClipLuma(const std::string& clip, int first, int last, const std::string& folder)
{
    std::filesystem::create_directories(folder);
    int status = 0;
    test::Capture(kZubclip + " export '" + clip + "' -o '" + folder + "' --first " + std::to_string(first) + " --last " +
                      std::to_string(last) + " 2>&1",
                  &status);
    if (status != 0) return {};
    std::string pattern;
    for (const auto& e : std::filesystem::directory_iterator(folder)) {
        const std::string name = e.path().filename().string();
        if (const auto at = name.find("-frame-"); at != std::string::npos) pattern = name.substr(0, at) + "-frame-%06d.png";
    }
    if (pattern.empty()) return {};
    const std::string out = test::Capture("ffmpeg -v error -start_number " + std::to_string(first) + " -i '" + folder + "/" +
                                          pattern + "' -vf \"signalstats,metadata=print:key=lavfi.signalstats.YAVG:file=-\" "
                                          "-f null - 2>/dev/null");
    std::vector<double> luma;
    const std::regex yavg("YAVG=([0-9.]+)");
    for (auto it = std::sregex_iterator(out.begin(), out.end(), yavg); it != std::sregex_iterator(); ++it)
        luma.push_back(std::stod((*it)[1]));
    return luma;
}

// The first white frame of the clip's frames first.. (a flash held by a slower source covers
// more than one clip frame); -1 when there is none, or more than a held flash could make.
int FlashFrame(const std::vector<double>& luma, int first)
{
    int start = -1, bright = 0;
    for (std::size_t i = 0; i < luma.size(); ++i) {
        if (luma[i] <= 128) continue;
        if (start < 0) start = first + static_cast<int>(i);
        ++bright;
    }
    return bright <= 3 ? start : -1;
}

// A minute of picture whose first half runs at 30 fps and second half at 15, a white frame
// and a click at 1 s and at 58 s, the sound AAC. Conformed to the clip's 29.97 fps, each
// flash and its click are at the same instant in the clip and its WAVE, within a millisecond
// and one frame of the clip.
TEST_P(VariableRate, FlashAndClickStayTogetherOverAMinute)
{
    if (!HaveEncoder("libx264")) GTEST_SKIP() << "this ffmpeg has no libx264 encoder";
    const std::string source = media / (std::string("sync") + GetParam());
    const double at[2] = {1.0, 58.0};
    // Frame 30 of the 30 fps half is 1 s; frame 900 + 28 * 15 = 1320 is 58 s.
    ASSERT_EQ(Ffmpeg("-f lavfi -i color=c=0x404040:size=320x240:rate=30:duration=45 "
                     "-f lavfi -i \"aevalsrc=exprs='0.8*(between(t\\,1\\,1.001)+between(t\\,58\\,58.001))':s=48000:d=60\" "
                     "-vf \"drawbox=x=0:y=0:w=iw:h=ih:color=white:t=fill:enable='eq(n\\,30)+eq(n\\,1320)',"
                     "setpts='if(lt(N\\,900)\\,N/30\\,30+(N-900)/15)/TB'\" -fps_mode:v passthrough -frames:v 1350 "
                     "-c:v libx264 -preset ultrafast -g 30 -c:a aac -video_track_timescale 90000 '" + source + "'"),
              "");
    VideoFacts facts;
    ASSERT_TRUE(ReadVideoFacts(source, &facts));
    ASSERT_TRUE(facts.variableRate);

    CConvertDlg dlg(source);
    ASSERT_EQ(dlg.Modal(), 1) << ::testing::PrintToString(prompt_->Texts());
    const std::string clip = vol / "video/sync.zub";
    std::string text;
    const int frames = ClipFrames(clip, &text);
    const double seconds = std::atof(test::CaptureLine("ffprobe -v error -select_streams v:0 -show_entries stream=duration "
                                                       "-of csv=p=0 '" + source + "'").c_str());
    ASSERT_NEAR(seconds, 60, 0.1);
    ASSERT_NEAR(frames, seconds * kClipRate, 1) << text;

    Wave w;
    std::string why;
    ASSERT_TRUE(ReadWave(vol / "audio/sync.wav", &w, &why)) << why;
    ASSERT_EQ(w.bits, 16);
    ASSERT_GT(w.rate, 0);
    for (int k = 0; k < 2; ++k) {
        SCOPED_TRACE(at[k]);
        // The click: the first loud sample within half a second of where it belongs.
        const std::int64_t from = static_cast<std::int64_t>((at[k] - 0.5) * w.rate);
        std::int64_t click = -1;
        for (std::int64_t i = std::max<std::int64_t>(from, 0); i < std::min(w.Frames(), from + w.rate) && click < 0; ++i) {
            if (std::abs(w.samples[static_cast<std::size_t>(i * w.channels)]) > 8000) click = i;
        }
        ASSERT_GE(click, 0) << "no click in the WAVE near " << at[k] << " s";
        const double clickSeconds = static_cast<double>(click) / w.rate;

        // The flash: where the white frames start, within a second of it.
        const int first = std::max(0, static_cast<int>((at[k] - 1) * kClipRate));
        const int last = std::min(frames - 1, static_cast<int>((at[k] + 1) * kClipRate));
        const std::vector<double> luma = ClipLuma(clip, first, last, media / ("frames" + std::to_string(k)));
        ASSERT_EQ(luma.size(), static_cast<std::size_t>(last - first + 1));
        const int flash = FlashFrame(luma, first);
        ASSERT_GE(flash, 0) << "no white frame (or too many) near " << at[k] << " s";
        const double flashSeconds = flash / kClipRate;

        EXPECT_NEAR(flashSeconds, clickSeconds, 0.001 + kClipFrame) << "flash at frame " << flash << ", click at sample " << click;
        EXPECT_NEAR(clickSeconds, at[k], 0.001) << "the click where the source has it";
    }
}

// The tape block of a .dva file, read from its bytes: the "BD11" chunk after the audio, its
// tape name at 32 and timecode at 288.
bool DvaTapeBlock(const std::string& path, std::string* tape, std::string* tc)
{
    std::ifstream in(path, std::ios::binary);
    const std::string b((std::istreambuf_iterator<char>(in)), std::istreambuf_iterator<char>());
    const auto at = b.rfind("BD11");
    if (at == std::string::npos || at + 8 + 300 > b.size()) return false;
    const std::string data = b.substr(at + 8);
    if (data.compare(0, 32, std::string("Head - Rva Tape and Timecode 01") + '\0') != 0) return false;
    *tape = std::string(data.c_str() + 32);
    *tc = std::string(data.c_str() + 288);
    return true;
}

struct TapeCase {
    const char* name;
    const char* ext;
    const char* args;  // ffmpeg output options
    const char* tape;
    const char* timecode;
};

class SourceTimecode : public Conversion, public ::testing::WithParamInterface<TapeCase> {};

// With the option on, the .dva carries the source's own start timecode and reel name; off (the
// design's behaviour) an empty tape name and "00:00:00:00". Checked in the file's bytes and
// through the association reader.
TEST_P(SourceTimecode, WrittenIntoTheDvaOnlyWhenAsked)
{
    const TapeCase& c = GetParam();
    const std::string made = media / (std::string(c.name) + c.ext);
    ASSERT_EQ(Ffmpeg("-f lavfi -i testsrc2=size=720x480:rate=30000/1001:duration=1 -f lavfi -i sine=duration=1:sample_rate=48000 " +
                     std::string(c.args) + " '" + made + "'"),
              "");
    for (int on : {0, 1}) {
        SCOPED_TRACE(on);
        CurrentSettings().makeDva = 1;
        CurrentSettings().sourceTimecode = on;
        // The clip is named after its source: one copy for each run.
        const std::string source = media / (std::string(c.name) + (on ? "-on" : "-off") + c.ext);
        std::filesystem::copy_file(made, source);
        CConvertDlg dlg(source);
        ASSERT_EQ(dlg.Modal(), 1) << ::testing::PrintToString(prompt_->Texts());
        const std::string dva = dlg.GetReport().audioPath;
        ASSERT_TRUE(dlg.GetReport().madeDva) << dva;
        std::string tape, tc;
        ASSERT_TRUE(DvaTapeBlock(dva, &tape, &tc)) << dva;
        EXPECT_EQ(tape, on ? c.tape : "");
        EXPECT_EQ(tc, on ? c.timecode : "00:00:00:00");
        CDva reader;
        ASSERT_EQ(reader.ReadTapeNameTc(dva.c_str()), 1) << CDva::GetLastError();
        EXPECT_EQ(reader.GetTapeName(), tape);
        EXPECT_EQ(reader.GetTc(), tc);
        EXPECT_NE(test::CaptureLine("sox --i -c '" + dva + "' 2>&1"), "") << "the .dva still plays as a WAVE";
    }
}

INSTANTIATE_TEST_SUITE_P(
    Containers, SourceTimecode,
    ::testing::Values(TapeCase{"mov", ".mov", "-c:v mpeg4 -c:a pcm_s16be -timecode '01:02:03;04' -metadata:s:v:0 reel_name=TAPE-7",
                               "TAPE-7", "01:02:03;04"},
                      TapeCase{"mxf", ".mxf", "-c:v mpeg2video -c:a pcm_s16le -timecode 09:08:07:06 -metadata reel_name=R2 -f mxf",
                               "R2", "09:08:07:06"},
                      TapeCase{"dv", ".dv", "-c:v dvvideo -pix_fmt yuv411p -c:a pcm_s16le -ac 2 -timecode '10:20:30;00' -f dv", "",
                               "10:20:30;00"}),
    [](const ::testing::TestParamInfo<TapeCase>& info) { return std::string(info.param.name); });

// Rows of a clip's first frame that hold picture (a white source on the black frame), as read
// from the PNG zubclip exports; -1 when the frame cannot be had.
int LitRows(const std::string& clip, const std::string& folder)
{
    std::filesystem::create_directories(folder);
    int status = 0;
    test::Capture(kZubclip + " export '" + clip + "' -o '" + folder + "' --first 0 --last 0 2>&1", &status);
    if (status != 0) return -1;
    for (const auto& e : std::filesystem::directory_iterator(folder)) {
        const std::string gray = test::Capture("ffmpeg -v error -i '" + e.path().string() + "' -f rawvideo -pix_fmt gray -");
        const std::size_t width = 720;
        if (gray.size() % width) return -1;
        int lit = 0;
        for (std::size_t row = 0; row < gray.size() / width; ++row)
            lit += static_cast<unsigned char>(gray[row * width + width / 2]) > 128;
        return lit;
    }
    return -1;
}

class SourcePixelAspect : public Conversion, public ::testing::WithParamInterface<const char*> {};

// Anamorphic 16:9 NTSC material, 720 x 480 stored pixels shown 853 wide: fitted whole into the
// 720 x 486 frame it fills 480 rows as stored, and with the option on it is letterboxed to the
// shape it is shown in (720 x 405). Through the graph (DV) and the movie route (QuickTime).
TEST_P(SourcePixelAspect, FitsByTheShownShapeOnlyWhenAsked)
{
    const std::string ext = GetParam();
    const std::string made = media / ("anamorphic" + ext);
    const std::string codec = ext == ".dv" ? "-target ntsc-dv" : "-c:v mpeg4 -q:v 2";
    ASSERT_EQ(Ffmpeg("-f lavfi -i color=c=white:size=720x480:rate=30000/1001:duration=0.2 -vf setsar=32/27 " + codec + " '" +
                     made + "'"),
              "");
    const std::string sar = test::CaptureLine("ffprobe -v error -select_streams v:0 -show_entries stream=sample_aspect_ratio "
                                              "-of csv=p=0 '" + made + "'");
    ASSERT_EQ(sar, "32:27") << "the source must be anamorphic for this test to mean anything";
    const int shownRows = static_cast<int>(std::lround(480.0 * 720.0 / (720.0 * 32.0 / 27.0)));
    for (int on : {0, 1}) {
        SCOPED_TRACE(on);
        CurrentSettings().fitWord = MakeFitWord(kFitAll, kAreaNormal, kResizeBiCubic);
        CurrentSettings().videoUncompressed = 1;
        CurrentSettings().sourcePixelAspect = on;
        const std::string stem = std::string("anamorphic-") + (on ? "on" : "off");
        const std::string source = media / (stem + ext);
        std::filesystem::copy_file(made, source);
        CConvertDlg dlg(source);
        ASSERT_EQ(dlg.Modal(), 1) << ::testing::PrintToString(prompt_->Texts());
        const int rows = LitRows(vol / ("video/" + stem + ".zub"), media / ("png-" + stem));
        EXPECT_NEAR(rows, on ? shownRows : 480, 2);
    }
    CurrentSettings().sourcePixelAspect = 0;
}

INSTANTIATE_TEST_SUITE_P(Routes, SourcePixelAspect, ::testing::Values(".dv", ".mov"),
                         [](const ::testing::TestParamInfo<const char*>& info) {
                             return std::string(info.param + 1);
                         });

// The clip's first frame as 8-bit grey, from the PNG zubclip exports; empty when it cannot be
// had.
std::vector<std::uint8_t> FirstFrameGray(const std::string& clip, const std::string& folder, int* w, int* h)
{
    std::filesystem::create_directories(folder);
    int status = 0;
    test::Capture(kZubclip + " export '" + clip + "' -o '" + folder + "' --first 0 --last 0 2>&1", &status);
    if (status != 0) return {};
    for (const auto& e : std::filesystem::directory_iterator(folder)) {
        ProbeSize(e.path().string(), w, h);
        const std::string gray = test::Capture("ffmpeg -v error -i '" + e.path().string() + "' -f rawvideo -pix_fmt gray -");
        if (*w <= 0 || *h <= 0 || gray.size() != static_cast<std::size_t>(*w) * *h) return {};
        return std::vector<std::uint8_t>(gray.begin(), gray.end());
    }
    return {};
}

struct TurnCase {
    const char* ext;
    int degrees;
};

class TurnedSource : public Conversion, public ::testing::WithParamInterface<TurnCase> {};

// A grey landscape picture stored with a white block in its top-left corner, its track marked
// to be shown turned as a phone records it: the clip holds it upright, portrait for a
// quarter turn, the block in the corner the turn takes it to. Through the graph (.mp4) and
// the movie route (.mov).
TEST_P(TurnedSource, ComesOutUpright)
{
    if (!HaveEncoder("libx264")) GTEST_SKIP() << "this ffmpeg has no libx264 encoder";
    const TurnCase c = GetParam();
    const std::string stem = "turned" + std::to_string(c.degrees);
    const std::string source = media / (stem + c.ext);
    ASSERT_EQ(Ffmpeg("-f lavfi -i color=c=0x808080:s=320x240:r=30:d=0.2 -vf drawbox=x=0:y=0:w=80:h=60:color=white:t=fill "
                     "-c:v libx264 -preset ultrafast -pix_fmt yuv420p '" + source + "'"),
              "");
    std::string why;
    ASSERT_TRUE(SetTrackRotation(source, c.degrees, &why)) << why;
    CurrentSettings().fitWord = MakeFitWord(kFitAll, kAreaNormal, kResizeBiLinear);
    CurrentSettings().videoUncompressed = 1;
    CurrentSettings().defaultAudio = 0;
    CConvertDlg dlg(source);
    ASSERT_EQ(dlg.Modal(), 1) << ::testing::PrintToString(prompt_->Texts());

    int w = 0, h = 0;
    const std::vector<std::uint8_t> gray = FirstFrameGray(vol / ("video/" + stem + ".zub"), media / ("png-" + stem), &w, &h);
    ASSERT_FALSE(gray.empty());
    // The picture is what is not the black frame around it; the block is what is white.
    int left = w, right = -1, top = h, bottom = -1;
    double wx = 0, wy = 0, white = 0;
    for (int y = 0; y < h; ++y) {
        for (int x = 0; x < w; ++x) {
            const int v = gray[static_cast<std::size_t>(y) * w + x];
            if (v < 60) continue;
            left = std::min(left, x);
            right = std::max(right, x);
            top = std::min(top, y);
            bottom = std::max(bottom, y);
            if (v > 200) {
                wx += x;
                wy += y;
                ++white;
            }
        }
    }
    ASSERT_GT(white, 0) << "no white block in the clip";
    const double pw = right - left + 1, ph = bottom - top + 1;
    if (c.degrees == 180)
        EXPECT_GT(pw, ph) << "still landscape";
    else
        EXPECT_LT(pw, ph) << "a quarter turn stands the picture up";
    // Where the block sits: 90 clockwise takes the top-left corner to the top right, 180 to the
    // bottom right, 270 to the bottom left.
    const bool onRight = wx / white > left + pw / 2, atBottom = wy / white > top + ph / 2;
    EXPECT_EQ(onRight, c.degrees == 90 || c.degrees == 180) << "block at " << wx / white << "," << wy / white;
    EXPECT_EQ(atBottom, c.degrees == 180 || c.degrees == 270) << "block at " << wx / white << "," << wy / white;
}

INSTANTIATE_TEST_SUITE_P(Routes, TurnedSource,
                         ::testing::Values(TurnCase{".mp4", 90}, TurnCase{".mp4", 180}, TurnCase{".mp4", 270},
                                           TurnCase{".mov", 90}, TurnCase{".mov", 180}, TurnCase{".mov", 270}),
                         [](const ::testing::TestParamInfo<TurnCase>& info) {
                             return std::string(info.param.ext + 1) + std::to_string(info.param.degrees);
                         });

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

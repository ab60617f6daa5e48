// The conversion end to end, headless, on generated media and the substitute recorder: what
// the clip, the WAVE and the association file hold is read back with zubclip, ffprobe, sox
// and CDva, never taken from the engine's own word.
#include <gtest/gtest.h>

#include <QCoreApplication>
#include <QEventLoop>

#include <sys/stat.h>

#include <cmath>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <functional>
#include <map>
#include <regex>
#include <string>
#include <vector>

#include "ScratchVolume.h"
#include "TempDir.h"
#include "RefuseRateRecord.h"
#include "TestMedia.h"
#include "Tool.h"
#include "convert/ConvertSession.h"
#include "convert/FrameScaler.h"
#include "device/RecorderBackends.h"
#include "device/RecorderDevice.h"
#include "zubimport/ConvertDlg.h"
#include "zubimport/Dva.h"
#include "zubimport/ImportSettings.h"
#include "zubimport/Prompt.h"

using namespace zub;
using namespace zub::test;
namespace gen = zub::testmedia;

namespace {

const std::string kZubclip = ZUB_TEST_BIN_DIR "zubclip";

std::string Sh(const std::string& s)
{
    std::string q = "'";
    for (char c : s) q += c == '\'' ? std::string("'\\''") : std::string(1, c);
    return q + "'";
}

int FfprobeFrames(const std::string& path)
{
    return std::atoi(CaptureLine("ffprobe -v error -select_streams v:0 -count_frames -show_entries "
                                 "stream=nb_read_frames -of csv=p=0 " + Sh(path)).c_str());
}

struct ClipInfo {
    int framesVideo = -1;
    int framesKey = -1;
    int zubvSectors = -1;  // -1: no ZUBV record
    std::string text;
};

ClipInfo ReadClip(const std::string& clip)
{
    ClipInfo info;
    info.text = Capture(kZubclip + " info " + Sh(clip) + " 2>&1");
    std::smatch m;
    if (std::regex_search(info.text, m, std::regex("frames readable: video (\\d+)(, key (\\d+))?"))) {
        info.framesVideo = std::stoi(m[1]);
        if (m[3].matched) info.framesKey = std::stoi(m[3]);
    }
    if (std::regex_search(info.text, m, std::regex("sectors per frame (\\d+)"))) info.zubvSectors = std::stoi(m[1]);
    return info;
}

// The coded frame numbers of every whole frame of a clip (video or key track), in order.
std::vector<int> ReadNumbers(const std::string& clip, const std::string& dir, bool key = false)
{
    std::filesystem::create_directories(dir);
    int status = -1;
    Capture(kZubclip + " export " + Sh(clip) + " -o " + Sh(dir) + " --track " + (key ? "key" : "video") + " >/dev/null 2>&1", &status);
    if (status != 0) return {};
    std::vector<std::string> pngs;
    for (const auto& e : std::filesystem::directory_iterator(dir)) pngs.push_back(e.path().string());
    std::sort(pngs.begin(), pngs.end());
    std::vector<int> numbers;
    for (const auto& png : pngs) {
        const std::string size = CaptureLine("ffprobe -v error -show_entries stream=width,height -of csv=p=0 " + Sh(png));
        int w = 0, h = 0;
        if (std::sscanf(size.c_str(), "%d,%d", &w, &h) != 2) return {};
        std::string raw = Capture("ffmpeg -v error -i " + Sh(png) + " -f rawvideo -pix_fmt " + (key ? "gray" : "bgr24") + " -");
        if (raw.size() != std::size_t(w) * h * (key ? 1 : 3)) return {};
        if (key) {
            // The key track is the source's alpha plane: read it as such under a plain picture.
            std::vector<std::uint8_t> bgra(std::size_t(w) * h * 4, 128);
            for (std::size_t i = 0; i < raw.size(); ++i) bgra[i * 4 + 3] = static_cast<std::uint8_t>(raw[i]);
            gen::ImageView view{bgra.data(), w, h, w * 4, gen::PixelFormat::Bgra32};
            numbers.push_back(gen::ReadFrameNumber(view, gen::Plane::Alpha));
        } else {
            gen::ImageView view{reinterpret_cast<const std::uint8_t*>(raw.data()), w, h, w * 3, gen::PixelFormat::Bgr24};
            numbers.push_back(gen::ReadFrameNumber(view));
        }
    }
    return numbers;
}

std::vector<int> Sequence(int n)
{
    std::vector<int> v(n);
    for (int i = 0; i < n; ++i) v[i] = i;
    return v;
}

struct WaveInfo {
    int rate = 0, channels = 0, bits = 0;
    double seconds = 0;
};

WaveInfo Sox(const std::string& path)
{
    WaveInfo w;
    w.rate = std::atoi(CaptureLine("sox --i -r " + Sh(path)).c_str());
    w.channels = std::atoi(CaptureLine("sox --i -c " + Sh(path)).c_str());
    w.bits = std::atoi(CaptureLine("sox --i -b " + Sh(path)).c_str());
    w.seconds = std::atof(CaptureLine("sox --i -D " + Sh(path)).c_str());
    return w;
}

std::string Rgb(const std::string& png)
{
    return Capture("ffmpeg -v error -i " + Sh(png) + " -f rawvideo -pix_fmt rgb24 -");
}

double Psnr(const std::string& a, const std::string& b)
{
    if (a.size() != b.size() || a.empty()) return 0.0;
    double se = 0;
    for (std::size_t i = 0; i < a.size(); ++i) {
        const double d = double(static_cast<unsigned char>(a[i])) - double(static_cast<unsigned char>(b[i]));
        se += d * d;
    }
    const double mse = se / double(a.size());
    return mse == 0 ? 99.0 : 10.0 * std::log10(255.0 * 255.0 / mse);
}

// A detailed, colourful picture of this size, marked as high definition, in a container.
std::string MakeDetail(const std::string& path, int w, int h, int frames)
{
    int status = -1;
    Capture("ffmpeg -v error -f lavfi -i testsrc2=size=" + std::to_string(w) + "x" + std::to_string(h) +
                ":rate=30 -frames:v " + std::to_string(frames) +
                " -c:v libx264 -crf 12 -pix_fmt yuv420p -colorspace bt709 -color_primaries bt709 -color_trc bt709"
                " -color_range tv -y " + Sh(path) + " 2>&1",
            &status);
    return status == 0 ? path : std::string();
}

// A temporary recorder volume, the module's settings pointed at it, and scripted answers.
class ConvertTest : public ::testing::Test {
protected:
    void SetUp() override
    {
        saved = CurrentSettings();
        zub::test::UseScratchVolume(vol, ZUB_TEST_RECORDER_DIR, ZUB_TEST_IMAGING);
    }
    void TearDown() override
    {
        TheRecorder().CloseDevice();
        CurrentSettings() = saved;
    }
    void Open(int useZub = 1, const char* lines = "525")
    {
        setenv("ZUBREC_LINES", lines, 1);
        TheRecorder().CloseDevice();
        ASSERT_EQ(TheRecorder().OpenDeviceWithInfo(useZub, 0, 0), 1) << CRecorderDevice::GetError();
    }
    std::string Make(const std::string& name, const gen::MediaSpec& spec)
    {
        std::string error;
        const std::string path = media / name;
        EXPECT_TRUE(gen::MakeMedia(path, spec, &error)) << error;
        return path;
    }
    // Converts through the planar or the general (packed) frame path, as `settings` names and
    // chooses, and returns that frame of the clip as RGB, read back with zubclip and ffmpeg.
    std::string ConvertedFrame(const std::string& src, const std::string& settings, bool packed, int frame)
    {
        const std::string name = settings.substr(0, settings.find('|'));
        if (packed) setenv("ZUBIMPORT_CONVERT_PACKED", "1", 1);
        CConvertDlg dlg(src);
        dlg.SetStrSettings(settings.c_str());
        EXPECT_EQ(dlg.Modal(), 1) << ::testing::PrintToString(prompt->Texts());
        unsetenv("ZUBIMPORT_CONVERT_PACKED");
        const std::string dir = vol / ("png-" + name);
        std::filesystem::create_directories(dir);
        int status = -1;
        Capture(kZubclip + " export " + Sh(vol / ("video/" + name + ".zub")) + " -o " + Sh(dir) + " >/dev/null 2>&1", &status);
        EXPECT_EQ(status, 0);
        char png[32];
        std::snprintf(png, sizeof png, "-frame-%06d.png", frame);
        return Rgb(dir + "/" + name + png);
    }
    // The usual movie with sound, `frames` long.
    std::string MakePreset(const std::string& name, int frames)
    {
        gen::MediaSpec spec;
        EXPECT_TRUE(gen::Preset("mp4_h264_aac", &spec));
        spec.frames = frames;
        return Make(name, spec);
    }
    std::string Preset(const std::string& name)
    {
        std::string error;
        const std::string path = gen::MakePreset(media.Path().string(), name, &error);
        EXPECT_FALSE(path.empty()) << error;
        return path;
    }

    TempDir vol, media;
    ImportSettings saved;
    std::shared_ptr<ScriptedPrompt> prompt = std::make_shared<ScriptedPrompt>();
    ScopedPrompter scope{prompt};
};

}  // namespace

TEST(FrameBudget, NearestWholeFrame)
{
    EXPECT_EQ(FrameBudget(1001000, 333667), 3u);
    EXPECT_EQ(FrameBudget(20000000, 333667), 60u);
    EXPECT_EQ(FrameBudget(10000000, 0), 0u);
    EXPECT_EQ(FrameBudget(0, 333667), 0u);
}

TEST_F(ConvertTest, GraphRouteMakesEveryFrameInOrderWithRateRecordAndAudio)
{
    Open();
    gen::MediaSpec spec;
    ASSERT_TRUE(gen::Preset("mp4_h264_aac", &spec));
    const std::string src = Make("movie.mp4", spec);
    CConvertDlg dlg(src);
    ASSERT_EQ(dlg.Modal(), 1) << ::testing::PrintToString(prompt->Texts());
    const std::string clip = vol / "video/movie.zub";
    const std::string wav = vol / "audio/movie.wav";
    std::string first, second;
    dlg.GetTargetFilePaths(first, second);
    EXPECT_EQ(first, wav);
    EXPECT_EQ(second, clip);

    const ClipInfo info = ReadClip(clip);
    EXPECT_EQ(info.framesVideo, FfprobeFrames(src)) << info.text;
    EXPECT_EQ(ReadNumbers(clip, vol / "png"), Sequence(FfprobeFrames(src)));
    EXPECT_EQ(info.zubvSectors, 195) << info.text;  // (3,000,000 / 30) >> 9
    const WaveInfo w = Sox(wav);
    EXPECT_EQ(w.rate, 48000);
    EXPECT_EQ(w.channels, 2);
    EXPECT_EQ(w.bits, 16);
    EXPECT_NEAR(w.seconds, spec.frames / 30.0, 0.1);
    EXPECT_EQ(dlg.GetReport().framesDone, unsigned(info.framesVideo));
    EXPECT_TRUE(prompt->Texts().empty()) << ::testing::PrintToString(prompt->Texts());
}

TEST_F(ConvertTest, DvaWithTargetAudioFormatAndTbxBackEnd)
{
    Open(0, "625");
    ImportSettings& s = CurrentSettings();
    s.makeDva = 1;
    s.audioRateIndex = 1;   // 44.1 kHz
    s.audioChannels = 1;    // mono
    s.fixedFieldSize = 1;   // divisor 24
    gen::MediaSpec spec;
    ASSERT_TRUE(gen::Preset("mkv_h264_vorbis", &spec));
    const std::string src = Make("take.mkv", spec);
    CConvertDlg dlg(src);
    ASSERT_EQ(dlg.Modal(), 1) << ::testing::PrintToString(prompt->Texts());
    const std::string clip = vol / "video/take.zub";
    const std::string dva = vol / "audio/take.dva";
    EXPECT_FALSE(std::filesystem::exists(vol / "audio/take.wav"));
    std::string first, second;
    dlg.GetTargetFilePaths(first, second);
    EXPECT_EQ(first, dva);
    EXPECT_EQ(second, "");

    const ClipInfo info = ReadClip(clip);
    EXPECT_EQ(info.framesVideo, FfprobeFrames(src));
    EXPECT_EQ(info.zubvSectors, int((3000000u / 24) >> 9)) << info.text;
    const WaveInfo w = Sox(dva);
    EXPECT_EQ(w.rate, 44100);
    EXPECT_EQ(w.channels, 1);
    EXPECT_EQ(w.bits, 16);
    CDva reader;
    ASSERT_EQ(reader.ReadPlayList(dva.c_str()), 1) << CDva::GetLastError();
    ASSERT_NE(reader.GetPlayList(), nullptr);
    EXPECT_EQ(std::string(reader.GetPlayList()->szPath), clip);
    EXPECT_EQ(reader.GetPlayList()->lLastFrame, info.framesVideo - 1);
    EXPECT_EQ(CurrentSettings().makeDva, 1);  // the choices became the defaults
}

TEST_F(ConvertTest, MovieRouteTakesMovFilesAndWritesTheirSound)
{
    Open();
    const std::string src = Preset("mov_twos");
    CConvertDlg dlg(src);
    ASSERT_EQ(dlg.Modal(), 1) << ::testing::PrintToString(prompt->Texts());
    const std::string clip = vol / "video/mov_twos.zub";
    EXPECT_EQ(ReadClip(clip).framesVideo, FfprobeFrames(src));
    EXPECT_EQ(ReadNumbers(clip, vol / "png"), Sequence(FfprobeFrames(src)));
    const WaveInfo w = Sox(vol / "audio/mov_twos.wav");
    EXPECT_EQ(w.bits, 16);
    EXPECT_GT(w.seconds, 0.5);
}

TEST_F(ConvertTest, AudioOnlyWaveGoesToTheTargetFormat)
{
    Open();
    CurrentSettings().audioRateIndex = 3;  // 22.05 kHz
    const std::string src = Preset("wav_s16_stereo");
    CConvertDlg dlg(src);
    dlg.SetAudioOnly(1);
    dlg.SetStrSettings("voice");
    ASSERT_EQ(dlg.Modal(), 1) << ::testing::PrintToString(prompt->Texts());
    const WaveInfo w = Sox(vol / "audio/voice.wav");
    EXPECT_EQ(w.rate, 22050);
    EXPECT_EQ(w.channels, 2);
    EXPECT_FALSE(std::filesystem::exists(vol / "video/voice.zub"));
}

TEST_F(ConvertTest, SettingsOnlyHandsBackNameAndChoicesAndALaterRunTakesThem)
{
    Open();
    gen::MediaSpec spec;
    ASSERT_TRUE(gen::Preset("mp4_h264_aac", &spec));
    spec.frames = 5;
    const std::string src = Make("s.mp4", spec);
    {
        CConvertDlg dlg(src);
        dlg.SetSettingsOnly(1);
        dlg.SetStrSettings("A|1,0,0");
        ASSERT_EQ(dlg.Modal(), 1);
        EXPECT_EQ(dlg.GetStrSettings(), "A|1,0,0");
        EXPECT_TRUE(std::filesystem::is_empty(vol / "video"));
    }
    CConvertDlg dlg(src);
    dlg.SetStrSettings("A|1,0,0");
    ASSERT_EQ(dlg.Modal(), 1);
    EXPECT_TRUE(std::filesystem::exists(vol / "video/A.zub"));
    EXPECT_FALSE(std::filesystem::exists(vol / "audio/A.wav"));
}

TEST_F(ConvertTest, ExistingTargetsAskOrAdvanceInBatchMode)
{
    Open();
    gen::MediaSpec spec;
    ASSERT_TRUE(gen::Preset("mp4_h264_aac", &spec));
    spec.frames = 5;
    spec.audio = gen::AudioCodec::None;
    const std::string src = Make("clip.mp4", spec);
    const std::string clip = vol / "video/clip.zub";
    { std::ofstream(clip) << "keep me"; }

    prompt->Push(Answer::No);
    CConvertDlg declined(src);
    EXPECT_EQ(declined.Modal(), 2);
    ASSERT_EQ(prompt->Texts().size(), 1u);
    EXPECT_EQ(prompt->Texts()[0], clip + " exists already. Do you want to overwrite it?");
    std::ifstream in(clip);
    std::string kept;
    std::getline(in, kept);
    EXPECT_EQ(kept, "keep me");

    CConvertDlg batch(src);
    batch.SetBatchProcess(1);
    ASSERT_EQ(batch.Modal(), 1);
    EXPECT_EQ(ReadClip(vol / "video/clip2.zub").framesVideo, 5);
    EXPECT_EQ(prompt->Texts().size(), 1u);  // batch mode asked nothing
}

TEST_F(ConvertTest, UnreadableSourceEndsWithTwoAfterTheMessage)
{
    Open();
    const std::string src = media / "notes.mp4";
    { std::ofstream(src) << "this is not a movie\n"; }
    CConvertDlg dlg(src);
    EXPECT_EQ(dlg.Modal(), 2);
    ASSERT_FALSE(prompt->Texts().empty());
    EXPECT_EQ(prompt->Texts().back(),
              "File format unsupported by the current installation of Direct Show Filters and QuickTime conversion "
              "(QuickTime may not be installed)");
    EXPECT_TRUE(std::filesystem::is_empty(vol / "video"));
    EXPECT_TRUE(std::filesystem::is_empty(vol / "audio"));
    EXPECT_EQ(CConvertDlg::ConvertableFile(src.c_str(), 0), 0);
}

TEST_F(ConvertTest, UnknownRateReservesTheFreeSpaceAndTheBudgetStopsTheGraph)
{
    Open();
    // A volume with room for 8 frames at this rate: the unknown-rate source (more frames than
    // that) is cut at the budget and still finishes normally.
    CurrentSettings().videoUncompressed = 1;
    setenv("ZUBREC_LIMIT", "6M", 1);
    Open();
    gen::MediaSpec spec;
    ASSERT_TRUE(gen::Preset("mkv_unknown_rate", &spec));
    spec.audio = gen::AudioCodec::None;
    const std::string src = Make("vfr.mkv", spec);
    const int room = TheRecorder().QueryVolumeSpace((vol / "video/x.zub").c_str(), -1, 0, true, false);
    ASSERT_GT(room, 0);
    ASSERT_LT(room, FfprobeFrames(src));
    CConvertDlg dlg(src);
    EXPECT_EQ(dlg.Modal(), 1) << ::testing::PrintToString(prompt->Texts());
    ASSERT_FALSE(prompt->Texts().empty());
    EXPECT_EQ(prompt->Texts().front().rfind("Unknown video frame rate.", 0), 0u);
    const ClipInfo info = ReadClip(vol / "video/vfr.zub");
    EXPECT_EQ(info.framesVideo, room) << info.text;
    EXPECT_EQ(info.zubvSectors, -1) << "a budget-cut clip gets no rate record";
    unsetenv("ZUBREC_LIMIT");
}

TEST_F(ConvertTest, AbortYesLeavesNothingAndAbortNoKeepsWhatWasMade)
{
    setenv("ZUBREC_WRITE_DELAY", "20", 1);  // long enough to be still running at the first tick
    Open();
    unsetenv("ZUBREC_WRITE_DELAY");
    gen::MediaSpec spec;
    ASSERT_TRUE(gen::Preset("mp4_h264_aac", &spec));
    spec.frames = 240;
    spec.width = 640;
    spec.height = 480;
    const std::string src = Make("long.mp4", spec);
    for (Answer answer : {Answer::Yes, Answer::No}) {
        SCOPED_TRACE(answer == Answer::Yes ? "Yes" : "No");
        const std::string name = answer == Answer::Yes ? "yes" : "no";
        CConvertDlg dlg(src);
        dlg.SetStrSettings(name.c_str());
        bool pressed = false;
        dlg.SetProgressCallback([&](const ConvertProgress& p) {
            if (!pressed && p.converting && p.framesDone > 0) {
                pressed = true;
                prompt->Push(answer);
                dlg.PressAbort();
            }
        });
        const int code = dlg.Modal();
        ASSERT_TRUE(pressed);
        const std::string clip = vol / ("video/" + name + ".zub");
        const std::string wav = vol / ("audio/" + name + ".wav");
        if (answer == Answer::Yes) {
            EXPECT_EQ(code, 2);
            EXPECT_FALSE(std::filesystem::exists(clip));
            EXPECT_FALSE(std::filesystem::exists(wav));
        } else {
            EXPECT_EQ(code, 1);
            const ClipInfo info = ReadClip(clip);
            EXPECT_GT(info.framesVideo, 0);
            EXPECT_LT(info.framesVideo, 240);
            EXPECT_EQ(info.zubvSectors, -1) << "kept clips get no rate record";
            EXPECT_EQ(ReadNumbers(clip, vol / "pngno"), Sequence(info.framesVideo));
            EXPECT_EQ(Sox(wav).bits, 16);
        }
    }
}

TEST_F(ConvertTest, AlphaSourceMakesAKeyTrack)
{
    Open();
    CurrentSettings().createAlpha = 1;
    gen::MediaSpec spec;
    spec.width = 720;
    spec.height = 486;
    spec.frames = 6;
    spec.video = gen::VideoCodec::Png;
    spec.alpha = true;
    spec.container = "matroska";
    const std::string src = Make("keyed.mkv", spec);
    CConvertDlg dlg(src);
    ASSERT_EQ(dlg.Modal(), 1) << ::testing::PrintToString(prompt->Texts());
    const std::string clip = vol / "video/keyed.zub";
    const ClipInfo info = ReadClip(clip);
    EXPECT_EQ(info.framesVideo, 6) << info.text;
    EXPECT_EQ(info.framesKey, 6) << info.text;
    EXPECT_EQ(ReadNumbers(clip, vol / "vidpng"), Sequence(6));
    EXPECT_EQ(ReadNumbers(clip, vol / "keypng", true), Sequence(6));
}

TEST_F(ConvertTest, ServerModePlacesNtscSixLinesDownAndRefusesOtherSizes)
{
    Open();
    gen::MediaSpec spec;
    spec.width = 720;
    spec.height = 480;
    spec.frames = 3;
    spec.video = gen::VideoCodec::Mpeg4;
    spec.container = "avi";
    const std::string src = Make("dv.avi", spec);
    {
        CConvertDlg dlg(src, 1);
        ASSERT_EQ(dlg.Modal(), 1) << ::testing::PrintToString(prompt->Texts());
        const std::string clip = vol / "video/dv.zub";
        EXPECT_EQ(ReadClip(clip).framesVideo, 3);
        std::filesystem::create_directories(vol / "srv");
        ASSERT_EQ(zub::test::Run({kZubclip, "export", clip, "-o", vol / "srv", "--last", "0"}), 0);
        const std::string png = vol / "srv/dv-frame-000000.png";
        const std::string raw = Capture("ffmpeg -v error -i " + Sh(png) + " -f rawvideo -pix_fmt gray -");
        ASSERT_EQ(raw.size(), 720u * 486u);
        auto row = [&](int y) {
            long sum = 0;
            for (int x = 0; x < 720; ++x) sum += static_cast<unsigned char>(raw[std::size_t(y) * 720 + x]);
            return sum / 720;
        };
        // The black fill runs over twice the six-line band; the grey picture comes after.
        EXPECT_LT(row(0), 20);
        EXPECT_LT(row(11), 20);
        EXPECT_GT(row(140), 100);  // the grey between the patches and the code
        EXPECT_LT(row(140), 160);
    }
    spec.height = 576;
    const std::string pal = Make("pal.avi", spec);
    prompt->Push(Answer::Yes);
    CConvertDlg dlg(pal, 1);
    EXPECT_EQ(dlg.Modal(), 2);
    const auto texts = prompt->Texts();
    ASSERT_FALSE(texts.empty());
    EXPECT_EQ(texts.back(), "An error occurred because of either wrong input width 720 or wrong input height 576");
    EXPECT_FALSE(std::filesystem::exists(vol / "video/pal.zub"));
}

TEST_F(ConvertTest, VolumeFullMidConversionAsksAndKeepsOrDiscards)
{
    gen::MediaSpec spec;
    ASSERT_TRUE(gen::Preset("mp4_h264_aac", &spec));
    spec.frames = 20;
    const std::string src = Make("full.mp4", spec);
    for (Answer answer : {Answer::No, Answer::Yes}) {
        SCOPED_TRACE(answer == Answer::Yes ? "Yes" : "No");
        setenv("ZUBREC_FULL_AFTER", "5", 1);
        Open();
        const std::string name = answer == Answer::Yes ? "gone" : "kept";
        prompt->Push(answer);
        CConvertDlg dlg(src);
        dlg.SetStrSettings(name.c_str());
        const int code = dlg.Modal();
        unsetenv("ZUBREC_FULL_AFTER");
        const auto texts = prompt->Texts();
        ASSERT_FALSE(texts.empty());
        EXPECT_EQ(texts.back(), "Error occurred during conversion.\r\nDo you want to discard the media file ?");
        const std::string clip = vol / ("video/" + name + ".zub");
        if (answer == Answer::Yes) {
            EXPECT_EQ(code, 2);
            EXPECT_FALSE(std::filesystem::exists(clip));
            EXPECT_FALSE(std::filesystem::exists(vol / ("audio/" + name + ".wav")));
        } else {
            EXPECT_EQ(code, 1);
            const ClipInfo info = ReadClip(clip);
            EXPECT_EQ(info.framesVideo, 5) << info.text;
            EXPECT_EQ(info.zubvSectors, -1);
            EXPECT_EQ(ReadNumbers(clip, vol / "fullpng"), Sequence(5));
        }
    }
}

TEST_F(ConvertTest, AbortDuringASlowFrameIsCarriedOutAfterIt)
{
    // Each frame import takes 150 ms, so the Abort button nearly always meets a frame in
    // progress: the abort waits for it, and the kept clip ends on a whole frame.
    setenv("ZUBREC_WRITE_DELAY", "150", 1);
    Open();
    gen::MediaSpec spec;
    ASSERT_TRUE(gen::Preset("mp4_h264_aac", &spec));
    spec.frames = 60;
    spec.audio = gen::AudioCodec::None;
    const std::string src = Make("slow.mp4", spec);
    CConvertDlg dlg(src);
    bool pressed = false;
    dlg.SetProgressCallback([&](const ConvertProgress& p) {
        if (!pressed && p.converting && p.framesDone >= 3) {
            pressed = true;
            prompt->Push(Answer::No);
            dlg.PressAbort();
        }
    });
    EXPECT_EQ(dlg.Modal(), 1);
    unsetenv("ZUBREC_WRITE_DELAY");
    ASSERT_TRUE(pressed);
    const std::string clip = vol / "video/slow.zub";
    const ClipInfo info = ReadClip(clip);
    EXPECT_GE(info.framesVideo, 3) << info.text;
    EXPECT_LT(info.framesVideo, 60) << info.text;
    EXPECT_EQ(ReadNumbers(clip, vol / "slowpng"), Sequence(info.framesVideo));
}

TEST_F(ConvertTest, FastPathPlacementsMatchTheFittingCode)
{
    // Where the fast path puts the picture must be where the fitting code puts it: fit a
    // picture and find its box (and, for a crop, which of its pixels lands in the corner), for
    // every mode the fast path takes and a few shapes.
    const FrameSize frame{720, 486};
    const int modes[] = {kFitStretchAll, kFitAll,    kFitHeight,    kFitWidth,     kFitStretchHeight, kFitStretchWidth,
                         kFitCenter,     kFitUpperLeft, kFitUpperRight, kFitLowerLeft, kFitLowerRight};
    const int sizes[][2] = {{1920, 1080}, {1921, 1081}, {320, 240}, {720, 486}, {640, 480}, {300, 1000}};
    int taken = 0, cropped = 0, cut = 0;
    for (int method : {kResizeNearest, kResizeBiCubic})
    for (int area : {kAreaNormal, kAreaSafeTitle, kAreaSafeImage}) {
        for (int mode : modes) {
            for (const auto& sz : sizes) {
                const std::int32_t word = MakeFitWord(mode, area, method);
                ScaledPlacement p;
                if (!PlainScalePlacement(sz[0], sz[1], word, false, false, frame, &p) &&
                    !CropPlacement(sz[0], sz[1], word, false, false, frame, &p)) {
                    // Scaled with Nearest, then cut: the general path's.
                    EXPECT_TRUE(method == kResizeNearest && (mode == kFitHeight || mode == kFitWidth ||
                                                             mode == kFitStretchHeight || mode == kFitStretchWidth))
                        << "mode " << mode << " " << sz[0] << "x" << sz[1];
                    continue;
                }
                ++taken;
                cropped += p.crop;
                cut += p.scaledWidth > p.width || p.scaledHeight > p.height;
                // Mark the picture's own pixels by position, so the crop's source corner is
                // checked too, not only the box it lands in.
                Image img;
                ASSERT_TRUE(img.Allocate(sz[0], sz[1], 32));
                for (int y = 0; y < sz[1]; ++y)
                    for (int x = 0; x < sz[0]; ++x) {
                        std::uint8_t* px = img.Row(y) + x * 4;
                        px[0] = static_cast<std::uint8_t>(x);
                        px[1] = static_cast<std::uint8_t>(y);
                        px[2] = static_cast<std::uint8_t>((x >> 8) | (y >> 8) << 4);
                        px[3] = 255;
                    }
                std::string why;
                ASSERT_TRUE(FitImage(img, word, frame, &why)) << why;
                if (p.crop) {
                    const std::uint8_t* corner = img.Row(p.top) + p.left * 4;
                    EXPECT_EQ(corner[0], static_cast<std::uint8_t>(p.srcX));
                    EXPECT_EQ(corner[1], static_cast<std::uint8_t>(p.srcY));
                    EXPECT_EQ(corner[2], static_cast<std::uint8_t>((p.srcX >> 8) | (p.srcY >> 8) << 4));
                }
                ASSERT_EQ(img.Width(), 720);
                ASSERT_EQ(img.Height(), 486);
                int left = 720, top = 486, right = -1, bottom = -1;
                for (int y = 0; y < 486; ++y)
                    for (int x = 0; x < 720; ++x)
                        if (img.Row(y)[x * 4 + 3] == 255) {
                            left = std::min(left, x);
                            right = std::max(right, x);
                            top = std::min(top, y);
                            bottom = std::max(bottom, y);
                        }
                SCOPED_TRACE("mode " + std::to_string(mode) + " area " + std::to_string(area) + " method " +
                             std::to_string(method) + " " + std::to_string(sz[0]) + "x" + std::to_string(sz[1]));
                EXPECT_EQ(left, p.left);
                EXPECT_EQ(top, p.top);
                EXPECT_EQ(right - left + 1, p.width);
                EXPECT_EQ(bottom - top + 1, p.height);
            }
        }
    }
    EXPECT_GT(taken, 20);
    EXPECT_GT(cropped, 20);
    EXPECT_GT(cut, 10);
    EXPECT_FALSE(PlainScalePlacement(1920, 1080, MakeFitWord(kFitAll, kAreaNormal, 2), true, false, frame, nullptr));
}

TEST_F(ConvertTest, PicturesScaledPastTheFrameAreCutAsTheFittingCutsThem)
{
    // Fit Height of a wide picture scales it past the frame's width and cuts the sides. The
    // fast path makes only the part that shows; it must be the general fitting's picture from
    // full-size rows: an odd cut (1900 wide: 855, cut at 67) and a safe area (1280 wide: 689
    // of 576, cut at 56, placed at 72, 49), both routes.
    Open();
    for (const int width : {1900, 1280}) {
        for (const char* ext : {"mp4", "mov"}) {
            const std::string base = "cut" + std::to_string(width) + ext;
            SCOPED_TRACE(base);
            const std::string src = MakeDetail(media / (base + "." + ext), width, width == 1900 ? 1080 : 720, 2);
            ASSERT_FALSE(src.empty());
            ImportSettings& st = CurrentSettings();
            st.fitWord = MakeFitWord(kFitHeight, width == 1900 ? kAreaNormal : kAreaSafeTitle, kResizeBiCubic);
            st.videoUncompressed = 1;
            std::vector<std::string> pictures;
            for (bool packed : {false, true})
                pictures.push_back(ConvertedFrame(src, base + (packed ? "packed" : "planar") + "|1,0,0", packed, 0));
            ASSERT_EQ(pictures[0].size(), 720u * 486u * 3u);
            // Two bicubic scalers apart (the general one is its own), the pictures agree; a
            // cut one column off, or placed elsewhere, tears every bar edge and the border.
            EXPECT_GE(Psnr(pictures[0], pictures[1]), 35.0);
        }
    }
}

TEST_F(ConvertTest, CropsThroughThePlanesGiveThePackedPathsPicture)
{
    // The cropping fits take the decoder's planes too. A picture larger than the frame, cut
    // at an odd row (Center, Normal: 57) and at the corner, and the default fit (Center, Safe
    // Title, Nearest), must come out as the general path makes it from full-size 24-bit rows.
    Open();
    gen::MediaSpec spec;
    ASSERT_TRUE(gen::Preset("mp4_h264_aac", &spec));
    spec.audio = gen::AudioCodec::None;
    spec.width = 800;
    spec.height = 600;
    spec.frames = 4;
    const std::vector<std::string> sources{Make("crops.mp4", spec), Make("crops.mov", spec)};
    const std::int32_t words[] = {MakeFitWord(kFitCenter, kAreaNormal, kResizeNearest),
                                  MakeFitWord(kFitLowerRight, kAreaSafeImage, kResizeBiCubic), 0};
    for (std::size_t k = 0; k < 2 * std::size(words); ++k) {
        const std::string& src = sources[k / std::size(words)];
        const std::int32_t word = words[k % std::size(words)];
        SCOPED_TRACE(src + ", fit word " + std::to_string(word));
        CurrentSettings().fitWord = word;
        std::vector<std::string> pictures;
        for (bool packed : {false, true}) {
            const std::string name = std::string(packed ? "packed" : "planar") + std::to_string(word) +
                                     std::filesystem::path(src).extension().string().substr(1);
            pictures.push_back(ConvertedFrame(src, name, packed, 3));
            EXPECT_EQ(ReadClip(vol / ("video/" + name + ".zub")).framesVideo, 4);
        }
        ASSERT_EQ(pictures[0].size(), 720u * 486u * 3u);
        ASSERT_EQ(pictures[1].size(), pictures[0].size());
        // Unscaled, the two differ only by their colour conversions' rounding and chroma
        // filters; a crop one row or column off moves every edge of the coded digits.
        double diff = 0;
        int far = 0;
        for (std::size_t i = 0; i < pictures[0].size(); ++i) {
            const int d = std::abs(int(static_cast<unsigned char>(pictures[0][i])) - int(static_cast<unsigned char>(pictures[1][i])));
            diff += d;
            far += d > 48;
        }
        EXPECT_LT(diff / double(pictures[0].size()), 2.0);
        EXPECT_LT(far, int(pictures[0].size() / 10000));
    }
}

TEST_F(ConvertTest, PlanarAndPackedFramePathsGiveTheSameClip)
{
    Open();
    gen::MediaSpec spec;
    ASSERT_TRUE(gen::Preset("mp4_h264_aac", &spec));
    spec.audio = gen::AudioCodec::None;
    spec.frames = 12;
    const std::string src = Make("paths.mp4", spec);
    std::vector<std::string> firstFrame;
    for (bool packed : {false, true}) {
        SCOPED_TRACE(packed ? "packed" : "planar");
        if (packed) setenv("ZUBIMPORT_CONVERT_PACKED", "1", 1);
        const std::string name = packed ? "packed" : "planar";
        CConvertDlg dlg(src);
        dlg.SetStrSettings(name.c_str());
        EXPECT_EQ(dlg.Modal(), 1);
        unsetenv("ZUBIMPORT_CONVERT_PACKED");
        const std::string clip = vol / ("video/" + name + ".zub");
        EXPECT_EQ(ReadNumbers(clip, vol / ("png" + name)), Sequence(12));
        firstFrame.push_back(Capture("ffmpeg -v error -i " + Sh(vol / ("png" + name + "/" + name + "-frame-000000.png")) +
                                     " -f rawvideo -pix_fmt gray -"));
    }
    ASSERT_EQ(firstFrame[0].size(), 720u * 486u);
    ASSERT_EQ(firstFrame[1].size(), firstFrame[0].size());
    // Same picture within what two scalers and two colour conversions may differ by.
    double diff = 0;
    for (std::size_t i = 0; i < firstFrame[0].size(); ++i)
        diff += std::abs(int(static_cast<unsigned char>(firstFrame[0][i])) - int(static_cast<unsigned char>(firstFrame[1][i])));
    EXPECT_LT(diff / double(firstFrame[0].size()), 4.0);
}

// The pixels of a fitted frame, both routes, against ffmpeg's own scale of the same source
// frame: the clip's first and last frames are read back with zubclip and compared with
// ffmpeg's picture at the same size and resize method. A scaler reading the wrong colour
// matrix (about 24 dB on this picture), chroma planes out of place, a flipped or shifted
// picture or a dropped field all fall far below the threshold; what stays is the 4:2:2
// storage and rounding.
TEST_F(ConvertTest, FittedFramesMatchFfmpegsOwnScale)
{
    Open();
    const int frames = 3;
    // A detailed, colourful high-definition picture, marked as such, in both containers.
    std::map<std::string, std::string> sources;
    for (const char* ext : {"mp4", "mov"}) {
        const std::string src = MakeDetail(media / (std::string("detail.") + ext), 1920, 1080, frames);
        ASSERT_FALSE(src.empty()) << "ffmpeg could not make the " << ext << " source";
        sources[ext] = src;
    }
    struct Method {
        int resize;
        const char* ffmpegFlags;
    };
    for (const Method m : {Method{kResizeBiCubic, "bicubic"}, Method{kResizeBiLinear, "bilinear"}}) {
        for (const auto& [ext, src] : sources) {
            SCOPED_TRACE(std::string(ext == "mov" ? "movie route, " : "graph route, ") + m.ffmpegFlags);
            ImportSettings& st = CurrentSettings();
            st.fitWord = MakeFitWord(kFitStretchAll, kAreaNormal, m.resize);
            // Stored uncompressed (8-bit 4:2:2), so what is compared is the fitted picture, not
            // the clip's compression.
            st.videoUncompressed = 1;
            const std::string name = std::string(m.ffmpegFlags) + "-" + ext;
            CConvertDlg dlg(src);
            dlg.SetStrSettings((name + "|1,0,0").c_str());
            ASSERT_EQ(dlg.Modal(), 1) << ::testing::PrintToString(prompt->Texts());
            const std::string clip = vol / ("video/" + name + ".zub");
            ASSERT_EQ(ReadClip(clip).framesVideo, frames);
            const std::string dir = vol / ("png-" + name);
            std::filesystem::create_directories(dir);
            int status = -1;
            Capture(kZubclip + " export " + Sh(clip) + " -o " + Sh(dir) + " >/dev/null 2>&1", &status);
            ASSERT_EQ(status, 0);
            for (int frame : {0, frames - 1}) {
                char png[64];
                std::snprintf(png, sizeof png, "/%s-frame-%06d.png", name.c_str(), frame);
                const std::string ref = dir + "/ref-" + std::to_string(frame) + ".png";
                Capture("ffmpeg -v error -i " + Sh(src) + " -vf " +
                            Sh("select=eq(n\\," + std::to_string(frame) + "),scale=720:486:flags=" + m.ffmpegFlags) +
                            " -frames:v 1 -y " + Sh(ref) + " 2>&1",
                        &status);
                ASSERT_EQ(status, 0);
                const std::string ours = Rgb(dir + png), theirs = Rgb(ref);
                ASSERT_EQ(ours.size(), 720u * 486u * 3u) << dir + png;
                ASSERT_EQ(theirs.size(), ours.size());
                EXPECT_GE(Psnr(ours, theirs), 35.0) << "frame " << frame;
            }
        }
    }
}

namespace {

// An application object for the tests that drive a session themselves.
struct CoreApp {
    int argc = 1;
    char name[5] = "test";
    char* argv[2] = {name, nullptr};
    QCoreApplication app{argc, argv};
};

// Runs a session on its own event loop, as Modal does headless, with the session in reach.
int RunSession(ConvertSession& session)
{
    QEventLoop loop;
    session.onEnd = [&loop](int) { loop.exit(); };
    session.SetHeadless(true);
    if (!session.Init()) return session.EndCode();
    session.Post(kEvPressConvert);
    if (!session.Ended()) loop.exec();
    return session.EndCode();
}

// Answers every question as told, and while one is on screen lets the event loop run as a
// message box's own loop does, after something is posted to the session.
class BoxWithLoop final : public IPrompt {
public:
    std::function<void(const std::string&)> whileShown;
    std::vector<std::string> texts;
    Answer answer = Answer::Ok;
    Answer Ask(const PromptRequest& request) override
    {
        texts.push_back(request.text);
        if (whileShown) whileShown(request.text);
        return answer;
    }
};

const char* const kConvertErrorText = "Error occurred during conversion.\r\nDo you want to discard the media file ?";

}  // namespace

TEST_F(ConvertTest, AnErrorOrAbortWhileTheFinishingStepShowsABoxWaitsAndChangesNothing)
{
    // The rate record cannot be stored, so finishing shows its box; meanwhile a conversion
    // error and a press of Abort arrive. Neither may ask anything or undo the finished files.
    Open();
    const zub::test::RefuseRateRecord refuse;
    ASSERT_TRUE(refuse.Active());
    const std::string src = MakePreset("boxed.mp4", 10);
    CoreApp app;
    auto box = std::make_shared<BoxWithLoop>();
    ScopedPrompter use(box);
    CConvertDlg dlg(src);
    ConvertSession session(dlg);
    box->whileShown = [&](const std::string&) {
        session.Post(kEvConvertError);
        session.Post(kEvPressAbort);
        QCoreApplication::processEvents();
    };
    EXPECT_EQ(RunSession(session), 1);
    EXPECT_EQ(box->texts, std::vector<std::string>{"Failed to store video rate in file"});
    const ClipInfo info = ReadClip(vol / "video/boxed.zub");
    EXPECT_EQ(info.framesVideo, 10) << info.text;
    EXPECT_EQ(info.zubvSectors, -1);
    EXPECT_NEAR(Sox(vol / "audio/boxed.wav").seconds, 10 / 30.0, 0.05);
}

TEST_F(ConvertTest, AnErrorArrivingDuringTheCompletionStepIsAskedByTheNextTick)
{
    // A host that keeps its window alive from the progress callback lets events run inside
    // the once-a-second step. An error message arriving then is held, and the step posts it
    // again once it has looked at the streams: the question comes after the step, not inside.
    setenv("ZUBREC_WRITE_DELAY", "40", 1);
    Open();
    const std::string src = MakePreset("late.mp4", 90);
    CoreApp app;
    CConvertDlg dlg(src);
    ConvertSession session(dlg);
    bool posted = false, askedInside = false;
    int converting = 0;
    prompt->Push(Answer::Yes);
    dlg.SetProgressCallback([&](const ConvertProgress& p) {
        // The first report comes from Convert itself; the second from the first tick.
        if (posted || !p.converting || ++converting < 2) return;
        posted = true;
        session.Post(kEvConvertError);  // as the window message arrives, from whoever posts it
        QCoreApplication::processEvents();
        askedInside = !prompt->Texts().empty();
    });
    const int code = RunSession(session);
    unsetenv("ZUBREC_WRITE_DELAY");
    ASSERT_TRUE(posted);
    EXPECT_FALSE(askedInside);
    EXPECT_EQ(prompt->Texts(), std::vector<std::string>{kConvertErrorText});
    EXPECT_EQ(code, 2);  // Yes: discarded
    EXPECT_FALSE(std::filesystem::exists(vol / "video/late.zub"));
    EXPECT_FALSE(std::filesystem::exists(vol / "audio/late.wav"));
}

TEST_F(ConvertTest, CancelBeforeConvertClosesWithoutAQuestion)
{
    Open();
    const std::string src = MakePreset("idle.mp4", 5);
    CoreApp app;
    CConvertDlg dlg(src);
    ConvertSession session(dlg);
    ASSERT_TRUE(session.Init());
    const ConvertViewState& v = session.View();
    EXPECT_EQ(v.clipName, "idle");
    EXPECT_TRUE(v.videoChecked && v.audioChecked && v.dvaEnabled);
    EXPECT_EQ(v.fileNames, vol / "video/idle.zub" + "\r\n" + vol / "audio/idle.wav");
    session.SetVideoChecked(false);
    EXPECT_FALSE(session.View().dvaEnabled);
    EXPECT_EQ(session.View().fileNames, vol / "audio/idle.wav");
    session.SetAudioChecked(false);
    EXPECT_FALSE(session.View().convertEnabled);
    session.OnCancel();
    EXPECT_TRUE(session.Ended());
    EXPECT_EQ(session.EndCode(), 2);
    EXPECT_TRUE(prompt->Texts().empty());
}

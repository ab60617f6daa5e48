// The movie route checked against tools we did not write: frame counts against ffprobe,
// rendered pictures against the frame numbers the generator coded into them, WAVE files
// against sox and against ffmpeg's own decoding of the same sound track.
#include <gtest/gtest.h>

#include <sys/xattr.h>

#include <algorithm>
#include <cerrno>
#include <cmath>
#include <cstdio>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <string>
#include <vector>

#include "quicktime/QuickTimeSource.h"
#include "TempDir.h"
#include "TestMedia.h"
#include "Tool.h"

// FFmpeg's decoder threads hand frames over with atomics inside libavutil, which is not built
// for ThreadSanitizer and so looks unsynchronised to it; races reported with FFmpeg's own
// libraries in the stack are waived, every other one still fails the test.
extern "C" const char* __tsan_default_suppressions()
{
    return "race:libavutil.so\nrace:libavcodec.so\n";
}

namespace zub {
namespace {

namespace tm = zub::testmedia;

using zub::test::Capture;

std::string Trim(std::string s)
{
    while (!s.empty() && (s.back() == '\n' || s.back() == '\r' || s.back() == ' ')) s.pop_back();
    return s;
}

std::string Make(const test::TempDir& dir, const std::string& name, const tm::MediaSpec& spec)
{
    const std::string path = dir / name;
    std::string error;
    if (!tm::MakeMedia(path, spec, &error)) ADD_FAILURE() << error;
    return path;
}

std::string MakePreset(const test::TempDir& dir, const std::string& name)
{
    std::string error;
    const std::string path = tm::MakePreset(dir.Path().string(), name, &error);
    if (path.empty()) ADD_FAILURE() << error;
    return path;
}

int FfprobeFrames(const std::string& path)
{
    const std::string out = Trim(Capture("ffprobe -v error -count_frames -select_streams v:0 -show_entries "
                                         "stream=nb_read_frames -of csv=p=0 '" + path + "'"));
    return out.empty() ? -1 : std::atoi(out.c_str());
}

std::string SoxInfo(const std::string& wav, const char* option)
{
    return Trim(Capture(std::string("sox --i ") + option + " '" + wav + "' 2>/dev/null"));
}

// The sound track as ffmpeg decodes it, as raw samples in `format` (s16le, u8, s8).
std::vector<std::uint8_t> FfmpegSamples(const std::string& path, const char* format)
{
    const std::string out = Capture("ffmpeg -v error -i '" + path + "' -map 0:a:0 -f " + format + " -");
    return {out.begin(), out.end()};
}

// The audio bytes of a WAVE file as sox extracts them (same encoding, no header).
std::vector<std::uint8_t> SoxSamples(const std::string& wav)
{
    const std::string out = Capture("sox '" + wav + "' -t raw - 2>/dev/null");
    return {out.begin(), out.end()};
}

std::vector<std::uint8_t> ReadFile(const std::string& path)
{
    std::ifstream in(path, std::ios::binary);
    return {std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>()};
}

std::uint32_t Le32(const std::vector<std::uint8_t>& b, std::size_t at)
{
    return b[at] | (b[at + 1] << 8) | (b[at + 2] << 16) | (std::uint32_t(b[at + 3]) << 24);
}

std::vector<std::uint8_t> Swapped(std::vector<std::uint8_t> v)
{
    for (std::size_t i = 0; i + 1 < v.size(); i += 2) std::swap(v[i], v[i + 1]);
    return v;
}

// Converts the whole sound track the way the conversion engine does.
bool ConvertAll(CQuickTimeAudioSource& audio, const std::string& wav, int* chunks = nullptr)
{
    bool more = true;
    int n = 0;
    while (more) {
        if (!audio.ConvertChunk(wav.c_str(), more)) return false;
        ++n;
        if (n > 100000) return false;
    }
    if (chunks) *chunks = n;
    return audio.Finish(true);
}

tm::ImageView View(const DrawingContext& dc)
{
    return tm::ImageView{dc.bits, dc.header.biWidth, -dc.header.biHeight, static_cast<std::ptrdiff_t>(dc.stride),
                         tm::PixelFormat::Bgr24};
}

// ---- video ----

struct MovieCase {
    const char* name;
    tm::VideoCodec codec;
    int width, height, frames, fpsNum, fpsDen;
};

TEST(QuickTimeVideo, FramesMatchFfprobeAndTheirCodedNumbers)
{
    test::TempDir dir;
    const MovieCase cases[] = {
        {"h264.mov", tm::VideoCodec::H264, 320, 240, 40, 25, 1},      // reordered frames
        {"mjpeg.mov", tm::VideoCodec::Mjpeg, 176, 144, 12, 30000, 1001},
        {"raw.mov", tm::VideoCodec::Raw, 161, 97, 7, 24, 1},          // odd width: padded rows
        {"mpeg4.mp4", tm::VideoCodec::Mpeg4, 320, 180, 25, 30, 1},
        {"qtrle.mov", tm::VideoCodec::Qtrle, 128, 96, 9, 15, 1},
    };
    for (const MovieCase& c : cases) {
        SCOPED_TRACE(c.name);
        tm::MediaSpec spec;
        spec.video = c.codec;
        spec.width = c.width;
        spec.height = c.height;
        spec.frames = c.frames;
        spec.fpsNum = c.fpsNum;
        spec.fpsDen = c.fpsDen;
        spec.firstFrameNumber = 100;
        const std::string path = Make(dir, c.name, spec);

        CQuickTimeVideoSource video;
        ASSERT_TRUE(video.Start());
        ASSERT_TRUE(video.Open(path.c_str())) << video.LastError();
        int w = 0, h = 0;
        video.GetFrameSize(w, h);
        EXPECT_EQ(w, c.width);
        EXPECT_EQ(h, c.height);
        EXPECT_EQ(video.CountFrames(), FfprobeFrames(path));
        EXPECT_EQ(video.CountFrames(), c.frames);
        // The first sample lies at time 0: found by the first query, and counted once.
        EXPECT_EQ(video.CurrentTime(), 0);

        const DrawingContext* dc = video.GetDrawingContext();
        ASSERT_NE(dc, nullptr);
        EXPECT_EQ(dc->header.biSize, 40u);
        EXPECT_EQ(dc->header.biBitCount, 24);
        EXPECT_EQ(dc->header.biHeight, -c.height);
        EXPECT_EQ(dc->stride % 4, 0u);
        int n = 0;
        qt::TimeValue last = -1;
        do {
            ASSERT_TRUE(video.RenderCurrentFrame()) << video.LastError();
            EXPECT_EQ(tm::ReadFrameNumber(View(*dc)), 100 + n) << "frame " << n;
            EXPECT_GT(video.CurrentTime(), last);
            last = video.CurrentTime();
            ++n;
        } while (video.AdvanceFrame() != -1);
        EXPECT_EQ(n, c.frames);
        EXPECT_EQ(video.AdvanceFrame(), -1);
    }
}

TEST(QuickTimeVideo, ColoursAreBlueGreenRedAndRenderingTwiceOrBackwardsShowsTheSameFrame)
{
    test::TempDir dir;
    tm::MediaSpec spec;
    spec.video = tm::VideoCodec::H264;
    spec.frames = 30;
    const std::string path = Make(dir, "h.mov", spec);
    CQuickTimeVideoSource video;
    ASSERT_TRUE(video.Open(path.c_str())) << video.LastError();
    const DrawingContext* dc = video.GetDrawingContext();
    ASSERT_NE(dc, nullptr);

    std::array<std::array<int, 3>, 3> rgb{};
    ASSERT_TRUE(video.RenderCurrentFrame());
    ASSERT_TRUE(tm::ReadPatchColours(View(*dc), &rgb));
    EXPECT_GT(rgb[0][0], 180);  // the red patch is red when read as blue, green, red
    EXPECT_LT(rgb[0][2], 80);
    EXPECT_GT(rgb[2][2], 180);

    std::vector<qt::TimeValue> times;
    do times.push_back(video.CurrentTime());
    while (video.AdvanceFrame() != -1);
    ASSERT_EQ(times.size(), 30u);

    // Any time inside a frame's interval shows that frame; going back restarts decoding.
    qt::MovieFile file{path};
    std::unique_ptr<qt::Movie> movie;
    ASSERT_EQ(qt::Movie::FromFile(file, &movie, nullptr), qt::noErr);
    const int w = dc->header.biWidth, h = -dc->header.biHeight;
    const std::size_t stride = (static_cast<std::size_t>(w) * 3 + 3) / 4 * 4;
    std::vector<std::uint8_t> bits(stride * h);
    qt::GWorld world{bits.data(), w, h, stride};
    movie->SetGWorld(&world);
    const tm::ImageView view{bits.data(), w, h, static_cast<std::ptrdiff_t>(stride), tm::PixelFormat::Bgr24};
    for (int frame : {20, 20, 3, 29, 0, 14}) {
        SCOPED_TRACE(frame);
        const qt::TimeValue inside = frame + 1 < 30 ? (times[frame] + times[frame + 1]) / 2 : times[frame] + 1;
        for (qt::TimeValue t : {times[frame], inside}) {
            movie->SetTimeValue(t);
            std::string why;
            ASSERT_EQ(movie->Draw(&why), qt::noErr) << why;
            EXPECT_EQ(tm::ReadFrameNumber(view), frame);
        }
    }

    // One source going back and forth over its own movie.
    CQuickTimeVideoSource seek;
    ASSERT_TRUE(seek.Open(path.c_str()));
    for (int i = 0; i < 25; ++i) seek.AdvanceFrame();
    ASSERT_TRUE(seek.RenderCurrentFrame());
    EXPECT_EQ(tm::ReadFrameNumber(View(*seek.GetDrawingContext())), 25);
    ASSERT_TRUE(seek.RenderCurrentFrame());
    EXPECT_EQ(tm::ReadFrameNumber(View(*seek.GetDrawingContext())), 25);
}

TEST(QuickTimeVideo, SoundOnlyMovieOpensWithEmptyBoxAndNoFrames)
{
    test::TempDir dir;
    const std::string path = MakePreset(dir, "mov_sound_only");
    CQuickTimeVideoSource video;
    ASSERT_TRUE(video.Open(path.c_str())) << video.LastError();
    int w = -1, h = -1;
    video.GetFrameSize(w, h);
    EXPECT_EQ(w, 0);
    EXPECT_EQ(h, 0);
    EXPECT_EQ(video.CountFrames(), 0);
    EXPECT_EQ(video.CurrentTime(), -1);
    EXPECT_EQ(video.GetDrawingContext(), nullptr);
    EXPECT_FALSE(video.RenderCurrentFrame());
    EXPECT_EQ(video.AdvanceFrame(), -1);
}

TEST(QuickTimeVideo, RefusesWhatIsNotAMovieWithTheFileNamed)
{
    test::TempDir dir;
    const std::string wav = dir / "tone.wav";
    ASSERT_TRUE(tm::MakeWave(wav, 16, 48000, 2, 0.5));
    const std::string junk = dir / "junk.mov";
    std::ofstream(junk) << "this is not a movie at all, only some text in a file";
    const std::string mkv = MakePreset(dir, "mkv_h264_vorbis");
    for (const std::string& path : {wav, junk, mkv, dir / "missing.mov"}) {
        SCOPED_TRACE(path);
        CQuickTimeVideoSource video;
        EXPECT_FALSE(video.Open(path.c_str()));
        EXPECT_NE(video.LastError().find(path), std::string::npos) << video.LastError();
        EXPECT_EQ(video.GetDrawingContext(), nullptr);
        CQuickTimeAudioSource audio;
        EXPECT_FALSE(audio.Open(path.c_str()));
        EXPECT_NE(audio.LastError().find(path), std::string::npos) << audio.LastError();
    }
    EXPECT_EQ(ReadFile(junk).size(), 52u);  // sources are never written
}

TEST(QuickTimeVideo, DamagedSamplesDoNotStopTheMovieAndACutOffMovieIsRefused)
{
    test::TempDir dir;
    for (tm::VideoCodec codec : {tm::VideoCodec::Mjpeg, tm::VideoCodec::H264}) {
        const bool intraOnly = codec == tm::VideoCodec::Mjpeg;
        SCOPED_TRACE(intraOnly ? "mjpeg" : "h264");
        tm::MediaSpec spec;
        spec.video = codec;
        spec.frames = 20;
        spec.audio = tm::AudioCodec::PcmS16be;
        const std::string path = Make(dir, "d.mov", spec);
        std::vector<std::uint8_t> bytes = ReadFile(path);
        ASSERT_GT(bytes.size(), 4000u);

        // Garbage over a stretch of sample data in the middle (the index is at the file's end).
        std::vector<std::uint8_t> damaged = bytes;
        for (std::size_t i = damaged.size() / 3; i < damaged.size() / 3 + 1000; ++i)
            damaged[i] = static_cast<std::uint8_t>(i * 7);
        const std::string bad = dir / "damaged.mov";
        std::ofstream(bad, std::ios::binary).write(reinterpret_cast<const char*>(damaged.data()), damaged.size());
        CQuickTimeVideoSource video;
        ASSERT_TRUE(video.Open(bad.c_str())) << video.LastError();
        EXPECT_EQ(video.CountFrames(), 20);
        std::vector<int> numbers;
        do {
            ASSERT_TRUE(video.RenderCurrentFrame()) << video.LastError();
            numbers.push_back(tm::ReadFrameNumber(View(*video.GetDrawingContext())));
        } while (video.AdvanceFrame() != -1);
        ASSERT_EQ(numbers.size(), 20u);
        EXPECT_EQ(numbers.front(), 0);
        if (intraOnly) {
            // Frames on both sides of the damage come out in their places.
            EXPECT_EQ(numbers.back(), 19);
            EXPECT_GE(std::count_if(numbers.begin(), numbers.end(), [n = 0](int v) mutable { return v == n++; }), 10);
        }
        CQuickTimeAudioSource audio;
        ASSERT_TRUE(audio.Open(bad.c_str()));
        EXPECT_TRUE(ConvertAll(audio, dir / "damaged.wav")) << audio.LastError();
        EXPECT_NE(SoxInfo(dir / "damaged.wav", "-s"), "");

        // Cut before its index, the file is no movie at all.
        const std::string cut = dir / "cut.mov";
        std::ofstream(cut, std::ios::binary).write(reinterpret_cast<const char*>(bytes.data()), bytes.size() / 2);
        CQuickTimeVideoSource cutVideo;
        EXPECT_FALSE(cutVideo.Open(cut.c_str()));
        EXPECT_NE(cutVideo.LastError().find(cut), std::string::npos);
        CQuickTimeAudioSource cutAudio;
        EXPECT_FALSE(cutAudio.Open(cut.c_str()));
        EXPECT_NE(cutAudio.LastError().find(cut), std::string::npos);
    }
}

TEST(QuickTimeVideo, WithoutAPathTheDialogHookChoosesTheMovie)
{
    test::TempDir dir;
    tm::MediaSpec spec;
    spec.video = tm::VideoCodec::Mjpeg;
    spec.frames = 3;
    const std::string path = Make(dir, "m.mov", spec);

    CQuickTimeVideoSource::SetOpenFileDialogHook(nullptr);
    CQuickTimeVideoSource none;
    EXPECT_FALSE(none.Open(nullptr));

    OpenFileRequest seen;
    CQuickTimeVideoSource::SetOpenFileDialogHook([&](const OpenFileRequest& r, std::string* chosen) {
        seen = r;
        *chosen = path;
        return true;
    });
    CQuickTimeVideoSource chosen;
    EXPECT_TRUE(chosen.Open(nullptr)) << chosen.LastError();
    EXPECT_EQ(chosen.CountFrames(), 3);
    EXPECT_EQ(seen.filterName, "QuickTime Movies (*.mov)");
    EXPECT_EQ(seen.filterPattern, "*.mov");
    EXPECT_EQ(seen.maxPath, 256u);

    CQuickTimeVideoSource::SetOpenFileDialogHook([](const OpenFileRequest&, std::string*) { return false; });
    CQuickTimeVideoSource cancelled;
    EXPECT_FALSE(cancelled.Open(nullptr));
    CQuickTimeVideoSource::SetOpenFileDialogHook(nullptr);
}

// ---- audio ----

TEST(QuickTimeAudio, NoSoundTrackFailsWithInvalidTrack)
{
    test::TempDir dir;
    const std::string path = MakePreset(dir, "mov_no_sound");
    CQuickTimeAudioSource audio;
    EXPECT_FALSE(audio.Open(path.c_str()));
    EXPECT_EQ(audio.LastResult(), -2009);
    bool more = true;
    EXPECT_FALSE(audio.ConvertChunk((dir / "x.wav").c_str(), more));
    EXPECT_FALSE(more);
    EXPECT_FALSE(std::filesystem::exists(dir / "x.wav"));
    EXPECT_FALSE(audio.Finish(false));
}

struct PcmCase {
    const char* preset;
    const char* ffmpegFormat;  // what ffmpeg decodes the track to
    bool exchanged;            // the WAVE holds ffmpeg's samples with every byte pair exchanged
    int bits;
};

TEST(QuickTimeAudio, UncompressedSoundIsPassedThroughWithTheDesignedByteOrder)
{
    test::TempDir dir;
    const PcmCase cases[] = {
        // 'twos' is big-endian: exchanged it is the right little-endian WAVE.
        {"mov_twos", "s16le", false, 16},
        // 'sowt' is exchanged too, so the WAVE holds big-endian samples: kept as designed.
        {"mov_sowt", "s16le", true, 16},
        // 8-bit sound is copied as it is, signed 'twos' included.
        {"mov_raw8", "u8", false, 8},
        {"mov_twos8", "s8", false, 8},
    };
    for (const PcmCase& c : cases) {
        SCOPED_TRACE(c.preset);
        const std::string path = MakePreset(dir, c.preset);
        const std::string wav = dir / (std::string(c.preset) + ".wav");
        CQuickTimeAudioSource audio;
        ASSERT_TRUE(audio.Open(path.c_str())) << audio.LastError();
        EXPECT_TRUE(audio.PassingThrough());
        int chunks = 0;
        ASSERT_TRUE(ConvertAll(audio, wav, &chunks)) << audio.LastError();
        EXPECT_GT(chunks, 1);

        const std::vector<std::uint8_t> expected = FfmpegSamples(path, c.ffmpegFormat);
        ASSERT_FALSE(expected.empty());
        const std::vector<std::uint8_t> got = SoxSamples(wav);
        EXPECT_EQ(got.size(), expected.size());
        EXPECT_TRUE(got == (c.exchanged ? Swapped(expected) : expected));

        const std::string probe = Capture("ffprobe -v error -select_streams a:0 -show_entries "
                                          "stream=sample_rate,channels -of csv=p=0 '" + path + "'");
        const int rate = std::atoi(probe.c_str());
        const int channels = std::atoi(probe.substr(probe.find(',') + 1).c_str());
        EXPECT_EQ(SoxInfo(wav, "-r"), std::to_string(rate));
        EXPECT_EQ(SoxInfo(wav, "-c"), std::to_string(channels));
        EXPECT_EQ(SoxInfo(wav, "-b"), std::to_string(c.bits));
        EXPECT_EQ(SoxInfo(wav, "-s"), std::to_string(expected.size() / (c.bits / 8) / channels));
    }
}

TEST(QuickTimeAudio, RatesOutsideSixteenBitsSignedAreWrittenAsZeroExceptTheTwoStandardOnes)
{
    test::TempDir dir;
    for (int rate : {48000, 44100, 22050, 37800}) {
        SCOPED_TRACE(rate);
        tm::MediaSpec spec;
        spec.video = tm::VideoCodec::None;
        spec.audio = tm::AudioCodec::PcmS16be;
        spec.sampleRate = rate;
        spec.channels = 1;
        spec.audioSeconds = 0.5;
        const std::string path = Make(dir, "r" + std::to_string(rate) + ".mov", spec);
        const std::string wav = dir / ("r" + std::to_string(rate) + ".wav");
        CQuickTimeAudioSource audio;
        ASSERT_TRUE(audio.Open(path.c_str())) << audio.LastError();
        ASSERT_TRUE(ConvertAll(audio, wav)) << audio.LastError();
        const std::vector<std::uint8_t> bytes = ReadFile(wav);
        ASSERT_GE(bytes.size(), 44u);
        const std::uint32_t written = Le32(bytes, 24);
        EXPECT_EQ(written, rate == 37800 ? 0u : static_cast<std::uint32_t>(rate));
        EXPECT_EQ(Le32(bytes, 28), written * 2);  // average bytes per second follows
        if (written) {
            EXPECT_EQ(SoxInfo(wav, "-r"), std::to_string(rate));
            EXPECT_EQ(SoxInfo(wav, "-s"), std::to_string(rate / 2));
        } else {
            EXPECT_EQ(Le32(bytes, 40), static_cast<std::uint32_t>(rate));  // still all the sound
        }
    }
    EXPECT_EQ(WaveRateOf(44100u << 16), 44100u);
    EXPECT_EQ(WaveRateOf(48000u << 16), 48000u);
    EXPECT_EQ(WaveRateOf((44100u << 16) + 1), 0u);
    EXPECT_EQ(WaveRateOf(32000u << 16), 32000u);
    EXPECT_EQ(WaveRateOf((22050u << 16) | 0x8000), 22050u);
}

TEST(QuickTimeAudio, CompressedSoundDecodesToItsDurationAndTone)
{
    test::TempDir dir;
    struct Case {
        const char* preset;
        bool hasAtom;
    };
    for (const Case& c : {Case{"mov_aac", true}, Case{"mov_ima4", false}, Case{"mov_h264_aac", true}}) {
        SCOPED_TRACE(c.preset);
        tm::MediaSpec spec;
        ASSERT_TRUE(tm::Preset(c.preset, &spec));
        const std::string path = MakePreset(dir, c.preset);
        const std::string wav = dir / (std::string(c.preset) + ".wav");

        // Whether the track carries decompression parameters: a missing 'wave' atom is no error.
        {
            qt::FSSpec fs{path};
            qt::MovieFile file{path};
            std::unique_ptr<qt::Movie> movie;
            ASSERT_EQ(qt::Movie::FromFile(file, &movie, nullptr), qt::noErr);
            int track = -1;
            ASSERT_EQ(movie->IndTrackType(1, qt::SoundMediaType, &track), qt::noErr);
            std::unique_ptr<qt::Media> media;
            ASSERT_EQ(movie->TrackMedia(track, &media), qt::noErr);
            std::vector<std::uint8_t> atom;
            EXPECT_EQ(media->SoundDescriptionExtension(qt::MakeOSType("wave"), &atom) == qt::noErr, c.hasAtom);
            (void)fs;
        }

        CQuickTimeAudioSource audio;
        ASSERT_TRUE(audio.Open(path.c_str())) << audio.LastError();
        EXPECT_FALSE(audio.PassingThrough());
        ASSERT_TRUE(ConvertAll(audio, wav)) << audio.LastError();
        EXPECT_EQ(SoxInfo(wav, "-r"), std::to_string(spec.sampleRate));
        EXPECT_EQ(SoxInfo(wav, "-c"), std::to_string(spec.channels));
        EXPECT_EQ(SoxInfo(wav, "-b"), "16");
        const double seconds = spec.audioSeconds > 0 ? spec.audioSeconds
                                                     : static_cast<double>(spec.frames) * spec.fpsDen / spec.fpsNum;
        const long expected = std::lround(seconds * spec.sampleRate);
        const long got = std::atol(SoxInfo(wav, "-s").c_str());
        // Encoder delay and padding are cut as the track's edit says; what remains is within
        // one block of the sound that went in.
        EXPECT_NEAR(got, expected, 64) << "samples";

        // The tone that went in comes out: native 16-bit order, no exchange of the decoder's output.
        const std::vector<std::uint8_t> pcm = SoxSamples(wav);
        const std::size_t frames = pcm.size() / 2 / spec.channels;
        ASSERT_GT(frames, 4096u);
        const auto* s = reinterpret_cast<const std::int16_t*>(pcm.data());
        const std::size_t skip = 2048;  // past the codec's start-up
        const tm::ToneAnalysis tone = tm::AnalyzeTone(s + skip * spec.channels, frames - 2 * skip, spec.channels, 0,
                                                      spec.sampleRate, spec.toneHz);
        EXPECT_NEAR(tone.amplitude, spec.toneLevel, 0.05);
        EXPECT_GT(tone.snrDb, 25.0);
    }
}

// The generator writes neither 24-bit nor mu-law sound; ffmpeg makes these movies. 24-bit
// stays 24-bit, mu-law decodes to 16 bits, both little-endian as ffmpeg decodes them.
TEST(QuickTimeAudio, TwentyFourBitAndMuLawSoundAreDecodedNotPassedThrough)
{
    test::TempDir dir;
    struct Case {
        const char* codec;
        const char* type;
        qt::OSType osType;
        const char* ffmpegFormat;
        const char* bits;
    };
    for (const Case& c : {Case{"pcm_s24be", "in24", qt::MakeOSType("in24"), "s24le", "24"},
                          Case{"pcm_mulaw", "ulaw", qt::MakeOSType("ulaw"), "s16le", "16"}}) {
        SCOPED_TRACE(c.codec);
        const std::string path = dir / (std::string(c.type) + ".mov");
        ASSERT_EQ(std::system(("ffmpeg -nostdin -v error -f lavfi -i sine=f=440:r=32000:d=1.5 -ac 2 -c:a " +
                               std::string(c.codec) + " '" + path + "'").c_str()),
                  0);
        const std::string wav = dir / (std::string(c.type) + ".wav");
        CQuickTimeAudioSource audio;
        ASSERT_TRUE(audio.Open(path.c_str())) << audio.LastError();
        EXPECT_EQ(audio.SourceDescription().dataFormat, c.osType);
        EXPECT_FALSE(audio.PassingThrough());
        ASSERT_TRUE(ConvertAll(audio, wav)) << audio.LastError();
        EXPECT_EQ(SoxInfo(wav, "-b"), c.bits);
        EXPECT_EQ(SoxInfo(wav, "-r"), "32000");
        EXPECT_EQ(SoxInfo(wav, "-s"), "48000");
        EXPECT_TRUE(SoxSamples(wav) == FfmpegSamples(path, c.ffmpegFormat));
    }
}

TEST(QuickTimeAudio, FinishIsSafeTwiceAndAnAbortLeavesAReadableWave)
{
    test::TempDir dir;
    tm::MediaSpec spec;
    spec.video = tm::VideoCodec::None;
    spec.audio = tm::AudioCodec::PcmS16be;
    spec.sampleRate = 48000;
    spec.channels = 2;
    spec.audioSeconds = 3;
    const std::string path = Make(dir, "long.mov", spec);

    // Finish before anything was written creates nothing.
    {
        CQuickTimeAudioSource audio;
        ASSERT_TRUE(audio.Open(path.c_str()));
        EXPECT_TRUE(audio.Finish(true));
        EXPECT_TRUE(audio.Finish(true));
        EXPECT_FALSE(audio.Finish(false));
        bool more = true;
        EXPECT_FALSE(audio.ConvertChunk((dir / "late.wav").c_str(), more));
        EXPECT_FALSE(std::filesystem::exists(dir / "late.wav"));
    }
    // Aborted after a few steps: what was converted is a complete WAVE.
    const std::string wav = dir / "part.wav";
    {
        CQuickTimeAudioSource audio;
        ASSERT_TRUE(audio.Open(path.c_str()));
        bool more = false;
        for (int i = 0; i < 3; ++i) {
            ASSERT_TRUE(audio.ConvertChunk(wav.c_str(), more));
            ASSERT_TRUE(more);
        }
        const std::uint64_t bytes = audio.BytesWritten();
        EXPECT_GT(bytes, 0u);
        EXPECT_LE(bytes, 3u * CQuickTimeAudioSource::kOutputBufferBytes);
        EXPECT_TRUE(audio.Finish(true));
        EXPECT_TRUE(audio.Finish(true));
        EXPECT_EQ(SoxInfo(wav, "-s"), std::to_string(bytes / 4));
        EXPECT_EQ(SoxInfo(wav, "-c"), "2");
    }
    // Destroyed mid-way without Finish: still closed properly.
    {
        const std::string wav2 = dir / "dropped.wav";
        {
            CQuickTimeAudioSource audio;
            ASSERT_TRUE(audio.Open(path.c_str()));
            bool more = false;
            ASSERT_TRUE(audio.ConvertChunk(wav2.c_str(), more));
        }
        EXPECT_NE(SoxInfo(wav2, "-s"), "");
    }
    // A WAVE that cannot be created fails the step and names the file.
    {
        CQuickTimeAudioSource audio;
        ASSERT_TRUE(audio.Open(path.c_str()));
        const std::string bad = dir / "no/such/folder/x.wav";
        bool more = true;
        EXPECT_FALSE(audio.ConvertChunk(bad.c_str(), more));
        EXPECT_FALSE(more);
        EXPECT_NE(audio.LastError().find(bad), std::string::npos);
        EXPECT_TRUE(audio.Finish(true));
    }
}

TEST(QuickTimeAudio, SystemSoundFileIsImportedWhenReadableElseRefused)
{
    test::TempDir dir;
    const std::string wav = dir / "beep";
    ASSERT_TRUE(tm::MakeWave(wav, 16, 22050, 1, 0.5));
    const unsigned char info[32] = {'s', 'f', 'i', 'l', 'm', 'o', 'v', 'r'};
    if (::setxattr(wav.c_str(), "user.com.apple.FinderInfo", info, sizeof info, 0) != 0)
        GTEST_SKIP() << "no user extended attributes here: " << std::strerror(errno);
    const std::string empty = dir / "resource-only";
    std::ofstream(empty).flush();
    ASSERT_EQ(::setxattr(empty.c_str(), "user.com.apple.FinderInfo", info, sizeof info, 0), 0);

    // Without its type the WAVE is no movie.
    const std::string plain = dir / "plain.wav";
    ASSERT_TRUE(tm::MakeWave(plain, 16, 22050, 1, 0.5));
    CQuickTimeAudioSource notMovie;
    EXPECT_FALSE(notMovie.Open(plain.c_str()));

    CQuickTimeAudioSource audio;
    ASSERT_TRUE(audio.Open(wav.c_str())) << audio.LastError();
    const std::string out = dir / "beep.wav";
    ASSERT_TRUE(ConvertAll(audio, out)) << audio.LastError();
    EXPECT_EQ(SoxInfo(out, "-r"), "22050");
    EXPECT_EQ(SoxInfo(out, "-s"), "11025");

    // The sound lives in a resource fork libavformat cannot read: a clean refusal.
    CQuickTimeAudioSource refused;
    EXPECT_FALSE(refused.Open(empty.c_str()));
    EXPECT_EQ(refused.LastResult(), -2009);
    EXPECT_NE(refused.LastError().find(empty), std::string::npos);
}

// ---- the pass-through converter on its own ----

TEST(PassThroughSoundConverter, ChoosesPassThroughOnlyForEqualUncompressedDescriptions)
{
    qt::SoundComponentData in{};
    in.format = qt::MakeOSType("twos");
    in.numChannels = 2;
    in.sampleSize = 16;
    in.sampleRate = 44100u << 16;
    qt::SoundComponentData out = in;
    out.format = qt::kSoundNotCompressed;
    for (qt::OSType f : {qt::MakeOSType("twos"), qt::MakeOSType("sowt"), qt::MakeOSType("raw "), qt::MakeOSType("NONE")}) {
        in.format = f;
        qt::CPassThroughSoundConverter c;
        EXPECT_EQ(c.Open(&in, &out), qt::noErr) << qt::OSTypeText(f);
        EXPECT_TRUE(c.PassingThrough()) << qt::OSTypeText(f);
        EXPECT_EQ(c.GetInfo(qt::siDecompressionParams, nullptr), 1);
        std::uint32_t frames = 9, bytes = 9;
        EXPECT_EQ(c.EndConversion(nullptr, &frames, &bytes), qt::noErr);
        EXPECT_EQ(frames + bytes, 0u);
    }
    in.format = qt::MakeOSType("twos");
    out.sampleRate = 48000u << 16;  // a different rate needs the real converter
    qt::CPassThroughSoundConverter resample;
    EXPECT_EQ(resample.Open(&in, &out), qt::noErr);
    EXPECT_FALSE(resample.PassingThrough());
    in.format = qt::MakeOSType("zzzz");
    qt::CPassThroughSoundConverter unknown;
    EXPECT_NE(unknown.Open(&in, &out), qt::noErr);
}

}  // namespace
}  // namespace zub

TEST(QuickTimeAudio, ADescriptionClaimingThousandsOfChannelsIsRefusedBeforeAnyBufferIsSized)
{
    zub::test::TempDir dir;
    const std::string path = zub::MakePreset(dir, "mov_twos");
    ASSERT_FALSE(path.empty());
    std::string bytes;
    {
        std::ifstream in(path, std::ios::binary);
        bytes.assign(std::istreambuf_iterator<char>(in), {});
    }
    // The channel count of the 'twos' sample description: past the entry's format, 6 reserved
    // bytes, the data reference, version, revision and vendor.
    const auto at = bytes.find("twos");
    ASSERT_NE(at, std::string::npos);
    ASSERT_EQ(bytes[at + 20], 0);
    ASSERT_EQ(bytes[at + 21], 2);
    bytes[at + 20] = static_cast<char>(0x5C);
    bytes[at + 21] = static_cast<char>(0xE4);  // 23,780 channels
    {
        std::ofstream out(path, std::ios::binary | std::ios::trunc);
        out << bytes;
    }
    zub::CQuickTimeAudioSource audio;
    EXPECT_FALSE(audio.Open(path.c_str()));
    EXPECT_NE(audio.LastError().find(path), std::string::npos) << audio.LastError();
    EXPECT_NE(audio.LastError().find("channels"), std::string::npos) << audio.LastError();
}

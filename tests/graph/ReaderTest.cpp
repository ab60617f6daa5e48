// The graph readers on media made by the project's generator, checked against ffprobe and sox.
#include <gtest/gtest.h>

#include <gst/gst.h>

#include <chrono>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <map>
#include <memory>
#include <mutex>
#include <set>
#include <string>
#include <thread>
#include <vector>

#include "graph/DecodeGraph.h"
#include "graph/GraphAudioReader.h"
#include "graph/GraphVideoReader.h"
#include "platform/DecoderThreads.h"
#include "TempDir.h"
#include "TestMedia.h"
#include "Tool.h"
#include "zubimport/DSUtility.h"

namespace zt = zub::testmedia;
using namespace std::chrono_literals;

namespace {

std::string RunCommand(const std::string& command)
{
    return zub::test::CaptureLine(command);
}

double Number(const std::string& text)
{
    int num = 0, den = 1;
    if (std::sscanf(text.c_str(), "%d/%d", &num, &den) == 2 && den) return static_cast<double>(num) / den;
    return std::atof(text.c_str());
}

// A stream's duration as ffprobe reports it, or the file's when the container keeps none per stream.
double ProbeSeconds(const std::string& path, const char* stream)
{
    const std::string s = RunCommand(std::string("ffprobe -v error -select_streams ") + stream +
                                     " -show_entries stream=duration -of default=nw=1:nk=1 '" + path + "'");
    if (!s.empty() && s != "N/A") return Number(s);
    return Number(RunCommand("ffprobe -v error -show_entries format=duration -of default=nw=1:nk=1 '" + path + "'"));
}

int ThreadCount()
{
    int n = 0;
    for ([[maybe_unused]] const auto& e : std::filesystem::directory_iterator("/proc/self/task")) ++n;
    return n;
}

// Threads the framework parks in GLib's pool after a pipeline ends are not running anything;
// let them go, then wait for the count to settle.
bool ThreadsBackTo(int baseline)
{
    for (int i = 0; i < 200; ++i) {
        g_thread_pool_stop_unused_threads();
        if (ThreadCount() <= baseline) return true;
        std::this_thread::sleep_for(10ms);
    }
    return false;
}

class Media : public ::testing::Test {
protected:
    static void SetUpTestSuite()
    {
        dir_ = new zub::test::TempDir;
        for (const char* name : {"mp4_h264_aac", "avi_mjpeg_pcm", "mkv_h264_vorbis", "mpg_mpeg2_mp2", "mov_qtrle_alpha",
                                 "mov_png_alpha", "mov_prores4444", "mov_twos", "mov_raw8", "mov_sound_only",
                                 "mkv_unknown_rate", "avi_raw_pcm", "wav_u8_stereo", "mov_ima4"}) {
            std::string error;
            const std::string path = zt::MakePreset(dir_->Path().string(), name, &error);
            ASSERT_FALSE(path.empty()) << error;
            (*files_)[name] = path;
        }
    }
    static void TearDownTestSuite()
    {
        delete dir_;
        dir_ = nullptr;
    }
    static std::string File(const std::string& name) { return files_->at(name); }

    static zub::test::TempDir* dir_;
    static std::map<std::string, std::string>* files_;
};
zub::test::TempDir* Media::dir_ = nullptr;
std::map<std::string, std::string>* Media::files_ = new std::map<std::string, std::string>;

class Collector : public zub::IVideoFrameSink {
public:
    explicit Collector(int stopAfter = 0) : stopAfter_(stopAfter) {}

    int VideoCallback(const zub::VideoSample& s) override
    {
        std::lock_guard<std::mutex> lock(mutex_);
        threads_.insert(std::this_thread::get_id());
        indices_.push_back(s.index);
        sizes_.insert({s.width, s.height, s.bitsPerPixel});
        if (!s.data || s.stride < s.width * s.bitsPerPixel / 8 || s.stride % 4 || s.size != static_cast<size_t>(s.stride) * s.height) {
            bad_ = true;
        } else {
            const zt::PixelFormat f = s.bitsPerPixel == 32 ? zt::PixelFormat::Bgra32 : zt::PixelFormat::Bgr24;
            const zt::ImageView v{s.data, s.width, s.height, s.stride, f};
            numbers_.push_back(zt::ReadFrameNumber(v));
            alphaNumbers_.push_back(s.bitsPerPixel == 32 ? zt::ReadFrameNumber(v, zt::Plane::Alpha) : -2);
            times_.push_back(s.time);
        }
        return stopAfter_ <= 0 || static_cast<int>(indices_.size()) < stopAfter_;
    }

    std::mutex mutex_;
    int stopAfter_;
    std::set<std::thread::id> threads_;
    std::vector<std::int64_t> indices_, times_;
    std::vector<int> numbers_, alphaNumbers_;
    std::set<std::array<int, 3>> sizes_;
    bool bad_ = false;
};

bool WaitFinished(zub::CGraphVideoReader& r)
{
    for (int i = 0; i < 3000; ++i) {
        if (r.Finished()) return true;
        std::this_thread::sleep_for(10ms);
    }
    return false;
}

struct VideoCase {
    const char* preset;
    bool alpha;
};
void PrintTo(const VideoCase& c, std::ostream* os) { *os << c.preset; }

class VideoReader : public Media, public ::testing::WithParamInterface<VideoCase> {};

TEST_P(VideoReader, EveryFrameOnceInOrderOnTheStreamingThread)
{
    const VideoCase& c = GetParam();
    const std::string path = File(c.preset);
    zt::MediaSpec spec;
    ASSERT_TRUE(zt::Preset(c.preset, &spec));

    zub::CGraphVideoReader reader;
    std::string error;
    ASSERT_TRUE(reader.Init(&error)) << error;
    ASSERT_TRUE(reader.OpenVideo(path, &error)) << error;
    EXPECT_EQ(reader.Width(), spec.width);
    EXPECT_EQ(reader.Height(), spec.height);
    EXPECT_EQ(reader.BitsPerPixel(), c.alpha ? 32 : 24);
    EXPECT_EQ(reader.HasAlpha(), c.alpha);

    // Time per frame and duration as ffprobe sees them.
    const double rate = Number(RunCommand("ffprobe -v error -select_streams v:0 -show_entries stream=r_frame_rate "
                                          "-of default=nw=1:nk=1 '" + path + "'"));
    ASSERT_GT(rate, 0);
    EXPECT_NEAR(static_cast<double>(reader.TimePerFrame()), 1e7 / rate, 1.0);
    // The duration gives the true frame count, also where the container stores none (an MPEG
    // program stream, whose duration ffprobe only estimates).
    EXPECT_NEAR(reader.Duration() / 1e7, spec.frames / rate, 1.0 / rate / 2);

    Collector sink;
    reader.SetFrameSink(&sink);
    ASSERT_TRUE(reader.Run(&error)) << error;
    ASSERT_TRUE(WaitFinished(reader));
    EXPECT_EQ(reader.Error(), "");
    reader.Stop();

    std::lock_guard<std::mutex> lock(sink.mutex_);
    EXPECT_FALSE(sink.bad_);
    ASSERT_EQ(sink.numbers_.size(), static_cast<size_t>(spec.frames));
    for (int i = 0; i < spec.frames; ++i) {
        EXPECT_EQ(sink.indices_[i], i);
        EXPECT_EQ(sink.numbers_[i], i) << "frame " << i;
        if (c.alpha) {
            EXPECT_EQ(sink.alphaNumbers_[i], i) << "alpha of frame " << i;
        }
        if (i) {
            EXPECT_GT(sink.times_[i], sink.times_[i - 1]);
        }
    }
    EXPECT_EQ(sink.sizes_.size(), 1u);
    EXPECT_EQ(sink.threads_.count(std::this_thread::get_id()), 0u);
}

INSTANTIATE_TEST_SUITE_P(Presets, VideoReader,
                         ::testing::Values(VideoCase{"mp4_h264_aac", false}, VideoCase{"avi_mjpeg_pcm", false},
                                           VideoCase{"mkv_h264_vorbis", false}, VideoCase{"mpg_mpeg2_mp2", false},
                                           VideoCase{"avi_raw_pcm", false}, VideoCase{"mov_twos", false},
                                           VideoCase{"mov_qtrle_alpha", true}, VideoCase{"mov_png_alpha", true},
                                           VideoCase{"mov_prores4444", true}),
                         [](const ::testing::TestParamInfo<VideoCase>& i) { return std::string(i.param.preset); });

TEST_F(Media, SinkReturningZeroStopsTheGraph)
{
    zub::CGraphVideoReader reader;
    std::string error;
    ASSERT_TRUE(reader.OpenVideo(File("mp4_h264_aac"), &error)) << error;
    Collector sink(10);
    reader.SetFrameSink(&sink);
    ASSERT_TRUE(reader.Run(&error)) << error;
    ASSERT_TRUE(WaitFinished(reader));
    std::this_thread::sleep_for(200ms);  // anything still in flight would arrive now
    {
        std::lock_guard<std::mutex> lock(sink.mutex_);
        EXPECT_EQ(sink.indices_.size(), 10u);
    }
    reader.Stop();
    EXPECT_EQ(reader.FramesDelivered(), 10);
}

namespace {

// The decoders inside a prerolled graph, by their class ("Codec/Decoder/Video" ...), the
// decoder bin itself not counted.
std::vector<std::string> DecoderClasses(const std::string& path, zub::gst::StreamKind kind)
{
    zub::gst::DecodeGraph graph;
    std::string error;
    const bool built = graph.Build(path, kind, [](GstBin* bin, GstCaps*, std::string*) {
        GstElement* sink = gst_element_factory_make("fakesink", nullptr);
        g_object_set(sink, "sync", FALSE, nullptr);
        gst_bin_add(bin, sink);
        gst_element_sync_state_with_parent(sink);
        return sink;
    }, &error);
    EXPECT_TRUE(built && graph.Preroll(&error)) << error;
    std::vector<std::string> classes;
    GstIterator* it = gst_bin_iterate_recurse(GST_BIN(graph.Pipeline()));
    GValue item = G_VALUE_INIT;
    while (gst_iterator_next(it, &item) == GST_ITERATOR_OK) {
        GstElementFactory* factory = gst_element_get_factory(GST_ELEMENT(g_value_get_object(&item)));
        const gchar* klass = factory ? gst_element_factory_get_metadata(factory, GST_ELEMENT_METADATA_KLASS) : nullptr;
        if (klass && std::strstr(klass, "Codec/Decoder")) classes.emplace_back(klass);
        g_value_reset(&item);
    }
    g_value_unset(&item);
    gst_iterator_free(it);
    graph.Shutdown();
    return classes;
}

}  // namespace

TEST_F(Media, EachGraphDecodesOnlyItsOwnKindOfStream)
{
    // The sound's graph must not decode the picture into a parked sink (a whole decoder's
    // work for nothing, and a decoder that could be caught draining when the probe's graph
    // goes down), nor the picture's graph the sound.
    for (const char* preset : {"mp4_h264_aac", "mkv_h264_vorbis", "mpg_mpeg2_mp2"}) {
        SCOPED_TRACE(preset);
        const auto sound = DecoderClasses(File(preset), zub::gst::StreamKind::Audio);
        ASSERT_EQ(sound.size(), 1u) << ::testing::PrintToString(sound);
        EXPECT_NE(sound[0].find("Audio"), std::string::npos) << sound[0];
        const auto picture = DecoderClasses(File(preset), zub::gst::StreamKind::Video);
        ASSERT_EQ(picture.size(), 1u) << ::testing::PrintToString(picture);
        EXPECT_NE(picture[0].find("Video"), std::string::npos) << picture[0];
    }
}

TEST_F(Media, RowsArePaddedLikeBitmapRows)
{
    // 322 pixels of 3 bytes make 966 bytes a row: bitmap rows carry 2 bytes of padding.
    zt::MediaSpec spec;
    spec.width = 322;
    spec.height = 180;
    spec.frames = 5;
    spec.video = zt::VideoCodec::Mjpeg;
    const std::string path = *dir_ / "odd_width.avi";
    ASSERT_TRUE(zt::MakeMedia(path, spec));
    zub::CGraphVideoReader reader;
    std::string error;
    ASSERT_TRUE(reader.OpenVideo(path, &error)) << error;
    struct Strides : zub::IVideoFrameSink {
        int VideoCallback(const zub::VideoSample& s) override
        {
            std::lock_guard<std::mutex> lock(mutex);
            strides.insert(s.stride);
            numbers.push_back(zt::ReadFrameNumber({s.data, s.width, s.height, s.stride, zt::PixelFormat::Bgr24}));
            return 1;
        }
        std::mutex mutex;
        std::set<std::ptrdiff_t> strides;
        std::vector<int> numbers;
    } sink;
    reader.SetFrameSink(&sink);
    ASSERT_TRUE(reader.Run(&error)) << error;
    ASSERT_TRUE(WaitFinished(reader));
    reader.Stop();
    std::lock_guard<std::mutex> lock(sink.mutex);
    EXPECT_EQ(sink.strides, std::set<std::ptrdiff_t>{968});
    EXPECT_EQ(sink.numbers, (std::vector<int>{0, 1, 2, 3, 4}));
}

TEST_F(Media, UnknownFrameRateGivesZeroTimePerFrame)
{
    zub::CGraphVideoReader reader;
    std::string error;
    ASSERT_TRUE(reader.OpenVideo(File("mkv_unknown_rate"), &error)) << error;
    EXPECT_EQ(reader.TimePerFrame(), 0);
    Collector sink;
    reader.SetFrameSink(&sink);
    ASSERT_TRUE(reader.Run(&error));
    ASSERT_TRUE(WaitFinished(reader));
    reader.Close();
    std::lock_guard<std::mutex> lock(sink.mutex_);
    EXPECT_EQ(sink.numbers_.size(), 30u);
}

TEST_F(Media, ConnectionOfTheReaderIsReadableThroughTheUtilities)
{
    zub::CGraphVideoReader reader;
    ASSERT_TRUE(reader.OpenVideo(File("mov_twos")));
    GstPad* pin = reader.SinkPin();
    ASSERT_NE(pin, nullptr);
    zub::BITMAPINFOHEADER h{};
    std::int64_t tpf = 0;
    EXPECT_EQ(zub::CDSUtility::GetConnectionVideoInfo(pin, &tpf, &h), zub::S_OK);
    EXPECT_EQ(h.biWidth, 320);
    EXPECT_EQ(h.biHeight, -240);
    EXPECT_EQ(tpf, 333333);
    gst_object_unref(pin);
}

TEST_F(Media, NonMediaAndWrongKindAreRefusedWithoutThreadsLeft)
{
    // Warm the framework up so its own one-time threads are part of the baseline.
    {
        zub::CGraphVideoReader warm;
        ASSERT_TRUE(warm.OpenVideo(File("mov_twos")));
    }
    ASSERT_TRUE(ThreadsBackTo(1000));
    const int baseline = ThreadCount();

    const std::string text = *dir_ / "notes.txt";
    std::ofstream(text) << "These are not frames.\nJust words, written for the test.\n";
    const std::string missing = *dir_ / "missing.mp4";
    struct Case {
        std::string path;
        const char* reason;
    };
    for (const Case& c : {Case{text, ""}, Case{missing, ""}, Case{File("mov_sound_only"), "no video"}}) {
        zub::CGraphVideoReader reader;
        std::string error;
        EXPECT_FALSE(reader.OpenVideo(c.path, &error));
        EXPECT_EQ(error.rfind(c.path + ": ", 0), 0u) << error;
        EXPECT_NE(error.find(c.reason), std::string::npos) << error;
        EXPECT_TRUE(reader.Finished());
        EXPECT_FALSE(reader.Run());
    }
    for (const Case& c : {Case{text, ""}, Case{File("mkv_unknown_rate"), "no audio"}}) {
        zub::CGraphAudioReader reader;
        std::string error;
        EXPECT_FALSE(reader.OpenAudio(c.path, &error));
        EXPECT_EQ(error.rfind(c.path + ": ", 0), 0u) << error;
        EXPECT_NE(error.find(c.reason), std::string::npos) << error;
        EXPECT_FALSE(reader.Start(*dir_ / "never.wav"));
        EXPECT_FALSE(std::filesystem::exists(*dir_ / "never.wav"));
    }
    EXPECT_TRUE(ThreadsBackTo(baseline)) << ThreadCount() << " threads, " << baseline << " before";
}

TEST_F(Media, TheDecoderRunsTheFrameThreadsItsPictureSizeAllowsAndEndsThem)
{
    // The count must reach the decoder before it opens its codec, as its caps pass; set any
    // later it would run on gst-libav's one thread a core. Closing ends every one of them.
    zt::MediaSpec spec;
    spec.width = 1280;
    spec.height = 720;
    spec.frames = 20;
    spec.video = zt::VideoCodec::H264;
    const std::string path = *dir_ / "threads_720p.mp4";
    ASSERT_TRUE(zt::MakeMedia(path, spec));
    {
        zub::CGraphVideoReader warm;
        ASSERT_TRUE(warm.OpenVideo(File("mov_twos")));
    }
    ASSERT_TRUE(ThreadsBackTo(1000));
    const int baseline = ThreadCount();
    {
        zub::CGraphVideoReader reader;
        std::string error;
        ASSERT_TRUE(reader.OpenVideo(path, &error)) << error;  // prerolled: the codec is open
        EXPECT_GE(ThreadCount() - baseline, zub::av::DecoderFrameThreads(1280, 720));
        Collector sink;
        reader.SetFrameSink(&sink);
        ASSERT_TRUE(reader.Run(&error)) << error;
        ASSERT_TRUE(WaitFinished(reader));
        reader.Close();
        std::lock_guard<std::mutex> lock(sink.mutex_);
        EXPECT_EQ(sink.numbers_.size(), 20u);
    }
    EXPECT_TRUE(ThreadsBackTo(baseline)) << ThreadCount() << " threads, " << baseline << " before";
}

struct AudioCase {
    const char* preset;
};
void PrintTo(const AudioCase& c, std::ostream* os) { *os << c.preset; }

class AudioReader : public Media, public ::testing::WithParamInterface<AudioCase> {};

TEST_P(AudioReader, WritesSixteenBitWaveThatSoxReads)
{
    const std::string path = File(GetParam().preset);
    zt::MediaSpec spec;
    ASSERT_TRUE(zt::Preset(GetParam().preset, &spec));
    const double sourceSeconds = ProbeSeconds(path, "a:0");

    zub::CGraphAudioReader reader;
    std::string error;
    ASSERT_TRUE(reader.Init(&error)) << error;
    ASSERT_TRUE(reader.OpenAudio(path, &error)) << error;
    EXPECT_EQ(reader.SampleRate(), spec.sampleRate);
    EXPECT_EQ(reader.Channels(), spec.channels);
    EXPECT_NEAR(reader.Duration() / 1e7, sourceSeconds, 0.05);

    const std::string wave = *dir_ / (std::string(GetParam().preset) + "_out.wav");
    ASSERT_TRUE(reader.Start(wave, &error)) << error;
    bool done = false;
    for (int i = 0; i < 3000 && !done; ++i) {
        done = reader.Finished();
        if (!done) std::this_thread::sleep_for(10ms);
    }
    ASSERT_TRUE(done);
    EXPECT_EQ(reader.Error(), "");
    EXPECT_EQ(reader.Position(), reader.Duration());

    EXPECT_EQ(RunCommand("soxi -r '" + wave + "'"), std::to_string(spec.sampleRate));
    EXPECT_EQ(RunCommand("soxi -c '" + wave + "'"), std::to_string(spec.channels));
    EXPECT_EQ(RunCommand("soxi -b '" + wave + "'"), "16");
    EXPECT_EQ(RunCommand("soxi -e '" + wave + "'"), "Signed Integer PCM");
    EXPECT_NEAR(Number(RunCommand("soxi -D '" + wave + "'")), sourceSeconds, 0.05);

    // The tone is still the tone.
    const std::string raw = RunCommand("sox '" + wave + "' -t raw -e signed -b 16 -");
    std::vector<int16_t> pcm(raw.size() / 2);
    std::memcpy(pcm.data(), raw.data(), pcm.size() * 2);
    const size_t frames = pcm.size() / spec.channels;
    ASSERT_GT(frames, static_cast<size_t>(spec.sampleRate / 4));
    const zt::ToneAnalysis t =
        zt::AnalyzeTone(pcm.data() + frames / 4 * spec.channels, frames / 2, spec.channels, 0, spec.sampleRate, spec.toneHz);
    EXPECT_NEAR(t.amplitude, spec.toneLevel, 0.03);
    EXPECT_GT(t.snrDb, 30.0);
}

INSTANTIATE_TEST_SUITE_P(Presets, AudioReader,
                         ::testing::Values(AudioCase{"mov_twos"}, AudioCase{"mov_raw8"}, AudioCase{"mov_sound_only"},
                                           AudioCase{"mp4_h264_aac"}, AudioCase{"wav_u8_stereo"}, AudioCase{"mov_ima4"},
                                           AudioCase{"avi_mjpeg_pcm"}),
                         [](const ::testing::TestParamInfo<AudioCase>& i) { return std::string(i.param.preset); });

TEST_F(Media, AudioStoppedEarlyStillLeavesAValidWave)
{
    const std::string longWave = *dir_ / "long.wav";
    ASSERT_TRUE(zt::MakeWave(longWave, 16, 48000, 2, 30.0));
    zub::CGraphAudioReader reader;
    ASSERT_TRUE(reader.OpenAudio(longWave));
    EXPECT_NEAR(reader.Duration() / 1e7, 30.0, 0.01);
    const std::string out = *dir_ / "long_out.wav";
    ASSERT_TRUE(reader.Start(out));
    reader.Stop();
    EXPECT_TRUE(reader.Finished());
    EXPECT_EQ(RunCommand("soxi -r '" + out + "'"), "48000");
    const double seconds = Number(RunCommand("soxi -D '" + out + "'"));
    EXPECT_LE(seconds, 30.0);
    // The header's sizes agree with the data on disk: sox reads exactly that many samples.
    const std::string raw = RunCommand("sox '" + out + "' -t raw -");
    EXPECT_NEAR(raw.size() / 4.0 / 48000.0, seconds, 1e-6);
}

TEST(GraphReaderInit, FailsWhenARequiredElementIsMissing)
{
    GTEST_FLAG_SET(death_test_style, "threadsafe");
    // A fresh process that sees only some of the framework's plugins: no video converter.
    auto probe = [] {
        zub::test::TempDir plugins;
        const std::filesystem::path system = "/usr/lib/x86_64-linux-gnu/gstreamer-1.0";
        for (const char* so : {"libgstcoreelements.so", "libgstplayback.so", "libgstapp.so", "libgsttypefindfunctions.so"})
            std::filesystem::create_symlink(system / so, plugins.Path() / so);
        setenv("GST_PLUGIN_SYSTEM_PATH_1_0", plugins.Path().c_str(), 1);
        setenv("GST_PLUGIN_PATH_1_0", "", 1);
        setenv("GST_REGISTRY_1_0", (plugins.Path() / "registry.bin").c_str(), 1);
        zub::CGraphVideoReader reader;
        std::string error;
        const bool ok = reader.Init(&error);
        std::fprintf(stderr, "%s\n", error.c_str());
        std::exit(ok ? 0 : error.find("\"videoconvert\" is missing") != std::string::npos ? 3 : 4);
    };
    EXPECT_EXIT(probe(), ::testing::ExitedWithCode(3), "videoconvert");
}

}  // namespace

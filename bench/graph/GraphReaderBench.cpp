// Decoding speed of the graph video reader on a 1080p H.264 file, against ffmpeg decoding the
// same file to nothing in the same run, and against decodebin alone (no conversion to BGR),
// so the cost of each stage shows. ZUB_BENCH_FRAMES sets the clip length (default 300).
#include <benchmark/benchmark.h>

#include <gst/gst.h>
#include <spawn.h>
#include <sys/wait.h>

#include <atomic>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <string>
#include <thread>

#include "graph/GraphVideoReader.h"
#include "graph/GstSupport.h"
#include "TestMedia.h"

extern char** environ;

namespace {

struct Clip {
    std::filesystem::path dir;
    std::string path;
    int frames = 0;
    ~Clip()
    {
        std::error_code ec;
        if (!dir.empty()) std::filesystem::remove_all(dir, ec);
    }
};

const Clip& TheClip()
{
    static Clip clip = [] {
        Clip c;
        std::string tmpl = (std::filesystem::temp_directory_path() / "zubbench-graph-XXXXXX").string();
        if (!mkdtemp(tmpl.data())) std::abort();
        c.dir = tmpl;
        c.path = (c.dir / "h264_1080p.mp4").string();
        zub::testmedia::MediaSpec spec;
        spec.width = 1920;
        spec.height = 1080;
        spec.video = zub::testmedia::VideoCodec::H264;
        spec.audio = zub::testmedia::AudioCodec::None;
        const char* env = std::getenv("ZUB_BENCH_FRAMES");
        spec.frames = env ? std::atoi(env) : 300;
        c.frames = spec.frames;
        std::string error;
        if (!zub::testmedia::MakeMedia(c.path, spec, &error)) {
            std::fprintf(stderr, "bench_graph: %s\n", error.c_str());
            std::abort();
        }
        return c;
    }();
    return clip;
}

class Counter : public zub::IVideoFrameSink {
public:
    int VideoCallback(const zub::VideoSample& s) override
    {
        if (s.data) bytes += s.size;
        frames.fetch_add(1);
        return 1;
    }
    std::atomic<long> frames{0};
    std::atomic<std::size_t> bytes{0};
};

void BM_GraphVideoReader(benchmark::State& state)
{
    const Clip& clip = TheClip();
    long frames = 0;
    for (auto _ : state) {
        zub::CGraphVideoReader reader;
        std::string error;
        if (!reader.OpenVideo(clip.path, &error)) {
            state.SkipWithError(error.c_str());
            return;
        }
        Counter sink;
        reader.SetFrameSink(&sink);
        reader.Run();
        while (!reader.Finished()) std::this_thread::sleep_for(std::chrono::milliseconds(2));
        reader.Stop();
        frames += sink.frames.load();
        if (sink.frames.load() != clip.frames) state.SkipWithError("frames lost");
    }
    state.counters["fps"] = benchmark::Counter(static_cast<double>(frames), benchmark::Counter::kIsRate);
}

void BM_DecodebinOnly(benchmark::State& state)
{
    const Clip& clip = TheClip();
    zub::gst::EnsureInitialised(nullptr);
    for (auto _ : state) {
        const std::string launch = "filesrc location=\"" + clip.path + "\" ! decodebin ! fakesink sync=false";
        zub::gst::PipelinePtr p(gst_parse_launch(launch.c_str(), nullptr));
        gst_element_set_state(p.get(), GST_STATE_PLAYING);
        zub::gst::Ref<GstBus> bus(gst_element_get_bus(p.get()));
        zub::gst::MessagePtr msg(gst_bus_timed_pop_filtered(
            bus.get(), GST_CLOCK_TIME_NONE, static_cast<GstMessageType>(GST_MESSAGE_EOS | GST_MESSAGE_ERROR)));
        if (!msg || GST_MESSAGE_TYPE(msg.get()) != GST_MESSAGE_EOS) state.SkipWithError("decodebin failed");
    }
    state.counters["fps"] =
        benchmark::Counter(static_cast<double>(clip.frames) * state.iterations(), benchmark::Counter::kIsRate);
}

void BM_FfmpegNullDecode(benchmark::State& state)
{
    const Clip& clip = TheClip();
    for (auto _ : state) {
        const char* argv[] = {"ffmpeg", "-nostdin", "-v", "error", "-i", clip.path.c_str(), "-f", "null", "-", nullptr};
        pid_t pid = 0;
        if (posix_spawnp(&pid, "ffmpeg", nullptr, nullptr, const_cast<char* const*>(argv), environ) != 0) {
            state.SkipWithError("cannot start ffmpeg");
            return;
        }
        int status = 0;
        waitpid(pid, &status, 0);
        if (!WIFEXITED(status) || WEXITSTATUS(status) != 0) state.SkipWithError("ffmpeg failed");
    }
    state.counters["fps"] =
        benchmark::Counter(static_cast<double>(clip.frames) * state.iterations(), benchmark::Counter::kIsRate);
}

BENCHMARK(BM_GraphVideoReader)->Unit(benchmark::kMillisecond)->UseRealTime()->Iterations(3);
BENCHMARK(BM_DecodebinOnly)->Unit(benchmark::kMillisecond)->UseRealTime()->Iterations(3);
BENCHMARK(BM_FfmpegNullDecode)->Unit(benchmark::kMillisecond)->UseRealTime()->Iterations(3);

}  // namespace

BENCHMARK_MAIN();

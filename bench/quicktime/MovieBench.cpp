// How fast the movie route turns a 1080p movie into 24-bit frames (RenderCurrentFrame +
// AdvanceFrame, as the conversion pump calls them), against ffmpeg decoding the same file
// to nothing in the same run. Each iteration goes through the whole movie.
#include <benchmark/benchmark.h>

#include <cstdio>
#include <cstdlib>
#include <memory>
#include <string>

#include "quicktime/QuickTimeSource.h"
#include "TempDir.h"
#include "TestMedia.h"

namespace {

constexpr int kFrames = 300;

struct Movie1080 {
    zub::test::TempDir dir;
    std::string path;
    std::string error;
    Movie1080()
    {
        zub::testmedia::MediaSpec spec;
        spec.width = 1920;
        spec.height = 1080;
        spec.frames = kFrames;
        spec.fpsNum = 25;
        spec.video = zub::testmedia::VideoCodec::H264;
        path = dir / "hd.mov";
        if (!zub::testmedia::MakeMedia(path, spec, &error)) path.clear();
    }
};

const Movie1080& Movie()
{
    static Movie1080 movie;
    return movie;
}

void BM_RenderAndAdvance(benchmark::State& state)
{
    const Movie1080& m = Movie();
    if (m.path.empty()) {
        state.SkipWithError(("cannot make the movie: " + m.error).c_str());
        return;
    }
    std::int64_t frames = 0;
    for (auto _ : state) {
        zub::CQuickTimeVideoSource video;
        video.Start();
        if (!video.Open(m.path.c_str())) {
            state.SkipWithError(video.LastError().c_str());
            return;
        }
        do {
            if (!video.RenderCurrentFrame()) {
                state.SkipWithError(video.LastError().c_str());
                return;
            }
            benchmark::DoNotOptimize(video.GetDrawingContext()->bits[0]);
            ++frames;
        } while (video.AdvanceFrame() != -1);
    }
    state.counters["fps"] = benchmark::Counter(static_cast<double>(frames), benchmark::Counter::kIsRate);
}
BENCHMARK(BM_RenderAndAdvance)->Unit(benchmark::kMillisecond)->UseRealTime();

// ffmpeg with its default threads decoding to the null muxer: the decoder's own pace.
void BM_FfmpegNull(benchmark::State& state)
{
    const Movie1080& m = Movie();
    if (m.path.empty()) {
        state.SkipWithError(("cannot make the movie: " + m.error).c_str());
        return;
    }
    const std::string cmd = "ffmpeg -nostdin -v error -i '" + m.path + "' -f null - >/dev/null 2>&1";
    std::int64_t frames = 0;
    for (auto _ : state) {
        if (std::system(cmd.c_str()) != 0) {
            state.SkipWithError("ffmpeg failed");
            return;
        }
        frames += kFrames;
    }
    state.counters["fps"] = benchmark::Counter(static_cast<double>(frames), benchmark::Counter::kIsRate);
}
BENCHMARK(BM_FfmpegNull)->Unit(benchmark::kMillisecond)->UseRealTime();

// The same, with ffmpeg also converting every frame to 24-bit BGR as the bitmap holds it.
void BM_FfmpegBgr24(benchmark::State& state)
{
    const Movie1080& m = Movie();
    if (m.path.empty()) {
        state.SkipWithError(("cannot make the movie: " + m.error).c_str());
        return;
    }
    const std::string cmd =
        "ffmpeg -nostdin -v error -i '" + m.path + "' -pix_fmt bgr24 -f rawvideo -y /dev/null >/dev/null 2>&1";
    std::int64_t frames = 0;
    for (auto _ : state) {
        if (std::system(cmd.c_str()) != 0) {
            state.SkipWithError("ffmpeg failed");
            return;
        }
        frames += kFrames;
    }
    state.counters["fps"] = benchmark::Counter(static_cast<double>(frames), benchmark::Counter::kIsRate);
}
BENCHMARK(BM_FfmpegBgr24)->Unit(benchmark::kMillisecond)->UseRealTime();

}  // namespace

BENCHMARK_MAIN();

// Frames per second of LoadFrame for 1920 x 1080 TGA and JPEG stills fitted (Stretch All,
// "Normal") into 720 x 486 with each resize method, and in the same run ffmpeg decoding and
// scaling the same files with the matching swscale filter, single-threaded, for comparison.
#include <benchmark/benchmark.h>

#include <spawn.h>
#include <sys/wait.h>

#include <cstdlib>
#include <filesystem>
#include <string>
#include <vector>

#include "imgseq/ImageFitting.h"
#include "imgseq/ImagingLibrary.h"
#include "Tool.h"

extern char** environ;

namespace {

constexpr int kFrames = 25;
const char* const kExt[] = {"tga", "jpg"};
const char* const kSwsFlags[] = {"neighbor", "bilinear", "bicubic"};

using zub::test::Run;

// The stills, made once per run by ffmpeg's test source.
const std::string& MediaDir()
{
    static const std::string dir = [] {
        std::string tmpl = (std::filesystem::temp_directory_path() / "zubbench-XXXXXX").string();
        if (!mkdtemp(tmpl.data())) std::abort();
        for (const char* ext : kExt) {
            if (Run({"ffmpeg", "-nostdin", "-loglevel", "error", "-y", "-f", "lavfi", "-i",
                     "testsrc2=size=1920x1080:rate=25", "-frames:v", std::to_string(kFrames), "-q:v", "2",
                     tmpl + "/f%03d." + ext}) != 0)
                std::abort();
        }
        return tmpl;
    }();
    return dir;
}

std::string Frame(int i, const char* ext)
{
    char name[32];
    std::snprintf(name, sizeof name, "/f%03d.%s", i % kFrames + 1, ext);
    return MediaDir() + name;
}

void BM_LoadFrame(benchmark::State& state)
{
    const char* ext = kExt[state.range(0)];
    const int method = static_cast<int>(state.range(1));
    const std::int32_t word = zub::MakeFitWord(zub::kFitStretchAll, zub::kAreaNormal, method);
    zub::FrameHolder frame;
    std::string err;
    int i = 0;
    for (auto _ : state) {
        if (!zub::LoadFrame(Frame(i++, ext), word, false, false, {720, 486}, frame, &err)) {
            state.SkipWithError(err.c_str());
            break;
        }
        benchmark::DoNotOptimize(frame.Pixels());
    }
    state.counters["fps"] = benchmark::Counter(static_cast<double>(state.iterations()), benchmark::Counter::kIsRate);
    state.SetLabel(std::string(ext) + " " + kSwsFlags[method]);
}

void BM_Ffmpeg(benchmark::State& state)
{
    const char* ext = kExt[state.range(0)];
    const int method = static_cast<int>(state.range(1));
    const std::string pattern = MediaDir() + "/f%03d." + ext;
    for (auto _ : state) {
        if (Run({"ffmpeg", "-nostdin", "-loglevel", "error", "-threads", "1", "-filter_threads", "1", "-i", pattern,
                 "-vf", std::string("scale=720:486:flags=") + kSwsFlags[method], "-f", "rawvideo", "-pix_fmt", "bgra",
                 "-y", "/dev/null"}) != 0) {
            state.SkipWithError("ffmpeg failed");
            break;
        }
    }
    state.counters["fps"] =
        benchmark::Counter(static_cast<double>(state.iterations()) * kFrames, benchmark::Counter::kIsRate);
    state.SetLabel(std::string(ext) + " " + kSwsFlags[method] + " (process start included)");
}

void Args(benchmark::internal::Benchmark* b)
{
    b->ArgNames({"jpg", "method"});
    for (int f = 0; f < 2; ++f)
        for (int m = 0; m < 3; ++m) b->Args({f, m});
    b->UseRealTime()->Unit(benchmark::kMillisecond);
}

}  // namespace

BENCHMARK(BM_LoadFrame)->Apply(Args);
BENCHMARK(BM_Ffmpeg)->Apply(Args);

int main(int argc, char** argv)
{
    setenv(zub::kImagingLibraryEnv, ZUB_BENCH_IMAGING_LIBRARY, 0);
    benchmark::Initialize(&argc, argv);
    if (benchmark::ReportUnrecognizedArguments(argc, argv)) return 1;
    benchmark::RunSpecifiedBenchmarks();
    std::filesystem::remove_all(MediaDir());
    benchmark::Shutdown();
    return 0;
}

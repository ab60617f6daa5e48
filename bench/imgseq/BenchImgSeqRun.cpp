// The whole image sequence import against ffmpeg's image2 pipeline doing the same work:
// 300 stills of 1920 x 1080 (TGA and JPEG) into a compressed 720 x 486 clip at 3 MB/s,
// bicubic, Fit All, on the substitute recorder; and in the same run
//   ffmpeg -framerate 30 -i %04d.<ext> -vf scale=720:486:flags=bicubic -c:v mjpeg -b:v 24M -f null -
// Counters: frames per second of each, our rate over ffmpeg's, the CPU time per frame of
// each, the decode window and the most frames it held, and the process's peak resident
// memory.
#include <benchmark/benchmark.h>

#include <sys/resource.h>

#include <chrono>
#include <cstdlib>
#include <filesystem>
#include <string>
#include <vector>

#include "device/RecorderBackends.h"
#include "device/RecorderDevice.h"
#include "Tool.h"
#include "imgseq/ImageFitting.h"
#include "imgseq/ImagingLibrary.h"
#include "imgseq/ImgSeqRun.h"
#include "zubimport/ImportSettings.h"
#include "zubimport/Prompt.h"

namespace {

constexpr int kFrames = 300;
const char* const kExt[] = {"tga", "jpg"};

std::string TempFolder()
{
    std::string tmpl = (std::filesystem::temp_directory_path() / "zubbench-run-XXXXXX").string();
    if (!mkdtemp(tmpl.data())) std::abort();
    return tmpl;
}

const std::string& Root()
{
    static const std::string dir = TempFolder();
    return dir;
}

// The stills, made once per run by ffmpeg's test source (moving content, so every frame
// differs and every JPEG field is really compressed).
const std::vector<std::string>& Stills(int format)
{
    static std::vector<std::string> lists[2];
    std::vector<std::string>& list = lists[format];
    if (list.empty()) {
        const std::string dir = Root() + "/" + kExt[format];
        std::filesystem::create_directories(dir);
        std::vector<std::string> args = {"ffmpeg", "-nostdin", "-loglevel", "error", "-y", "-f", "lavfi", "-i",
                                         "testsrc2=size=1920x1080:rate=30", "-frames:v", std::to_string(kFrames),
                                         "-start_number", "1"};
        if (format == 1) args.insert(args.end(), {"-q:v", "2"});
        args.push_back(dir + "/%04d." + kExt[format]);
        if (zub::test::Run(args) != 0) std::abort();
        for (int i = 1; i <= kFrames; ++i) {
            char name[32];
            std::snprintf(name, sizeof name, "/%04d.%s", i, kExt[format]);
            list.push_back(dir + name);
        }
    }
    return list;
}

double CpuSeconds()
{
    rusage u{};
    getrusage(RUSAGE_SELF, &u);
    return static_cast<double>(u.ru_utime.tv_sec + u.ru_stime.tv_sec) +
           static_cast<double>(u.ru_utime.tv_usec + u.ru_stime.tv_usec) / 1e6;
}

// CPU time of the children waited for so far (ffmpeg's runs).
double ChildCpuSeconds()
{
    rusage u{};
    getrusage(RUSAGE_CHILDREN, &u);
    return static_cast<double>(u.ru_utime.tv_sec + u.ru_stime.tv_sec) +
           static_cast<double>(u.ru_utime.tv_usec + u.ru_stime.tv_usec) / 1e6;
}

double PeakRssMiB()
{
    rusage u{};
    getrusage(RUSAGE_SELF, &u);
    return static_cast<double>(u.ru_maxrss) / 1024.0;
}

bool OpenRecorder()
{
    if (zub::TheRecorder().handle != -1) return true;
    const std::string volume = Root() + "/volume/";
    std::filesystem::create_directories(volume);
    setenv("ZUBREC_CONFIG", (Root() + "/none.ini").c_str(), 1);
    setenv("ZUBREC_VOLUME", volume.c_str(), 1);
    setenv("ZUBREC_LINES", "525", 1);
    setenv("ZUBREC_MONITOR", "off", 1);
    if (!zub::TheRecorder().OpenDeviceWithInfo(1, 0, 0)) return false;
    zub::ImportSettings& s = zub::CurrentSettings();
    s.videoDir = volume;
    s.videoUncompressed = 0;
    s.videoDataRate = 3 * 1024 * 1024;
    s.createAlpha = 0;
    s.fixedFieldSize = 0;
    s.showImagesOnOutput = 0;
    s.fitWord = zub::MakeFitWord(zub::kFitAll, zub::kAreaNormal, zub::kResizeBiCubic);
    return true;
}

double FfmpegSeconds(int format, double* cpu)
{
    Stills(format);
    const double c0 = ChildCpuSeconds();
    const std::string pattern = Root() + "/" + kExt[format] + "/%04d." + kExt[format];
    const auto t0 = std::chrono::steady_clock::now();
    if (zub::test::Run({"ffmpeg", "-nostdin", "-loglevel", "error", "-framerate", "30", "-i", pattern, "-vf",
                        "scale=720:486:flags=bicubic", "-c:v", "mjpeg", "-b:v", "24M", "-f", "null", "-"}) != 0)
        return -1;
    const double seconds = std::chrono::duration<double>(std::chrono::steady_clock::now() - t0).count();
    *cpu += ChildCpuSeconds() - c0;
    return seconds;
}

// Both sides start warm: our imaging library loaded (once per process, with OpenImageIO's
// hundreds of libraries) and ffmpeg's libraries in the page cache, so neither figure holds a
// one-off start-up.
void Warm(int format)
{
    static bool warm[2] = {};
    if (warm[format]) return;
    warm[format] = true;
    const std::string first = Stills(format).front();
    zub::FrameHolder frame;
    zub::LoadFrame(first, zub::CurrentSettings().fitWord, false, false, {720, 486}, frame);
    zub::test::Run({"ffmpeg", "-nostdin", "-loglevel", "error", "-i", first, "-vf", "scale=720:486:flags=bicubic",
                    "-c:v", "mjpeg", "-b:v", "24M", "-f", "null", "-"});
}

void BM_ImgSeqRun(benchmark::State& state)
{
    const int format = static_cast<int>(state.range(0));
    const int threads = static_cast<int>(state.range(1));
    const auto& files = Stills(format);
    if (!OpenRecorder()) {
        state.SkipWithError(("recorder: " + zub::CRecorderDevice::GetError()).c_str());
        return;
    }
    Warm(format);
    zub::ScopedPrompter quiet(std::make_shared<zub::SilentPrompt>());
    double ours = 0, theirs = 0, cpu = 0, theirCpu = 0;
    int window = 0, peak = 0;
    for (auto _ : state) {
        zub::ImgSeqRunRequest req;
        req.files = files;
        req.clipName = "bench";
        req.batchProcess = true;
        req.decodeThreads = threads;
        const double c0 = CpuSeconds();
        const auto t0 = std::chrono::steady_clock::now();
        const zub::ImgSeqRunResult r = zub::RunImageSequence(req);
        const double s = std::chrono::duration<double>(std::chrono::steady_clock::now() - t0).count();
        cpu += CpuSeconds() - c0;
        if (r.endCode != 1 || r.framesWritten != kFrames) {
            state.SkipWithError(("run failed: " + r.message).c_str());
            return;
        }
        ours += s;
        window = r.decodeWindow;
        peak = std::max(peak, r.peakFramesAhead);
        std::filesystem::remove(r.clipPath);
        state.PauseTiming();
        const double f = FfmpegSeconds(format, &theirCpu);
        state.ResumeTiming();
        if (f <= 0) {
            state.SkipWithError("ffmpeg failed");
            return;
        }
        theirs += f;
    }
    const double n = static_cast<double>(state.iterations());
    state.counters["fps"] = kFrames * n / ours;
    state.counters["ffmpeg_fps"] = kFrames * n / theirs;
    state.counters["ratio"] = theirs / ours;
    // CPU time per frame does not depend on what else the machine runs meanwhile: on a
    // shared machine it is the steadier comparison.
    state.counters["cpu_ms_per_frame"] = 1000.0 * cpu / (kFrames * n);
    state.counters["ffmpeg_cpu_ms_per_frame"] = 1000.0 * theirCpu / (kFrames * n);
    state.counters["window"] = window;
    state.counters["peak_ahead"] = peak;
    state.counters["peak_rss_MiB"] = PeakRssMiB();
    state.SetLabel(std::string(kExt[format]) + (threads == 0 ? ", decoded on the run's thread" : ", decoded ahead"));
}

}  // namespace

BENCHMARK(BM_ImgSeqRun)
    ->ArgNames({"jpg", "threads"})
    ->Args({0, -1})
    ->Args({1, -1})
    ->Args({0, 0})
    ->Args({1, 0})
    ->Iterations(1)
    ->UseRealTime()
    ->Unit(benchmark::kSecond);

int main(int argc, char** argv)
{
    setenv(zub::kImagingLibraryEnv, ZUB_BENCH_IMAGING_LIBRARY, 0);
    setenv(zub::kRecorderDirVariable, ZUB_BENCH_RECORDER_DIR, 0);
    benchmark::Initialize(&argc, argv);
    if (benchmark::ReportUnrecognizedArguments(argc, argv)) return 1;
    benchmark::RunSpecifiedBenchmarks();
    zub::TheRecorder().CloseDevice();
    std::filesystem::remove_all(Root());
    benchmark::Shutdown();
    return 0;
}

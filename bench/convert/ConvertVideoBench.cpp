// The conversion's picture path against the tool an editor would otherwise script: the same
// 1080p H.264 source converted into a compressed 720x486 clip at 3 MB/s (bicubic) through the
// graph route (MP4) and the movie route (MOV), beside ffmpeg scaling and encoding MJPEG, and
// ffmpeg only decoding. Frames per second of each (the median of three rounds, the three timed
// in turn), the ratios, and the conversion's peak memory for a 10 s and a 60 s source (it must
// not grow with the length).
//
// Three sources. The test pattern codes to almost nothing (about 70 kbit/s), so decoding it is
// nearly free and the figures weigh the fitting and compression alone. The moderate source
// carries light grain at 6 Mbit/s, what a 1080p web master or a delivered file carries. The
// camera-like source carries sensor grain at 20 Mbit/s, what a phone or camcorder records at
// 1080p: decoding it costs what decoding an editor's camera footage costs.
#include <benchmark/benchmark.h>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <functional>
#include <map>
#include <string>
#include <vector>

#include "TempDir.h"
#include "TestMedia.h"
#include "Tool.h"

namespace {

namespace gen = zub::testmedia;
using zub::test::TempDir;

struct Sources {
    TempDir dir;
    std::map<std::string, std::string> paths;
    std::string error;
    int frames = 0;
};

Sources& Media()
{
    static Sources s;
    static bool made = false;
    if (!made) {
        made = true;
        gen::MediaSpec spec;
        spec.width = 1920;
        spec.height = 1080;
        spec.frames = 600;
        spec.fpsNum = 30;
        spec.video = gen::VideoCodec::H264;
        s.frames = spec.frames;
        gen::MediaSpec camera = spec;
        camera.grain = 12;
        camera.videoBitRate = 20'000'000;
        gen::MediaSpec moderate = spec;
        moderate.grain = 4;
        moderate.videoBitRate = 6'000'000;
        for (const char* ext : {"mp4", "mov"}) {
            const std::string path = s.dir / (std::string("src.") + ext);
            if (!gen::MakeMedia(path, spec, &s.error)) break;
            s.paths[ext] = path;
            const std::string cameraPath = s.dir / (std::string("camera.") + ext);
            if (!gen::MakeMedia(cameraPath, camera, &s.error)) break;
            s.paths[std::string("camera-") + ext] = cameraPath;
            const std::string moderatePath = s.dir / (std::string("moderate.") + ext);
            if (!gen::MakeMedia(moderatePath, moderate, &s.error)) break;
            s.paths[std::string("moderate-") + ext] = moderatePath;
        }
        for (int seconds : {10, 60}) {
            gen::MediaSpec m = spec;
            m.width = 1280;
            m.height = 720;
            m.frames = seconds * 30;
            const std::string path = s.dir / ("len" + std::to_string(seconds) + ".mp4");
            if (!gen::MakeMedia(path, m, &s.error)) break;
            s.paths["len" + std::to_string(seconds)] = path;
        }
    }
    return s;
}

double Median(std::vector<double> v)
{
    if (v.empty()) return 0;
    std::sort(v.begin(), v.end());
    return v[v.size() / 2];
}

double Seconds(const std::function<int()>& run, int* status)
{
    const auto t0 = std::chrono::steady_clock::now();
    *status = run();
    return std::chrono::duration<double>(std::chrono::steady_clock::now() - t0).count();
}

// A program through the launcher: its status, peak memory in KiB and processor seconds.
int Launch(std::vector<std::string> args, const std::string& peakFile, long* peakKiB, double* cpuSeconds)
{
    args.insert(args.begin(), {ZUB_BENCH_SPAWN_PEAK, peakFile});
    const int rc = zub::test::Run(args);
    std::ifstream in(peakFile);
    long kib = 0;
    double cpu = 0;
    in >> kib >> cpu;
    if (peakKiB) *peakKiB = kib;
    if (cpuSeconds) *cpuSeconds = cpu;
    return rc;
}

// One conversion in its own process; `convertSeconds` is the time from Convert to the end,
// as the conversion itself reports it (0 when it could not be read).
int ConvertOne(const std::string& source, const std::string& volume, long* peakKiB, double* cpuSeconds = nullptr,
               double* convertSeconds = nullptr)
{
    std::filesystem::remove_all(volume);
    std::filesystem::create_directories(volume);
    const std::string times = volume + "../times.txt";
    std::filesystem::remove(times);
    const int rc = Launch({ZUB_BENCH_CONVERT_ONE, source, volume + "/", times}, volume + "../peak.txt", peakKiB, cpuSeconds);
    if (convertSeconds) {
        std::ifstream in(times);
        unsigned frames = 0;
        double seconds = 0;
        *convertSeconds = in >> frames >> seconds ? seconds : 0;
    }
    return rc;
}

void SetRecorderEnvironment(const std::string& volume)
{
    setenv("ZUBIMPORT_RECORDER_DIR", ZUB_BENCH_RECORDER_DIR, 1);
    setenv("ZUBIMPORT_IMAGING_LIBRARY", ZUB_BENCH_IMAGING, 1);
    setenv("ZUBREC_CONFIG", (volume + "none.ini").c_str(), 1);
    setenv("ZUBREC_VOLUME", volume.c_str(), 1);
    setenv("ZUBREC_LINES", "525", 1);
    setenv("ZUBREC_MONITOR", "off", 1);
}

void BM_ConvertVideo(benchmark::State& state, const char* key)
{
    Sources& s = Media();
    if (!s.paths.count(key)) {
        state.SkipWithError(("no source: " + s.error).c_str());
        return;
    }
    const std::string volume = s.dir / (std::string("vol-") + key) + "/";
    SetRecorderEnvironment(volume);
    const std::string src = s.paths[key];
    // Each side is timed in every round, the three in turn, and the medians are reported: one
    // round on a shared machine can be a fifth off either way.
    constexpr int kRounds = 3;
    std::vector<double> oursRuns, mjpegRuns, decodeRuns, convertingRuns, oursCpuRuns, mjpegCpuRuns, decodeCpuRuns;
    const std::string peakFile = s.dir / "peer-peak.txt";
    long peak = 0;
    for (auto _ : state) {
        for (int round = 0; round < kRounds; ++round) {
            int rc = 0;
            long roundPeak = 0;
            double cpu = 0, converting = 0;
            oursRuns.push_back(Seconds([&] { return ConvertOne(src, volume, &roundPeak, &cpu, &converting); }, &rc));
            if (rc != 0) {
                state.SkipWithError("the conversion failed");
                return;
            }
            peak = std::max(peak, roundPeak);
            oursCpuRuns.push_back(cpu);
            convertingRuns.push_back(converting);
            mjpegRuns.push_back(Seconds([&] {
                return Launch({"ffmpeg", "-v", "error", "-i", src, "-vf", "scale=720:486:flags=bicubic", "-c:v", "mjpeg",
                               "-b:v", "24M", "-f", "null", "-"},
                              peakFile, nullptr, &cpu);
            }, &rc));
            mjpegCpuRuns.push_back(cpu);
            decodeRuns.push_back(Seconds([&] { return Launch({"ffmpeg", "-v", "error", "-i", src, "-f", "null", "-"}, peakFile, nullptr, &cpu); },
                                         &rc));
            decodeCpuRuns.push_back(cpu);
        }
        state.SetIterationTime(Median(oursRuns));
    }
    const double ours = Median(oursRuns), mjpeg = Median(mjpegRuns), decode = Median(decodeRuns);
    const double converting = Median(convertingRuns);
    const double oursCpu = Median(oursCpuRuns), mjpegCpu = Median(mjpegCpuRuns), decodeCpu = Median(decodeCpuRuns);
    const double frames = s.frames;
    state.counters["fps"] = frames / ours;
    state.counters["ffmpeg_mjpeg_fps"] = frames / mjpeg;
    state.counters["ffmpeg_decode_fps"] = frames / decode;
    state.counters["vs_mjpeg"] = mjpeg / ours;
    state.counters["vs_decode"] = decode / ours;
    // Processor time per frame, whole process included: what a busy shared machine skews
    // least, and what both sides would need of the cores they are given.
    state.counters["cpu_ms_per_frame"] = oursCpu * 1000 / frames;
    state.counters["ffmpeg_mjpeg_cpu_ms"] = mjpegCpu * 1000 / frames;
    state.counters["ffmpeg_decode_cpu_ms"] = decodeCpu * 1000 / frames;
    state.counters["cpu_vs_mjpeg"] = oursCpu > 0 ? mjpegCpu / oursCpu : 0;
    state.counters["peak_MiB"] = peak / 1024.0;
    // Where the wall time goes: the process's start-up, probing and exit around the
    // conversion, the conversion's own rate, and how many of the machine's cores the whole
    // run kept busy on average.
    if (converting > 0) {
        state.counters["setup_ms"] = (ours - converting) * 1000;
        state.counters["convert_fps"] = frames / converting;
    }
    state.counters["cores_busy"] = ours > 0 ? oursCpu / ours : 0;
}

void BM_ConvertPeakMemory(benchmark::State& state)
{
    Sources& s = Media();
    const std::string key = "len" + std::to_string(state.range(0));
    if (!s.paths.count(key)) {
        state.SkipWithError(("no source: " + s.error).c_str());
        return;
    }
    const std::string volume = s.dir / ("vol-" + key) + "/";
    SetRecorderEnvironment(volume);
    long peak = 0;
    for (auto _ : state) {
        if (ConvertOne(s.paths[key], volume, &peak) != 0) {
            state.SkipWithError("the conversion failed");
            return;
        }
    }
    state.counters["peak_MiB"] = peak / 1024.0;
}

}  // namespace

BENCHMARK_CAPTURE(BM_ConvertVideo, graph_route_mp4, "mp4")->Iterations(1)->UseManualTime()->Unit(benchmark::kMillisecond);
BENCHMARK_CAPTURE(BM_ConvertVideo, movie_route_mov, "mov")->Iterations(1)->UseManualTime()->Unit(benchmark::kMillisecond);
BENCHMARK_CAPTURE(BM_ConvertVideo, graph_route_mp4_moderate, "moderate-mp4")->Iterations(1)->UseManualTime()->Unit(benchmark::kMillisecond);
BENCHMARK_CAPTURE(BM_ConvertVideo, movie_route_mov_moderate, "moderate-mov")->Iterations(1)->UseManualTime()->Unit(benchmark::kMillisecond);
BENCHMARK_CAPTURE(BM_ConvertVideo, graph_route_mp4_camera, "camera-mp4")->Iterations(1)->UseManualTime()->Unit(benchmark::kMillisecond);
BENCHMARK_CAPTURE(BM_ConvertVideo, movie_route_mov_camera, "camera-mov")->Iterations(1)->UseManualTime()->Unit(benchmark::kMillisecond);
BENCHMARK(BM_ConvertPeakMemory)->Arg(10)->Arg(60)->Iterations(1)->Unit(benchmark::kMillisecond);
BENCHMARK_MAIN();

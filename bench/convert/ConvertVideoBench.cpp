// The conversion's picture path against the tool an editor would otherwise script: the same
// 1080p H.264 source converted into a compressed 720x486 clip at 3 MB/s (bicubic) through the
// graph route (MP4) and the movie route (MOV), beside ffmpeg scaling and encoding MJPEG, and
// ffmpeg only decoding. Frames per second of each, the ratios, and the conversion's peak
// memory for a 10 s and a 60 s source (it must not grow with the length).
#include <benchmark/benchmark.h>

#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <functional>
#include <map>
#include <string>

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
        for (const char* ext : {"mp4", "mov"}) {
            const std::string path = s.dir / (std::string("src.") + ext);
            if (!gen::MakeMedia(path, spec, &s.error)) break;
            s.paths[ext] = path;
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

double Seconds(const std::function<int()>& run, int* status)
{
    const auto t0 = std::chrono::steady_clock::now();
    *status = run();
    return std::chrono::duration<double>(std::chrono::steady_clock::now() - t0).count();
}

// One conversion in its own process; its peak memory in KiB through the launcher.
int ConvertOne(const std::string& source, const std::string& volume, long* peakKiB)
{
    std::filesystem::remove_all(volume);
    std::filesystem::create_directories(volume);
    const std::string peakFile = volume + "../peak.txt";
    const int rc = zub::test::Run({ZUB_BENCH_SPAWN_PEAK, peakFile, ZUB_BENCH_CONVERT_ONE, source, volume + "/"});
    if (peakKiB) {
        std::ifstream in(peakFile);
        in >> *peakKiB;
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

void BM_ConvertVideo(benchmark::State& state, const char* route)
{
    Sources& s = Media();
    if (!s.paths.count(route)) {
        state.SkipWithError(("no source: " + s.error).c_str());
        return;
    }
    const std::string volume = s.dir / (std::string("vol-") + route) + "/";
    SetRecorderEnvironment(volume);
    const std::string src = s.paths[route];
    double ours = 0, mjpeg = 0, decode = 0;
    long peak = 0;
    for (auto _ : state) {
        int rc = 0;
        ours = Seconds([&] { return ConvertOne(src, volume, &peak); }, &rc);
        if (rc != 0) {
            state.SkipWithError("the conversion failed");
            return;
        }
        mjpeg = Seconds([&] {
            return zub::test::Run({"ffmpeg", "-v", "error", "-i", src, "-vf", "scale=720:486:flags=bicubic", "-c:v",
                                   "mjpeg", "-b:v", "24M", "-f", "null", "-"});
        }, &rc);
        decode = Seconds([&] { return zub::test::Run({"ffmpeg", "-v", "error", "-i", src, "-f", "null", "-"}); }, &rc);
        state.SetIterationTime(ours);
    }
    const double frames = s.frames;
    state.counters["fps"] = frames / ours;
    state.counters["ffmpeg_mjpeg_fps"] = frames / mjpeg;
    state.counters["ffmpeg_decode_fps"] = frames / decode;
    state.counters["vs_mjpeg"] = mjpeg / ours;
    state.counters["vs_decode"] = decode / ours;
    state.counters["peak_MiB"] = peak / 1024.0;
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
BENCHMARK(BM_ConvertPeakMemory)->Arg(10)->Arg(60)->Iterations(1)->Unit(benchmark::kMillisecond);
BENCHMARK_MAIN();

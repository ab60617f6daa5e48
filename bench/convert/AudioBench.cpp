// Audio conversion speed and memory.
//  - the resampler core per mode and filter path (scalar, SSE2, AVX2), one channel, in memory;
//  - 48000 -> 44100 stereo 16-bit in memory: our resampler (both channels, as the converter
//    runs it) beside libswresample with its defaults;
//  - 48000 -> 44100 stereo 16-bit file to file on a 600 s file, long enough that a process's
//    start-up is a small part of the peers' time: our conversion (in a child process, so its
//    peak memory is its own) beside `ffmpeg -af aresample` and `sox`, each with its defaults;
//  - peak resident memory of a child converting a one-hour 48 kHz stereo file, streamed
//    (the default) and as one whole-file block.
// Every figure is a counter, so scripts read them from --benchmark_format=json:
// x_realtime (seconds of audio per second of time) and peak_MiB (peak resident set of the
// process doing the work). After a console run the ratios are printed too.
#include <benchmark/benchmark.h>
#include <spawn.h>
#include <sys/resource.h>
#include <sys/wait.h>
#include <fcntl.h>
#include <unistd.h>

#include <algorithm>
#include <cmath>
#include <cstdio>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <map>
#include <memory>
#include <numbers>
#include <string>
#include <vector>

extern "C" {
#include <libavutil/channel_layout.h>
#include <libswresample/swresample.h>
}

#include "convert/audio/AudioConverter.h"
#include "convert/audio/PolyphaseResampler.h"
#include "platform/AvOwner.h"
#include "TempDir.h"
#include "TestMedia.h"
#include "zubimport/Prompt.h"

extern char** environ;

namespace {

using zub::audio::AudioConverter;
using zub::audio::KernelPath;
using zub::audio::PolyphaseResampler;

constexpr double kSeconds = 20.0;
constexpr double kLongSeconds = 600.0;

// Seconds of audio per second of (real or CPU) time, as a rate counter.
benchmark::Counter RealtimeFactor(const benchmark::State& state, double audioSeconds)
{
    return benchmark::Counter(audioSeconds * static_cast<double>(state.iterations()), benchmark::Counter::kIsRate);
}

KernelPath PathArg(std::int64_t v)
{
    return v == 0 ? KernelPath::Scalar : v == 1 ? KernelPath::Sse2 : KernelPath::Avx2;
}

zub::test::TempDir& Dir()
{
    static zub::test::TempDir dir;
    return dir;
}

// 20 s of 48 kHz 16-bit stereo tone, made once.
const std::string& Source48()
{
    static const std::string path = [] {
        std::string p = Dir() / "src48.wav", err;
        if (!zub::testmedia::MakeWave(p, 16, 48000, 2, kSeconds, 997.0, 0.5, &err)) {
            std::fprintf(stderr, "cannot make the test file: %s\n", err.c_str());
            std::exit(1);
        }
        return p;
    }();
    return path;
}

std::vector<std::int16_t> Interleaved48()
{
    std::ifstream f(Source48(), std::ios::binary);
    f.seekg(44);
    std::vector<std::int16_t> s(static_cast<std::size_t>(kSeconds * 48000) * 2);
    f.read(reinterpret_cast<char*>(s.data()), static_cast<std::streamsize>(s.size() * 2));
    return s;
}

// One channel of a tone at the source rate, staged once; each iteration resamples all of it.
void BM_ResamplerMode(benchmark::State& state)
{
    static const long sourceRate[] = {192000, 96000, 48000, 48000, 48000};
    static const long targetRate[] = {11025, 11025, 11025, 22050, 44100};
    const auto mode = static_cast<int>(state.range(0));
    PolyphaseResampler r;
    r.Setup(sourceRate[mode], targetRate[mode]);
    if (r.Mode() != mode) {
        state.SkipWithError("rate pair does not give the mode");
        return;
    }
    if (!r.SetPath(PathArg(state.range(1)))) {
        state.SkipWithError("this processor lacks the filter path");
        return;
    }
    const auto frames = static_cast<std::int64_t>(sourceRate[mode] * 5);
    const std::int64_t n = r.OutputCount(frames);
    std::int64_t begin, end;
    r.SourceSpan(0, static_cast<std::size_t>(n), begin, end);
    std::vector<std::int16_t> staged(static_cast<std::size_t>(end - begin), 0);
    for (std::int64_t i = 0; i < frames; ++i)
        staged[static_cast<std::size_t>(i - begin)] =
            static_cast<std::int16_t>(16000 * std::sin(2 * std::numbers::pi * 997.0 * static_cast<double>(i) / sourceRate[mode]));
    std::vector<std::int16_t> out(static_cast<std::size_t>(n));
    for (auto _ : state) {
        r.Run(0, out.size(), staged.data(), begin, out.data());
        benchmark::DoNotOptimize(out.data());
        benchmark::ClobberMemory();
    }
    state.SetItemsProcessed(state.iterations() * frames);
    state.counters["x_realtime"] = RealtimeFactor(state, 5.0);
    state.SetLabel(std::to_string(sourceRate[mode]) + "->" + std::to_string(targetRate[mode]) + ", " +
                   std::to_string(r.Taps()) + " taps, " + zub::audio::KernelPathName(r.Path()));
}
BENCHMARK(BM_ResamplerMode)->ArgsProduct({{0, 1, 2, 3, 4}, {0, 1, 2}})->Unit(benchmark::kMillisecond);

// Stereo 48000 -> 44100 in memory, both channels, as the converter stages and runs them.
// range(0): the filter path (0 scalar, 1 SSE2, 2 AVX2, 3 the best this processor has).
void BM_Resample48To44Stereo_Ours(benchmark::State& state)
{
    const auto in = Interleaved48();
    const auto frames = static_cast<std::int64_t>(in.size() / 2);
    PolyphaseResampler r;
    r.Setup(48000, 44100);
    if (state.range(0) < 3 && !r.SetPath(PathArg(state.range(0)))) {
        state.SkipWithError("this processor lacks the filter path");
        return;
    }
    const std::int64_t n = r.OutputCount(frames);
    std::int64_t begin, end;
    r.SourceSpan(0, static_cast<std::size_t>(n), begin, end);
    std::vector<std::int16_t> staged[2], out(static_cast<std::size_t>(n) * 2);
    for (int c = 0; c < 2; ++c) {
        staged[c].assign(static_cast<std::size_t>(end - begin), 0);
        for (std::int64_t i = 0; i < frames; ++i) staged[c][static_cast<std::size_t>(i - begin)] = in[static_cast<std::size_t>(2 * i + c)];
    }
    for (auto _ : state) {
        r.RunStereo(0, static_cast<std::size_t>(n), staged[0].data(), staged[1].data(), begin, out.data());
        benchmark::DoNotOptimize(out.data());
        benchmark::ClobberMemory();
    }
    state.SetItemsProcessed(state.iterations() * frames);
    state.counters["x_realtime"] = RealtimeFactor(state, kSeconds);
    state.SetLabel(zub::audio::KernelPathName(r.Path()));
}
BENCHMARK(BM_Resample48To44Stereo_Ours)->DenseRange(0, 3)->Unit(benchmark::kMillisecond);

void BM_Resample48To44Stereo_Swresample(benchmark::State& state)
{
    const auto in = Interleaved48();
    const auto frames = static_cast<int>(in.size() / 2);
    AVChannelLayout stereo = AV_CHANNEL_LAYOUT_STEREO;
    std::vector<std::int16_t> out(static_cast<std::size_t>(frames) * 2);
    for (auto _ : state) {
        SwrContext* raw = nullptr;
        if (swr_alloc_set_opts2(&raw, &stereo, AV_SAMPLE_FMT_S16, 44100, &stereo, AV_SAMPLE_FMT_S16, 48000, 0, nullptr) < 0) {
            state.SkipWithError("swr_alloc_set_opts2 failed");
            return;
        }
        zub::av::SwrPtr swr(raw);
        if (swr_init(swr.get()) < 0) {
            state.SkipWithError("swr_init failed");
            return;
        }
        const auto* src = reinterpret_cast<const std::uint8_t*>(in.data());
        auto* dst = reinterpret_cast<std::uint8_t*>(out.data());
        int got = swr_convert(swr.get(), &dst, frames, &src, frames);
        benchmark::DoNotOptimize(got);
    }
    state.SetItemsProcessed(state.iterations() * frames);
    state.counters["x_realtime"] = RealtimeFactor(state, kSeconds);
}
BENCHMARK(BM_Resample48To44Stereo_Swresample)->Unit(benchmark::kMillisecond);

// 600 s of 48 kHz 16-bit stereo, made once per process; every file-to-file job reads it.
const std::string& Source600()
{
    static const std::string path = [] {
        std::string p = Dir() / "src600.wav", err;
        if (!zub::testmedia::MakeWave(p, 16, 48000, 2, kLongSeconds, 997.0, 0.5, &err)) {
            std::fprintf(stderr, "cannot make the test file: %s\n", err.c_str());
            std::exit(1);
        }
        return p;
    }();
    return path;
}

// Runs a program through the peak-memory launcher (no shell, its output discarded) and returns
// the program's peak resident set in MiB, or a negative value when it failed.
double RunMeasured(const std::vector<std::string>& args)
{
    const std::string peakFile = Dir() / "peak.txt";
    std::vector<std::string> full = {ZUB_BENCH_SPAWN_PEAK, peakFile};
    full.insert(full.end(), args.begin(), args.end());
    std::vector<char*> argv;
    for (const auto& a : full) argv.push_back(const_cast<char*>(a.c_str()));
    argv.push_back(nullptr);
    posix_spawn_file_actions_t quiet;
    posix_spawn_file_actions_init(&quiet);
    posix_spawn_file_actions_addopen(&quiet, 1, "/dev/null", O_WRONLY, 0);
    pid_t pid;
    const int rc = posix_spawn(&pid, argv[0], &quiet, nullptr, argv.data(), environ);
    posix_spawn_file_actions_destroy(&quiet);
    if (rc != 0) return -1.0;
    int status = 0;
    if (waitpid(pid, &status, 0) < 0 || !WIFEXITED(status) || WEXITSTATUS(status) != 0) return -1.0;
    long kib = -1;
    std::ifstream(peakFile) >> kib;
    return kib < 0 ? -1.0 : static_cast<double>(kib) / 1024.0;
}

// Warms the page cache with the source so that no job pays for the first read.
void Warm(const std::string& path)
{
    std::ifstream f(path, std::ios::binary);
    std::vector<char> buf(1 << 20);
    while (f.read(buf.data(), static_cast<std::streamsize>(buf.size())) || f.gcount() > 0) {
    }
}

// One file-to-file job on the 600 s source, each side a process of its own started the same
// way, so both pay the same start-up and each peak memory is the program's own.
void FileJob(benchmark::State& state, const std::vector<std::string>& args, const char* what)
{
    Warm(Source600());
    double peak = 0;
    for (auto _ : state) {
        const double p = RunMeasured(args);
        if (p < 0) {
            state.SkipWithError((std::string(what) + " failed or is not installed").c_str());
            return;
        }
        peak = std::max(peak, p);
    }
    state.counters["x_realtime"] = RealtimeFactor(state, kLongSeconds);
    state.counters["peak_MiB"] = peak;
}

void BM_File600s_Ours(benchmark::State& state)
{
    FileJob(state, {ZUB_BENCH_CONVERT_ONE, Source600(), Dir() / "ours.wav"}, "our conversion");
}
BENCHMARK(BM_File600s_Ours)->Unit(benchmark::kMillisecond)->UseRealTime()->Iterations(3);

void BM_File600s_FfmpegAresample(benchmark::State& state)
{
    FileJob(state, {"ffmpeg", "-nostdin", "-v", "error", "-y", "-i", Source600(), "-af", "aresample=44100", Dir() / "ffmpeg.wav"},
            "ffmpeg");
}
BENCHMARK(BM_File600s_FfmpegAresample)->Unit(benchmark::kMillisecond)->UseRealTime()->Iterations(3);

void BM_File600s_Sox(benchmark::State& state)
{
    FileJob(state, {"sox", Source600(), "-r", "44100", Dir() / "sox.wav"}, "sox");
}
BENCHMARK(BM_File600s_Sox)->Unit(benchmark::kMillisecond)->UseRealTime()->Iterations(3);

// A one-hour 48 kHz stereo file converted to 44.1 kHz in a child process; reports the child's
// peak resident set. range(0): output frames per block, 0 = the whole file in one block.
void BM_PeakMemoryOneHour(benchmark::State& state)
{
    static const std::string hour = [] {
        std::string p = Dir() / "hour.wav", err;
        // A plain tone is enough here; the file is written in slices to keep this process small.
        if (!zub::testmedia::MakeWave(p, 16, 48000, 2, 3600.0, 997.0, 0.5, &err)) std::fprintf(stderr, "%s\n", err.c_str());
        return p;
    }();
    const std::string out = Dir() / "hour-out.wav";
    const auto block = state.range(0);
    double peak = 0;
    for (auto _ : state) {
        peak = RunMeasured({ZUB_BENCH_CONVERT_ONE, hour, out, std::to_string(block)});
        if (peak < 0) {
            state.SkipWithError("conversion of the one-hour file failed");
            return;
        }
    }
    std::error_code ec;
    std::filesystem::remove(out, ec);
    state.counters["peak_MiB"] = peak;
    state.counters["x_realtime"] = RealtimeFactor(state, 3600.0);
    state.SetItemsProcessed(state.iterations() * 3600 * 48000);
}
BENCHMARK(BM_PeakMemoryOneHour)->Arg(zub::audio::kDefaultBlockFrames)->Arg(0)->Iterations(1)->Unit(benchmark::kMillisecond)->UseRealTime();

// Collects the realtime factors by benchmark name for the ratios printed at the end.
class RatioReporter : public benchmark::ConsoleReporter {
public:
    void ReportRuns(const std::vector<Run>& runs) override
    {
        for (const auto& r : runs) {
            auto it = r.counters.find("x_realtime");
            if (it != r.counters.end() && !r.error_occurred) rates[r.benchmark_name()] = it->second;
        }
        ConsoleReporter::ReportRuns(runs);
    }
    std::map<std::string, double> rates;
};

}  // namespace

int main(int argc, char** argv)
{
    // With a machine-readable format asked for, the library's own reporter writes it (the
    // flag is looked for before Initialize takes the library's flags out of argv).
    bool plain = true;
    for (int i = 1; i < argc; ++i)
        if (std::strncmp(argv[i], "--benchmark_format=", 19) == 0 && std::strcmp(argv[i] + 19, "console") != 0) plain = false;
    benchmark::Initialize(&argc, argv);
    if (benchmark::ReportUnrecognizedArguments(argc, argv)) return 1;
    if (!plain) {
        benchmark::RunSpecifiedBenchmarks();
        benchmark::Shutdown();
        return 0;
    }
    RatioReporter reporter;
    benchmark::RunSpecifiedBenchmarks(&reporter);
    auto ratio = [&](const char* ours, const char* theirs) {
        auto a = reporter.rates.find(ours), b = reporter.rates.find(theirs);
        if (a != reporter.rates.end() && b != reporter.rates.end())
            std::printf("speed ratio %s / %s = %.2f\n", ours, theirs, a->second / b->second);
    };
    ratio("BM_File600s_Ours/iterations:3/real_time", "BM_File600s_FfmpegAresample/iterations:3/real_time");
    ratio("BM_File600s_Ours/iterations:3/real_time", "BM_File600s_Sox/iterations:3/real_time");
    ratio("BM_Resample48To44Stereo_Ours/3", "BM_Resample48To44Stereo_Swresample");
    benchmark::Shutdown();
    return 0;
}

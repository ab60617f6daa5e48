// Audio conversion speed and memory.
//  - the resampler core per mode (source samples per second, one channel, in memory);
//  - 48000 -> 44100 stereo 16-bit: our whole conversion file to file beside sox and the ffmpeg
//    command line on the same file, and our resampler in memory beside libswresample;
//  - peak resident memory of a child converting a one-hour 48 kHz stereo file, streamed
//    (the default) and as one whole-file block.
// After the run the ratios (ours / theirs, in samples per second) are printed.
#include <benchmark/benchmark.h>
#include <spawn.h>
#include <sys/resource.h>
#include <sys/wait.h>
#include <unistd.h>

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

#include "AudioConverter.h"
#include "PolyphaseResampler.h"
#include "TempDir.h"
#include "TestMedia.h"
#include "Tool.h"
#include "zubimport/Prompt.h"

extern char** environ;

namespace {

using zub::audio::AudioConverter;
using zub::audio::PolyphaseResampler;

constexpr double kSeconds = 20.0;

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

bool Run(const std::vector<std::string>& args)
{
    return zub::test::Run(args) == 0;
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
    state.SetLabel(std::to_string(sourceRate[mode]) + "->" + std::to_string(targetRate[mode]) + ", " +
                   std::to_string(r.Taps()) + " taps");
}
BENCHMARK(BM_ResamplerMode)->DenseRange(0, 4)->Unit(benchmark::kMillisecond);

// Stereo 48000 -> 44100 in memory, both channels, as the converter stages them.
void BM_Resample48To44Stereo_Ours(benchmark::State& state)
{
    const auto in = Interleaved48();
    const auto frames = static_cast<std::int64_t>(in.size() / 2);
    PolyphaseResampler r;
    r.Setup(48000, 44100);
    const std::int64_t n = r.OutputCount(frames);
    std::int64_t begin, end;
    r.SourceSpan(0, static_cast<std::size_t>(n), begin, end);
    std::vector<std::int16_t> staged[2], out(static_cast<std::size_t>(n) * 2), ch(static_cast<std::size_t>(n));
    for (int c = 0; c < 2; ++c) {
        staged[c].assign(static_cast<std::size_t>(end - begin), 0);
        for (std::int64_t i = 0; i < frames; ++i) staged[c][static_cast<std::size_t>(i - begin)] = in[static_cast<std::size_t>(2 * i + c)];
    }
    for (auto _ : state) {
        for (int c = 0; c < 2; ++c) {
            r.Run(0, ch.size(), staged[c].data(), begin, ch.data());
            for (std::size_t k = 0; k < ch.size(); ++k) out[2 * k + static_cast<std::size_t>(c)] = ch[k];
        }
        benchmark::DoNotOptimize(out.data());
    }
    state.SetItemsProcessed(state.iterations() * frames);
}
BENCHMARK(BM_Resample48To44Stereo_Ours)->Unit(benchmark::kMillisecond);

struct SwrFree {
    void operator()(SwrContext* s) const { swr_free(&s); }
};

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
        std::unique_ptr<SwrContext, SwrFree> swr(raw);
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
}
BENCHMARK(BM_Resample48To44Stereo_Swresample)->Unit(benchmark::kMillisecond);

// File to file, same source, same target format.
void BM_File48To44Stereo_Ours(benchmark::State& state)
{
    const std::string out = Dir() / "ours.wav";
    zub::SilentPrompt silent;
    for (auto _ : state) {
        AudioConverter conv;
        if (conv.Convert(Source48().c_str(), out.c_str(), {44100, 16, 1}, silent) != 1) {
            state.SkipWithError(conv.LastError().c_str());
            return;
        }
    }
    state.SetItemsProcessed(state.iterations() * static_cast<std::int64_t>(kSeconds * 48000));
}
BENCHMARK(BM_File48To44Stereo_Ours)->Unit(benchmark::kMillisecond)->UseRealTime();

void BM_File48To44Stereo_Sox(benchmark::State& state)
{
    const std::string out = Dir() / "sox.wav";
    for (auto _ : state) {
        if (!Run({"sox", Source48(), "-r", "44100", out})) {
            state.SkipWithError("sox failed or is not installed");
            return;
        }
    }
    state.SetItemsProcessed(state.iterations() * static_cast<std::int64_t>(kSeconds * 48000));
}
BENCHMARK(BM_File48To44Stereo_Sox)->Unit(benchmark::kMillisecond)->UseRealTime();

void BM_File48To44Stereo_FfmpegCli(benchmark::State& state)
{
    const std::string out = Dir() / "ffmpeg.wav";
    for (auto _ : state) {
        if (!Run({"ffmpeg", "-nostdin", "-v", "error", "-y", "-i", Source48(), "-ar", "44100", out})) {
            state.SkipWithError("ffmpeg failed or is not installed");
            return;
        }
    }
    state.SetItemsProcessed(state.iterations() * static_cast<std::int64_t>(kSeconds * 48000));
}
BENCHMARK(BM_File48To44Stereo_FfmpegCli)->Unit(benchmark::kMillisecond)->UseRealTime();

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
    const auto block = static_cast<std::size_t>(state.range(0));
    long maxrssKb = 0;
    for (auto _ : state) {
        const pid_t pid = fork();
        if (pid == 0) {
            AudioConverter conv;
            conv.SetBlockFrames(block);
            zub::SilentPrompt silent;
            _exit(conv.Convert(hour.c_str(), out.c_str(), {44100, 16, 1}, silent) == 1 ? 0 : 1);
        }
        int status = 0;
        rusage usage{};
        if (pid < 0 || wait4(pid, &status, 0, &usage) < 0 || !WIFEXITED(status) || WEXITSTATUS(status) != 0) {
            state.SkipWithError("conversion of the one-hour file failed");
            return;
        }
        maxrssKb = usage.ru_maxrss;
    }
    std::error_code ec;
    std::filesystem::remove(out, ec);
    state.counters["peak_MiB"] = static_cast<double>(maxrssKb) / 1024.0;
    state.SetItemsProcessed(state.iterations() * 3600 * 48000);
}
BENCHMARK(BM_PeakMemoryOneHour)->Arg(zub::audio::kDefaultBlockFrames)->Arg(0)->Iterations(1)->Unit(benchmark::kMillisecond)->UseRealTime();

// Collects items per second by benchmark name for the ratios printed at the end.
class RatioReporter : public benchmark::ConsoleReporter {
public:
    void ReportRuns(const std::vector<Run>& runs) override
    {
        for (const auto& r : runs) {
            auto it = r.counters.find("items_per_second");
            if (it != r.counters.end() && !r.error_occurred) rates[r.benchmark_name()] = it->second;
        }
        ConsoleReporter::ReportRuns(runs);
    }
    std::map<std::string, double> rates;
};

}  // namespace

int main(int argc, char** argv)
{
    benchmark::Initialize(&argc, argv);
    if (benchmark::ReportUnrecognizedArguments(argc, argv)) return 1;
    RatioReporter reporter;
    benchmark::RunSpecifiedBenchmarks(&reporter);
    auto ratio = [&](const char* ours, const char* theirs) {
        auto a = reporter.rates.find(ours), b = reporter.rates.find(theirs);
        if (a != reporter.rates.end() && b != reporter.rates.end())
            std::printf("speed ratio %s / %s = %.2f\n", ours, theirs, a->second / b->second);
    };
    ratio("BM_File48To44Stereo_Ours/real_time", "BM_File48To44Stereo_Sox/real_time");
    ratio("BM_File48To44Stereo_Ours/real_time", "BM_File48To44Stereo_FfmpegCli/real_time");
    ratio("BM_Resample48To44Stereo_Ours", "BM_Resample48To44Stereo_Swresample");
    benchmark::Shutdown();
    return 0;
}

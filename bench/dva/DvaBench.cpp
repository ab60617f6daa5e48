// Throughput of the WAVE copies over a ten-minute-scale file, and of chunk searches over a
// file with many small chunks ahead of the audio.
#include <benchmark/benchmark.h>
#include <unistd.h>

#include <cstdint>
#include <cstdio>
#include <filesystem>
#include <string>
#include <vector>

#include "dva/MmioFile.h"
#include "zubimport/Dva.h"

using namespace zub;

namespace {

std::string Le32(std::uint32_t v) { return {char(v), char(v >> 8), char(v >> 16), char(v >> 24)}; }

std::string Folder()
{
    static const std::string dir = [] {
        std::string d = (std::filesystem::temp_directory_path() / ("dva-bench-" + std::to_string(getpid()))).string();
        std::filesystem::create_directories(d);
        return d;
    }();
    return dir;
}

// 16-bit stereo 48 kHz PCM with `junkChunks` 10-byte chunks ahead of "data".
std::string MakeSource(std::size_t audioBytes, int junkChunks)
{
    const std::string path = Folder() + "/src-" + std::to_string(audioBytes) + "-" + std::to_string(junkChunks) + ".wav";
    if (std::filesystem::exists(path)) return path;
    std::string head = "fmt " + Le32(16) + std::string("\x01\x00\x02\x00", 4) + Le32(48000) + Le32(192000) +
                       std::string("\x04\x00\x10\x00", 4);
    for (int i = 0; i < junkChunks; ++i) head += "junk" + Le32(10) + std::string(10, 'j');
    FILE* f = std::fopen(path.c_str(), "wb");
    const std::string riff = "RIFF" + Le32(std::uint32_t(4 + head.size() + 8 + audioBytes)) + "WAVE";
    std::fwrite(riff.data(), 1, riff.size(), f);
    std::fwrite(head.data(), 1, head.size(), f);
    const std::string dataHdr = "data" + Le32(std::uint32_t(audioBytes));
    std::fwrite(dataHdr.data(), 1, dataHdr.size(), f);
    std::vector<char> block(1 << 20);
    for (std::size_t i = 0; i < block.size(); ++i) block[i] = char(i * 7);
    for (std::size_t done = 0; done < audioBytes;) {
        const std::size_t n = std::min(block.size(), audioBytes - done);
        std::fwrite(block.data(), 1, n, f);
        done += n;
    }
    std::fclose(f);
    return path;
}

void BM_CopyClean(benchmark::State& state)
{
    const std::size_t bytes = std::size_t(state.range(0)) << 20;
    const std::string src = MakeSource(bytes, 0);
    const std::string dst = Folder() + "/clean.wav";
    for (auto _ : state) {
        if (!CDva::CopyCleanWavFile(src.c_str(), dst.c_str())) state.SkipWithError(CDva::GetLastError().c_str());
    }
    state.SetBytesProcessed(std::int64_t(state.iterations()) * std::int64_t(bytes));
}
BENCHMARK(BM_CopyClean)->Arg(64)->Unit(benchmark::kMillisecond);

void BM_CopyPartial(benchmark::State& state)
{
    const std::size_t bytes = std::size_t(state.range(0)) << 20;
    // The source announces as much audio as is written (as when the host re-cuts a file), or
    // only one 4 KiB page, which makes every pass that small.
    const std::string src = MakeSource(state.range(1) ? bytes : 4096, 0);
    std::vector<char> audio(bytes, 0x11);
    const std::string dst = Folder() + "/partial.wav";
    for (auto _ : state) {
        if (!CDva::CopyPartialWavFile(src.c_str(), dst.c_str(), audio.data(), long(bytes), 1))
            state.SkipWithError(CDva::GetLastError().c_str());
    }
    state.SetBytesProcessed(std::int64_t(state.iterations()) * std::int64_t(bytes));
}
BENCHMARK(BM_CopyPartial)->Args({64, 1})->Args({64, 0})->Unit(benchmark::kMillisecond);

// Finding "data" behind many chunks: one header read and one seek per chunk.
void BM_DescendPastChunks(benchmark::State& state)
{
    const std::string src = MakeSource(4096, int(state.range(0)));
    for (auto _ : state) {
        CMmioFile f(src.c_str(), nullptr, MMIO_ALLOCBUF);
        MMCKINFO riff{}, data{};
        riff.fccType = MakeFourCC('W', 'A', 'V', 'E');
        data.ckid = MakeFourCC('d', 'a', 't', 'a');
        if (!f.Descend(riff, nullptr, MMIO_FINDRIFF) || !f.Descend(data, &riff, MMIO_FINDCHUNK))
            state.SkipWithError("data not found");
    }
    state.SetItemsProcessed(std::int64_t(state.iterations()) * state.range(0));
}
BENCHMARK(BM_DescendPastChunks)->Arg(10000)->Unit(benchmark::kMillisecond);

}  // namespace

int main(int argc, char** argv)
{
    benchmark::Initialize(&argc, argv);
    benchmark::RunSpecifiedBenchmarks();
    benchmark::Shutdown();
    std::error_code ec;
    std::filesystem::remove_all(Folder(), ec);
    return 0;
}

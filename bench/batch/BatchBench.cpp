// What the batch import costs besides the importers: building the Add filter from the shared
// MIME database, classifying files, parsing a saved list, and unwrapping an MXF file.
#include <benchmark/benchmark.h>

#include <dlfcn.h>
#include <stdlib.h>
#include <unistd.h>

#include <filesystem>
#include <string>

#include "batch/BatchList.h"
#include "batch/MxfUnwrap.h"
#include "batch/TypeFilter.h"

using namespace zub::batch;

static void BM_BuildFilterFromMimeDatabase(benchmark::State& state)
{
    for (auto _ : state) {
        TypeFilter f(0);
        benchmark::DoNotOptimize(f.Text().size());
    }
}
BENCHMARK(BM_BuildFilterFromMimeDatabase)->Unit(benchmark::kMillisecond);

static void BM_Classify(benchmark::State& state)
{
    const TypeFilter f(0);
    const char* names[] = {"/m/a.avi", "/m/b.wav", "/m/c.tga", "/m/notes.xyz"};
    int i = 0;
    for (auto _ : state) benchmark::DoNotOptimize(f.Classify(names[i++ & 3]));
}
BENCHMARK(BM_Classify);

static void BM_ParseList1000Rows(benchmark::State& state)
{
    std::vector<BatchRow> rows(1000);
    for (std::size_t i = 0; i < rows.size(); ++i) {
        rows[i].fileName = "/media/project/clip number " + std::to_string(i) + ".mov";
        rows[i].props = "clip" + std::to_string(i) + "|1,1,0";
        rows[i].note = "a note\twith tabs\nand lines";
    }
    const std::string text = FormatBatchList(rows);
    for (auto _ : state) {
        std::vector<BatchRow> back;
        benchmark::DoNotOptimize(ParseBatchList(text, back, nullptr));
    }
    state.SetBytesProcessed(state.iterations() * static_cast<int64_t>(text.size()));
}
BENCHMARK(BM_ParseList1000Rows);

// A 10-second 720x576 MPEG-2 OP1a file with PCM sound, unwrapped by stream copy.
static void BM_UnwrapMxf10s(benchmark::State& state)
{
    const std::string dir = std::filesystem::temp_directory_path() / ("zubbench-mxf-" + std::to_string(::getpid()));
    std::filesystem::create_directories(dir);
    const std::string src = dir + "/clip.mxf";
    const std::string cmd = "ffmpeg -v error -y -f lavfi -i testsrc=size=720x576:rate=25 -f lavfi -i "
                            "sine=sample_rate=48000 -t 10 -c:v mpeg2video -b:v 15M -c:a pcm_s16le -f mxf '" + src + "'";
    if (std::system(cmd.c_str()) != 0) {
        state.SkipWithError("ffmpeg could not make the MXF file");
        return;
    }
    for (auto _ : state) {
        const MxfUnwrapResult r = UnwrapMxf(ZUB_BENCH_MXFWRAP, nullptr, src);
        if (!r.ok) {
            state.SkipWithError(r.error.c_str());
            break;
        }
        RemoveUnwrappedCopy(r.path);
    }
    state.SetBytesProcessed(state.iterations() * static_cast<int64_t>(std::filesystem::file_size(src)));
    std::filesystem::remove_all(dir);
}
BENCHMARK(BM_UnwrapMxf10s)->Unit(benchmark::kMillisecond);

BENCHMARK_MAIN();

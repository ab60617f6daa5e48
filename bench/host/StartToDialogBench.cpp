// Host start-up as an editor feels it: from starting `zubimport gui convert FILE` to the Media
// Conversion dialog being shown (probing the source included), in fresh processes, each on its
// own scratch configuration and volume. The tool reports the first window it shows on
// standard error when ZUBIMPORT_REPORT_SHOWN is set; the child is stopped once it has.
#include <benchmark/benchmark.h>

#include <signal.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <cstdlib>
#include <string>
#include <vector>

#include "TempDir.h"
#include "TestMedia.h"

extern char** environ;

namespace {

namespace gen = zub::testmedia;

// Milliseconds from spawning the host to its "shown" line; < 0 when it never came.
double StartToShown(const std::string& source, const std::string& home)
{
    int out[2];
    if (pipe(out) != 0) return -1;
    posix_spawn_file_actions_t actions;
    posix_spawn_file_actions_init(&actions);
    posix_spawn_file_actions_adddup2(&actions, out[1], 2);
    posix_spawn_file_actions_addclose(&actions, out[0]);
    std::vector<std::string> env = {"ZUBIMPORT_REPORT_SHOWN=1", "XDG_CONFIG_HOME=" + home + "/config",
                                    "XDG_DATA_HOME=" + home + "/data", "ZUBREC_MONITOR=off", "HOME=" + home};
    if (!std::getenv("DISPLAY") && !std::getenv("WAYLAND_DISPLAY")) env.push_back("QT_QPA_PLATFORM=offscreen");
    for (char** e = environ; *e; ++e) {
        const std::string kv = *e;
        if (kv.rfind("XDG_", 0) != 0 && kv.rfind("HOME=", 0) != 0 && kv.rfind("QT_QPA_PLATFORM=", 0) != 0) env.push_back(kv);
    }
    std::vector<char*> envp;
    for (auto& kv : env) envp.push_back(kv.data());
    envp.push_back(nullptr);
    std::string prog = ZUB_BENCH_ZUBIMPORT, gui = "gui", job = "convert", file = source;
    char* argv[] = {prog.data(), gui.data(), job.data(), file.data(), nullptr};

    const auto t0 = std::chrono::steady_clock::now();
    pid_t pid = -1;
    const int rc = posix_spawn(&pid, prog.c_str(), &actions, nullptr, argv, envp.data());
    posix_spawn_file_actions_destroy(&actions);
    close(out[1]);
    double ms = -1;
    if (rc == 0) {
        std::string seen;
        char buf[4096];
        ssize_t n;
        while ((n = read(out[0], buf, sizeof buf)) > 0) {
            seen.append(buf, static_cast<std::size_t>(n));
            if (seen.find("zubimport: shown") != std::string::npos) {
                ms = std::chrono::duration<double, std::milli>(std::chrono::steady_clock::now() - t0).count();
                break;
            }
        }
        kill(pid, SIGKILL);
        int status = 0;
        waitpid(pid, &status, 0);
    }
    close(out[0]);
    return ms;
}

void BM_StartToDialog(benchmark::State& state)
{
    zub::test::TempDir dir;
    gen::MediaSpec spec;
    spec.width = 1920;
    spec.height = 1080;
    spec.frames = 60;
    spec.audio = gen::AudioCodec::Aac;
    const std::string source = dir / "take.mp4";
    std::string error;
    if (!gen::MakeMedia(source, spec, &error)) {
        state.SkipWithError(error.c_str());
        return;
    }
    double total = 0;
    int runs = 0;
    for (auto _ : state) {
        const double ms = StartToShown(source, dir.Path().string());
        if (ms < 0) {
            state.SkipWithError("the dialog was never shown");
            return;
        }
        state.SetIterationTime(ms / 1000.0);
        total += ms;
        ++runs;
    }
    state.counters["ms"] = runs ? total / runs : 0;
}

}  // namespace

BENCHMARK(BM_StartToDialog)->Iterations(5)->UseManualTime()->Unit(benchmark::kMillisecond);
BENCHMARK_MAIN();

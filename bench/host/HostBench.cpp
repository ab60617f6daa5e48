// Host start-up: the time from loading libImport.so to its first entry point answering, each
// time in a fresh process (a library loads only once per process), as a host application
// would meet it. Counter ms: the mean over the iterations, page cache warm.
#include <benchmark/benchmark.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <string>

extern char** environ;

namespace {

// Runs the one-load helper and returns its figure in ms, or a negative value on failure.
double LoadOnce()
{
    int fds[2];
    if (pipe(fds) != 0) return -1;
    posix_spawn_file_actions_t actions;
    posix_spawn_file_actions_init(&actions);
    posix_spawn_file_actions_adddup2(&actions, fds[1], 1);
    posix_spawn_file_actions_addclose(&actions, fds[0]);
    posix_spawn_file_actions_addclose(&actions, fds[1]);
    char* argv[] = {const_cast<char*>(ZUB_BENCH_LOAD_ONCE), const_cast<char*>(ZUB_BENCH_IMPORT_LIBRARY), nullptr};
    pid_t pid;
    const int rc = posix_spawn(&pid, argv[0], &actions, nullptr, argv, environ);
    posix_spawn_file_actions_destroy(&actions);
    close(fds[1]);
    std::string out;
    char buf[256];
    ssize_t n;
    while ((n = read(fds[0], buf, sizeof buf)) > 0 || (n < 0 && errno == EINTR))
        if (n > 0) out.append(buf, static_cast<std::size_t>(n));
    close(fds[0]);
    if (rc != 0) return -1;
    int status = 0;
    if (waitpid(pid, &status, 0) < 0 || !WIFEXITED(status) || WEXITSTATUS(status) != 0) return -1;
    return std::strtod(out.c_str(), nullptr);
}

void BM_LoadToFirstEntry(benchmark::State& state)
{
    if (LoadOnce() < 0) {  // the first load also warms the page cache
        state.SkipWithError("the module did not load or its entry point did not answer");
        return;
    }
    double total = 0;
    for (auto _ : state) {
        const double ms = LoadOnce();
        if (ms < 0) {
            state.SkipWithError("the module did not load or its entry point did not answer");
            return;
        }
        total += ms;
    }
    state.counters["ms"] = total / static_cast<double>(state.iterations());
}
BENCHMARK(BM_LoadToFirstEntry)->Unit(benchmark::kMillisecond)->UseRealTime()->Iterations(20);

}  // namespace

BENCHMARK_MAIN();

// bench_spawn_peak OUT PROGRAM ARG...: runs PROGRAM (searched on PATH) with its arguments,
// waits for it and writes its peak resident set in KiB to the file OUT, then on a second line
// the processor time it used (user and system, seconds); exits with its status. The
// processor time is the figure a busy shared machine skews least.
//
// The benchmarks measure every side's peak memory through this small launcher because a
// child's peak counts the memory of the process it was forked from: started from a benchmark
// that holds test signals, a peer would be charged for them. This process holds almost
// nothing, so what it reports is the program's own.
#include <sys/resource.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstring>

int main(int argc, char** argv)
{
    if (argc < 3) {
        std::fprintf(stderr, "usage: %s OUT PROGRAM [ARG...]\n", argv[0]);
        return 2;
    }
    const pid_t pid = fork();
    if (pid < 0) {
        std::perror("fork");
        return 2;
    }
    if (pid == 0) {
        execvp(argv[2], argv + 2);
        std::fprintf(stderr, "%s: %s\n", argv[2], std::strerror(errno));
        _exit(127);
    }
    int status = 0;
    rusage usage{};
    while (wait4(pid, &status, 0, &usage) < 0) {
        if (errno != EINTR) {
            std::perror("wait4");
            return 2;
        }
    }
    std::FILE* out = std::fopen(argv[1], "w");
    if (!out) {
        std::perror(argv[1]);
        return 2;
    }
    const double cpu = static_cast<double>(usage.ru_utime.tv_sec + usage.ru_stime.tv_sec) +
                       static_cast<double>(usage.ru_utime.tv_usec + usage.ru_stime.tv_usec) / 1e6;
    std::fprintf(out, "%ld\n%.3f\n", usage.ru_maxrss, cpu);
    std::fclose(out);
    return WIFEXITED(status) ? WEXITSTATUS(status) : 2;
}

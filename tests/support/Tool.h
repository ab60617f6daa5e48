// Running the independent tools (ffprobe, sox, oiiotool, ffmpeg) that tests and benchmarks
// check our files against.
#pragma once

#include <spawn.h>
#include <sys/wait.h>

#include <cerrno>
#include <cstdio>
#include <memory>
#include <string>
#include <vector>

extern char** environ;

namespace zub::test {

// Standard output of a shell command line (add " 2>&1" for its errors too); *status gets the
// exit status, -1 when it did not exit normally.
inline std::string Capture(const std::string& command, int* status = nullptr)
{
    std::string out;
    std::FILE* p = ::popen(command.c_str(), "r");
    if (!p) {
        if (status) *status = -1;
        return out;
    }
    char buf[65536];
    std::size_t n;
    while ((n = std::fread(buf, 1, sizeof buf, p)) > 0) out.append(buf, n);
    const int rc = ::pclose(p);
    if (status) *status = WIFEXITED(rc) ? WEXITSTATUS(rc) : -1;
    return out;
}

// The same without trailing line ends: for tools that answer one value.
inline std::string CaptureLine(const std::string& command)
{
    std::string out = Capture(command);
    while (!out.empty() && (out.back() == '\n' || out.back() == '\r')) out.pop_back();
    return out;
}

// Runs a program with its arguments, no shell; its exit status, or -1.
inline int Run(const std::vector<std::string>& args)
{
    std::vector<char*> argv;
    for (const auto& a : args) argv.push_back(const_cast<char*>(a.c_str()));
    argv.push_back(nullptr);
    pid_t pid;
    if (posix_spawnp(&pid, argv[0], nullptr, nullptr, argv.data(), environ) != 0) return -1;
    int status = 0;
    while (waitpid(pid, &status, 0) < 0) {
        if (errno != EINTR) return -1;
    }
    return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
}

}  // namespace zub::test

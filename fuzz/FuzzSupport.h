#pragma once
// What every fuzz target needs around the parser it drives: a loud stop that libFuzzer keeps
// as a finding, a scratch path of its own per process, and whole-file reads and writes.
#include <sys/stat.h>
#include <unistd.h>

#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <string>
#include <vector>

namespace zub::fuzz {

// `target` names the fuzzer in the message and in its scratch files ("wave", "sound", ...).
[[noreturn]] inline void Fault(const char* target, const char* what, const std::string& detail = {})
{
    std::fprintf(stderr, "%s fuzz: %s %s\n", target, what, detail.c_str());
    std::abort();
}

inline std::string Scratch(const char* target, const char* suffix)
{
    const char* tmp = std::getenv("TMPDIR");
    return std::string(tmp && *tmp ? tmp : "/tmp") + "/zubfuzz-" + target + "-" + std::to_string(getpid()) + suffix;
}

// False when the file cannot be written whole.
inline bool Store(const std::string& path, const std::uint8_t* data, std::size_t size)
{
    FILE* f = std::fopen(path.c_str(), "wb");
    if (!f) return false;
    const bool ok = !size || std::fwrite(data, 1, size, f) == size;
    return std::fclose(f) == 0 && ok;
}

inline std::vector<std::uint8_t> Slurp(const std::string& path)
{
    std::vector<std::uint8_t> bytes;
    FILE* f = std::fopen(path.c_str(), "rb");
    if (!f) return bytes;
    std::uint8_t buf[65536];
    for (std::size_t n; (n = std::fread(buf, 1, sizeof buf, f)) > 0;) bytes.insert(bytes.end(), buf, buf + n);
    std::fclose(f);
    return bytes;
}

inline bool Exists(const std::string& path)
{
    struct stat st {};
    return ::stat(path.c_str(), &st) == 0;
}

}  // namespace zub::fuzz

// Profile files come from anywhere a user can pick one: read them as given.
#include <unistd.h>

#include <cstdint>
#include <cstdlib>
#include <string>

#include "imgseq/Profile.h"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size)
{
    static const std::string path = [] {
        const char* tmp = std::getenv("TMPDIR");
        std::string p = std::string(tmp && *tmp ? tmp : "/tmp") + "/zubfuzz-profile-XXXXXX";
        const int fd = mkstemp(p.data());
        if (fd < 0) std::abort();
        close(fd);
        return p;
    }();
    FILE* f = std::fopen(path.c_str(), "wb");
    if (!f) std::abort();
    std::fwrite(data, 1, size, f);
    std::fclose(f);

    zub::ProfileRecord r;
    // What reads must write and read back the same; a path in quotes loses them on every read,
    // as on the platform it comes from, so it is left out.
    const auto quoted = [](const std::string& v) { return !v.empty() && (v.front() == '"' || v.front() == '\''); };
    if (zub::ReadProfile(path, &r) && !quoted(r.videoPath)) {
        const std::string copy = path + ".out";
        if (!zub::WriteProfile(copy, r)) std::abort();
        zub::ProfileRecord back;
        if (!zub::ReadProfile(copy, &back) || !(back == r)) std::abort();
        std::remove(copy.c_str());
    }
    (void)zub::DescribeProfile(path);
    return 0;
}

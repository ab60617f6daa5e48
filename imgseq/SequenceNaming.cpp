#include "imgseq/SequenceNaming.h"

#include <sys/stat.h>

#include <chrono>
#include <climits>
#include <cstdio>
#include <cstdlib>
#include <fstream>

#include "zubimport/Paths.h"
#include "zubimport/Platform.h"

namespace zub {

namespace {

constexpr bool IsDigit(char c) { return c >= '0' && c <= '9'; }

// Splits the decimal run that ends `stem` off into `digits`.
void PeelDigits(std::string& stem, std::string& digits)
{
    std::size_t n = stem.size();
    while (n > 0 && IsDigit(stem[n - 1])) --n;
    digits = stem.substr(n);
    stem.resize(n);
}

// digits + 1 in decimal. Counting on the text itself keeps the width of a zero-padded number
// (0099 -> 0100) and lets it grow only when it has to (0999 -> 1000), which is exactly the
// "%0*d" rule, and it cannot overflow however long the run of digits is.
std::string Increment(std::string digits)
{
    if (digits.empty()) return "2";
    std::size_t i = digits.size();
    while (i > 0) {
        --i;
        if (digits[i] != '9') {
            ++digits[i];
            return digits;
        }
        digits[i] = '0';
    }
    return "1" + digits;
}

}  // namespace

bool SplitPath(std::string_view path, std::string& dir, std::string& stem, std::string& ext)
{
    dir.clear();
    stem.clear();
    ext.clear();
    if (path.empty()) return false;
    dir = DirectoryPart(path);
    const std::string name = FileNamePart(path);
    const auto dot = name.rfind('.');
    if (dot == std::string::npos) {
        stem = name;
    } else {
        stem = name.substr(0, dot);
        ext = name.substr(dot);
    }
    return true;
}

std::string NextSequenceName(std::string_view path)
{
    std::string dir, stem, ext, digits;
    SplitPath(path, dir, stem, ext);
    PeelDigits(stem, digits);
    return dir + stem + Increment(digits) + ext;
}

bool FileExists(const std::string& path)
{
    struct stat st {};
    return !path.empty() && ::stat(path.c_str(), &st) == 0;
}

std::size_t AddNumberedRun(const std::string& first, std::vector<std::string>& list, bool numbered, bool checkFirst)
{
    std::size_t added = 0;
    if (checkFirst && !FileExists(first)) return 0;
    list.push_back(first);
    ++added;
    if (!numbered) return added;
    for (std::string next = NextSequenceName(first); FileExists(next); next = NextSequenceName(next)) {
        list.push_back(next);
        ++added;
    }
    return added;
}

std::string DefaultClipName(std::string_view firstImage, std::string_view videoDir)
{
    std::string dir, stem, ext, digits;
    SplitPath(firstImage, dir, stem, ext);
    std::string stripped = stem;
    PeelDigits(stripped, digits);
    if (!stripped.empty()) stem = stripped;  // an all-digit stem names the clip by itself

    std::string candidate = JoinPath(videoDir, stem + ".zub");
    while (FileExists(candidate)) candidate = NextSequenceName(candidate);
    SplitPath(candidate, dir, stem, ext);
    return stem;
}

std::string MakeTempFileName(const char* prefix, const char* ext)
{
    std::string folder = TempFolder();
    struct stat st {};
    if (::stat(folder.c_str(), &st) != 0 || !S_ISDIR(st.st_mode)) return {};
    if (char* resolved = ::realpath(folder.c_str(), nullptr)) {
        folder = WithTrailingSeparator(resolved);
        std::free(resolved);
    }
    const std::string pre = prefix ? prefix : "";
    const std::string ex = ext ? ext : "";

    const auto ms = std::chrono::duration_cast<std::chrono::milliseconds>(
                        std::chrono::steady_clock::now().time_since_epoch())
                        .count();
    // The counter is not wrapped: past 0xff it simply prints with more digits.
    const unsigned long long first = static_cast<unsigned long long>(ms) & 0xFF;
    // A folder where every name seems taken (an unreadable one) must not hang the caller.
    for (unsigned long long counter = first; counter < first + (1u << 20); ++counter) {
        char number[24];
        std::snprintf(number, sizeof number, "%02llx", counter);
        std::string candidate = folder + pre + number + "." + ex;
        if (!FileExists(candidate)) return candidate;
    }
    return {};
}

bool IsNativeVideoFile(const std::string& path)
{
    std::ifstream in(path, std::ios::binary);
    if (!in) return false;
    unsigned char head[16];
    if (!in.read(reinterpret_cast<char*>(head), sizeof head)) return false;
    const FOURCC magic = static_cast<FOURCC>(head[0]) | (static_cast<FOURCC>(head[1]) << 8) |
                         (static_cast<FOURCC>(head[2]) << 16) | (static_cast<FOURCC>(head[3]) << 24);
    return magic == MakeFourCC('Z', 'U', 'B', '0');
}

}  // namespace zub

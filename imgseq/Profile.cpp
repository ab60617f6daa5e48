#include "imgseq/Profile.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <mutex>

// Header-only: this file holds the template bodies.
#define SI_NO_CONVERSION
#define SI_IMPLEMENTATION
#include <SimpleIni.h>

#include "imgseq/SequenceNaming.h"
#include "platform/Error.h"
#include "platform/FileIo.h"
#include "zubimport/Paths.h"
#include "zubimport/Platform.h"

namespace zub {

namespace {

constexpr const char* kHeader = "Header";
constexpr const char* kParameter = "Parameter";

struct IntKey {
    const char* name;
    std::int32_t ProfileRecord::*field;
};
// In the order they are written.
constexpr IntKey kIntKeys[] = {
    {"ImportSeqFit", &ProfileRecord::fitWord},
    {"ImportSeqSwap", &ProfileRecord::swapFields},
    {"ImportSeqShift", &ProfileRecord::shiftDown},
    {"ImportSeqAdapt", &ProfileRecord::videoAdaptive},
    {"ImportSeqAlphaAdapt", &ProfileRecord::alphaAdaptive},
    {"VideoAlphaCreate", &ProfileRecord::createAlpha},
    {"VideoAlphaSameAsVideo", &ProfileRecord::alphaSameAsVideo},
    {"VideoAlphaUncompressed", &ProfileRecord::alphaUncompressed},
    {"VideoAlphaDataRate", &ProfileRecord::alphaDataRate},
    {"VideoUncompressed", &ProfileRecord::videoUncompressed},
    {"VideoDataRate", &ProfileRecord::videoDataRate},
    {"VideoFixedSize", &ProfileRecord::fixedFieldSize},
};
constexpr const char* kVideoPathKey = "VideoPath";
constexpr const char* kFillGapsKey = "ImportSeqFillGaps";

// A string value as the platform's profile reader gives it: trimmed (SimpleIni already did),
// one pair of matching surrounding quotes removed, cut to the reader's 260-byte buffer.
std::string ProfileString(const CSimpleIniA& ini, const char* section, const char* key)
{
    std::string v = ini.GetValue(section, key, "");
    if (v.size() >= 2 && (v.front() == '"' || v.front() == '\'') && v.back() == v.front()) v = v.substr(1, v.size() - 2);
    if (v.size() > MAX_PATH - 1) v.resize(MAX_PATH - 1);
    return v;
}

// An integer as the platform reads one: the default when the key is missing or empty, else
// an optional sign and the leading decimal digits (none: 0), wrapping like a 32-bit value.
std::int32_t ProfileInt(const CSimpleIniA& ini, const char* section, const char* key, std::int32_t def)
{
    const char* raw = ini.GetValue(section, key, nullptr);
    if (!raw) return def;
    const std::string v = ProfileString(ini, section, key);
    if (v.empty()) return def;
    std::size_t i = 0;
    while (i < v.size() && (v[i] == ' ' || v[i] == '\t')) ++i;
    bool negative = false;
    if (i < v.size() && (v[i] == '-' || v[i] == '+')) negative = v[i++] == '-';
    std::uint32_t value = 0;
    for (; i < v.size() && v[i] >= '0' && v[i] <= '9'; ++i) value = value * 10u + static_cast<std::uint32_t>(v[i] - '0');
    if (negative) value = 0u - value;
    return static_cast<std::int32_t>(value);
}

bool Load(CSimpleIniA& ini, const std::string& path, std::string* error)
{
    const SI_Error rc = ini.LoadFile(path.c_str());
    if (rc < 0) return Fail(error, path + ": cannot read: " + (rc == SI_FILE ? std::strerror(errno) : "bad data"));
    return true;
}

}  // namespace

ProfileRecord ProfileFromSettings(const ImportSettings& s)
{
    ProfileRecord p;
    p.fitWord = s.fitWord;
    p.swapFields = s.swapFields;
    p.shiftDown = s.shiftDown;
    p.videoAdaptive = s.videoAdaptive;
    p.alphaAdaptive = s.alphaAdaptive;
    p.createAlpha = s.createAlpha;
    p.alphaSameAsVideo = s.alphaSameAsVideo;
    p.alphaUncompressed = s.alphaUncompressed;
    p.alphaDataRate = s.alphaDataRate;
    p.videoUncompressed = s.videoUncompressed;
    p.videoDataRate = s.videoDataRate;
    p.fixedFieldSize = s.fixedFieldSize;
    p.videoPath = s.videoDir;
    p.fillGaps = s.fillGaps;
    return p;
}

void ApplyProfile(const ProfileRecord& p, ImportSettings& s)
{
    s.fitWord = p.fitWord;
    s.swapFields = p.swapFields;
    s.shiftDown = p.shiftDown;
    s.videoAdaptive = p.videoAdaptive;
    s.alphaAdaptive = p.alphaAdaptive;
    s.createAlpha = p.createAlpha;
    s.alphaSameAsVideo = p.alphaSameAsVideo;
    s.alphaUncompressed = p.alphaUncompressed;
    s.alphaDataRate = p.alphaDataRate;
    s.videoUncompressed = p.videoUncompressed;
    s.videoDataRate = p.videoDataRate;
    s.fixedFieldSize = p.fixedFieldSize;
    s.videoDir = p.videoPath;
    s.fillGaps = p.fillGaps;
}

std::string ProfilesFolderIn(std::string_view programFolder)
{
    const std::string folder = WithTrailingSeparator(programFolder) + "Profiles/";
    // Not being able to make it is not reported: the file dialog then starts elsewhere.
    ::mkdir(folder.c_str(), 0777);
    return folder;
}

std::string ProfilesFolder()
{
    static std::once_flag once;
    static std::string folder;
    std::call_once(once, [] {
        char exe[4096];
        const ssize_t n = ::readlink("/proc/self/exe", exe, sizeof exe - 1);
        if (n <= 0) return;
        exe[n] = '\0';
        folder = ProfilesFolderIn(DirectoryPart(exe));
    });
    return folder;
}

bool ReadProfile(const std::string& path, ProfileRecord* record, std::string* error)
{
    CSimpleIniA ini;  // section and key names in any case
    // The platform's reader takes the first of repeated keys.
    ini.SetMultiKey(true);
    if (!Load(ini, path, error)) return false;

    const std::string product = ProfileString(ini, kHeader, "Product");
    // Both product names read, although only "Kestrel" is ever written.
    if (!EqualsNoCase(product, "zubHalo") && !EqualsNoCase(product, "Kestrel"))
        return Fail(error, path + ": not an image sequence profile (Product '" + product + "')");
    const std::int32_t type = ProfileInt(ini, kHeader, "Type", -1);
    if (type != 1) return Fail(error, path + ": profile type " + std::to_string(type) + " is not 1");

    if (record) {
        ProfileRecord r;
        for (const IntKey& k : kIntKeys) r.*k.field = ProfileInt(ini, kParameter, k.name, 0);
        r.videoPath = ProfileString(ini, kParameter, kVideoPathKey);
        r.fillGaps = ProfileInt(ini, kParameter, kFillGapsKey, 0);
        *record = std::move(r);
    }
    return true;
}

bool WriteProfile(const std::string& path, const ProfileRecord& record, std::string* error)
{
    std::string dir, stem, ext;
    if (!SplitPath(path, dir, stem, ext) || (stem.empty() && ext.empty()))
        return Fail(error, "'" + path + "': not a profile file name");
    if (!dir.empty() && !FileExists(dir)) ::mkdir(dir.c_str(), 0777);

    CSimpleIniA ini;  // section and key names in any case
    ini.SetSpaces(false);
    if (FileExists(path) && !Load(ini, path, error)) return false;

    ini.SetValue(kHeader, "Product", "Kestrel");
    ini.SetLongValue(kHeader, "Version", 1);
    ini.SetLongValue(kHeader, "Type", 1);
    ini.SetValue(kHeader, "Description", path.c_str());
    for (const IntKey& k : kIntKeys) ini.SetValue(kParameter, k.name, std::to_string(record.*k.field).c_str());
    ini.SetValue(kParameter, kVideoPathKey, record.videoPath.c_str());
    ini.SetValue(kParameter, kFillGapsKey, std::to_string(record.fillGaps).c_str());

    std::string text;
    if (ini.Save(text) < 0) return Fail(error, path + ": cannot form the profile text");

    // Written beside the target and renamed over it, so a failed write leaves the old file.
    std::string temp = path + ".XXXXXX";
    const int fd = ::mkstemp(temp.data());
    if (fd < 0) return Fail(error, path + ": cannot write: " + std::strerror(errno));
    if (!WriteAllAt(fd, text.data(), text.size(), 0)) {
        const int e = errno;
        ::close(fd);
        ::unlink(temp.c_str());
        return Fail(error, path + ": cannot write: " + std::strerror(e));
    }
    struct stat old {};
    ::fchmod(fd, ::stat(path.c_str(), &old) == 0 ? (old.st_mode & 07777) : 0644);
    if (::close(fd) != 0 || ::rename(temp.c_str(), path.c_str()) != 0) {
        const int e = errno;
        ::unlink(temp.c_str());
        return Fail(error, path + ": cannot write: " + std::strerror(e));
    }
    return true;
}

std::string DescribeProfile(const std::string& path)
{
    ProfileRecord r;
    if (!ReadProfile(path, &r)) return {};
    auto line = [](std::int32_t uncompressed, std::int32_t rate) {
        if (uncompressed) return std::string("Uncompressed");
        char buf[64];
        std::snprintf(buf, sizeof buf, "Compressed, %0.2f MB/Sec", static_cast<double>(rate) / 1024 / 1024);
        return std::string(buf);
    };
    return "Video Settings:\r\n      " + line(r.videoUncompressed, r.videoDataRate) + " \r\n      " + r.videoPath +
           " \r\n\r\nAlpha Settings:\r\n      " + line(r.alphaUncompressed, r.alphaDataRate) + " \r\n";
}

}  // namespace zub

#include "recorder/RecorderConfig.h"

#include <unistd.h>

#include <cstdlib>
#include <filesystem>

#define SI_CONVERT_ICU
#include <SimpleIni.h>

namespace zub::rec {

namespace {

std::string Env(const char* name)
{
    const char* v = std::getenv(name);
    return v ? std::string(v) : std::string();
}

std::string Slash(std::string folder)
{
    if (!folder.empty() && folder.back() != '/') folder += '/';
    return folder;
}

std::string HomeBased(const char* xdgVariable, const char* fallback)
{
    std::string base = Env(xdgVariable);
    if (base.empty()) base = Env("HOME") + fallback;
    return Slash(base);
}

bool ParseLines(const std::string& text, int& lines)
{
    if (text == "525") lines = 525;
    else if (text == "625") lines = 625;
    else return false;
    return true;
}

bool ParseCount(const std::string& text, std::uint64_t max, std::uint64_t& n)
{
    if (text.empty() || text.find_first_not_of("0123456789") != std::string::npos || text.size() > 12) return false;
    n = std::strtoull(text.c_str(), nullptr, 10);
    return n <= max;
}

template <class T>
bool ParseCountInto(const std::string& text, std::uint64_t max, T& out)
{
    std::uint64_t n = 0;
    if (!ParseCount(text, max, n)) return false;
    out = static_cast<T>(n);
    return true;
}

bool ParseSwitch(const std::string& text, bool& on)
{
    if (text == "0") on = false;
    else if (text == "1") on = true;
    else return false;
    return true;
}

bool ParseCreateFault(const std::string& text, CreateFault& fault)
{
    if (text == "nospace") fault = CreateFault::NoSpace;
    else if (text == "exists") fault = CreateFault::Exists;
    else if (text == "none") fault = CreateFault::None;
    else return false;
    return true;
}

// One key of the [recorder] section, its environment override, and how its text is taken;
// `expect` says what a valid value looks like.
struct Key {
    const char* name;
    const char* variable;
    const char* expect;
    bool (*apply)(const std::string& text, RecorderConfig& c);
    bool emptyCounts = false;  // an empty variable is a value (else it is absent)
};

constexpr std::uint64_t kMaxCount = 0x7FFFFFFF;

const Key kKeys[] = {
    {"lines", "ZUBREC_LINES", "525 or 625", [](const std::string& t, RecorderConfig& c) { return ParseLines(t, c.lines); }},
    {"volume", "ZUBREC_VOLUME", "a folder",
     [](const std::string& t, RecorderConfig& c) {
         if (!t.empty()) c.volume = Slash(t);
         return true;
     }},
    {"limit", "ZUBREC_LIMIT", "a size such as 200M",
     [](const std::string& t, RecorderConfig& c) { return ParseByteSize(t, c.limitBytes); }},
    {"monitor", "ZUBREC_MONITOR", "a file or off",
     [](const std::string& t, RecorderConfig& c) {
         c.monitor = t;
         return true;
     },
     true},
    {"sync", "ZUBREC_SYNC", "0 or 1",
     [](const std::string& t, RecorderConfig& c) {
         c.sync = std::atoi(t.c_str()) != 0;
         return true;
     }},
    {"reserve", "ZUBREC_RESERVE", "0 or 1", [](const std::string& t, RecorderConfig& c) { return ParseSwitch(t, c.reserve); }},
    {"fail_create", "ZUBREC_FAIL_CREATE", "nospace, exists or none",
     [](const std::string& t, RecorderConfig& c) { return ParseCreateFault(t, c.faults.create); }},
    {"fail_import", "ZUBREC_FAIL_IMPORT", "a frame count, 1 for the first import",
     [](const std::string& t, RecorderConfig& c) { return ParseCountInto(t, kMaxCount, c.faults.failImport); }},
    {"full_after", "ZUBREC_FULL_AFTER", "a frame count",
     [](const std::string& t, RecorderConfig& c) { return ParseCountInto(t, kMaxCount, c.faults.fullAfter); }},
    {"fail_appinfo", "ZUBREC_FAIL_APPINFO", "0 or 1",
     [](const std::string& t, RecorderConfig& c) { return ParseSwitch(t, c.faults.failAppInfo); }},
    {"write_delay", "ZUBREC_WRITE_DELAY", "milliseconds, at most 60000",
     [](const std::string& t, RecorderConfig& c) { return ParseCountInto(t, 60000, c.faults.writeDelayMs); }},
};

}  // namespace

bool ParseByteSize(const std::string& text, std::uint64_t& bytes)
{
    if (text.empty()) return false;
    char* end = nullptr;
    const unsigned long long n = std::strtoull(text.c_str(), &end, 10);
    if (end == text.c_str()) return false;
    std::uint64_t scale = 1;
    const std::string suffix(end);
    if (suffix == "" || suffix == "B") scale = 1;
    else if (suffix == "K" || suffix == "k") scale = 1ull << 10;
    else if (suffix == "M" || suffix == "m") scale = 1ull << 20;
    else if (suffix == "G" || suffix == "g") scale = 1ull << 30;
    else return false;
    bytes = n * scale;
    return true;
}

RecorderConfig LoadRecorderConfig()
{
    RecorderConfig c;
    c.volume = HomeBased("XDG_DATA_HOME", "/.local/share") + "zubrecorder/volume/";
    std::string runtime = Env("XDG_RUNTIME_DIR");
    if (runtime.empty()) runtime = Env("TMPDIR");
    if (runtime.empty()) runtime = "/tmp";
    c.monitor = Slash(runtime) + "zubrecorder-monitor.jpg";

    std::string file = Env("ZUBREC_CONFIG");
    if (file.empty()) file = HomeBased("XDG_CONFIG_HOME", "/.config") + "zubrecorder/recorder.ini";
    std::error_code ec;
    if (std::filesystem::is_regular_file(file, ec)) {
        CSimpleIniA ini(false, false, false);  // case-insensitive, one value per key
        if (ini.LoadFile(file.c_str()) < 0) {
            c.problem = file + ": cannot be read";
        } else {
            c.file = file;
            for (const Key& k : kKeys)
                if (const char* v = ini.GetValue("recorder", k.name, nullptr); v && !k.apply(v, c))
                    c.problem = file + ": " + k.name + " must be " + k.expect + ", not \"" + v + "\"";
        }
    }
    for (const Key& k : kKeys) {
        const char* raw = std::getenv(k.variable);
        if (!raw || (!*raw && !k.emptyCounts)) continue;
        if (!k.apply(raw, c)) c.problem = std::string(k.variable) + " must be " + k.expect + ", not \"" + raw + "\"";
    }
    if (c.monitor == "off") c.monitor.clear();
    return c;
}

}  // namespace zub::rec

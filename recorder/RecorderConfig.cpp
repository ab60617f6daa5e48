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
            if (const char* v = ini.GetValue("recorder", "lines", nullptr); v && !ParseLines(v, c.lines))
                c.problem = file + ": lines must be 525 or 625, not \"" + v + "\"";
            if (const char* v = ini.GetValue("recorder", "volume", nullptr); v && *v) c.volume = Slash(v);
            if (const char* v = ini.GetValue("recorder", "limit", nullptr); v && !ParseByteSize(v, c.limitBytes))
                c.problem = file + ": limit is not a size: \"" + v + "\"";
            if (const char* v = ini.GetValue("recorder", "monitor", nullptr)) c.monitor = v;
            if (const char* v = ini.GetValue("recorder", "sync", nullptr)) c.sync = std::atoi(v) != 0;
        }
    }
    if (const std::string v = Env("ZUBREC_LINES"); !v.empty() && !ParseLines(v, c.lines))
        c.problem = "ZUBREC_LINES must be 525 or 625, not \"" + v + "\"";
    if (const std::string v = Env("ZUBREC_VOLUME"); !v.empty()) c.volume = Slash(v);
    if (const std::string v = Env("ZUBREC_LIMIT"); !v.empty() && !ParseByteSize(v, c.limitBytes))
        c.problem = "ZUBREC_LIMIT is not a size: \"" + v + "\"";
    if (const char* v = std::getenv("ZUBREC_MONITOR")) c.monitor = v;
    if (const std::string v = Env("ZUBREC_SYNC"); !v.empty()) c.sync = std::atoi(v.c_str()) != 0;
    if (c.monitor == "off") c.monitor.clear();
    return c;
}

}  // namespace zub::rec

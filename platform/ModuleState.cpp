#include "zubimport/ModuleState.h"

#include <dlfcn.h>
#include <sys/utsname.h>

#include <cstdio>
#include <map>
#include <mutex>
#include <optional>

#include "zubimport/Paths.h"

namespace zub {

namespace {

const std::map<unsigned, const char*>& StringTable()
{
    static const std::map<unsigned, const char*> table = {
        {IDS_DEVICE_OPEN_FAILED,
         "Failed to open the ZUB Hardware device.\nPlease make sure all the drivers are started up properly."},
        {IDS_IMAGE_FILTER,
         "tga\tAll Supported Image Files\t*.tga;*.bmp;*.jpg;*.tif;*.pic;*.iff;*.ras;*.rla;*.sgi;*.vpb\t"
         "TGA (*.tga)\t*.tga\tBMP (*.bmp)\t*.bmp\tJPG (*.jpg)\t*.jpg\tTIF (*.tif)\t*.tif\t"
         "PIC (*.pic)\t*.pic\tIFF (*.iff)\t*.iff\tRAS (*.ras)\t*.ras\tRLA (*.rla)\t*.rla\t"
         "SGI (*.sgi)\t*.sgi\tVPB (*.vpb)\t*.vpb\tAll Files (*.*)\t*.*\t"},
        {IDS_VALUE_OUT_OF_RANGE, "Value is out of range!"},
        {IDS_VALUE_OUT_OF_RANGE_BETWEEN, "Value is out of range!  Please enter a number between %s and %s."},
        {IDS_VALUE_OUT_OF_RANGE_ACCEPTED,
         "Value is out of range!  Please enter one of the accepted numbers between %s and %s."},
    };
    return table;
}

std::string ModuleFolder()
{
    Dl_info info{};
    if (dladdr(reinterpret_cast<void*>(&ModuleFolder), &info) && info.dli_fname) {
        char resolved[4096];
        if (realpath(info.dli_fname, resolved)) return DirectoryPart(resolved);
        return DirectoryPart(info.dli_fname);
    }
    return {};
}

std::mutex g_osMutex;
std::optional<OsVersion> g_osOverride;

}  // namespace

ModuleState::ModuleState() : folder_(ModuleFolder()) {}

std::string ModuleState::LoadString(unsigned id) const
{
    const auto& t = StringTable();
    const auto it = t.find(id);
    return it == t.end() ? std::string() : std::string(it->second);
}

bool ModuleState::HasString(unsigned id) const
{
    return StringTable().count(id) != 0;
}

const std::string& ModuleState::Folder() const
{
    return folder_;
}

ModuleState& TheModuleState()
{
    static ModuleState state;
    return state;
}

OsVersion CurrentOsVersion()
{
    {
        std::lock_guard lock(g_osMutex);
        if (g_osOverride) return *g_osOverride;
    }
    OsVersion v;
    utsname u{};
    if (uname(&u) == 0) std::sscanf(u.release, "%d.%d", &v.major, &v.minor);
    return v;
}

void SetOsVersionOverride(const OsVersion* v)
{
    std::lock_guard lock(g_osMutex);
    if (v)
        g_osOverride = *v;
    else
        g_osOverride.reset();
}

}  // namespace zub

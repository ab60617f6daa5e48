#include "device/RecorderBackends.h"

#include <dlfcn.h>

#include <cstdio>
#include <cstdlib>

#include "device/BackendLibrary.h"
#include "zubimport/ModuleState.h"
#include "zubimport/Paths.h"

namespace zub {

bool Resolver::Ok(std::string* error) const
{
    if (missing_.empty()) return true;
    if (error) *error = path_ + ": the recorder library has no function " + missing_;
    return false;
}

void* Resolver::Symbol(const char* name) const
{
    return dlsym(lib_, name);
}

void* OpenRecorderLibrary(const char* name, std::string& path, std::string* error)
{
    path = RecorderLibraryFolder() + name;
    // RTLD_LOCAL: both libraries carry their own copy of the volume code.
    void* lib = dlopen(path.c_str(), RTLD_NOW | RTLD_LOCAL);
    if (!lib && error) {
        const char* why = dlerror();
        *error = path + ": cannot load the recorder library: " + (why ? why : "unknown reason");
    }
    return lib;
}

void CloseRecorderLibrary(void* library)
{
    if (library) dlclose(library);
}

std::string ResultText(std::int32_t result)
{
    char buf[32];
    // Tbx codes read as hex (0xE0040215), ZUB's small negatives as decimal (-29).
    if (result < -65536)
        std::snprintf(buf, sizeof buf, "0x%08X", static_cast<unsigned>(result));
    else
        std::snprintf(buf, sizeof buf, "%d", static_cast<int>(result));
    return buf;
}

std::string Named(const char* path)
{
    return std::string(path && *path ? path : "(no path)") + ": ";
}

std::string RecorderLibraryFolder()
{
    if (const char* dir = std::getenv(kRecorderDirVariable); dir && *dir) return WithTrailingSeparator(dir);
    return TheModuleState().Folder();
}

const rec::ZubApi* ZubBackend(std::string* error)
{
    return ZubLibrary().Get(error);
}

const rec::TbxApi* TbxBackend(std::string* error)
{
    return TbxLibrary().Get(error);
}

void SetZubBackendForTesting(const rec::ZubApi* api)
{
    ZubLibrary().SetOverride(api);
}

void SetTbxBackendForTesting(const rec::TbxApi* api)
{
    TbxLibrary().SetOverride(api);
}

}  // namespace zub

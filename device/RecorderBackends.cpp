#include "RecorderBackends.h"

#include <dlfcn.h>

#include <cstdlib>
#include <mutex>

#include "zubimport/ModuleState.h"
#include "zubimport/Paths.h"

namespace zub {

namespace {

std::mutex g_mutex;
const rec::ZubApi* g_zubOverride = nullptr;
const rec::TbxApi* g_tbxOverride = nullptr;
rec::ZubApi g_zub;
rec::TbxApi g_tbx;
bool g_zubLoaded = false;
bool g_tbxLoaded = false;

// Looks up every named function; a missing required one fails the whole table.
class Resolver {
public:
    Resolver(void* lib, std::string path) : lib_(lib), path_(std::move(path)) {}

    template <class Fn>
    void Need(Fn& slot, const char* name)
    {
        slot = reinterpret_cast<Fn>(dlsym(lib_, name));
        if (!slot && missing_.empty()) missing_ = name;
    }
    template <class Fn>
    void Optional(Fn& slot, const char* name)
    {
        slot = reinterpret_cast<Fn>(dlsym(lib_, name));
    }
    bool Ok(std::string* error) const
    {
        if (missing_.empty()) return true;
        if (error) *error = path_ + ": the recorder library has no function " + missing_;
        return false;
    }

private:
    void* lib_;
    std::string path_;
    std::string missing_;
};

void* OpenLibrary(const char* name, std::string& path, std::string* error)
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

}  // namespace

std::string RecorderLibraryFolder()
{
    if (const char* dir = std::getenv(kRecorderDirVariable); dir && *dir) return WithTrailingSeparator(dir);
    return TheModuleState().Folder();
}

const rec::ZubApi* ZubBackend(std::string* error)
{
    std::lock_guard lock(g_mutex);
    if (g_zubOverride) return g_zubOverride;
    if (g_zubLoaded) return &g_zub;
    std::string path;
    void* lib = OpenLibrary(kZubLibraryName, path, error);
    if (!lib) return nullptr;
    rec::ZubApi api;
    Resolver r(lib, path);
    r.Need(api.ZubDdrOpenDevice, "ZubDdrOpenDevice");
    r.Need(api.ZubObjReference, "ZubObjReference");
    r.Need(api.ZubObjDereference, "ZubObjDereference");
    r.Need(api.ZubDdrGetSystemInfo, "ZubDdrGetSystemInfo");
    r.Need(api.ZubDdrQueryDeviceCaps, "ZubDdrQueryDeviceCaps");
    r.Need(api.ZubDdrQueryVolumeSpace, "ZubDdrQueryVolumeSpace");
    r.Need(api.ZubVideoCreateClipItem, "ZubVideoCreateClipItem");
    r.Need(api.ZubVideoImport, "ZubVideoImport");
    r.Need(api.ZubGfxLoadImage, "ZubGfxLoadImage");
    r.Need(api.ZubDdrSetFileAppInfo, "ZubDdrSetFileAppInfo");
    r.Need(api.ZubDdrGetFileInfo, "ZubDdrGetFileInfo");
    r.Need(api.ZubFileQueryInfo, "ZubFileQueryInfo");
    r.Need(api.ZubMixSetPreviewBusCtrl, "ZubMixSetPreviewBusCtrl");
    r.Need(api.ZubMixGetOutputBusCtrl, "ZubMixGetOutputBusCtrl");
    r.Need(api.ZubMixSetOutputBusCtrl, "ZubMixSetOutputBusCtrl");
    r.Need(api.ZubDdrGetFileSystemPrefs, "ZubDdrGetFileSystemPrefs");
    r.Optional(api.LastError, "ZubRecorderLastError");
    if (!r.Ok(error)) {
        dlclose(lib);
        return nullptr;
    }
    g_zub = api;
    g_zubLoaded = true;
    return &g_zub;
}

const rec::TbxApi* TbxBackend(std::string* error)
{
    std::lock_guard lock(g_mutex);
    if (g_tbxOverride) return g_tbxOverride;
    if (g_tbxLoaded) return &g_tbx;
    std::string path;
    void* lib = OpenLibrary(kTbxLibraryName, path, error);
    if (!lib) return nullptr;
    rec::TbxApi api;
    Resolver r(lib, path);
    r.Need(api.TbxDcOpenEx, "TbxDcOpenEx");
    r.Need(api.TbxDcInitialize, "TbxDcInitialize");
    r.Need(api.TbxDcClose, "TbxDcClose");
    r.Need(api.TbxDcGetVersionInfo, "TbxDcGetVersionInfo");
    r.Need(api.TbxDcQueryVolumeSpace, "TbxDcQueryVolumeSpace");
    r.Need(api.TbxPlyCreateClipItem, "TbxPlyCreateClipItem");
    r.Need(api.TbxPlyImport, "TbxPlyImport");
    r.Need(api.TbxDereferenceObject, "TbxDereferenceObject");
    r.Need(api.TbxDcSetAppInfo, "TbxDcSetAppInfo");
    r.Need(api.TbxMixSetPreview, "TbxMixSetPreview");
    r.Need(api.TbxDcSetM2Routing, "TbxDcSetM2Routing");
    r.Need(api.TbxDcGetFileInfo, "TbxDcGetFileInfo");
    r.Need(api.TbxPlyOpenClipItem, "TbxPlyOpenClipItem");
    r.Need(api.TbxPlyItemQuery, "TbxPlyItemQuery");
    r.Need(api.TbxDcGetSystemPrefs, "TbxDcGetSystemPrefs");
    r.Optional(api.LastError, "TbxRecorderLastError");
    if (!r.Ok(error)) {
        dlclose(lib);
        return nullptr;
    }
    g_tbx = api;
    g_tbxLoaded = true;
    return &g_tbx;
}

void SetZubBackendForTesting(const rec::ZubApi* api)
{
    std::lock_guard lock(g_mutex);
    g_zubOverride = api;
}

void SetTbxBackendForTesting(const rec::TbxApi* api)
{
    std::lock_guard lock(g_mutex);
    g_tbxOverride = api;
}

}  // namespace zub

#include "imgseq/ImagingLibrary.h"

#include <dlfcn.h>

#include <cstdlib>
#include <mutex>

#include "zubimport/ModuleState.h"
#include "zubimport/Paths.h"

namespace zub {

namespace {

std::mutex g_mutex;
const ZubImagingApi* g_api = nullptr;

}  // namespace

std::string ImagingLibraryPath()
{
    const char* env = std::getenv(kImagingLibraryEnv);
    if (env && *env) return env;
    return TheModuleState().Folder() + kImagingLibraryName;
}

const ZubImagingApi* ImagingLibrary(std::string* error)
{
    std::lock_guard lock(g_mutex);
    if (g_api) return g_api;
    const std::string path = ImagingLibraryPath();
    // Never closed: OpenImageIO keeps process-wide state that must outlive every image.
    void* handle = dlopen(path.c_str(), RTLD_NOW | RTLD_LOCAL);
    if (!handle) {
        if (error) {
            const char* why = dlerror();
            *error = "cannot load the imaging library " + path + ": " + (why ? why : "unknown reason");
        }
        return nullptr;
    }
    auto getApi = reinterpret_cast<ZubImagingGetApiFn>(dlsym(handle, ZUB_IMAGING_ENTRY));
    const ZubImagingApi* api = getApi ? getApi() : nullptr;
    if (!api || api->version != ZUB_IMAGING_API_VERSION || !api->decode || !api->resize || !api->describe ||
        !api->decodeScaled) {
        if (error) *error = "the imaging library " + path + " has no usable " ZUB_IMAGING_ENTRY " interface";
        dlclose(handle);
        return nullptr;
    }
    g_api = api;
    return g_api;
}

}  // namespace zub

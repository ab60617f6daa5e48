#include "batch/MxfUnwrap.h"

#include <dlfcn.h>
#include <unistd.h>

#include <cstdio>

#include <memory>
#include <vector>

#include "mxfwrap/MXFWrap.h"
#include "zubimport/Paths.h"

namespace zub::batch {

namespace {

struct LibraryCloser {
    void operator()(void* handle) const { ::dlclose(handle); }
};

// Room for any path the unwrapper may write back.
constexpr std::size_t kPathCapacity = 4096;

}  // namespace

bool IsMxfName(const std::string& path)
{
    return path.size() >= 4 && EqualsNoCase(std::string_view(path).substr(path.size() - 4), ".mxf");
}

MxfUnwrapResult UnwrapMxf(const std::string& library, void* parentWindow, const std::string& source)
{
    MxfUnwrapResult r;
    std::unique_ptr<void, LibraryCloser> handle(::dlopen(library.c_str(), RTLD_NOW | RTLD_LOCAL));
    if (!handle) {
        const char* why = ::dlerror();
        r.error = std::string(kMxfWrapLoadFailed) + " (" + (why ? why : library) + ")";
        return r;
    }
    r.loaded = true;
    auto entry = reinterpret_cast<G_LaunchMXFUnwrapFn>(::dlsym(handle.get(), "G_LaunchMXFUnwrap"));
    if (!entry) {
        r.error = library + ": no entry G_LaunchMXFUnwrap";
        return r;
    }
    auto errorText = reinterpret_cast<G_MXFUnwrapErrorFn>(::dlsym(handle.get(), "G_MXFUnwrapError"));
    if (source.size() + 1 > kPathCapacity) {
        r.error = source + ": the name is too long for the MXF unwrapper";
        return r;
    }
    std::vector<char> buffer(kPathCapacity, '\0');
    source.copy(buffer.data(), source.size());
    if (!entry(parentWindow, buffer.data(), buffer.size())) {
        const char* why = errorText ? errorText() : nullptr;
        r.error = why && *why ? std::string(why) : source + ": the MXF unwrapper failed";
        return r;
    }
    buffer.back() = '\0';
    r.ok = true;
    r.path = buffer.data();
    r.copied = r.path != source;
    return r;
}

void RemoveUnwrappedCopy(const std::string& path)
{
    if (path.empty()) return;
    std::remove(path.c_str());
    // Only the unwrapper's own folder goes, and only once it is empty.
    const std::string folder = DirectoryPart(path);
    if (FileNamePart(std::string_view(folder).substr(0, folder.size() - 1)).rfind("mxfunwrap-", 0) == 0)
        ::rmdir(folder.c_str());
}

}  // namespace zub::batch

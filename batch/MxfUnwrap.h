// Loading the MXF unwrapper for one .mxf row: libMXFWrap.so from the module's folder, its
// entry called with the row's file name, the library let go again.
#pragma once

#include <string>

namespace zub::batch {

inline constexpr const char* kMxfWrapLibrary = "libMXFWrap.so";
// The message the user sees when the library cannot be loaded.
inline constexpr const char* kMxfWrapLoadFailed = "Failed to load MXFWrap.dll!";

// True when the name ends in ".mxf", in any case.
bool IsMxfName(const std::string& path);

struct MxfUnwrapResult {
    bool ok = false;
    std::string path;    // the file to import: the unwrapped copy, or the source if the unwrapper kept it
    bool copied = false; // path is a new file the caller removes when the row is done
    bool loaded = false; // the library could be loaded
    std::string error;   // why it failed, naming the file
};

// Runs the unwrapper in `library` (a full path) on `source`. The source is only read.
MxfUnwrapResult UnwrapMxf(const std::string& library, void* parentWindow, const std::string& source);

// Removes an unwrapped copy and the folder the unwrapper made for it.
void RemoveUnwrappedCopy(const std::string& path);

}  // namespace zub::batch

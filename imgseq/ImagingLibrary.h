// Finding and loading libImportImaging.so on first use. It is looked for beside the module
// (the folder libImport.so was loaded from), or where ZUBIMPORT_IMAGING_LIBRARY names it
// (the full path of the library; tests and unusual installs set it).
#pragma once

#include <string>

#include "imgseq/imaging/ImagingApi.h"

namespace zub {

inline constexpr const char* kImagingLibraryEnv = "ZUBIMPORT_IMAGING_LIBRARY";
inline constexpr const char* kImagingLibraryName = "libImportImaging.so";

// Where the library is looked for now.
std::string ImagingLibraryPath();

// The library's interface, loaded once and kept for the life of the process; null with a
// message when it cannot be loaded (a later call tries again).
const ZubImagingApi* ImagingLibrary(std::string* error = nullptr);

}  // namespace zub

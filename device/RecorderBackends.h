// Finding the two recorder libraries. Each is opened with dlopen the first time an operation
// needs it and stays loaded for the life of the process, as a driver would; its functions are
// looked up by name. A missing library or function is reported, never a crash.
//
// Where: the folder named by $ZUBIMPORT_RECORDER_DIR when set, else the folder of the module
// that holds this code (libImport.so, beside which the build and the install put both).
#pragma once

#include <string>

#include "device/RecorderAbi.h"

namespace zub {

inline constexpr const char* kRecorderDirVariable = "ZUBIMPORT_RECORDER_DIR";
inline constexpr const char* kZubLibraryName = "libZUBDDR.so";
inline constexpr const char* kTbxLibraryName = "libTbxDll.so";

// The folder the libraries are loaded from, with a trailing '/'.
std::string RecorderLibraryFolder();

// The ZUB / Tbx function tables, loading the library on first use; nullptr with the reason in
// *error when the library or one of its functions is missing.
const rec::ZubApi* ZubBackend(std::string* error = nullptr);
const rec::TbxApi* TbxBackend(std::string* error = nullptr);

// For tests: call through these tables instead of the libraries (nullptr: the library again).
// The tables must outlive their use.
void SetZubBackendForTesting(const rec::ZubApi* api);
void SetTbxBackendForTesting(const rec::TbxApi* api);

}  // namespace zub

#pragma once
// Whole transfers on a file descriptor and the reason text for a failed system call.
#include <cstddef>
#include <cstdint>
#include <string>

namespace zub {

// "file: what: <the system's text for errno>".
std::string SysError(const std::string& file, const char* what);

// Writes all n bytes at `at` through short writes and interruptions. False with errno set
// on failure; a device that takes nothing is told as ENOSPC.
bool WriteAllAt(int fd, const void* data, std::size_t n, std::uint64_t at);

// Reads all n bytes at `at` through short reads and interruptions. False on an error
// (errno set) or when the file ends first (*endOfFile set, when asked).
bool ReadAllAt(int fd, void* data, std::size_t n, std::uint64_t at, bool* endOfFile = nullptr);

}  // namespace zub

#include "platform/FileIo.h"

#include <cerrno>
#include <cstring>

#include <unistd.h>

namespace zub {

std::string SysError(const std::string& file, const char* what)
{
    return file + ": " + what + ": " + std::strerror(errno);
}

bool WriteAllAt(int fd, const void* data, std::size_t n, std::uint64_t at)
{
    auto* p = static_cast<const unsigned char*>(data);
    while (n > 0) {
        const ssize_t done = ::pwrite(fd, p, n, static_cast<off_t>(at));
        if (done < 0 && errno == EINTR) continue;
        if (done <= 0) {
            if (done == 0) errno = ENOSPC;
            return false;
        }
        p += done;
        n -= static_cast<std::size_t>(done);
        at += static_cast<std::uint64_t>(done);
    }
    return true;
}

bool ReadAllAt(int fd, void* data, std::size_t n, std::uint64_t at, bool* endOfFile)
{
    if (endOfFile) *endOfFile = false;
    auto* p = static_cast<unsigned char*>(data);
    while (n > 0) {
        const ssize_t done = ::pread(fd, p, n, static_cast<off_t>(at));
        if (done < 0 && errno == EINTR) continue;
        if (done <= 0) {
            if (done == 0 && endOfFile) *endOfFile = true;
            return false;
        }
        p += done;
        n -= static_cast<std::size_t>(done);
        at += static_cast<std::uint64_t>(done);
    }
    return true;
}

}  // namespace zub

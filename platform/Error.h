#pragma once
// The module's one internal error form. A failure inside the module is told as the file it
// concerns and the reason, and reaches a user as "file: reason". The exported conventions
// (HRESULT for the graph utilities, 1/0 with GetError for the exported classes, the movie
// layer's codes) are answered at the edge from this form; nothing inside invents another.
#include <string>
#include <utility>

namespace zub {

struct Error {
    std::string file;    // empty when the failure concerns no file (a missing argument)
    std::string reason;  // what went wrong, in the user's words

    std::string Message() const { return file.empty() ? reason : file + ": " + reason; }
};

// Fills *out when the caller asked for the reason; false, so a failure path reads
// `return Fail(error, Error{path, "cannot open"});`.
inline bool Fail(std::string* out, const Error& e)
{
    if (out) *out = e.Message();
    return false;
}

// The same for a message already formed as "file: reason" (a lower layer's, or SysError's).
inline bool Fail(std::string* out, std::string message)
{
    if (out) *out = std::move(message);
    return false;
}

// The calling thread's last failure, for the exported calls that answer 1/0 (or a library
// code) and let the caller ask why afterwards. Each layer names its own Tag so a failure
// inside one layer never overwrites the reason another layer is about to be asked for; a
// shared library with hidden symbols keeps its own copy, as its own C ABI expects.
template <class Tag>
class LastError {
public:
    static void Set(std::string message) { Text() = std::move(message); }
    static void Set(const Error& e) { Text() = e.Message(); }
    static void Clear() { Text().clear(); }
    static const std::string& Get() { return Text(); }

private:
    static std::string& Text()
    {
        thread_local std::string text;
        return text;
    }
};

}  // namespace zub

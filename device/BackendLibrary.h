// What the two back-end classes share: their library, opened with dlopen on first use and
// kept for the life of the process, its functions looked up by name into the back-end's
// table (or a test's table in its place), and the form of a failed call's reason.
#pragma once

#include <cstdint>
#include <cstring>
#include <mutex>
#include <string>

#include "device/RecorderAbi.h"
#include "device/RecorderBackend.h"
#include "device/RecorderBackends.h"

namespace zub {

// Looks up every named function of one library; a missing required one fails the table.
class Resolver {
public:
    Resolver(void* library, std::string path) : lib_(library), path_(std::move(path)) {}

    template <class Fn>
    void Need(Fn& slot, const char* name)
    {
        slot = reinterpret_cast<Fn>(Symbol(name));
        if (!slot && missing_.empty()) missing_ = name;
    }
    template <class Fn>
    void Optional(Fn& slot, const char* name)
    {
        slot = reinterpret_cast<Fn>(Symbol(name));
    }
    // false with the reason in *error when a required function is missing.
    bool Ok(std::string* error) const;

private:
    void* Symbol(const char* name) const;
    void* lib_;
    std::string path_;
    std::string missing_;
};

// Opens RecorderLibraryFolder() + name; nullptr with the reason in *error.
void* OpenRecorderLibrary(const char* name, std::string& path, std::string* error);
void CloseRecorderLibrary(void* library);

// "0xE0040215" for Tbx-style codes, "-29" for ZUB's small negatives.
std::string ResultText(std::int32_t result);

// One library's function table: loaded once, or a test's table in its place.
template <class Api>
class BackendLibrary {
public:
    using ResolveFn = void (*)(Resolver&, Api&);
    BackendLibrary(const char* name, ResolveFn resolve) : name_(name), resolve_(resolve) {}

    const char* Name() const { return name_; }

    const Api* Get(std::string* error)
    {
        std::lock_guard lock(mutex_);
        if (override_) return override_;
        if (loaded_) return &api_;
        std::string path;
        void* lib = OpenRecorderLibrary(name_, path, error);
        if (!lib) return nullptr;
        Api api;
        Resolver r(lib, path);
        resolve_(r, api);
        if (!r.Ok(error)) {
            CloseRecorderLibrary(lib);
            return nullptr;
        }
        api_ = api;
        loaded_ = true;
        return &api_;
    }

    void SetOverride(const Api* api)
    {
        std::lock_guard lock(mutex_);
        override_ = api;
    }

    // "<call> failed (<code>): <the library's own words>"
    static std::string Why(const Api* api, const char* call, std::int32_t result)
    {
        std::string s = std::string(call) + " failed (" + ResultText(result) + ")";
        if (api && api->LastError) {
            const char* text = api->LastError();
            if (text && *text) s += std::string(": ") + text;
        }
        return s;
    }

private:
    const char* name_;
    ResolveFn resolve_;
    std::mutex mutex_;
    const Api* override_ = nullptr;
    Api api_;
    bool loaded_ = false;
};

// The two libraries' tables (defined beside their back-end classes).
BackendLibrary<rec::ZubApi>& ZubLibrary();
BackendLibrary<rec::TbxApi>& TbxLibrary();

// "<path>: " or "(no path): ", the head of a reason about a file.
std::string Named(const char* path);

// The part of a back-end class that is the same for both libraries but for the table type.
template <class Api, BackendLibrary<Api>& (*TheLibrary)()>
class BackendOn : public RecorderBackend {
protected:
    // The table; nullptr with the reason when the library cannot be loaded (no result then).
    static const Api* Load(std::string& why)
    {
        const Api* api = TheLibrary().Get(&why);
        if (!api) NoteLibraryResult(0);
        return api;
    }

    // Always false, with "<head><call> failed (<code>): <the library's words>" in `why`.
    static bool Failed(std::string& why, const std::string& head, const Api* api, const char* call,
                       std::int32_t result)
    {
        why = head + BackendLibrary<Api>::Why(api, call, result);
        NoteLibraryResult(result);
        return false;
    }

    // The words both libraries' import records carry under the same names.
    template <class Record>
    static void FillImport(Record& r, const FrameImport& f, std::int32_t pixelWord)
    {
        r.videoItem = f.videoItem;
        r.alphaItem = f.alphaItem;
        r.videoField = f.frame << 1;  // the first field of the frame
        r.alphaField = f.frame << 1;
        r.pixelFormat = pixelWord;
        r.data = f.data;
        r.videoRate = f.videoRate;
        r.alphaRate = f.alphaRate;
        r.videoOption = f.videoOption ? 1 : 0;
        r.alphaOption = f.alphaOption ? 1 : 0;
    }

    // A creation's outcome, the library's no-space and exists codes told apart.
    static ClipStatus Created(bool ok, std::int32_t result, std::int32_t noSpace, std::int32_t exists)
    {
        if (ok) return ClipStatus::Ok;
        if (result == noSpace) return ClipStatus::NoSpace;
        if (result == exists) return ClipStatus::Exists;
        return ClipStatus::Failed;
    }

    // The standard and recording folder of a system-preferences record.
    template <class Prefs>
    static bool TakePrefs(const Prefs& p, std::string& videoFolder, int& lines, int& width, int& height)
    {
        videoFolder.assign(p.videoFolder, strnlen(p.videoFolder, sizeof p.videoFolder));
        lines = p.lines;
        width = p.width;
        height = p.height;
        return true;
    }
};

}  // namespace zub

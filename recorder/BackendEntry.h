// What the two recorder libraries' entry points share: one substitute recorder each, the
// translation of its Status into the library's own result codes and of the library's
// pixel-format words into a PixelKind, and the entries whose work is the same in both and
// differs only in the record. libZUBDDR.so and libTbxDll.so each hold one BackendEntry.
#pragma once

#include <array>
#include <cstdint>
#include <cstring>
#include <string>
#include <type_traits>

#include "device/RecorderAbi.h"
#include "recorder/SubstituteRecorder.h"

// An entry point of a recorder library: the only symbols either library exports.
#define RECORDER_EXPORT extern "C" __attribute__((visibility("default")))

namespace zub::rec {

// A library's result for each Status, in the order of the enumeration.
using ResultCodes = std::array<std::int32_t, kStatusCount>;

// A library's pixel-format words.
struct PixelWords {
    std::int32_t pipeline;
    std::int32_t bits24;
    std::int32_t server;
};

class BackendEntry {
public:
    BackendEntry(std::int32_t firstHandle, const ResultCodes& codes, const PixelWords& pixels)
        : recorder_(firstHandle), codes_(codes), pixels_(pixels)
    {
    }

    SubstituteRecorder& Recorder() { return recorder_; }
    std::int32_t Code(Status s) const { return codes_[static_cast<std::size_t>(s)]; }
    std::int32_t BadArgument() const { return Code(Status::BadArgument); }
    PixelKind Kind(std::int32_t word) const;

    // The device's standard and frame size from its configuration.
    std::int32_t Standard(std::int32_t device, std::int32_t& lines, std::int32_t& width, std::int32_t& height);
    // The standard and the recording folder, into a system-preferences record.
    template <class Prefs>
    std::int32_t SystemPrefs(std::int32_t device, Prefs* prefs)
    {
        if (!prefs) return BadArgument();
        RecorderConfig c;
        if (const Status s = recorder_.Config(device, c); s != Status::Ok) return Code(s);
        *prefs = Zeroed<Prefs>();
        prefs->lines = c.lines;
        prefs->width = c.Width();
        prefs->height = c.Height();
        std::strncpy(prefs->videoFolder, c.volume.c_str(), sizeof prefs->videoFolder - 1);
        return Code(Status::Ok);
    }
    std::int32_t FramesFit(std::int32_t device, const char* folder, std::int32_t videoRate, std::int32_t alphaRate,
                           std::int32_t& frames);
    std::int32_t CreateClip(std::int32_t device, const ClipRequest& request, std::int32_t& videoItem,
                            std::int32_t& alphaItem);
    std::int32_t Import(std::int32_t device, std::int32_t videoItem, std::int32_t alphaItem, std::int32_t videoField,
                        std::int32_t alphaField, const void* data, std::int32_t pixelWord);
    // Reads (set false) or writes one of the device's routing records, word for word.
    template <class Record>
    std::int32_t Bus(std::int32_t device, BusKind which, Record* record, bool set)
    {
        static_assert(std::is_trivially_copyable_v<Record> && sizeof(Record) % 4 == 0);
        if (!record) return BadArgument();
        std::int32_t words[sizeof(Record) / 4];
        std::memcpy(words, record, sizeof words);
        const Status s = recorder_.Bus(device, which, words, static_cast<int>(sizeof(Record) / 4), set);
        if (s == Status::Ok && !set) std::memcpy(static_cast<void*>(record), words, sizeof words);
        return Code(s);
    }

private:
    SubstituteRecorder recorder_;
    ResultCodes codes_;
    PixelWords pixels_;
};

}  // namespace zub::rec

// Image sequence profiles: the sequence import settings saved under a name the user picks,
// as a sectioned "key=value" text file (".ImpSeqProfile"), read and written with the host
// platform's private-profile rules: section and key names in any letter case, spaces around
// names and values ignored, backslashes in values kept as they are.
#pragma once

#include <cstdint>
#include <string>
#include <string_view>

#include "zubimport/ImportSettings.h"

namespace zub {

inline constexpr const char* kProfileExtension = ".ImpSeqProfile";

struct ProfileRecord {
    std::int32_t fitWord = 0;            // ImportSeqFit
    std::int32_t swapFields = 0;         // ImportSeqSwap
    std::int32_t shiftDown = 0;          // ImportSeqShift
    std::int32_t videoAdaptive = 0;      // ImportSeqAdapt
    std::int32_t alphaAdaptive = 0;      // ImportSeqAlphaAdapt
    std::int32_t createAlpha = 0;        // VideoAlphaCreate
    std::int32_t alphaSameAsVideo = 0;   // VideoAlphaSameAsVideo
    std::int32_t alphaUncompressed = 0;  // VideoAlphaUncompressed
    std::int32_t alphaDataRate = 0;      // VideoAlphaDataRate, bytes per second
    std::int32_t videoUncompressed = 0;  // VideoUncompressed
    std::int32_t videoDataRate = 0;      // VideoDataRate, bytes per second
    std::int32_t fixedFieldSize = 0;     // VideoFixedSize
    std::string videoPath;               // VideoPath (at most 259 characters are read back)
    // ImportSeqFillGaps, written after the path so the older keys keep their order; older
    // profiles lack it and read as 0, the run as it always was.
    std::int32_t fillGaps = 0;

    bool operator==(const ProfileRecord&) const = default;
};

// The profile fields of the module's settings, and back.
ProfileRecord ProfileFromSettings(const ImportSettings& s);
void ApplyProfile(const ProfileRecord& p, ImportSettings& s);

// "Profiles/" in the folder of the running program, made when missing (one level). Worked
// out on the first call and kept.
std::string ProfilesFolder();
// The same for a given program folder, not cached (the folder is still made when missing).
std::string ProfilesFolderIn(std::string_view programFolder);

// Checks the header (Product "Kestrel" or "zubHalo" in any case, Type 1) and, when `record`
// is given, reads every "Parameter" key into it; a missing key reads as 0 (path as "").
bool ReadProfile(const std::string& path, ProfileRecord* record = nullptr, std::string* error = nullptr);

// Writes the "Header" and "Parameter" sections, keeping anything else the file holds. The
// file is replaced whole, so a failed write leaves the old one; false names the reason.
bool WriteProfile(const std::string& path, const ProfileRecord& record, std::string* error = nullptr);

// The settings summary shown for a profile file; "" when it does not read.
std::string DescribeProfile(const std::string& path);

}  // namespace zub

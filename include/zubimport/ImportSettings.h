// The module's one record of import settings: what the settings pages edit, what the
// conversion, image sequence and batch runs read, and what the preference records carry in
// and out. Lives for the life of the module.
#pragma once

#include <cstdint>
#include <string>

#include "zubimport/Prefs.h"

namespace zub {

// Data rate the module starts with: 5 MiB per second.
inline constexpr std::int32_t kDefaultDataRate = 0x500000;

struct ImportSettings {
    // Folders end with a separator once a settings page has stored them.
    std::string videoDir;       // where clip files (.zub) are made
    std::string audioDir;       // where .wav / .dva files are made
    std::string batchFolder;    // folder the batch list last added files from
    std::string batchProps;     // settings string the batch "Settings" pages formed last
    std::string imageFolder;    // folder the image sequence list last browsed

    // Default choices of the conversion dialog's three check boxes.
    std::int32_t defaultVideo = 1;
    std::int32_t defaultAudio = 1;
    std::int32_t makeDva = 0;  // also the Audio page's "dva" box

    // Video page.
    std::int32_t videoUncompressed = 0;
    std::int32_t videoDataRate = kDefaultDataRate;  // bytes per second
    std::int32_t fixedFieldSize = 0;               // "Use &fixed field size": 24 fps, divisor 24

    // Alpha page.
    std::int32_t createAlpha = 0;  // also the conversion's key option
    std::int32_t alphaSameAsVideo = 1;
    std::int32_t alphaUncompressed = 0;
    std::int32_t alphaDataRate = kDefaultDataRate;

    // Audio page: list positions, applied by the audio conversion.
    std::int32_t audioRateIndex = 0;   // 0 48 kHz, 1 44.1, 2 32, 3 22.05, 4 11.025
    std::int32_t audioChannels = 0;    // 0 stereo, 1 mono, -1 unknown
    std::int32_t audioSampleSize = 0;  // 0 16 bits, 1 8 bits, -1 unknown

    std::int32_t showImagesOnOutput = 1;
    std::int32_t videoAdaptive = 0;  // adaptive contour option word of every video frame
    std::int32_t alphaAdaptive = 0;  // same for alpha frames

    // Image sequence.
    std::int32_t fitWord = 0;     // fit mode, safe area and resize method packed
    std::int32_t swapFields = 0;  // "S&wap Field Scanlines"
    std::int32_t shiftDown = 0;   // "Shift Image &Down One Scanline"
    std::int32_t fillGaps = 0;    // hold the previous image for each number missing from a sequence

    std::int32_t batchFilterIndex = 0;  // file-type filter the batch "Add" dialog used last

    // Beyond the original dialogs, off unless a host turns it on: the .dva gets the source's
    // start timecode and reel name instead of an empty tape name and "00:00:00:00".
    std::int32_t sourceTimecode = 0;
    // Also off unless a host turns it on: a source with non-square pixels (anamorphic DV and
    // HDV) is fitted by the shape it is shown in rather than by its stored pixel count, for
    // the fits that scale the whole picture.
    std::int32_t sourcePixelAspect = 0;
    // A source whose frame rate varies is conformed to the clip's rate (frames repeated or
    // dropped by their times) so picture and sound keep their length; 1 keeps its frames as
    // delivered, one clip frame each, as the original conversion did.
    std::int32_t keepVariableRateFrames = 0;

    bool operator==(const ImportSettings&) const = default;
};

// The module's settings record.
ImportSettings& CurrentSettings();

// Moving values between a preference record and the settings record. The rules of which
// values are applied (always, only when >= 0, only when non-empty) are those of each record.
void PushToSettings(const CConvertDlgPrefs& prefs, ImportSettings& s);
void PullFromSettings(const ImportSettings& s, CConvertDlgPrefs& prefs);
void PushToSettings(const CBatchImpPrefsInfo& prefs, ImportSettings& s);
void PullFromSettings(const ImportSettings& s, CBatchImpPrefsInfo& prefs);
void PushToSettings(const CImgSeqPrefsInfo& prefs, ImportSettings& s);
void PullFromSettings(const ImportSettings& s, CImgSeqPrefsInfo& prefs);

// Describes the mapping for diagnostics and tests: the member a record field lands in, or
// nullptr when the field is not a setting ("nSetting7" of "CConvertDlgPrefs" ->
// "showImagesOnOutput").
const char* SettingsMemberFor(const char* record, const char* field);

}  // namespace zub

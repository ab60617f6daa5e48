// What the Video, Alpha and Audio settings pages do, without any window: how their controls
// are filled from the import settings, which controls are enabled, and what applying writes
// back or refuses. The pages in settings/view are a thin skin over these classes.
#pragma once

#include <cstdint>
#include <string>

#include "zubimport/ImportSettings.h"

namespace zub::settings {

// The data-rate edit shows megabytes per second in hundredths, between these bounds.
inline constexpr int kRateMinHundredths = 50;
inline constexpr int kRateMaxHundredths = 1500;
inline constexpr int kRatePlaces = 2;
inline constexpr int kRateMaxChars = 5;

// Bytes per second shown as hundredths of a MB/s, rounded to the nearest (3,145,728 -> 300).
int RateToHundredths(std::int32_t bytesPerSecond);
// Hundredths of a MB/s back to bytes per second, truncated (300 -> 3,145,728).
std::int32_t HundredthsToRate(int hundredths);

// Messages of the pages, as the user reads them.
inline constexpr const char* kInvalidRateMessage = "Invalid video recording datarate";
inline constexpr const char* kVideoDirMissingMessage = "Directory does not exist";
inline constexpr const char* kAudioDirMissingMessage = "Invalid audio directory - directory does not exist.";
inline constexpr const char* kVideoBrowseTitle = "Please select a folder for storing recorded video clips.";
inline constexpr const char* kAudioBrowseTitle = "Please select a folder for storing recorded audio clips.";

// The control a refused apply puts the focus on.
enum class Field { None, DataRate, Directory };

struct ApplyResult {
    bool ok = true;
    std::string message;  // shown to the user when !ok
    Field field = Field::None;
    explicit operator bool() const { return ok; }
};

struct RateEnables {
    bool sameAsVideo = false;
    bool rateLabel = false;
    bool uncompressed = false;
    bool rateEdit = false;
    bool mbLabel = false;
    bool fixedField = false;
};

// The enable rules of the Video and Alpha pages. A page without "Create Alpha" counts it as
// ticked, one without "&Same as Video" counts it as cleared.
RateEnables ComputeRateEnables(bool createAlpha, bool sameAsVideo, bool uncompressed);

// The Video page (dialog 118) and the Alpha page (dialog 117): one class, as the two pages
// share their rate controls.
class RatePage {
public:
    enum class Kind { Video, Alpha };
    RatePage(Kind kind, ImportSettings& settings);

    Kind kind() const { return kind_; }
    bool HasCreateAlpha() const { return kind_ == Kind::Alpha; }
    bool HasSameAsVideo() const { return kind_ == Kind::Alpha; }
    bool HasFixedField() const { return kind_ == Kind::Video; }
    bool HasDirectory() const { return kind_ == Kind::Video; }

    // Fills the control values from the settings (the page is being shown).
    void Load();

    // The controls' values, as the view holds them.
    bool createAlpha = true;
    bool sameAsVideo = false;
    bool uncompressed = false;
    std::string rateText;
    bool fixedFieldSize = false;
    std::string directory;

    // "Create Alpha" changed by the user: the flag is written to the settings at once, so
    // other pages see it before this one is applied.
    void SetCreateAlpha(bool on);

    RateEnables Enables() const;

    // Validates and writes back. On refusal, whatever preceded the failed check stays
    // written and the rest is untouched.
    ApplyResult Apply();

private:
    Kind kind_;
    ImportSettings& settings_;
};

// Audio page (dialog 119).
class AudioPage {
public:
    // withDvaOption: the page shows its "dva" box (and applies it); otherwise the box is
    // hidden, disabled and never stored.
    AudioPage(ImportSettings& settings, bool withDvaOption);

    bool DvaShown() const { return dvaOption_; }

    void Load();

    // List positions (-1: nothing selected) and the other controls' values.
    int sampleRatePos = 0;  // "48 kHz", "44 kHz", "32 kHz", "22 kHz", "11 kHz"
    int channelsPos = 0;    // "Stereo", "Mono"
    int dataBitsPos = 0;    // "16", "8"
    bool dva = false;
    std::string directory;

    ApplyResult Apply();

private:
    ImportSettings& settings_;
    bool dvaOption_;
};

// A folder picked in a folder dialog, as the directory edit takes it: with a trailing
// separator added when missing.
std::string PickedFolderForEdit(const std::string& folder);

}  // namespace zub::settings

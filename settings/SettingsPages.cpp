#include "settings/SettingsPages.h"

#include <filesystem>

#include "settings/FixedPoint.h"
#include "zubimport/Paths.h"

namespace zub::settings {

namespace {

bool DirectoryExists(const std::string& dir)
{
    std::error_code ec;
    return std::filesystem::is_directory(std::filesystem::path(dir), ec);
}

}  // namespace

int RateToHundredths(std::int32_t bytesPerSecond)
{
    return static_cast<int>(static_cast<double>(bytesPerSecond) / 1024.0 / 1024.0 * 100.0 + 0.5);
}

std::int32_t HundredthsToRate(int hundredths)
{
    return static_cast<std::int32_t>(static_cast<double>(hundredths) / 100.0 * 1024.0 * 1024.0);
}

RateEnables ComputeRateEnables(bool createAlpha, bool sameAsVideo, bool uncompressed)
{
    RateEnables e;
    e.sameAsVideo = createAlpha;
    e.rateLabel = e.uncompressed = !sameAsVideo && createAlpha;
    e.rateEdit = e.mbLabel = !uncompressed && !sameAsVideo && createAlpha;
    e.fixedField = !uncompressed;
    return e;
}

RatePage::RatePage(Kind kind, ImportSettings& settings) : kind_(kind), settings_(settings) { Load(); }

void RatePage::Load()
{
    createAlpha = HasCreateAlpha() ? settings_.createAlpha != 0 : true;
    sameAsVideo = HasSameAsVideo() ? settings_.alphaSameAsVideo != 0 : false;
    const bool video = kind_ == Kind::Video;
    uncompressed = (video ? settings_.videoUncompressed : settings_.alphaUncompressed) != 0;
    rateText = FormatFixed(RateToHundredths(video ? settings_.videoDataRate : settings_.alphaDataRate), kRatePlaces);
    fixedFieldSize = HasFixedField() && settings_.fixedFieldSize != 0;
    directory = HasDirectory() ? settings_.videoDir : std::string();
}

void RatePage::SetCreateAlpha(bool on)
{
    createAlpha = on;
    if (HasCreateAlpha()) settings_.createAlpha = on ? 1 : 0;
}

RateEnables RatePage::Enables() const
{
    return ComputeRateEnables(HasCreateAlpha() ? createAlpha : true, HasSameAsVideo() && sameAsVideo, uncompressed);
}

ApplyResult RatePage::Apply()
{
    if (HasCreateAlpha()) {
        settings_.createAlpha = createAlpha ? 1 : 0;
        settings_.alphaSameAsVideo = sameAsVideo ? 1 : 0;
    }

    // The Alpha page follows the video flag, not its own box: an uncompressed video clip
    // always gets an uncompressed key, whatever the Alpha page shows.
    const bool unc = kind_ == Kind::Video ? uncompressed : settings_.videoUncompressed != 0;
    int hundredths = 0;
    if (!unc) {
        const auto parsed = ParseFixed(rateText, kRatePlaces);
        if (!parsed || *parsed < kRateMinHundredths || *parsed > kRateMaxHundredths)
            return {false, kInvalidRateMessage, Field::DataRate};
        hundredths = *parsed;
    }

    if (kind_ == Kind::Video) {
        settings_.videoUncompressed = unc ? 1 : 0;
        if (!unc) settings_.videoDataRate = HundredthsToRate(hundredths);
    } else {
        settings_.alphaUncompressed = unc ? 1 : 0;
        if (!unc) settings_.alphaDataRate = HundredthsToRate(hundredths);
    }

    if (HasFixedField()) settings_.fixedFieldSize = fixedFieldSize ? 1 : 0;

    if (HasDirectory()) {
        // An empty entry becomes "/" like any other: the root, which exists.
        std::string dir = directory;
        if (dir.empty() || !IsPathSeparator(dir.back())) dir.push_back('/');
        if (!DirectoryExists(dir)) return {false, kVideoDirMissingMessage, Field::Directory};
        directory = dir;
        settings_.videoDir = dir;
    }
    return {};
}

AudioPage::AudioPage(ImportSettings& settings, bool withDvaOption) : settings_(settings), dvaOption_(withDvaOption)
{
    Load();
}

void AudioPage::Load()
{
    sampleRatePos = settings_.audioRateIndex >= 0 && settings_.audioRateIndex <= 4 ? settings_.audioRateIndex : -1;
    channelsPos = settings_.audioChannels != 0 ? 1 : 0;
    dataBitsPos = settings_.audioSampleSize == 1 ? 1 : 0;
    dva = dvaOption_ && settings_.makeDva != 0;
    directory = settings_.audioDir;
}

ApplyResult AudioPage::Apply()
{
    const int channels = channelsPos == 0 ? 2 : 1;
    settings_.audioChannels = channels == 1 ? 1 : channels == 2 ? 0 : -1;
    const int bits = dataBitsPos == 1 ? 8 : 16;
    settings_.audioSampleSize = bits == 8 ? 1 : bits == 16 ? 0 : -1;
    settings_.audioRateIndex = sampleRatePos;
    if (dvaOption_) settings_.makeDva = dva ? 1 : 0;

    // Unlike the video folder, an empty audio folder is checked as it stands and refused.
    std::string dir = directory;
    if (!dir.empty() && !IsPathSeparator(dir.back())) dir.push_back('/');
    if (!DirectoryExists(dir)) return {false, kAudioDirMissingMessage, Field::Directory};
    directory = dir;
    settings_.audioDir = dir;
    return {};
}

std::string PickedFolderForEdit(const std::string& folder)
{
    std::string out = folder;
    if (out.empty() || !IsPathSeparator(out.back())) out.push_back('/');
    return out;
}

}  // namespace zub::settings

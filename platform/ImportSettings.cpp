#include "zubimport/ImportSettings.h"

#include <cstring>
#include <span>

namespace zub {

ImportSettings& CurrentSettings()
{
    static ImportSettings settings;
    return settings;
}

namespace {

enum class Apply { Always, WhenNonNegative, WhenNonEmpty };

template <class Rec>
struct IntLink {
    const char* field;
    std::int32_t Rec::*rec;
    const char* member;
    std::int32_t ImportSettings::*setting;
    Apply rule;
};

template <class Rec>
struct StrLink {
    const char* field;
    std::string Rec::*rec;
    const char* member;
    std::string ImportSettings::*setting;
    Apply rule;
};

#define ZUB_INT(Rec, f, m, rule) IntLink<Rec>{#f, &Rec::f, #m, &ImportSettings::m, Apply::rule}
#define ZUB_STR(Rec, f, m, rule) StrLink<Rec>{#f, &Rec::f, #m, &ImportSettings::m, Apply::rule}

// The mapping of every record field onto the settings record, in the order the values are
// applied. The conversion record carries the sixteen conversion settings in one fixed order;
// the batch and image sequence records reuse some of the same field names. Where a name means
// something else for another record, that record's own use decides:
//  - nSetting4 is the audio rate index for the conversion record, but the image fit word for
//    the batch and image sequence records (whose runs fit stills and never resample audio;
//    -1 there means "leave the current fit").
//  - every other nSettingK shared by the records means the same setting in all three.
// Strings: strSetting1/2 are the video/audio importing folders in every record; strSetting3/4
// exist only in the batch record, strSetting5 only in the image sequence record.
using CP = CConvertDlgPrefs;
constexpr IntLink<CP> kConvertInts[] = {
    ZUB_INT(CP, nSetting1, defaultVideo, Always),
    ZUB_INT(CP, nSetting2, defaultAudio, Always),
    ZUB_INT(CP, nSetting3, makeDva, Always),
    ZUB_INT(CP, nSetting4, audioRateIndex, Always),
    ZUB_INT(CP, nSetting5, videoUncompressed, Always),
    ZUB_INT(CP, nSetting6, createAlpha, Always),
    ZUB_INT(CP, nSetting7, showImagesOnOutput, Always),
    ZUB_INT(CP, nSetting8, fixedFieldSize, Always),
    ZUB_INT(CP, nSetting9, alphaSameAsVideo, Always),
    ZUB_INT(CP, nSetting10, videoDataRate, Always),
    ZUB_INT(CP, nSetting11, videoAdaptive, Always),
    ZUB_INT(CP, nSetting12, alphaUncompressed, Always),
    ZUB_INT(CP, nSetting13, alphaDataRate, Always),
    ZUB_INT(CP, nSetting14, audioChannels, Always),
    ZUB_INT(CP, nSetting15, audioSampleSize, Always),
    ZUB_INT(CP, nSetting16, alphaAdaptive, Always),
};
constexpr StrLink<CP> kConvertStrs[] = {
    ZUB_STR(CP, strSetting1, videoDir, Always),
    ZUB_STR(CP, strSetting2, audioDir, Always),
};

// Batch: the list setting first, then the four strings, then the numbers, as the batch entry
// point applies them.
using BP = CBatchImpPrefsInfo;
constexpr IntLink<BP> kBatchListInt[] = {
    ZUB_INT(BP, nListSetting, batchFilterIndex, WhenNonNegative),
};
constexpr StrLink<BP> kBatchStrs[] = {
    ZUB_STR(BP, strSetting3, batchFolder, WhenNonEmpty),
    ZUB_STR(BP, strSetting4, batchProps, WhenNonEmpty),
    ZUB_STR(BP, strSetting1, videoDir, WhenNonEmpty),
    ZUB_STR(BP, strSetting2, audioDir, WhenNonEmpty),
};
constexpr IntLink<BP> kBatchInts[] = {
    ZUB_INT(BP, nSetting4, fitWord, WhenNonNegative),
    ZUB_INT(BP, nSetting5, videoUncompressed, Always),
    ZUB_INT(BP, nSetting6, createAlpha, Always),
    ZUB_INT(BP, nSetting9, alphaSameAsVideo, Always),
    ZUB_INT(BP, nSetting10, videoDataRate, Always),
    ZUB_INT(BP, nSetting8, fixedFieldSize, Always),
    ZUB_INT(BP, nSetting12, alphaUncompressed, Always),
    ZUB_INT(BP, nSetting7, showImagesOnOutput, Always),
};

using IP = CImgSeqPrefsInfo;
constexpr StrLink<IP> kImgSeqStrs[] = {
    ZUB_STR(IP, strSetting5, imageFolder, WhenNonEmpty),
    ZUB_STR(IP, strSetting1, videoDir, WhenNonEmpty),
};
constexpr IntLink<IP> kImgSeqInts[] = {
    ZUB_INT(IP, nSetting4, fitWord, WhenNonNegative),
    ZUB_INT(IP, nSetting5, videoUncompressed, Always),
    ZUB_INT(IP, nSetting6, createAlpha, Always),
    ZUB_INT(IP, nSetting9, alphaSameAsVideo, Always),
    ZUB_INT(IP, nSetting10, videoDataRate, Always),
    ZUB_INT(IP, nSetting8, fixedFieldSize, Always),
    ZUB_INT(IP, nSetting12, alphaUncompressed, Always),
    ZUB_INT(IP, nSetting7, showImagesOnOutput, Always),
};

#undef ZUB_INT
#undef ZUB_STR

template <class Rec>
void Push(const Rec& r, ImportSettings& s, std::span<const IntLink<Rec>> links)
{
    for (const auto& l : links)
        if (l.rule == Apply::Always || (l.rule == Apply::WhenNonNegative && r.*l.rec >= 0)) s.*l.setting = r.*l.rec;
}

template <class Rec>
void Push(const Rec& r, ImportSettings& s, std::span<const StrLink<Rec>> links)
{
    for (const auto& l : links)
        if (l.rule == Apply::Always || (l.rule == Apply::WhenNonEmpty && !(r.*l.rec).empty())) s.*l.setting = r.*l.rec;
}

template <class Rec>
void Pull(const ImportSettings& s, Rec& r, std::span<const IntLink<Rec>> links)
{
    for (const auto& l : links) r.*l.rec = s.*l.setting;
}

template <class Rec>
void Pull(const ImportSettings& s, Rec& r, std::span<const StrLink<Rec>> links)
{
    for (const auto& l : links) r.*l.rec = s.*l.setting;
}

template <class Links>
const char* Find(const Links& links, const char* field)
{
    for (const auto& l : links)
        if (std::strcmp(l.field, field) == 0) return l.member;
    return nullptr;
}

}  // namespace

void PushToSettings(const CConvertDlgPrefs& p, ImportSettings& s)
{
    Push<CP>(p, s, kConvertStrs);
    Push<CP>(p, s, kConvertInts);
}

void PullFromSettings(const ImportSettings& s, CConvertDlgPrefs& p)
{
    Pull<CP>(s, p, kConvertStrs);
    Pull<CP>(s, p, kConvertInts);
}

void PushToSettings(const CBatchImpPrefsInfo& p, ImportSettings& s)
{
    Push<BP>(p, s, kBatchListInt);
    Push<BP>(p, s, kBatchStrs);
    Push<BP>(p, s, kBatchInts);
}

void PullFromSettings(const ImportSettings& s, CBatchImpPrefsInfo& p)
{
    Pull<BP>(s, p, kBatchListInt);
    Pull<BP>(s, p, kBatchStrs);
    Pull<BP>(s, p, kBatchInts);
}

void PushToSettings(const CImgSeqPrefsInfo& p, ImportSettings& s)
{
    Push<IP>(p, s, kImgSeqStrs);
    Push<IP>(p, s, kImgSeqInts);
}

void PullFromSettings(const ImportSettings& s, CImgSeqPrefsInfo& p)
{
    Pull<IP>(s, p, kImgSeqStrs);
    Pull<IP>(s, p, kImgSeqInts);
}

const char* SettingsMemberFor(const char* record, const char* field)
{
    const char* m = nullptr;
    if (std::strcmp(record, "CConvertDlgPrefs") == 0) {
        if (!(m = Find(kConvertInts, field))) m = Find(kConvertStrs, field);
    } else if (std::strcmp(record, "CBatchImpPrefsInfo") == 0) {
        if (!(m = Find(kBatchListInt, field)) && !(m = Find(kBatchStrs, field))) m = Find(kBatchInts, field);
    } else if (std::strcmp(record, "CImgSeqPrefsInfo") == 0) {
        if (!(m = Find(kImgSeqStrs, field))) m = Find(kImgSeqInts, field);
    }
    return m;
}

}  // namespace zub

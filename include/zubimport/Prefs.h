// The three preference records the host fills in and reads back. Plain classes copied
// member by member; field order and defaults are part of the host contract.
#pragma once

#include <cstdint>
#include <string>

namespace zub {

class CConvertDlgPrefs {
public:
    CConvertDlgPrefs() = default;
    CConvertDlgPrefs(const CConvertDlgPrefs&) = default;
    CConvertDlgPrefs& operator=(const CConvertDlgPrefs&) = default;
    ~CConvertDlgPrefs() = default;

    std::int32_t useZub = 1;
    std::int32_t deviceName = 0;
    std::int32_t existingHandle = 0;
    std::int32_t mode24p = 0;
    std::string strSetting1;
    std::string strSetting2;
    std::int32_t nSetting1 = 0;
    std::int32_t nSetting2 = 0;
    std::int32_t nSetting3 = 0;
    std::int32_t nSetting4 = 0;
    std::int32_t nSetting5 = 0;
    std::int32_t nSetting6 = 0;
    std::int32_t nSetting7 = 1;
    std::int32_t nSetting8 = 0;
    std::int32_t nSetting9 = 0;
    std::int32_t nSetting10 = 0;
    std::int32_t nSetting11 = 0;
    std::int32_t nSetting12 = 0;
    std::int32_t nSetting13 = 0;
    std::int32_t nSetting14 = 0;
    std::int32_t nSetting15 = 0;
    std::int32_t nSetting16 = 0;
};

class CBatchImpPrefsInfo {
public:
    CBatchImpPrefsInfo() = default;
    CBatchImpPrefsInfo(const CBatchImpPrefsInfo&) = default;
    CBatchImpPrefsInfo& operator=(const CBatchImpPrefsInfo&) = default;
    ~CBatchImpPrefsInfo() = default;

    std::string strTitle;
    std::int32_t deviceName = 0;
    std::int32_t existingHandle = 0;
    std::int32_t useZub = 1;
    std::int32_t mode24p = 0;
    std::int32_t nDlgParam1 = 0;
    std::int32_t nDlgParam2 = 0;
    std::int32_t nDlgParam3 = 1;
    std::int32_t nListSetting = -1;
    std::string strSetting3;
    std::string strSetting4;
    std::string strSetting1;
    std::string strSetting2;
    std::int32_t nSetting4 = -1;
    std::int32_t nSetting5 = 0;
    std::int32_t nSetting6 = 0;
    std::int32_t nSetting9 = 0;
    std::int32_t nSetting10 = 0x500000;
    std::int32_t nSetting8 = 0;
    std::int32_t nSetting12 = 0;
    std::int32_t nSetting7 = 1;
};

class CImgSeqPrefsInfo {
public:
    CImgSeqPrefsInfo() = default;
    CImgSeqPrefsInfo(const CImgSeqPrefsInfo&) = default;
    CImgSeqPrefsInfo& operator=(const CImgSeqPrefsInfo&) = default;
    ~CImgSeqPrefsInfo() = default;

    std::string strTitle;
    std::int32_t deviceName = 0;
    std::int32_t existingHandle = 0;
    std::int32_t useZub = 1;
    std::int32_t mode24p = 0;
    std::int32_t nDlgParam1 = 0;
    std::int32_t nDlgParam2 = 0;
    std::int32_t nDlgParam3 = 0;
    std::string strSetting5;
    std::string strSetting1;
    std::int32_t nSetting4 = -1;
    std::int32_t nSetting5 = 0;
    std::int32_t nSetting6 = 0;
    std::int32_t nSetting9 = 0;
    std::int32_t nSetting10 = 0x500000;
    std::int32_t nSetting8 = 0;
    std::int32_t nSetting12 = 0;
    std::int32_t nSetting7 = 1;
};

}  // namespace zub

#include "zubimport/ConvertDlg.h"

#include <cstdio>

namespace zub {

CConvertDlg::CConvertDlg(std::string sourcePath, int serverMode)
    : source_(std::move(sourcePath)), serverMode_(serverMode)
{
}

CConvertDlg::~CConvertDlg() = default;

int CConvertDlg::Modal(void*)
{
    std::fprintf(stderr, "libImport: CConvertDlg::Modal: the conversion engine is not built yet\n");
    return 2;
}

int CConvertDlg::ConvertableFile(const char*, int)
{
    std::fprintf(stderr, "libImport: CConvertDlg::ConvertableFile: the conversion engine is not built yet\n");
    return 0;
}

void CConvertDlg::GetTargetFilePaths(std::string& first, std::string& second) const
{
    first.clear();
    second.clear();
    if (makeDva_) {
        first = audioPath_;
    } else if (convertVideo_) {
        if (!audioPath_.empty()) {
            first = audioPath_;
            second = videoPath_;
        } else {
            first = videoPath_;
        }
    } else if (convertAudio_) {
        first = audioPath_;
    }
}

std::string CConvertDlg::GetResultText() const
{
    return report_.messages.empty() ? std::string() : report_.messages.back();
}

void CConvertDlg::PressAbort() {}

}  // namespace zub

#include "zubimport/ConvertDlg.h"

#include <cstdio>

namespace zub {

CConvertDlg::CConvertDlg(std::string sourcePath) : source_(std::move(sourcePath)) {}

CConvertDlg::~CConvertDlg() = default;

int CConvertDlg::Modal(void*)
{
    std::fprintf(stderr, "libImport: CConvertDlg::Modal: the conversion dialog is not built yet\n");
    return 2;
}

}  // namespace zub

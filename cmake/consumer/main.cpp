// Uses the module only through its installed headers and library.
#include <cstdio>

#include <zubimport/Import.h>
#include <zubimport/Prefs.h>

int main()
{
    zub::CConvertDlgPrefs prefs;
    zub::ModuleState* state = ImportDllGetStaticModuleState();
    if (!state || prefs.nSetting7 != 1) return 1;
    std::printf("%s\n", state->LoadString(zub::IDS_DEVICE_OPEN_FAILED).c_str());
    return 0;
}

#include <cstdio>

#include "controls/ControlColours.h"
#include "controls/MessageBoxPrompt.h"
#include "zubimport/Import.h"

using namespace zub;

namespace {

// Loading the module offers the message-box prompter; it answers only while a widgets
// application runs, so a terminal host still gets text on standard error.
const bool g_guiPromptRegistered = [] {
    RegisterGuiPromptFactory(&controls::MakeMessageBoxPromptIfGui);
    return true;
}();

}  // namespace

void ImportDllGlobalSetColors(unsigned long colour1, int flag1, unsigned long colour2, int flag2)
{
    ModuleState& state = TheModuleState();
    state.colours.colour1 = colour1;
    state.colours.colour2 = colour2;
    controls::SetFamilyColours(controls::ListFamily(), state.colours, flag1);
    controls::SetFamilyColours(controls::EditFamily(), state.colours, flag1);
    controls::SetFamilyColours(controls::ButtonFamily(), state.colours, flag1);
    if (flag2) {
        const OsVersion v = CurrentOsVersion();
        if ((v.major == 5 && v.minor != 0) || v.major >= 6) controls::ListFamily().themedColour = colour2;
    }
}

ModuleState* ImportDllGetStaticModuleState()
{
    return &TheModuleState();
}

// StartBatchImpDlg lives with the batch run, StartImgSeqDlg with the image sequence run.

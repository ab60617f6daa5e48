// Entry points of libImport.so. The unmangled ones can be looked up with dlsym by a host that
// loads the module at run time.
#pragma once

#include "zubimport/ModuleState.h"
#include "zubimport/Prefs.h"

extern "C" {

// Stores the colours for the module's dialogs and hands them to its control families. With
// flag2 set and an operating system of version 5.1 or later, the list family also takes
// colour2 as its themed colour.
void ImportDllGlobalSetColors(unsigned long colour1, int flag1, unsigned long colour2, int flag2);

// The module's own state (string table, folder, colours).
zub::ModuleState* ImportDllGetStaticModuleState();

// The batch import and image sequence dialogs. 1 when the dialog ended with OK.
int StartBatchImpDlg(zub::CBatchImpPrefsInfo* prefs);
int StartImgSeqDlg(zub::CImgSeqPrefsInfo* prefs);
}

// Companion programs: after a row is imported, a program named after its type may be waiting
// in the module's folder to take the file further (Batch_Import_Video, Batch_Import_Audio,
// Batch_Import_Graphics). It gets the source path and the row's note as two arguments, runs
// on its own and is not waited for.
#pragma once

#include <string>
#include <sys/types.h>

namespace zub::batch {

// The companion's name for a row type ("Batch_Import_Video", ...); "" for none.
const char* CompanionName(int type);

// The folder companions and the MXF unwrapper are looked up in: the module's folder, unless a
// test has put another in place. Ends with '/'.
std::string ModuleFolderForBatch();
void SetModuleFolderForTesting(const std::string& folder);  // "" restores the module's

struct CompanionStart {
    bool ok = true;        // missing counts as success: companions are optional
    bool started = false;  // a process was created
    pid_t pid = -1;
    std::string program;   // full path looked for
    std::string error;     // "program: reason" when it could not be started
};

// Starts folder + name with argv {program, source, note}, no shell. The child is reaped by a
// background waiter when it ends, so it never lingers as a zombie.
CompanionStart StartCompanion(const std::string& folder, const std::string& name, const std::string& source,
                              const std::string& note);

// For tests: blocks until every companion started so far has ended and been reaped.
void WaitForCompanionsForTesting();

}  // namespace zub::batch

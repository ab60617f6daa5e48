// zubimport gui: the dialogs in a real window.
#include "Host.h"
#include "Jobs.h"

namespace zubhost {

CLI::App* AddGui(CLI::App& app, JobRunner& run)
{
    auto* cmd = app.add_subcommand("gui", "Open the import dialogs in a window");
    cmd->allow_extras();
    run = [] { return Fail(kExitFailed, "gui: the desktop host is not built yet"); };
    return cmd;
}

}  // namespace zubhost

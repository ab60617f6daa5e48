// The subcommands. Each adds itself to the command line and runs when chosen; the run
// returns the process's exit status.
#pragma once

#include <CLI/CLI.hpp>

#include <functional>
#include <string>

namespace zubhost {

using JobRunner = std::function<int()>;

// Each Add… makes its subcommand on `app` and sets `run` to what runs it when it is chosen.
CLI::App* AddStatus(CLI::App& app, JobRunner& run);
CLI::App* AddConvert(CLI::App& app, JobRunner& run);
CLI::App* AddImgSeq(CLI::App& app, JobRunner& run);
CLI::App* AddBatch(CLI::App& app, JobRunner& run);
CLI::App* AddDemo(CLI::App& app, JobRunner& run);
CLI::App* AddGui(CLI::App& app, JobRunner& run);

// The program's own name as run (for help texts).
inline constexpr const char* kProgram = "zubimport";

}  // namespace zubhost

namespace zub {
struct ImportSettings;
class CConvertDlgPrefs;
}  // namespace zub

namespace zubhost {

// Opens the recorder the way a host does: the settings go into the module through a
// conversion preference record. False with the reason in *error.
bool EnterModule(const zub::ImportSettings& run, int useZub, zub::CConvertDlgPrefs& prefs, std::string* error);
// Takes the settings back out and closes the recorder.
void LeaveModule(zub::CConvertDlgPrefs& prefs);

}  // namespace zubhost

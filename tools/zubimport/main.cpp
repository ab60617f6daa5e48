// zubimport: the command-line and desktop host of libImport.so. Each job is a subcommand in
// its own file; this file parses the command line and turns the outcome into an exit status.
#include <CLI/CLI.hpp>

#include <cstdio>
#include <vector>

#include "tools/zubimport/Host.h"
#include "tools/zubimport/Jobs.h"

#ifndef ZUBIMPORT_VERSION
#define ZUBIMPORT_VERSION "0"
#endif

int main(int argc, char** argv)
{
    using namespace zubhost;
    CLI::App app{"zubimport - bring outside media onto the disk recorder's volume"};
    app.footer(
        "Settings persist in $XDG_CONFIG_HOME/zubimport/settings.ini; options override them for one run\n"
        "unless --save. Exit status: 0 done, 2 nothing made or discarded, 1 could not start, 64 wrong usage.\n"
        "Example:\n  zubimport demo\n  zubimport convert movie.mp4 --dva --json\n  zubimport convert SUBCOMMAND --help");
    app.set_version_flag("--version", std::string("zubimport ") + ZUBIMPORT_VERSION);
    app.require_subcommand(1);

    std::vector<std::pair<CLI::App*, JobRunner>> jobs(6);
    jobs[0].first = AddStatus(app, jobs[0].second);
    jobs[1].first = AddConvert(app, jobs[1].second);
    jobs[2].first = AddImgSeq(app, jobs[2].second);
    jobs[3].first = AddBatch(app, jobs[3].second);
    jobs[4].first = AddDemo(app, jobs[4].second);
    jobs[5].first = AddGui(app, jobs[5].second);

    try {
        app.parse(argc, argv);
    } catch (const CLI::CallForHelp& e) {
        return app.exit(e);
    } catch (const CLI::CallForAllHelp& e) {
        return app.exit(e);
    } catch (const CLI::CallForVersion& e) {
        return app.exit(e);
    } catch (const CLI::ParseError& e) {
        return Fail(kExitUsage, std::string(e.what()) + " (run with --help for the usage)");
    }
    for (auto& [cmd, run] : jobs)
        if (cmd && cmd->parsed() && run) return run();
    return Fail(kExitUsage, "no job given (run with --help for the usage)");
}

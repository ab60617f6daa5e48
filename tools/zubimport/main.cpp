// zubimport: the command-line host of libImport.so. Each job is a subcommand; a job whose
// engine is not built yet says so and exits non-zero rather than pretending.
#include <CLI/CLI.hpp>

#include <cstdio>
#include <string>

#include "zubimport/Import.h"
#include "zubimport/ImportSettings.h"
#include "zubimport/ModuleState.h"

namespace {

int NotBuilt(const char* job)
{
    std::fprintf(stderr, "zubimport: %s: this job is not built yet\n", job);
    return 3;
}

int Status()
{
    const zub::ModuleState* state = ImportDllGetStaticModuleState();
    const zub::ImportSettings& s = zub::CurrentSettings();
    std::printf("libImport loaded from: %s\n", state->Folder().c_str());
    std::printf("video importing folder: %s\n", s.videoDir.empty() ? "(not set)" : s.videoDir.c_str());
    std::printf("audio importing folder: %s\n", s.audioDir.empty() ? "(not set)" : s.audioDir.c_str());
    std::printf("video data rate: %d bytes/s%s\n", s.videoDataRate, s.videoUncompressed ? " (uncompressed)" : "");
    std::printf("jobs built: none yet (convert, imgseq and batch report that they are not built)\n");
    return 0;
}

}  // namespace

int main(int argc, char** argv)
{
    CLI::App app{"zubimport - bring outside media into the disk recorder's storage"};
    app.require_subcommand(1);

    auto* status = app.add_subcommand("status", "Show the module and its current settings");
    std::string source;
    auto* convert = app.add_subcommand("convert", "Convert one video or audio file into a clip and WAVE audio");
    convert->add_option("source", source, "Media file to convert")->required();
    auto* imgseq = app.add_subcommand("imgseq", "Import a numbered image sequence as one clip");
    imgseq->add_option("first", source, "First image of the sequence")->required();
    auto* batch = app.add_subcommand("batch", "Import a list of files");
    batch->add_option("list", source, "Files to import");
    app.add_subcommand("gui", "Open the import dialogs");

    CLI11_PARSE(app, argc, argv);

    if (*status) return Status();
    if (*convert) return NotBuilt("convert");
    if (*imgseq) return NotBuilt("imgseq");
    if (*batch) return NotBuilt("batch");
    return NotBuilt("gui");
}

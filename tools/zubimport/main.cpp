// zubimport: the command-line host of libImport.so. Each job is a subcommand; a job whose
// engine is not built yet says so and exits non-zero rather than pretending.
#include <CLI/CLI.hpp>

#include <cstdio>
#include <string>

#include "RecorderDevice.h"
#include "zubimport/ConvertDlg.h"
#include "zubimport/Import.h"
#include "zubimport/ImportSettings.h"
#include "zubimport/ModuleState.h"

namespace {

int NotBuilt(const char* job)
{
    std::fprintf(stderr, "zubimport: %s: this job is not built yet\n", job);
    return 3;
}

// Opens the recorder the way a host does (through the preference hand-over), reports the
// video standard, the volume and how much fits on it, and hands the preferences back.
int Status(int useZub)
{
    const zub::ModuleState* state = ImportDllGetStaticModuleState();
    std::printf("libImport loaded from: %s\n", state->Folder().c_str());

    zub::CConvertDlgPrefs prefs;
    prefs.useZub = useZub;
    prefs.nSetting10 = zub::kDefaultDataRate;
    prefs.nSetting13 = zub::kDefaultDataRate;
    if (!zub::CConvertDlg::CopyPrefs(1, prefs)) {
        std::fprintf(stderr, "zubimport: %s\n", zub::CRecorderDevice::GetError().c_str());
        return 1;
    }
    zub::CRecorderDeviceInfo& rec = zub::TheRecorder();
    std::string volume;
    int lines = 0, width = 0, height = 0;
    if (!rec.QuerySystemPrefs(volume, lines, width, height)) {
        std::fprintf(stderr, "zubimport: %s\n", zub::CRecorderDevice::GetError().c_str());
        zub::CConvertDlg::CopyPrefs(0, prefs);
        return 1;
    }
    const zub::ImportSettings& s = zub::CurrentSettings();
    std::printf("recorder back-end: %s\n", rec.IsZub() ? "ZUB" : "Tbx");
    std::printf("video standard: %d lines, frame %d x %d\n", rec.lines, rec.frameWidth, rec.frameHeight);
    std::printf("recorder volume: %s\n", volume.c_str());
    const int compressed = rec.QueryVolumeSpace(volume.c_str(), s.videoDataRate, 0, false, false);
    const int uncompressed = rec.QueryVolumeSpace(volume.c_str(), -1, 0, true, false);
    std::printf("frames that fit (no alpha): %d at %d bytes/s, %d uncompressed\n", compressed, s.videoDataRate,
                uncompressed);
    zub::CConvertDlg::CopyPrefs(0, prefs);
    std::printf("jobs built: none yet (convert, imgseq and batch report that they are not built)\n");
    return 0;
}

}  // namespace

int main(int argc, char** argv)
{
    CLI::App app{"zubimport - bring outside media into the disk recorder's storage"};
    app.require_subcommand(1);

    auto* status = app.add_subcommand("status", "Open the recorder and show its standard, volume and free space");
    int useZub = 1;
    status->add_option("--zub", useZub, "1: the ZUB back-end (default), 0: the Tbx back-end");
    std::string source;
    auto* convert = app.add_subcommand("convert", "Convert one video or audio file into a clip and WAVE audio");
    convert->add_option("source", source, "Media file to convert")->required();
    auto* imgseq = app.add_subcommand("imgseq", "Import a numbered image sequence as one clip");
    imgseq->add_option("first", source, "First image of the sequence")->required();
    auto* batch = app.add_subcommand("batch", "Import a list of files");
    batch->add_option("list", source, "Files to import");
    app.add_subcommand("gui", "Open the import dialogs");

    CLI11_PARSE(app, argc, argv);

    if (*status) return Status(useZub);
    if (*convert) return NotBuilt("convert");
    if (*imgseq) return NotBuilt("imgseq");
    if (*batch) return NotBuilt("batch");
    return NotBuilt("gui");
}

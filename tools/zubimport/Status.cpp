// zubimport status: opens the recorder the way a host does (through the preference hand-over)
// and reports the video standard, the volume and how much fits on it.
#include <cstdio>
#include <memory>

#include "tools/zubimport/Host.h"
#include "tools/zubimport/Jobs.h"
#include "device/RecorderDevice.h"
#include "zubimport/ConvertDlg.h"
#include "zubimport/Import.h"
#include "zubimport/ImportSettings.h"
#include "zubimport/ModuleState.h"

namespace zubhost {
namespace {

int Status(int useZub)
{
    const zub::ModuleState* state = ImportDllGetStaticModuleState();
    std::printf("libImport loaded from: %s\n", state->Folder().c_str());

    zub::CConvertDlgPrefs prefs;
    prefs.useZub = useZub;
    prefs.nSetting10 = zub::kDefaultDataRate;
    prefs.nSetting13 = zub::kDefaultDataRate;
    if (!zub::CConvertDlg::CopyPrefs(1, prefs)) return Fail(kExitFailed, zub::CRecorderDevice::GetError());
    zub::CRecorderDeviceInfo& rec = zub::TheRecorder();
    std::string volume;
    int lines = 0, width = 0, height = 0;
    if (!rec.QuerySystemPrefs(volume, lines, width, height)) {
        const std::string error = zub::CRecorderDevice::GetError();
        zub::CConvertDlg::CopyPrefs(0, prefs);
        return Fail(kExitFailed, error);
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
    std::printf("settings file: %s\n", SettingsFilePath().c_str());
    return kExitDone;
}

}  // namespace

CLI::App* AddStatus(CLI::App& app, JobRunner& run)
{
    auto useZub = std::make_shared<int>(1);
    auto* cmd = app.add_subcommand("status", "Open the recorder and show its standard, volume and free space");
    cmd->footer("Example:\n  zubimport status --zub 0");
    cmd->add_option("--zub", *useZub, "1: the ZUB back-end (default), 0: the Tbx back-end")
        ->check(CLI::IsMember({0, 1}));
    run = [useZub] { return Status(*useZub); };
    return cmd;
}

}  // namespace zubhost

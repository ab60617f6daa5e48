// zubimport convert SOURCE: one video or audio file through the conversion, as the editing
// application runs its Media Conversion dialog.
#include <unistd.h>

#include <cstdio>
#include <filesystem>
#include <memory>

#include "tools/zubimport/Host.h"
#include "tools/zubimport/Jobs.h"
#include "device/RecorderDevice.h"
#include "zubimport/ConvertDlg.h"
#include "zubimport/ImportSettings.h"

namespace fs = std::filesystem;

namespace zubhost {

bool EnterModule(const zub::ImportSettings& run, int useZub, zub::CConvertDlgPrefs& prefs, std::string* error)
{
    // The record carries most settings; the rest (key rate, field operations) are set on the
    // module's settings directly, and the record's copy then agrees with them.
    zub::CurrentSettings() = run;
    zub::PullFromSettings(run, prefs);
    prefs.useZub = useZub;
    if (zub::CConvertDlg::CopyPrefs(1, prefs)) {
        // Folders not chosen yet are the recorder's own recording folder, for this run only.
        zub::ImportSettings& s = zub::CurrentSettings();
        if (s.videoDir.empty() || s.audioDir.empty()) {
            std::string folder;
            int lines = 0, width = 0, height = 0;
            if (zub::TheRecorder().QuerySystemPrefs(folder, lines, width, height)) {
                if (s.videoDir.empty()) s.videoDir = folder;
                if (s.audioDir.empty()) s.audioDir = folder;
            }
        }
        return true;
    }
    if (error) {
        *error = zub::CRecorderDevice::GetError();
        if (error->empty()) *error = "the recorder could not be opened";
    }
    return false;
}

void LeaveModule(zub::CConvertDlgPrefs& prefs) { zub::CConvertDlg::CopyPrefs(0, prefs); }

namespace {

struct ConvertArgs {
    std::string source;
    std::string name;
    bool server = false;
    bool yes = false;
    bool sourceTimecode = false;
    bool pixelAspect = false;
    CommonOptions common;
    SettingsOptions settings;
};

// Readable regular file, or the reason it is not.
std::string CheckSource(const std::string& path)
{
    std::error_code ec;
    if (!fs::exists(path, ec)) return path + ": no such file";
    if (fs::is_directory(path, ec)) return path + ": is a folder, not a media file";
    if (::access(path.c_str(), R_OK) != 0) return path + ": cannot be read";
    return {};
}

int RunConvert(const ConvertArgs& a)
{
    if (const std::string bad = a.settings.Validate(); !bad.empty()) return Fail(kExitUsage, bad);
    if (const std::string bad = CheckSource(a.source); !bad.empty()) return Fail(kExitFailed, bad);

    zub::ImportSettings base;
    LoadSettingsFile(base);
    zub::ImportSettings run = base;
    a.settings.Apply(run);

    const bool interactive = !a.common.batch && InputIsTerminal() && StderrIsTerminal();
    auto prompt = std::make_shared<HostPrompt>(interactive, a.common.onAbort == "discard", a.yes);
    zub::ScopedPrompter scope(prompt);

    zub::CConvertDlgPrefs prefs;
    std::string error;
    if (!EnterModule(run, a.common.zub, prefs, &error)) return Fail(kExitFailed, error);
    // Choices beyond the preference record: they live for this run only.
    zub::CurrentSettings().sourceTimecode = a.sourceTimecode ? 1 : 0;
    zub::CurrentSettings().sourcePixelAspect = a.pixelAspect ? 1 : 0;

    if (!zub::CConvertDlg::ConvertableFile(a.source.c_str(), a.server ? 1 : 0)) {
        LeaveModule(prefs);
        return Fail(kExitFailed, a.source + ": neither video nor audio in it can be read");
    }

    zub::CConvertDlg dlg(a.source, a.server ? 1 : 0);
    dlg.SetBatchProcess(a.common.batch ? 1 : 0);
    if (!a.name.empty()) dlg.SetStrSettings(a.name.c_str());
    Progress progress("convert " + fs::path(a.source).filename().string(), a.common.quiet);
    dlg.SetProgressCallback([&progress](const zub::ConvertProgress& p) {
        if (p.totalFrames > 0)
            progress.Update(p.framesDone, p.totalFrames, "frames");
        else
            progress.Update(p.audioPercent, 100, "%");
    });

    int code = 0;
    int interrupts = 0;
    {
        InterruptWatch watch([&dlg] { dlg.PressAbort(); },
                             [&dlg, prompt] {
                                 // Again while the question waits: abort and discard. Again
                                 // without a terminal: the next abort question is answered Yes.
                                 prompt->InterruptWaitingQuestion();
                                 prompt->DiscardNextAbort();
                                 dlg.PressAbort();
                             });
        code = dlg.Modal(nullptr);
        prompt->Close();
        interrupts = watch.Count();
    }
    progress.Finish();
    const zub::ConvertReport& r = dlg.GetReport();
    LeaveModule(prefs);

    std::string saveError;
    if (!SaveSettingsFile(a.common.save ? run : base, &saveError)) Fail(0, "settings not saved: " + saveError);

    JobReport report;
    report.source = fs::absolute(a.source).string();
    bool discarded = r.discarded;
    if (interrupts >= 2 && !discarded) {
        // The second Ctrl-C came after the first abort had already kept the files: discard
        // them now, as the user asked.
        std::error_code ec;
        for (const std::string& f : {r.videoPath, r.audioPath})
            if (!f.empty()) fs::remove(f, ec);
        discarded = true;
        code = 2;
    }
    report.endCode = code;
    report.result = discarded ? "discarded" : (code == 1 && r.converted ? "done" : "nothing");
    if (!discarded) {
        report.videoPath = r.videoPath;
        report.audioPath = r.audioPath;
    }
    report.frames = r.framesDone;
    report.videoRate = r.videoRate;
    report.alpha = r.alpha;
    report.dva = r.madeDva;
    report.seconds = r.seconds;
    // Every message shown, in order; in batch mode nothing is shown and the engine keeps
    // what it would have shown.
    report.messages = prompt->Texts();
    if (report.messages.empty()) report.messages = r.messages;
    report.frameRateNote = r.frameRateNote;
    if (a.common.json) {
        std::printf("%s\n", ReportJson(report).c_str());
    } else if (!a.common.quiet) {
        if (!report.videoPath.empty())
            std::printf("video: %s (%ld frames, %s%s)\n", report.videoPath.c_str(), report.frames,
                        RateText(report.videoRate).c_str(), report.alpha ? ", with key" : "");
        if (!report.frameRateNote.empty()) std::printf("note: %s\n", report.frameRateNote.c_str());
        if (!report.audioPath.empty()) {
            const AudioFacts f = ReadAudioFacts(report.audioPath);
            std::printf("audio: %s (%ld Hz, %d ch, %d bits%s)\n", report.audioPath.c_str(), f.rate, f.channels,
                        f.bits, report.dva ? ", .dva" : "");
        }
        std::printf("result: %s in %.1f s\n", report.result.c_str(), report.seconds);
    }
    const int exit = ExitFor(report);
    if (exit != kExitDone) {
        std::string why = report.result == "discarded" ? "the conversion was aborted and its files discarded"
                                                       : "nothing was converted";
        if (!r.messages.empty()) why += ": " + r.messages.back();
        Fail(exit, a.source + ": " + why);
    }
    return exit;
}

}  // namespace

CLI::App* AddConvert(CLI::App& app, JobRunner& run)
{
    auto args = std::make_shared<ConvertArgs>();
    auto* cmd = app.add_subcommand("convert", "Convert one video or audio file into a clip and WAVE audio");
    cmd->footer(
        "Example:\n  zubimport convert movie.mp4 --name Intro --dva --rate 6 --audio-rate 48\n"
        "  zubimport convert logo.mov --alpha --alpha-same --batch --json");
    cmd->add_option("source", args->source, "Media file to convert")->required();
    cmd->add_option("--name", args->name, "Clip name (default: the source's file name)");
    args->settings.Add(cmd, SettingsOptions::kDirs | SettingsOptions::kAudioDir | SettingsOptions::kChoices |
                                SettingsOptions::kVideo | SettingsOptions::kAlpha | SettingsOptions::kAudio |
                                SettingsOptions::kFit | SettingsOptions::kFrameRate);
    cmd->add_flag("--server", args->server, "The server frame path (4:2:2 frames placed as they come)");
    cmd->add_flag("--yes", args->yes, "Answer the overwrite question Yes");
    cmd->add_flag("--source-timecode", args->sourceTimecode,
                  "Write the source's start timecode and reel name into the .dva");
    cmd->add_flag("--pixel-aspect", args->pixelAspect,
                  "Fit a source with non-square pixels (anamorphic DV, HDV) by the shape it is shown in");
    args->common.Add(cmd);
    run = [args] { return RunConvert(*args); };
    return cmd;
}

}  // namespace zubhost

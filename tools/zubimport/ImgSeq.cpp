// zubimport imgseq FILE...: a numbered run of stills (or a list of them) as one clip.
#include <algorithm>
#include <atomic>
#include <cstdio>
#include <filesystem>
#include <map>
#include <memory>

#include "tools/zubimport/Host.h"
#include "tools/zubimport/Jobs.h"
#include "imgseq/ImgSeqRun.h"
#include "imgseq/Profile.h"
#include "imgseq/SequenceNaming.h"
#include "imgseq/SequenceReport.h"
#include "zubimport/ImportSettings.h"
#include "zubimport/Prefs.h"

namespace fs = std::filesystem;

namespace zubhost {
namespace {

struct ImgSeqArgs {
    std::vector<std::string> files;
    std::string name;
    std::string profile, saveProfile;
    bool report = false;
    CommonOptions common;
    SettingsOptions settings;
};

// One file: its numbered run. With gaps filled, the run goes on past missing numbers: every
// later file of the same series in the folder, in number order.
std::vector<std::string> ExpandFiles(const std::vector<std::string>& given, bool acrossGaps)
{
    std::vector<std::string> list;
    if (given.size() != 1) return given;
    zub::AddNumberedRun(given[0], list);
    if (!acrossGaps || list.empty()) return list;
    const zub::SequenceNumber first = zub::NumberOf(given[0]);
    if (!first.present) return list;
    std::map<std::uint64_t, std::string> later;
    std::error_code ec;
    fs::path dir = fs::path(given[0]).parent_path();
    if (dir.empty()) dir = ".";
    for (const auto& entry : fs::directory_iterator(dir, ec)) {
        const std::string path = (fs::path(given[0]).parent_path() / entry.path().filename()).string();
        const zub::SequenceNumber n = zub::NumberOf(path);
        if (n.present && n.series == first.series && n.value > first.value && entry.is_regular_file(ec))
            later.emplace(n.value, path);
    }
    list.assign(1, given[0]);
    for (auto& [number, path] : later) list.push_back(path);
    return list;
}

int PrintSequenceReport(const ImgSeqArgs& a, const std::vector<std::string>& files)
{
    Progress progress("looking at " + fs::path(files[0]).filename().string(), a.common.quiet);
    const zub::SequenceReport r =
        zub::ReportSequence(files, [&progress](int done, int total) { progress.Update(done, total, "images"); });
    progress.Finish();
    if (a.common.json) {
        std::string o = "{\"source\":" + JsonString(files[0]) + ",\"images\":" + std::to_string(r.images) +
                        ",\"missing_frames\":" + std::to_string(r.MissingFrames()) + ",\"gaps\":[";
        for (std::size_t i = 0; i < r.gaps.size(); ++i)
            o += (i ? ",[" : "[") + std::to_string(r.gaps[i].first) + "," + std::to_string(r.gaps[i].last) + "]";
        o += "],\"unreadable\":[";
        for (std::size_t i = 0; i < r.unreadable.size(); ++i)
            o += (i ? "," : "") + JsonString(r.unreadable[i].path + ": " + r.unreadable[i].error);
        o += "],\"differing\":[";
        for (std::size_t i = 0; i < r.differing.size(); ++i) o += (i ? "," : "") + JsonString(r.differing[i].path);
        o += "],\"summary\":" + JsonString(r.Summary()) + "}";
        std::printf("%s\n", o.c_str());
    } else {
        std::printf("%s\n", r.Summary().c_str());
        if (r.first.readable)
            std::printf("first image: %s, %d x %d, %d channels, %d bits\n", r.first.path.c_str(), r.first.width,
                        r.first.height, r.first.channels, r.first.bitsPerChannel);
        for (const auto& u : r.unreadable) std::printf("unreadable: %s: %s\n", u.path.c_str(), u.error.c_str());
        for (const auto& d : r.differing)
            std::printf("differs: %s (%d x %d, %d channels)\n", d.path.c_str(), d.width, d.height, d.channels);
    }
    return kExitDone;
}

int RunImgSeq(const ImgSeqArgs& a)
{
    if (const std::string bad = a.settings.Validate(); !bad.empty()) return Fail(kExitUsage, bad);
    for (const auto& f : a.files) {
        std::error_code ec;
        if (!fs::is_regular_file(f, ec)) return Fail(kExitFailed, f + ": no such image file");
    }

    zub::ImportSettings base;
    LoadSettingsFile(base);
    zub::ImportSettings run = base;
    if (!a.profile.empty()) {
        zub::ProfileRecord rec;
        std::string error;
        if (!zub::ReadProfile(a.profile, &rec, &error)) return Fail(kExitFailed, error);
        zub::ApplyProfile(rec, run);
    }
    a.settings.Apply(run);

    const std::vector<std::string> files = ExpandFiles(a.files, run.fillGaps != 0);
    if (files.empty()) return Fail(kExitFailed, a.files[0] + ": no images in its run");
    if (a.report) return PrintSequenceReport(a, files);

    const bool interactive = !a.common.batch && InputIsTerminal() && StderrIsTerminal();
    auto prompt = std::make_shared<HostPrompt>(interactive, a.common.onAbort == "discard", false);
    zub::ScopedPrompter scope(prompt);

    zub::CConvertDlgPrefs prefs;
    std::string error;
    if (!EnterModule(run, a.common.zub, prefs, &error)) return Fail(kExitFailed, error);

    std::atomic<int> abort{0};
    Progress progress("imgseq " + fs::path(files[0]).filename().string(), a.common.quiet);
    zub::ImgSeqRunRequest request;
    request.files = files;
    request.clipName = a.name;
    request.batchProcess = a.common.batch;
    request.fillGaps = run.fillGaps != 0;
    request.abortRequest = &abort;
    request.progress = [&progress](int done, int total) { progress.Update(done, total, "frames"); };

    const auto start = std::chrono::steady_clock::now();
    zub::ImgSeqRunResult result;
    int interrupts = 0;
    {
        InterruptWatch watch(
            [&abort] {
                // On a terminal the question is asked; without one the prompter answers it
                // as --on-abort says.
                const int answer = zub::AskAbortQuestion();
                int expected = 0;
                if (answer != 0) abort.compare_exchange_strong(expected, answer);
            },
            [&abort, prompt] {
                abort = -1;
                prompt->DiscardNextAbort();
                prompt->InterruptWaitingQuestion();
            });
        result = zub::RunImageSequence(request);
        prompt->Close();
        interrupts = watch.Count();
    }
    if (interrupts >= 2 && result.endCode == 1 && !result.clipPath.empty()) {
        // A second Ctrl-C that came after the run had kept its clip: discard it now.
        std::error_code ec;
        fs::remove(result.clipPath, ec);
        result.endCode = 2;
        abort = -1;
    }
    progress.Finish();
    const double seconds = std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
    const zub::ImportSettings used = zub::CurrentSettings();
    LeaveModule(prefs);

    if (!a.saveProfile.empty()) {
        std::string perr;
        if (!zub::WriteProfile(a.saveProfile, zub::ProfileFromSettings(run), &perr)) Fail(0, perr);
    }
    std::string saveError;
    if (!SaveSettingsFile(a.common.save ? run : base, &saveError)) Fail(0, "settings not saved: " + saveError);

    JobReport report;
    report.source = fs::absolute(files[0]).string();
    report.endCode = result.endCode;
    report.result = result.endCode == 1 ? "done" : (abort.load() == -1 ? "discarded" : "nothing");
    report.videoPath = result.endCode == 1 ? result.clipPath : "";
    report.frames = result.framesWritten;
    report.videoRate = used.videoUncompressed ? -1 : used.videoDataRate;
    report.alpha = used.createAlpha != 0;
    report.seconds = seconds;
    report.messages = prompt->Texts();
    if (report.messages.empty() && !result.message.empty()) report.messages.push_back(result.message);
    if (a.common.json) {
        std::printf("%s\n", ReportJson(report).c_str());
    } else if (!a.common.quiet) {
        if (!report.videoPath.empty())
            std::printf("video: %s (%ld frames from %zu images, %s%s%s)\n", report.videoPath.c_str(), report.frames,
                        files.size(), RateText(report.videoRate).c_str(), report.alpha ? ", with key" : "",
                        result.keptPartial ? ", kept partial" : "");
        std::printf("result: %s in %.1f s\n", report.result.c_str(), report.seconds);
    }
    const int exit = ExitFor(report);
    if (exit != kExitDone) {
        std::string why = report.result == "discarded" ? "the import was aborted and the clip discarded"
                                                       : "no clip was made";
        if (!result.message.empty()) why += ": " + result.message;
        Fail(exit, files[0] + ": " + why);
    }
    return exit;
}

}  // namespace

CLI::App* AddImgSeq(CLI::App& app, JobRunner& run)
{
    auto args = std::make_shared<ImgSeqArgs>();
    auto* cmd = app.add_subcommand("imgseq", "Import a numbered image sequence (or a list of images) as one clip");
    cmd->footer(
        "One FILE stands for its numbered run (frame0001.tga, frame0002.tga, ... until a number is\n"
        "missing; with --fill-gaps every later number of the run); several are taken as the list.\n"
        "Fit modes: center upper-left upper-right lower-left lower-right stretch-all height width all\n"
        "stretch-height stretch-width.\n"
        "Example:\n  zubimport imgseq shots/frame0001.tga --name Logo --alpha --fit all --area normal --fill-gaps\n"
        "  zubimport imgseq shots/frame0001.tga --report");
    cmd->add_option("files", args->files, "First image of the run, or the images in order")->required();
    cmd->add_option("--name", args->name, "Clip name (default: the images' name without its number)");
    cmd->add_option("--profile", args->profile, "Load settings from a profile file first");
    cmd->add_option("--save-profile", args->saveProfile, "Write this run's settings to a profile file");
    cmd->add_flag("--report", args->report, "Print the sequence report (gaps, odd images) and import nothing");
    args->settings.Add(cmd, SettingsOptions::kDirs | SettingsOptions::kVideo | SettingsOptions::kAlpha |
                                SettingsOptions::kFit | SettingsOptions::kGaps);
    args->common.Add(cmd);
    run = [args] { return RunImgSeq(*args); };
    return cmd;
}

}  // namespace zubhost

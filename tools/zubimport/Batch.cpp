// zubimport batch FILE...|--list LIST: every file through the importer that suits it.
#include <atomic>
#include <cstdio>
#include <filesystem>
#include <memory>

#include "tools/zubimport/Host.h"
#include "tools/zubimport/Jobs.h"
#include "device/RecorderDevice.h"
#include "batch/BatchList.h"
#include "batch/BatchRun.h"
#include "batch/TypeFilter.h"
#include "zubimport/ImportSettings.h"
#include "zubimport/Prefs.h"

namespace fs = std::filesystem;

namespace zubhost {
namespace {

struct BatchArgs {
    std::vector<std::string> files;
    std::string list;
    bool notifyEvery = false;
    CommonOptions common;
    SettingsOptions settings;
};

bool EndsWith(const std::string& s, const char* tail)
{
    const std::string t = tail;
    if (s.size() < t.size()) return false;
    for (std::size_t i = 0; i < t.size(); ++i)
        if (std::tolower(static_cast<unsigned char>(s[s.size() - t.size() + i])) != t[i]) return false;
    return true;
}

// What one row made, in the report's terms. Asked while the recorder is open.
JobReport RowReport(const zub::batch::BatchRow& row, const zub::batch::BatchRowResult& r,
                    const zub::ImportSettings& s)
{
    JobReport rep;
    rep.source = row.fileName;
    rep.result = r.ok ? "done" : (r.ran ? "failed" : "nothing");
    rep.endCode = r.ok ? 1 : 2;
    for (const std::string* p : {&r.clipPath, &r.secondPath}) {
        if (p->empty()) continue;
        if (EndsWith(*p, ".zub")) {
            rep.videoPath = *p;
        } else {
            rep.audioPath = *p;
            rep.dva = EndsWith(*p, ".dva");
        }
    }
    if (!rep.videoPath.empty()) {
        zub::CRecorderDeviceInfo& rec = zub::TheRecorder();
        rep.frames = static_cast<long>(rec.QueryFileLength(rep.videoPath.c_str()));
        rep.alpha = rec.QueryFileKey(rep.videoPath.c_str()) == 1;
        rep.videoRate = s.videoUncompressed ? -1 : s.videoDataRate;
    }
    if (!r.result.empty()) rep.messages.push_back(r.result);
    rep.frameRateNote = r.frameRateNote;
    return rep;
}

int RunBatchJob(const BatchArgs& a)
{
    if (const std::string bad = a.settings.Validate(); !bad.empty()) return Fail(kExitUsage, bad);
    if (a.files.empty() == a.list.empty()) return Fail(kExitUsage, "batch: give either files or --list LIST");

    std::vector<zub::batch::BatchRow> rows;
    if (!a.list.empty()) {
        std::string error;
        if (!zub::batch::LoadBatchList(a.list, rows, &error)) return Fail(kExitFailed, error);
        if (rows.empty()) return Fail(kExitFailed, a.list + ": the list has no rows");
    } else {
        const zub::batch::TypeFilter filter(0);
        for (const auto& f : a.files) {
            std::error_code ec;
            if (!fs::is_regular_file(f, ec)) return Fail(kExitFailed, f + ": no such file");
            zub::batch::BatchRow row;
            row.fileName = fs::absolute(f).string();
            row.type = filter.Classify(row.fileName);
            rows.push_back(row);
        }
    }

    zub::ImportSettings base;
    LoadSettingsFile(base);
    zub::ImportSettings run = base;
    a.settings.Apply(run);

    // Rows run without questions, as the batch dialog runs them; --on-abort still decides
    // nothing here: an interrupted batch stops before its next row.
    auto prompt = std::make_shared<HostPrompt>(false, false, false);
    zub::ScopedPrompter scope(prompt);

    zub::CConvertDlgPrefs prefs;
    std::string error;
    if (!EnterModule(run, a.common.zub, prefs, &error)) return Fail(kExitFailed, error);

    std::atomic<int> cancel{0};
    Progress progress("batch", a.common.quiet);
    zub::batch::BatchRunOptions options;
    options.notifyEveryItem = a.notifyEvery ? 1 : 0;
    options.notify = zub::batch::RegisteredBatchNotify();
    options.cancel = &cancel;
    std::vector<std::chrono::steady_clock::time_point> rowStarts;
    options.progress = [&progress, &rows, &a, &rowStarts](int row, int count) {
        rowStarts.push_back(std::chrono::steady_clock::now());
        progress.Update(row, count, "rows");
        if (row < count && !a.common.quiet && !StderrIsTerminal())
            std::fprintf(stderr, "batch: row %d of %d: %s\n", row + 1, count, rows[static_cast<std::size_t>(row)].fileName.c_str());
    };

    const auto start = std::chrono::steady_clock::now();
    zub::batch::BatchRunResult result;
    {
        InterruptWatch watch(
            [&cancel] {
                cancel = 1;
                const char msg[] = "\nzubimport: interrupted: the batch stops after the row being imported\n";
                std::fputs(msg, stderr);
            },
            [&cancel] { cancel = 1; });
        result = zub::batch::RunBatch(rows, options);
    }
    progress.Finish();
    const double seconds = std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();

    std::vector<JobReport> reports;
    for (std::size_t i = 0; i < rows.size(); ++i) {
        const zub::batch::BatchRowResult r = i < result.rows.size() ? result.rows[i] : zub::batch::BatchRowResult{};
        reports.push_back(RowReport(rows[i], r, zub::CurrentSettings()));
        if (i + 1 < rowStarts.size())
            reports.back().seconds = std::chrono::duration<double>(rowStarts[i + 1] - rowStarts[i]).count();
    }
    LeaveModule(prefs);
    std::string saveError;
    if (!SaveSettingsFile(a.common.save ? run : base, &saveError)) Fail(0, "settings not saved: " + saveError);

    int done = 0;
    for (const auto& r : reports) done += r.result == "done";
    const bool allDone = done == static_cast<int>(reports.size()) && !result.cancelled;
    if (a.common.json) {
        std::string o = "{\"source\":" + JsonString(a.list.empty() ? std::string("(files)") : a.list) +
                        ",\"result\":" + JsonString(allDone ? "done" : (done ? "partial" : "nothing")) +
                        ",\"end_code\":" + (allDone ? "1" : "2") + ",\"cancelled\":" +
                        (result.cancelled ? "true" : "false");
        char num[64];
        std::snprintf(num, sizeof num, "%.3f", seconds);
        o += std::string(",\"seconds\":") + num + ",\"rows\":[";
        for (std::size_t i = 0; i < reports.size(); ++i) o += (i ? "," : "") + ReportJson(reports[i]);
        o += "]}";
        std::printf("%s\n", o.c_str());
    } else if (!a.common.quiet) {
        for (std::size_t i = 0; i < reports.size(); ++i) {
            const JobReport& r = reports[i];
            std::printf("%zu. %s [%s]: %s", i + 1, r.source.c_str(), zub::batch::TypeName(rows[i].type),
                        r.result.c_str());
            if (!r.videoPath.empty()) std::printf(", %s (%ld frames)", r.videoPath.c_str(), r.frames);
            if (!r.audioPath.empty()) std::printf(", %s", r.audioPath.c_str());
            if (!r.messages.empty() && r.result != "done") std::printf(": %s", r.messages.back().c_str());
            std::printf("\n");
            if (!r.frameRateNote.empty()) std::printf("   note: %s\n", r.frameRateNote.c_str());
        }
        std::printf("result: %d of %zu rows done in %.1f s\n", done, reports.size(), seconds);
    }
    if (!allDone)
        return Fail(kExitNothing, result.cancelled ? "batch interrupted: " + std::to_string(done) + " of " +
                                                         std::to_string(reports.size()) + " rows done"
                                                   : std::to_string(reports.size() - done) + " of " +
                                                         std::to_string(reports.size()) + " rows failed");
    return kExitDone;
}

}  // namespace

CLI::App* AddBatch(CLI::App& app, JobRunner& run)
{
    auto args = std::make_shared<BatchArgs>();
    auto* cmd = app.add_subcommand("batch", "Import a list of files, each through the importer that suits it");
    cmd->footer(
        "Video and audio files go through the conversion, images through the image sequence import\n"
        "(one image per row). A list file is the batch dialog's saved list (first line ZUBBATCH 1).\n"
        "Example:\n  zubimport batch a.mov b.wav c.tga --rate 4 --fit all --json\n"
        "  zubimport batch --list tonight.zubbatch --notify-every");
    cmd->add_option("files", args->files, "Files to import");
    cmd->add_option("--list", args->list, "A saved batch list to run");
    cmd->add_flag("--notify-every", args->notifyEvery, "Tell the host after every row, not only after the last");
    args->settings.Add(cmd, SettingsOptions::kDirs | SettingsOptions::kAudioDir | SettingsOptions::kVideo |
                                SettingsOptions::kAlpha | SettingsOptions::kAudio | SettingsOptions::kFit |
                                SettingsOptions::kFrameRate);
    args->common.Add(cmd);
    run = [args] { return RunBatchJob(*args); };
    return cmd;
}

}  // namespace zubhost

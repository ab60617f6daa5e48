// The three jobs as a child process runs them: the conversion (CConvertDlg, headless), the
// image sequence run and the batch run, each on the substitute recorder with scripted answers.
// Nothing here may use gtest's assertions: a job reports through its Outcome.
#pragma once

#include <atomic>
#include <memory>
#include <thread>

#include "tests/reliability/Harness.h"
#include "batch/BatchRun.h"
#include "device/RecorderDevice.h"
#include "imgseq/ImageFitting.h"
#include "imgseq/ImgSeqRun.h"
#include "zubimport/ConvertDlg.h"
#include "zubimport/ImportSettings.h"
#include "zubimport/Prompt.h"

namespace zub::rel {

struct Setup {
    std::string videoDir, audioDir;
    int useZub = 1;
    std::vector<Answer> answers;  // scripted answers; the default button after them
    bool makeDva = false;
    int videoUncompressed = 0;
};

inline bool Prepare(const Setup& s, Outcome* o)
{
    ImportSettings& st = CurrentSettings();
    st = ImportSettings{};
    st.videoDir = s.videoDir;
    st.audioDir = s.audioDir;
    st.fitWord = MakeFitWord(kFitAll, kAreaNormal, kResizeBiLinear);
    st.videoDataRate = 3000000;
    st.videoUncompressed = s.videoUncompressed;
    st.makeDva = s.makeDva ? 1 : 0;
    st.showImagesOnOutput = 0;
    if (TheRecorder().OpenDeviceWithInfo(s.useZub, 0, 0) != 1) {
        o->endCode = -2;
        o->note = "the recorder did not open: " + std::string(CRecorderDevice::GetError());
        return false;
    }
    return true;
}

inline Setup SetupFor(const Volume& v)
{
    Setup s;
    s.videoDir = v.VideoDir();
    s.audioDir = v.AudioDir();
    return s;
}

struct ConvertJob {
    Setup setup;
    std::string source;
    bool batch = false;
    bool audioOnly = false;
    std::string strSettings;
    // Called on a thread of its own once the conversion is running (framesDone > 0 or audio
    // moving), with the dialog: for aborts and folder removal at a chosen moment.
    std::function<void(CConvertDlg&, ScriptedPrompt&)> whileRunning;
    // Called from the progress callback with every report, before whileRunning's check.
    std::function<void(const ConvertProgress&)> onProgress;
    // PressAbort with this answer queued, `abortAfterMs` after Modal was called (negative: never).
    Answer abortAnswer = Answer::Yes;
    int abortAfterMs = -1;
};

inline Outcome RunConvert(const ConvertJob& job)
{
    Outcome o;
    auto prompt = std::make_shared<ScriptedPrompt>(job.setup.answers);
    ScopedPrompter scope(prompt);
    if (!Prepare(job.setup, &o)) return o;
    {
        CConvertDlg dlg(job.source);
        if (job.batch) dlg.SetBatchProcess(1);
        if (job.audioOnly) dlg.SetAudioOnly(1);
        if (!job.strSettings.empty()) dlg.SetStrSettings(job.strSettings.c_str());
        std::thread helper;
        bool started = false;
        dlg.SetProgressCallback([&](const ConvertProgress& p) {
            if (job.onProgress) job.onProgress(p);
            if (job.whileRunning && !started && p.converting && (p.framesDone > 0 || p.audioPercent > 0)) {
                started = true;
                helper = std::thread([&] { job.whileRunning(dlg, *prompt); });
            }
        });
        // An abort pressed at a given moment after the start, whatever the conversion is doing.
        std::atomic<bool> finished{false};
        std::thread aborter;
        if (job.abortAfterMs >= 0) {
            aborter = std::thread([&] {
                const auto until = std::chrono::steady_clock::now() + std::chrono::milliseconds(job.abortAfterMs);
                while (!finished && std::chrono::steady_clock::now() < until)
                    std::this_thread::sleep_for(std::chrono::milliseconds(1));
                if (!finished) {
                    prompt->Push(job.abortAnswer);
                    dlg.PressAbort();
                }
            });
        }
        o.endCode = dlg.Modal();
        finished = true;
        if (aborter.joinable()) aborter.join();
        if (helper.joinable()) helper.join();
        std::string first, second;
        dlg.GetTargetFilePaths(first, second);
        if (!first.empty()) o.paths.push_back(first);
        if (!second.empty()) o.paths.push_back(second);
        const ConvertReport& r = dlg.GetReport();
        o.frames = int(r.framesDone);
        // Every message the conversion recorded, those it did not show included.
        for (const auto& m : r.messages) o.message += (o.message.empty() ? "" : "\n") + m;
        o.note = std::string("converted ") + (r.converted ? "yes" : "no") + ", discarded " + (r.discarded ? "yes" : "no");
    }
    o.prompts = prompt->Texts();
    TheRecorder().CloseDevice();
    return o;
}

struct ImgSeqJob {
    Setup setup;
    std::vector<std::string> files;
    std::string clipName;
    bool batch = false;
    // Set to -1 or 1 after `abortAfterMs` milliseconds (negative: never) from another thread.
    int abortAnswer = 0;
    int abortAfterMs = -1;
    int decodeThreads = -1;
    std::function<void(int frame)> frameDone;
};

inline Outcome RunImgSeq(const ImgSeqJob& job)
{
    Outcome o;
    auto prompt = std::make_shared<ScriptedPrompt>(job.setup.answers);
    ScopedPrompter scope(prompt);
    if (!Prepare(job.setup, &o)) return o;
    std::atomic<int> abortRequest{0};
    ImgSeqRunRequest req;
    req.files = job.files;
    req.clipName = job.clipName;
    req.batchProcess = job.batch;
    req.abortRequest = &abortRequest;
    req.decodeThreads = job.decodeThreads;
    if (job.frameDone) req.frameDone = [&](int frame, const FrameHolder*) { job.frameDone(frame); };
    std::atomic<bool> finished{false};
    std::thread aborter;
    if (job.abortAfterMs >= 0) {
        aborter = std::thread([&] {
            const auto until = std::chrono::steady_clock::now() + std::chrono::milliseconds(job.abortAfterMs);
            while (!finished && std::chrono::steady_clock::now() < until) std::this_thread::sleep_for(std::chrono::milliseconds(1));
            abortRequest = job.abortAnswer;
        });
    }
    const ImgSeqRunResult r = RunImageSequence(req);
    finished = true;
    if (aborter.joinable()) aborter.join();
    o.endCode = r.endCode;
    o.message = r.message;
    o.frames = r.framesWritten;
    if (!r.clipPath.empty()) o.paths.push_back(r.clipPath);
    o.note = r.keptPartial ? "kept partial" : "";
    o.prompts = prompt->Texts();
    TheRecorder().CloseDevice();
    return o;
}

struct BatchJob {
    Setup setup;
    std::vector<batch::BatchRow> rows;
    std::string moduleFolder;
};

// endCode 1 when no row failed, else 2; every row's Result column goes to `prompts` as
// "<file>: <result>"; the clips made to `paths`.
inline Outcome RunBatchJob(const BatchJob& job)
{
    Outcome o;
    auto prompt = std::make_shared<ScriptedPrompt>(job.setup.answers);
    ScopedPrompter scope(prompt);
    if (!Prepare(job.setup, &o)) return o;
    batch::BatchRunOptions options;
    options.moduleFolder = job.moduleFolder;
    const batch::BatchRunResult run = batch::RunBatch(job.rows, options);
    o.endCode = run.anyFailed ? 2 : 1;
    for (std::size_t i = 0; i < run.rows.size() && i < job.rows.size(); ++i) {
        const auto& r = run.rows[i];
        std::string result = r.result;
        std::replace(result.begin(), result.end(), '\n', '|');
        o.message += job.rows[i].fileName + ": " + (r.ok ? "ok " : "FAILED ") + result + "\n";
        if (!r.clipPath.empty()) o.paths.push_back(r.clipPath);
        if (!r.secondPath.empty()) o.paths.push_back(r.secondPath);
    }
    // Questions the importers asked although the batch mode forbids them.
    o.prompts = prompt->Texts();
    TheRecorder().CloseDevice();
    return o;
}

}  // namespace zub::rel

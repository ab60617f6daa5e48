// What every zubimport job shares: the settings file, the options that override settings for
// one run, the terminal (progress, questions, Ctrl-C) and the JSON report.
#pragma once

#include <CLI/CLI.hpp>

#include <atomic>
#include <chrono>
#include <cstdint>
#include <functional>
#include <memory>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "zubimport/ImportSettings.h"
#include "zubimport/Prompt.h"

namespace zubhost {

// Exit statuses: the job ended with code 1; with code 2 or made nothing; could not start;
// wrong usage.
inline constexpr int kExitDone = 0;
inline constexpr int kExitNothing = 2;
inline constexpr int kExitFailed = 1;
inline constexpr int kExitUsage = 64;

// One line on standard error, "zubimport: reason"; returns `code`.
int Fail(int code, const std::string& reason);

// ---- settings file -------------------------------------------------------------------------

// $XDG_CONFIG_HOME/zubimport/settings.ini (~/.config when unset).
std::string SettingsFilePath();
// Reads the file into `s` (defaults first). A missing file gives the defaults; a corrupt one is
// reported on standard error, replaced by the defaults on disk, and gives the defaults.
void LoadSettingsFile(zub::ImportSettings& s);
// Writes every setting to a temporary file beside the target and renames it over; false with
// the reason in *error.
bool SaveSettingsFile(const zub::ImportSettings& s, std::string* error);

// ---- options that override settings for one run ---------------------------------------------

struct SettingsOptions {
    enum Set : unsigned { kDirs = 1, kVideo = 2, kAlpha = 4, kAudio = 8, kFit = 16, kChoices = 32, kAudioDir = 64, kGaps = 128,
                       kFrameRate = 256 };
    void Add(CLI::App* app, unsigned sets);
    // Checks the combinations (an empty string when they are fine) and applies them.
    std::string Validate() const;
    void Apply(zub::ImportSettings& s) const;

    std::string videoDir, audioDir;
    double rate = 0, alphaRate = 0;
    std::string fit, area, filter;
    int audioRate = 0;
    CLI::Option *oVideoDir = nullptr, *oAudioDir = nullptr, *oRate = nullptr, *oUncompressed = nullptr,
                *oFixed = nullptr, *oAlpha = nullptr, *oAlphaSame = nullptr, *oAlphaRate = nullptr,
                *oAlphaUncompressed = nullptr, *oAudioRate = nullptr, *oMono = nullptr, *o8bit = nullptr,
                *oFit = nullptr, *oArea = nullptr, *oFilter = nullptr, *oSwap = nullptr, *oShift = nullptr,
                *oFillGaps = nullptr, *oNoVideo = nullptr, *oNoAudio = nullptr, *oDva = nullptr,
                *oKeepFrames = nullptr;
};

// Options every job takes.
struct CommonOptions {
    bool json = false;
    bool quiet = false;
    bool save = false;
    bool batch = false;
    std::string onAbort = "keep";
    int zub = 1;
    void Add(CLI::App* app);
};

// Fit mode names in their numeric order, and the lookup both ways.
const std::vector<std::string>& FitModeNames();

// Megabytes per second (MiB) as the settings' bytes per second.
std::int32_t MegabytesToRate(double mbps);
std::string RateText(std::int32_t bytesPerSecond);

// ---- the terminal --------------------------------------------------------------------------

bool StderrIsTerminal();
bool InputIsTerminal();

// Progress on standard error: a bar redrawn in place on a terminal, a plain line at most once a
// second otherwise, nothing when quiet.
class Progress {
public:
    Progress(std::string what, bool quiet);
    ~Progress();
    // `unit` is "frames", "%" or "rows".
    void Update(long done, long total, const char* unit);
    void Finish();

private:
    std::string what_;
    bool quiet_, tty_;
    bool drawn_ = false;
    std::chrono::steady_clock::time_point start_, lastPrint_;
    long lastDone_ = -1;
    std::mutex mutex_;
};

// Questions: on a terminal the message and the buttons as numbered choices, read from the
// terminal; otherwise the default button (or, for the abort question, what --on-abort says).
// `--yes` answers the overwrite question Yes. Every text asked is kept for the report.
class HostPrompt final : public zub::IPrompt {
public:
    HostPrompt(bool interactive, bool discardOnAbort, bool yesToOverwrite);
    zub::Answer Ask(const zub::PromptRequest& request) override;
    std::vector<std::string> Texts() const;
    // A second Ctrl-C while the abort question waits answers it Yes (abort and discard).
    void InterruptWaitingQuestion();
    // From now on the abort question is answered Yes without asking.
    void DiscardNextAbort() { forceDiscard_ = true; }
    // The job is over: a question still waiting (asked from the interrupt watcher) gets its
    // default answer at once, and later ones are not asked.
    void Close();
    bool Interactive() const { return interactive_; }

private:
    bool interactive_, discardOnAbort_, yes_;
    std::atomic<bool> forceDiscard_{false};
    std::atomic<bool> closed_{false};
    int wakeRead_ = -1, wakeWrite_ = -1;
    mutable std::mutex textsMutex_;
    std::mutex askMutex_;
    std::vector<std::string> texts_;
};

// True for the question asked when a job is aborted.
bool IsAbortQuestion(const std::string& text);

// Ctrl-C (SIGINT) and SIGTERM as the Abort button: a signal handler only writes a byte to a pipe;
// a watcher thread calls `first` on the first, `again` on every later one.
class InterruptWatch {
public:
    InterruptWatch(std::function<void()> first, std::function<void()> again);
    ~InterruptWatch();
    int Count() const { return count_.load(); }

private:
    std::function<void()> first_, again_;
    std::atomic<int> count_{0};
    int pipe_[2] = {-1, -1};
    std::unique_ptr<std::thread> thread_;
};

// ---- the report ------------------------------------------------------------------------------

struct AudioFacts {
    bool ok = false;
    long rate = 0;
    int channels = 0, bits = 0;
    std::uint64_t dataBytes = 0;
};
// The format of a WAVE file, or of the WAVE data inside a .dva file: the first "fmt " chunk in
// the RIFF tree.
AudioFacts ReadAudioFacts(const std::string& path);

struct JobReport {
    std::string source;
    std::string result = "nothing";  // done, discarded, nothing, failed
    int endCode = 2;
    std::string videoPath;
    long frames = 0;
    std::int32_t videoRate = 0;
    bool alpha = false;
    std::string audioPath;
    bool dva = false;
    double seconds = 0;
    std::vector<std::string> messages;
    std::string frameRateNote;  // a variable-rate source: how it was conformed; "" otherwise
};

std::string JsonString(const std::string& s);
std::string ReportJson(const JobReport& r);

// The exit status a job's report stands for.
int ExitFor(const JobReport& r);

// Paths
std::string ProgramFolder();
std::string WithSlash(std::string dir);

}  // namespace zubhost

#include "tools/zubimport/Host.h"

#include "platform/ByteOrder.h"
#include "platform/FileIo.h"

#define SI_NO_CONVERSION
#define SI_IMPLEMENTATION
#include <SimpleIni.h>
#include <fcntl.h>
#include <poll.h>
#include <sys/stat.h>
#include <signal.h>
#include <unistd.h>

#include <cerrno>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <sstream>

namespace fs = std::filesystem;

namespace zubhost {

int Fail(int code, const std::string& reason)
{
    std::string line = reason;
    for (char& c : line)
        if (c == '\n' || c == '\r') c = ' ';
    std::fprintf(stderr, "zubimport: %s\n", line.c_str());
    return code;
}

std::string WithSlash(std::string dir)
{
    if (!dir.empty() && dir.back() != '/' && dir.back() != '\\') dir += '/';
    return dir;
}

std::string ProgramFolder()
{
    std::error_code ec;
    const fs::path self = fs::read_symlink("/proc/self/exe", ec);
    return ec ? std::string(".") : self.parent_path().string();
}

// ---- settings file -------------------------------------------------------------------------

namespace {

using S = zub::ImportSettings;
struct IntKey {
    const char* name;
    std::int32_t S::*member;
};
struct StrKey {
    const char* name;
    std::string S::*member;
};
constexpr IntKey kIntKeys[] = {
    {"defaultVideo", &S::defaultVideo},
    {"defaultAudio", &S::defaultAudio},
    {"makeDva", &S::makeDva},
    {"videoUncompressed", &S::videoUncompressed},
    {"videoDataRate", &S::videoDataRate},
    {"fixedFieldSize", &S::fixedFieldSize},
    {"createAlpha", &S::createAlpha},
    {"alphaSameAsVideo", &S::alphaSameAsVideo},
    {"alphaUncompressed", &S::alphaUncompressed},
    {"alphaDataRate", &S::alphaDataRate},
    {"audioRateIndex", &S::audioRateIndex},
    {"audioChannels", &S::audioChannels},
    {"audioSampleSize", &S::audioSampleSize},
    {"showImagesOnOutput", &S::showImagesOnOutput},
    {"videoAdaptive", &S::videoAdaptive},
    {"alphaAdaptive", &S::alphaAdaptive},
    {"fitWord", &S::fitWord},
    {"swapFields", &S::swapFields},
    {"shiftDown", &S::shiftDown},
    {"fillGaps", &S::fillGaps},
    {"batchFilterIndex", &S::batchFilterIndex},
};
constexpr StrKey kStrKeys[] = {
    {"videoDir", &S::videoDir},     {"audioDir", &S::audioDir},       {"batchFolder", &S::batchFolder},
    {"batchProps", &S::batchProps}, {"imageFolder", &S::imageFolder},
};
constexpr const char* kSection = "settings";

bool ParseInt(const char* text, std::int32_t& out)
{
    if (!text || !*text) return false;
    char* end = nullptr;
    errno = 0;
    const long long v = std::strtoll(text, &end, 10);
    if (errno != 0 || *end != '\0' || v < INT32_MIN || v > INT32_MAX) return false;
    out = static_cast<std::int32_t>(v);
    return true;
}

// Why the file cannot be taken as settings, or "" when it can.
std::string ReadSettings(const std::string& path, zub::ImportSettings& s)
{
    std::ifstream in(path, std::ios::binary);
    std::stringstream buf;
    buf << in.rdbuf();
    const std::string text = buf.str();
    if (text.find('\0') != std::string::npos) return "it holds binary data";
    CSimpleIniA ini;
    if (ini.LoadData(text) < 0) return "it does not parse as an INI file";
    if (ini.GetSectionSize(kSection) < 0) return "it has no [settings] section";
    for (const auto& k : kIntKeys) {
        const char* v = ini.GetValue(kSection, k.name, nullptr);
        if (!v) continue;
        if (!ParseInt(v, s.*k.member)) return std::string("the value of ") + k.name + " is not a whole number";
    }
    for (const auto& k : kStrKeys) {
        const char* v = ini.GetValue(kSection, k.name, nullptr);
        if (v) s.*k.member = v;
    }
    return {};
}

}  // namespace

std::string SettingsFilePath()
{
    const char* xdg = std::getenv("XDG_CONFIG_HOME");
    std::string base;
    if (xdg && *xdg) {
        base = xdg;
    } else {
        const char* home = std::getenv("HOME");
        base = std::string(home && *home ? home : ".") + "/.config";
    }
    return base + "/zubimport/settings.ini";
}

void LoadSettingsFile(zub::ImportSettings& s)
{
    s = zub::ImportSettings{};
    const std::string path = SettingsFilePath();
    std::error_code ec;
    if (!fs::exists(path, ec)) return;
    zub::ImportSettings read;
    const std::string why = ReadSettings(path, read);
    if (why.empty()) {
        s = read;
        return;
    }
    std::string error;
    const bool replaced = SaveSettingsFile(s, &error);
    Fail(0, "settings file " + path + " is corrupt (" + why + "); " +
                (replaced ? "replaced by the defaults" : "using the defaults; it could not be replaced: " + error));
}

bool SaveSettingsFile(const zub::ImportSettings& s, std::string* error)
{
    const std::string path = SettingsFilePath();
    std::error_code ec;
    fs::create_directories(fs::path(path).parent_path(), ec);
    if (ec) {
        if (error) *error = fs::path(path).parent_path().string() + ": " + ec.message();
        return false;
    }
    std::ostringstream out;
    out << "; zubimport settings: the import module's settings between runs\n[" << kSection << "]\n";
    for (const auto& k : kIntKeys) out << k.name << " = " << s.*k.member << "\n";
    for (const auto& k : kStrKeys) out << k.name << " = " << s.*k.member << "\n";
    const std::string text = out.str();

    std::string tmp = path + ".XXXXXX";
    const int fd = mkstemp(tmp.data());
    if (fd < 0) {
        if (error) *error = tmp + ": " + std::strerror(errno);
        return false;
    }
    bool ok = zub::WriteAllAt(fd, text.data(), text.size(), 0);
    const int writeErrno = errno;
    if (ok && ::fsync(fd) != 0) ok = false;
    ::fchmod(fd, 0644);
    ::close(fd);
    if (!ok || ::rename(tmp.c_str(), path.c_str()) != 0) {
        if (error) *error = path + ": " + std::strerror(ok ? errno : writeErrno);
        ::unlink(tmp.c_str());
        return false;
    }
    return true;
}

// ---- options -------------------------------------------------------------------------------

const std::vector<std::string>& FitModeNames()
{
    static const std::vector<std::string> names = {
        "center",  "upper-left",  "upper-right", "lower-left",     "lower-right",   "stretch-all",
        "height",  "width",       "all",         "stretch-height", "stretch-width",
    };
    return names;
}

std::int32_t MegabytesToRate(double mbps)
{
    return static_cast<std::int32_t>(std::llround(mbps * 1024.0 * 1024.0));
}

std::string RateText(std::int32_t bytesPerSecond)
{
    if (bytesPerSecond < 0) return "uncompressed";
    char buf[64];
    std::snprintf(buf, sizeof buf, "%.2f MB/s", bytesPerSecond / (1024.0 * 1024.0));
    return buf;
}

void SettingsOptions::Add(CLI::App* app, unsigned sets)
{
    if (sets & kDirs) oVideoDir = app->add_option("--video-dir", videoDir, "Folder the clip (.zub) is made in");
    if (sets & kAudioDir) oAudioDir = app->add_option("--audio-dir", audioDir, "Folder the .wav / .dva is made in");
    if (sets & kChoices) {
        oNoVideo = app->add_flag("--no-video")->description("Do not convert the video");
        oNoAudio = app->add_flag("--no-audio")->description("Do not convert the audio");
        oDva = app->add_flag("--dva")->description("Tie the audio to the clip in a .dva association file");
    }
    if (sets & kVideo) {
        oRate = app->add_option("--rate", rate, "Video data rate in megabytes (MiB) per second")
                    ->check(CLI::Range(0.01, 1000.0));
        oUncompressed = app->add_flag("--uncompressed")->description("Uncompressed video frames");
        oRate->excludes(oUncompressed);
        oFixed = app->add_flag("--fixed-field-size")->description("Every field takes exactly its budget (24 fps film rate)");
    }
    if (sets & kAlpha) {
        oAlpha = app->add_flag("--alpha")->description("Make a key (alpha) track");
        oAlphaSame = app->add_flag("--alpha-same")->description("Key at the video's rate");
        oAlphaRate = app->add_option("--alpha-rate", alphaRate, "Key data rate in MiB per second")
                         ->check(CLI::Range(0.01, 1000.0));
        oAlphaUncompressed = app->add_flag("--alpha-uncompressed")->description("Uncompressed key frames");
        oAlphaSame->excludes(oAlphaRate)->excludes(oAlphaUncompressed);
        oAlphaRate->excludes(oAlphaUncompressed);
    }
    if (sets & kAudio) {
        oAudioRate = app->add_option("--audio-rate", audioRate, "Audio sample rate in kHz: 48, 44, 32, 22 or 11")
                         ->check(CLI::IsMember({48, 44, 32, 22, 11}));
        oMono = app->add_flag("--mono")->description("Mono audio");
        o8bit = app->add_flag("--8bit")->description("8-bit audio samples");
    }
    if (sets & kFit) {
        oFit = app->add_option("--fit", fit, "How an image fits the frame")->check(CLI::IsMember(FitModeNames()));
        oArea = app->add_option("--area", area, "Area the image fits: title, image or normal")
                    ->check(CLI::IsMember({"title", "image", "normal"}));
        oFilter = app->add_option("--filter", filter, "Resizing filter: nearest, bilinear or bicubic")
                      ->check(CLI::IsMember({"nearest", "bilinear", "bicubic"}));
        oSwap = app->add_flag("--swap")->description("Swap the two fields' scanlines");
        oShift = app->add_flag("--shift")->description("Shift the image down one scanline");
    }
    if (sets & kFrameRate) {
        oKeepFrames = app->add_flag("--keep-vfr-frames")
                          ->description("A variable-frame-rate source keeps its frames as delivered, one clip frame "
                                        "each, instead of being conformed to the clip's rate");
    }
    if (sets & kGaps) {
        oFillGaps = app->add_flag("--fill-gaps")->description("Hold the previous image over each missing number");
    }
}

std::string SettingsOptions::Validate() const
{
    const bool alphaDetail = (oAlphaSame && oAlphaSame->count()) || (oAlphaRate && oAlphaRate->count()) ||
                             (oAlphaUncompressed && oAlphaUncompressed->count());
    if (alphaDetail && !(oAlpha && oAlpha->count()))
        return "--alpha-same, --alpha-rate and --alpha-uncompressed need --alpha";
    if (oNoVideo && oNoAudio && oNoVideo->count() && oNoAudio->count())
        return "--no-video and --no-audio together leave nothing to convert";
    return {};
}

void SettingsOptions::Apply(zub::ImportSettings& s) const
{
    auto on = [](const CLI::Option* o) { return o && o->count() > 0; };
    if (on(oVideoDir)) s.videoDir = WithSlash(fs::absolute(videoDir).string());
    if (on(oAudioDir)) s.audioDir = WithSlash(fs::absolute(audioDir).string());
    if (on(oNoVideo)) s.defaultVideo = 0;
    if (on(oNoAudio)) s.defaultAudio = 0;
    if (on(oDva)) s.makeDva = 1;
    if (on(oRate)) {
        s.videoUncompressed = 0;
        s.videoDataRate = MegabytesToRate(rate);
    }
    if (on(oUncompressed)) s.videoUncompressed = 1;
    if (on(oFixed)) s.fixedFieldSize = 1;
    if (on(oKeepFrames)) s.keepVariableRateFrames = 1;
    if (on(oAlpha)) s.createAlpha = 1;
    if (on(oAlphaSame)) s.alphaSameAsVideo = 1;
    if (on(oAlphaRate)) {
        s.alphaSameAsVideo = 0;
        s.alphaUncompressed = 0;
        s.alphaDataRate = MegabytesToRate(alphaRate);
    }
    if (on(oAlphaUncompressed)) {
        s.alphaSameAsVideo = 0;
        s.alphaUncompressed = 1;
    }
    if (on(oAudioRate)) {
        const int rates[] = {48, 44, 32, 22, 11};
        for (int i = 0; i < 5; ++i)
            if (rates[i] == audioRate) s.audioRateIndex = i;
    }
    if (on(oMono)) s.audioChannels = 1;
    if (on(o8bit)) s.audioSampleSize = 1;
    if (on(oFit) || on(oArea) || on(oFilter)) {
        int mode = s.fitWord & 0xFF, areaV = (s.fitWord / 256) % 16, method = s.fitWord / 4096;
        if (on(oFit))
            for (std::size_t i = 0; i < FitModeNames().size(); ++i)
                if (FitModeNames()[i] == fit) mode = static_cast<int>(i);
        if (on(oArea)) areaV = area == "title" ? 0 : area == "image" ? 1 : 2;
        if (on(oFilter)) method = filter == "nearest" ? 0 : filter == "bilinear" ? 1 : 2;
        s.fitWord = mode + areaV * 256 + method * 4096;
    }
    if (on(oSwap)) s.swapFields = 1;
    if (on(oShift)) s.shiftDown = 1;
    if (on(oFillGaps)) s.fillGaps = 1;
}

void CommonOptions::Add(CLI::App* app)
{
    app->add_flag("--json", json, "Print one JSON report object on standard output at the end");
    app->add_flag("-q,--quiet", quiet, "No progress");
    app->add_flag("--save", save, "Keep this run's settings options as the defaults of later runs");
    app->add_flag("--batch", batch, "Batch mode: no questions, next free names");
    app->add_option("--on-abort", onAbort, "Without a terminal, what Ctrl-C does: keep or discard (default keep)")
        ->check(CLI::IsMember({"keep", "discard"}));
    app->add_option("--zub", zub, "Recorder back-end: 1 ZUB (default), 0 Tbx")->check(CLI::IsMember({0, 1}));
}

// ---- terminal --------------------------------------------------------------------------------

bool StderrIsTerminal() { return ::isatty(STDERR_FILENO) == 1; }
bool InputIsTerminal() { return ::isatty(STDIN_FILENO) == 1; }

Progress::Progress(std::string what, bool quiet)
    : what_(std::move(what)), quiet_(quiet), tty_(StderrIsTerminal()), start_(std::chrono::steady_clock::now())
{
}

Progress::~Progress() { Finish(); }

void Progress::Update(long done, long total, const char* unit)
{
    if (quiet_) return;
    std::lock_guard lock(mutex_);
    const auto now = std::chrono::steady_clock::now();
    const double elapsed = std::chrono::duration<double>(now - start_).count();
    const bool isPercent = std::strcmp(unit, "%") == 0;
    if (!tty_ && drawn_ && now - lastPrint_ < std::chrono::seconds(1) && done != total) return;
    if (done == lastDone_ && !tty_) return;
    lastDone_ = done;
    lastPrint_ = now;
    const double rate = elapsed > 0.05 ? done / elapsed : 0.0;
    char rateText[64] = "";
    char left[64] = "";
    if (!isPercent && rate > 0) std::snprintf(rateText, sizeof rateText, ", %.1f %s/s", rate, unit);
    if (total > 0 && done > 0 && done < total && elapsed > 0.2) {
        const long secs = std::lround(elapsed * (total - done) / done);
        std::snprintf(left, sizeof left, ", %ld:%02ld left", secs / 60, secs % 60);
    }
    char count[96];
    if (isPercent)
        std::snprintf(count, sizeof count, "%ld%%", done);
    else if (total > 0)
        std::snprintf(count, sizeof count, "%ld/%ld %s", done, total, unit);
    else
        std::snprintf(count, sizeof count, "%ld %s", done, unit);
    if (tty_) {
        const int width = 24;
        const int filled = total > 0 ? static_cast<int>(std::min<long>(width, done * width / total)) : 0;
        std::string bar(static_cast<std::size_t>(filled), '#');
        bar.append(static_cast<std::size_t>(width - filled), '-');
        std::fprintf(stderr, "\r\033[K%s [%s] %s%s%s", what_.c_str(), bar.c_str(), count, rateText, left);
    } else {
        std::fprintf(stderr, "%s: %s%s%s\n", what_.c_str(), count, rateText, left);
    }
    std::fflush(stderr);
    drawn_ = true;
}

void Progress::Finish()
{
    std::lock_guard lock(mutex_);
    if (tty_ && drawn_ && !quiet_) std::fputc('\n', stderr);
    drawn_ = false;
}

bool IsAbortQuestion(const std::string& text) { return text.rfind("Abort and discard", 0) == 0; }

HostPrompt::HostPrompt(bool interactive, bool discardOnAbort, bool yesToOverwrite)
    : interactive_(interactive), discardOnAbort_(discardOnAbort), yes_(yesToOverwrite)
{
    int fds[2];
    if (::pipe2(fds, O_CLOEXEC | O_NONBLOCK) == 0) {
        wakeRead_ = fds[0];
        wakeWrite_ = fds[1];
    }
}

std::vector<std::string> HostPrompt::Texts() const
{
    std::lock_guard lock(textsMutex_);
    return texts_;
}

void HostPrompt::InterruptWaitingQuestion()
{
    if (wakeWrite_ >= 0) {
        const char c = 1;
        [[maybe_unused]] const ssize_t n = ::write(wakeWrite_, &c, 1);
    }
}

void HostPrompt::Close()
{
    closed_ = true;
    InterruptWaitingQuestion();
}

namespace {

struct Choice {
    const char* label;
    zub::Answer answer;
};

std::vector<Choice> ChoicesFor(zub::Buttons b)
{
    using zub::Answer;
    switch (b) {
    case zub::Buttons::Ok: return {{"OK", Answer::Ok}};
    case zub::Buttons::OkCancel: return {{"OK", Answer::Ok}, {"Cancel", Answer::Cancel}};
    case zub::Buttons::YesNo: return {{"Yes", Answer::Yes}, {"No", Answer::No}};
    case zub::Buttons::YesNoCancel: return {{"Yes", Answer::Yes}, {"No", Answer::No}, {"Cancel", Answer::Cancel}};
    case zub::Buttons::RetryCancel: return {{"Retry", Answer::Retry}, {"Cancel", Answer::Cancel}};
    }
    return {{"OK", Answer::Ok}};
}

std::string Printable(const std::string& text)
{
    std::string out;
    for (char c : text)
        if (c != '\r') out += c;
    return out;
}

std::string Lower(std::string s)
{
    for (char& c : s) c = static_cast<char>(std::tolower(static_cast<unsigned char>(c)));
    return s;
}

}  // namespace

zub::Answer HostPrompt::Ask(const zub::PromptRequest& request)
{
    if (closed_) return zub::DefaultAnswer(request);
    std::lock_guard ask(askMutex_);
    {
        std::lock_guard lock(textsMutex_);
        texts_.push_back(request.text);
    }
    const auto choices = ChoicesFor(request.buttons);
    const zub::Answer def = zub::DefaultAnswer(request);
    const bool abortQuestion = IsAbortQuestion(request.text);
    const bool overwriteQuestion = request.text.find("exists already. Do you want to overwrite it?") != std::string::npos;
    if (abortQuestion && forceDiscard_) {
        std::fprintf(stderr, "%s\n  -> Yes (interrupted again: abort and discard)\n", Printable(request.text).c_str());
        return zub::Answer::Yes;
    }
    if (yes_ && overwriteQuestion) {
        std::fprintf(stderr, "%s\n  -> Yes (--yes)\n", Printable(request.text).c_str());
        return zub::Answer::Yes;
    }
    if (!interactive_) {
        zub::Answer a = def;
        if (abortQuestion) a = discardOnAbort_ ? zub::Answer::Yes : zub::Answer::No;
        const char* label = "OK";
        for (const auto& c : choices)
            if (c.answer == a) label = c.label;
        std::fprintf(stderr, "%s\n  -> %s\n", Printable(request.text).c_str(), label);
        return a;
    }

    // Drain wake-ups meant for an earlier question.
    char sink[64];
    while (wakeRead_ >= 0 && ::read(wakeRead_, sink, sizeof sink) > 0) {
    }
    for (;;) {
        std::string line = "\n";
        if (!request.caption.empty()) line += request.caption + ": ";
        line += Printable(request.text) + "\n";
        for (std::size_t i = 0; i < choices.size(); ++i)
            line += "  [" + std::to_string(i + 1) + "] " + choices[i].label;
        std::string defLabel;
        for (const auto& c : choices)
            if (c.answer == def) defLabel = c.label;
        line += "   (Enter: " + defLabel + ")\n> ";
        std::fputs(line.c_str(), stderr);
        std::fflush(stderr);

        std::string reply;
        bool eof = false;
        for (;;) {
            pollfd fds[2] = {{STDIN_FILENO, POLLIN, 0}, {wakeRead_, POLLIN, 0}};
            const int n = ::poll(fds, wakeRead_ >= 0 ? 2 : 1, -1);
            if (n < 0 && errno == EINTR) continue;
            if (n < 0) {
                eof = true;
                break;
            }
            if (wakeRead_ >= 0 && (fds[1].revents & POLLIN)) {
                while (::read(wakeRead_, sink, sizeof sink) > 0) {
                }
                if (closed_) {
                    std::fputc('\n', stderr);
                    return def;
                }
                if (abortQuestion) {
                    std::fputs("Yes (interrupted again: abort and discard)\n", stderr);
                    return zub::Answer::Yes;
                }
            }
            if (fds[0].revents & (POLLIN | POLLHUP | POLLERR)) {
                char c;
                const ssize_t r = ::read(STDIN_FILENO, &c, 1);
                if (r < 0 && errno == EINTR) continue;
                if (r <= 0) {
                    eof = true;
                    break;
                }
                if (c == '\n') break;
                if (c != '\r') reply += c;
            }
        }
        while (!reply.empty() && std::isspace(static_cast<unsigned char>(reply.back()))) reply.pop_back();
        while (!reply.empty() && std::isspace(static_cast<unsigned char>(reply.front()))) reply.erase(0, 1);
        if (eof || reply.empty()) {
            if (eof) std::fputc('\n', stderr);
            return def;
        }
        const std::string r = Lower(reply);
        for (std::size_t i = 0; i < choices.size(); ++i) {
            const std::string label = Lower(choices[i].label);
            if (r == std::to_string(i + 1) || r == label || (r.size() == 1 && r[0] == label[0]))
                return choices[i].answer;
        }
        std::fprintf(stderr, "Please answer with one of the numbers or names shown.\n");
    }
}

// ---- interrupts ------------------------------------------------------------------------------

namespace {
int g_interruptPipe = -1;
void OnInterrupt(int)
{
    const int saved = errno;
    if (g_interruptPipe >= 0) {
        const char c = 1;
        [[maybe_unused]] const ssize_t n = ::write(g_interruptPipe, &c, 1);
    }
    errno = saved;
}
}  // namespace

InterruptWatch::InterruptWatch(std::function<void()> first, std::function<void()> again)
    : first_(std::move(first)), again_(std::move(again))
{
    if (::pipe2(pipe_, O_CLOEXEC) != 0) return;
    g_interruptPipe = pipe_[1];
    struct sigaction sa {};
    sa.sa_handler = OnInterrupt;
    sigemptyset(&sa.sa_mask);
    sa.sa_flags = SA_RESTART;
    sigaction(SIGINT, &sa, nullptr);
    sigaction(SIGTERM, &sa, nullptr);
    thread_ = std::make_unique<std::thread>([this] {
        for (;;) {
            char c;
            const ssize_t n = ::read(pipe_[0], &c, 1);
            if (n < 0 && errno == EINTR) continue;
            if (n <= 0 || c == 0) return;
            if (count_.fetch_add(1) == 0) {
                if (first_) first_();
            } else if (again_) {
                again_();
            }
        }
    });
}

InterruptWatch::~InterruptWatch()
{
    if (!thread_) return;
    struct sigaction sa {};
    sa.sa_handler = SIG_DFL;
    sigemptyset(&sa.sa_mask);
    sigaction(SIGINT, &sa, nullptr);
    sigaction(SIGTERM, &sa, nullptr);
    g_interruptPipe = -1;
    const char stop = 0;
    [[maybe_unused]] const ssize_t n = ::write(pipe_[1], &stop, 1);
    thread_->join();
    ::close(pipe_[0]);
    ::close(pipe_[1]);
}

// ---- report ------------------------------------------------------------------------------------

namespace {

using zub::ReadLe16;
using zub::ReadLe32;

// Walks chunks in [begin, end) of the file; containers (RIFF, LIST) are entered.
bool FindFormat(std::ifstream& in, std::uint64_t begin, std::uint64_t end, AudioFacts& f, int depth)
{
    std::uint64_t at = begin;
    while (at + 8 <= end && depth < 8) {
        unsigned char head[12];
        in.clear();
        in.seekg(static_cast<std::streamoff>(at));
        if (!in.read(reinterpret_cast<char*>(head), 8)) return false;
        const std::string id(reinterpret_cast<char*>(head), 4);
        const std::uint64_t size = ReadLe32(head + 4);
        const std::uint64_t body = at + 8;
        if (id == "RIFF" || id == "LIST") {
            if (FindFormat(in, body + 4, std::min(end, body + size), f, depth + 1)) return true;
        } else if (id == "fmt ") {
            unsigned char fmt[16];
            if (size < 16 || !in.read(reinterpret_cast<char*>(fmt), 16)) return false;
            f.channels = ReadLe16(fmt + 2);
            f.rate = static_cast<long>(ReadLe32(fmt + 4));
            f.bits = ReadLe16(fmt + 14);
            f.ok = true;
        } else if (id == "data") {
            f.dataBytes = size;
            if (f.ok) return true;
        }
        at = body + size + (size & 1);
    }
    return f.ok;
}

}  // namespace

AudioFacts ReadAudioFacts(const std::string& path)
{
    AudioFacts f;
    std::ifstream in(path, std::ios::binary);
    if (!in) return f;
    std::error_code ec;
    const auto size = fs::file_size(path, ec);
    if (ec) return f;
    FindFormat(in, 0, size, f, 0);
    return f;
}

std::string JsonString(const std::string& s)
{
    std::string out = "\"";
    for (unsigned char c : s) {
        switch (c) {
        case '"': out += "\\\""; break;
        case '\\': out += "\\\\"; break;
        case '\n': out += "\\n"; break;
        case '\r': out += "\\r"; break;
        case '\t': out += "\\t"; break;
        default:
            if (c < 0x20) {
                char buf[8];
                std::snprintf(buf, sizeof buf, "\\u%04x", c);
                out += buf;
            } else {
                out += static_cast<char>(c);
            }
        }
    }
    return out + "\"";
}

std::string ReportJson(const JobReport& r)
{
    std::ostringstream o;
    char num[64];
    o << "{\"source\":" << JsonString(r.source) << ",\"result\":" << JsonString(r.result)
      << ",\"end_code\":" << r.endCode << ",\"video\":";
    if (r.videoPath.empty()) {
        o << "null";
    } else {
        o << "{\"path\":" << JsonString(r.videoPath) << ",\"frames\":" << r.frames << ",\"rate\":" << r.videoRate
          << ",\"alpha\":" << (r.alpha ? "true" : "false") << "}";
    }
    o << ",\"audio\":";
    if (r.audioPath.empty()) {
        o << "null";
    } else {
        const AudioFacts a = ReadAudioFacts(r.audioPath);
        o << "{\"path\":" << JsonString(r.audioPath) << ",\"rate\":" << a.rate << ",\"channels\":" << a.channels
          << ",\"bits\":" << a.bits << ",\"dva\":" << (r.dva ? "true" : "false") << "}";
    }
    o << ",\"frame_rate_note\":" << (r.frameRateNote.empty() ? std::string("null") : JsonString(r.frameRateNote));
    std::snprintf(num, sizeof num, "%.3f", r.seconds);
    o << ",\"seconds\":" << num;
    std::snprintf(num, sizeof num, "%.2f", r.seconds > 0 ? r.frames / r.seconds : 0.0);
    o << ",\"fps\":" << num << ",\"messages\":[";
    for (std::size_t i = 0; i < r.messages.size(); ++i) o << (i ? "," : "") << JsonString(r.messages[i]);
    o << "]}";
    return o.str();
}

int ExitFor(const JobReport& r)
{
    if (r.result == "failed") return kExitFailed;
    return r.endCode == 1 && r.result == "done" ? kExitDone : kExitNothing;
}

}  // namespace zubhost

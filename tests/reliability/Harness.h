// The reliability tests' pieces: every job runs in a forked child under a time limit, so a
// crash or a hang is a failed test and not a dead suite; the parent only makes media, looks
// at the files the job left and reads them back with tools that share none of its code.
//
// The parent never starts the media frameworks itself (no GStreamer, no recorder, no worker
// threads of the engines): forking stays safe because only the children ever hold such
// threads.
#pragma once

#include <gtest/gtest.h>

#include <poll.h>
#include <signal.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <functional>
#include <map>
#include <regex>
#include <set>
#include <sstream>
#include <string>
#include <vector>

#include "TempDir.h"
#include "TestMedia.h"
#include "Tool.h"
#include "device/RecorderBackends.h"

namespace zub::rel {

namespace fs = std::filesystem;
using zub::test::Capture;
using zub::test::CaptureLine;
using zub::test::TempDir;

// What a job reports back from its child.
struct Outcome {
    // Filled by the parent.
    bool timedOut = false;
    int signal = 0;          // the signal that ended the child, 0 when it exited
    bool reported = false;   // the child sent its report
    // Filled by the job.
    int endCode = -1;
    std::vector<std::string> prompts;  // every question or message, in order
    std::string message;               // a job's own last message (image sequence, batch row)
    std::vector<std::string> paths;    // what the job says it made
    int frames = -1;                   // frames the job says it wrote
    std::string note;                  // anything else worth printing

    std::string Describe() const
    {
        std::ostringstream s;
        s << "endCode " << endCode << (timedOut ? " TIMED OUT" : "") << (signal ? " signal " + std::to_string(signal) : "")
          << (reported ? "" : " (no report)") << ", frames " << frames << ", message \"" << message << "\"";
        for (const auto& p : prompts) s << "\n  prompt: \"" << p << "\"";
        for (const auto& p : paths) s << "\n  made: " << p;
        if (!note.empty()) s << "\n  note: " << note;
        return s.str();
    }
};

inline void PutField(std::string& out, const std::string& v)
{
    out += std::to_string(v.size()) + ":" + v;
}

inline bool GetField(const std::string& in, std::size_t& at, std::string* v)
{
    const auto colon = in.find(':', at);
    if (colon == std::string::npos) return false;
    const std::size_t n = std::strtoul(in.c_str() + at, nullptr, 10);
    if (colon + 1 + n > in.size()) return false;
    *v = in.substr(colon + 1, n);
    at = colon + 1 + n;
    return true;
}

inline std::string Serialise(const Outcome& o)
{
    std::string s;
    PutField(s, std::to_string(o.endCode));
    PutField(s, std::to_string(o.frames));
    PutField(s, o.message);
    PutField(s, o.note);
    PutField(s, std::to_string(o.prompts.size()));
    for (const auto& p : o.prompts) PutField(s, p);
    PutField(s, std::to_string(o.paths.size()));
    for (const auto& p : o.paths) PutField(s, p);
    return s;
}

inline bool Deserialise(const std::string& s, Outcome* o)
{
    std::size_t at = 0;
    std::string v;
    if (!GetField(s, at, &v)) return false;
    o->endCode = std::atoi(v.c_str());
    if (!GetField(s, at, &v)) return false;
    o->frames = std::atoi(v.c_str());
    if (!GetField(s, at, &o->message) || !GetField(s, at, &o->note)) return false;
    if (!GetField(s, at, &v)) return false;
    for (int n = std::atoi(v.c_str()); n > 0; --n) {
        o->prompts.emplace_back();
        if (!GetField(s, at, &o->prompts.back())) return false;
    }
    if (!GetField(s, at, &v)) return false;
    for (int n = std::atoi(v.c_str()); n > 0; --n) {
        o->paths.emplace_back();
        if (!GetField(s, at, &o->paths.back())) return false;
    }
    return true;
}

// Runs `job` in a child process; kills it after `seconds`. The job must not use gtest's
// assertions (they would be lost with the child): it reports through its Outcome.
inline Outcome RunGuarded(int seconds, const std::function<Outcome()>& job)
{
    Outcome result;
    int fds[2];
    if (::pipe(fds) != 0) {
        ADD_FAILURE() << "pipe: " << std::strerror(errno);
        return result;
    }
    std::fflush(nullptr);
    const pid_t pid = ::fork();
    if (pid < 0) {
        ADD_FAILURE() << "fork: " << std::strerror(errno);
        return result;
    }
    if (pid == 0) {
        ::close(fds[0]);
        const std::string bytes = Serialise(job());
        std::size_t done = 0;
        while (done < bytes.size()) {
            const ssize_t n = ::write(fds[1], bytes.data() + done, bytes.size() - done);
            if (n <= 0) break;
            done += std::size_t(n);
        }
        ::close(fds[1]);
        std::fflush(nullptr);
        ::_exit(0);
    }
    ::close(fds[1]);
    std::string bytes;
    const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(seconds);
    for (;;) {
        const auto left = std::chrono::duration_cast<std::chrono::milliseconds>(deadline - std::chrono::steady_clock::now());
        if (left.count() <= 0) {
            result.timedOut = true;
            break;
        }
        pollfd p{fds[0], POLLIN, 0};
        const int r = ::poll(&p, 1, int(left.count()));
        if (r < 0 && errno == EINTR) continue;
        if (r <= 0) continue;
        char buf[4096];
        const ssize_t n = ::read(fds[0], buf, sizeof buf);
        if (n <= 0) break;
        bytes.append(buf, std::size_t(n));
    }
    ::close(fds[0]);
    if (result.timedOut) ::kill(pid, SIGKILL);
    int status = 0;
    // The report is in; give the child a moment to exit before calling it hung.
    for (int i = 0; i < 200; ++i) {
        const pid_t w = ::waitpid(pid, &status, result.timedOut ? 0 : WNOHANG);
        if (w == pid) break;
        if (i == 199) {
            ::kill(pid, SIGKILL);
            ::waitpid(pid, &status, 0);
            result.timedOut = true;
        }
        ::usleep(50000);
    }
    if (WIFSIGNALED(status) && !result.timedOut) result.signal = WTERMSIG(status);
    result.reported = Deserialise(bytes, &result);
    return result;
}

inline std::string Sh(const std::string& s)
{
    std::string q = "'";
    for (char c : s) q += c == '\'' ? std::string("'\\''") : std::string(1, c);
    return q + "'";
}

inline std::string Slurp(const std::string& path)
{
    std::ifstream in(path, std::ios::binary);
    std::ostringstream s;
    s << in.rdbuf();
    return s.str();
}

inline void WriteBytes(const std::string& path, const std::string& bytes)
{
    std::ofstream(path, std::ios::binary | std::ios::trunc) << bytes;
}

// Every regular file under a folder (relative names).
inline std::set<std::string> Listing(const fs::path& folder)
{
    std::set<std::string> out;
    std::error_code ec;
    if (!fs::exists(folder, ec)) return out;
    for (auto it = fs::recursive_directory_iterator(folder, ec); it != fs::recursive_directory_iterator(); it.increment(ec)) {
        if (ec) break;
        if (it->is_regular_file(ec)) out.insert(fs::relative(it->path(), folder).string());
    }
    return out;
}

// zubclip's view of a clip.
struct ClipRead {
    int status = -1;
    int header = -1;     // frames written, as the header says
    int readable = -1;   // whole frames readable from the start
    int sectors = -1;    // the ZUBV record's value, -1 without one
    std::string text;
};

// The built parts the jobs load or run, copied once per test process out of the shared build
// folder. Other builds re-link them in place there, and a job that loads one while it is being
// written gets a file cut short ("file too short"): a run once failed so. A copy is taken
// when the file has not changed for a second, and checked against it afterwards.
struct BuiltParts {
    std::string recorderDir;  // ends with '/'
    std::string imaging;
    std::string zubclip;
};

inline std::string SettledCopy(const std::string& from, const std::string& to)
{
    for (int attempt = 0; attempt < 600; ++attempt) {
        std::error_code ec, ec2;
        const auto size = fs::file_size(from, ec);
        const auto stamp = fs::last_write_time(from, ec2);
        const bool settled = !ec && !ec2 && size > 0 && fs::file_time_type::clock::now() - stamp > std::chrono::seconds(1);
        if (settled && fs::copy_file(from, to, fs::copy_options::overwrite_existing, ec) && !ec &&
            fs::file_size(from, ec) == size && fs::last_write_time(from, ec2) == stamp && fs::file_size(to, ec) == size)
            return to;
        ::usleep(200000);
    }
    ADD_FAILURE() << from << " kept changing; the jobs use it where it is";
    return from;
}

inline const BuiltParts& Built()
{
    static TempDir* dir = nullptr;
    static BuiltParts parts;
    if (!dir) {
        dir = new TempDir;  // removed when the process ends, see below
        static struct Remove {
            ~Remove() { delete dir; }
        } remove;
        const std::string d = dir->Path().string() + "/";
        for (const char* lib : {"libZUBDDR.so", "libTbxDll.so"})
            SettledCopy(std::string(ZUB_TEST_RECORDER_DIR) + lib, d + lib);
        parts.recorderDir = d;
        parts.imaging = SettledCopy(ZUB_TEST_IMAGING, d + fs::path(ZUB_TEST_IMAGING).filename().string());
        parts.zubclip = SettledCopy(ZUBCLIP, d + "zubclip");
    }
    return parts;
}

inline ClipRead ReadClip(const std::string& clip)
{
    ClipRead r;
    r.text = Capture(Built().zubclip + " info " + Sh(clip) + " 2>&1", &r.status);
    std::smatch m;
    if (std::regex_search(r.text, m, std::regex("frames written \\(header\\): (\\d+)"))) r.header = std::stoi(m[1]);
    if (std::regex_search(r.text, m, std::regex("frames readable: video (\\d+)"))) r.readable = std::stoi(m[1]);
    if (std::regex_search(r.text, m, std::regex("sectors per frame (\\d+)"))) r.sectors = std::stoi(m[1]);
    return r;
}

// The coded numbers of a clip's frames, decoded by ffmpeg from zubclip's PNG export.
inline std::vector<int> ClipNumbers(const std::string& clip, const std::string& dir)
{
    fs::create_directories(dir);
    int status = -1;
    const std::string list = Capture(Built().zubclip + " export " + Sh(clip) + " -o " + Sh(dir) + " 2>/dev/null", &status);
    std::vector<int> numbers;
    if (status != 0) return {-2};
    std::vector<std::string> pngs;
    for (const auto& e : fs::directory_iterator(dir))
        if (e.path().extension() == ".png") pngs.push_back(e.path().string());
    std::sort(pngs.begin(), pngs.end());
    if (pngs.empty()) return numbers;
    // One ffmpeg for all frames (they share one size): the export's names sort in frame order.
    const std::string size = CaptureLine("ffprobe -v error -show_entries stream=width,height -of csv=p=0 " + Sh(pngs[0]));
    int w = 0, h = 0;
    if (std::sscanf(size.c_str(), "%d,%d", &w, &h) != 2) return {-3};
    const std::string raw = Capture("ffmpeg -v error -pattern_type glob -i " + Sh(dir + "/*.png") +
                                    " -f rawvideo -pix_fmt bgr24 -");
    const std::size_t frame = std::size_t(w) * h * 3;
    if (raw.size() != frame * pngs.size()) return {-4};
    for (std::size_t i = 0; i < pngs.size(); ++i) {
        testmedia::ImageView view{reinterpret_cast<const std::uint8_t*>(raw.data() + i * frame), w, h, w * 3,
                                  testmedia::PixelFormat::Bgr24};
        numbers.push_back(testmedia::ReadFrameNumber(view));
    }
    fs::remove_all(dir);
    return numbers;
}

inline std::vector<int> Sequence(int n)
{
    std::vector<int> v;
    for (int i = 0; i < n; ++i) v.push_back(i);
    return v;
}

// Whether a kept file reads back with the tool for its kind; the reason when not.
// A WAVE file's chunks must fit the file: a RIFF size, a format chunk and a data chunk whose
// size is what the file holds (sox alone reads a header that promises more without a word).
inline std::string CheckWaveSizes(const std::string& path)
{
    const std::string f = Slurp(path);
    auto le32 = [&](std::size_t i) {
        return std::uint32_t(std::uint8_t(f[i])) | (std::uint32_t(std::uint8_t(f[i + 1])) << 8) |
               (std::uint32_t(std::uint8_t(f[i + 2])) << 16) | (std::uint32_t(std::uint8_t(f[i + 3])) << 24);
    };
    if (f.size() < 12 || f.compare(0, 4, "RIFF") != 0 || f.compare(8, 4, "WAVE") != 0) return path + ": not RIFF/WAVE";
    if (std::size_t(le32(4)) + 8 != f.size()) {
        return path + ": RIFF size " + std::to_string(le32(4)) + " but the file has " + std::to_string(f.size()) + " bytes";
    }
    bool fmt = false, data = false;
    for (std::size_t at = 12; at + 8 <= f.size();) {
        const std::uint32_t n = le32(at + 4);
        if (at + 8 + std::size_t(n) > f.size()) return path + ": chunk " + f.substr(at, 4) + " runs past the end";
        fmt |= f.compare(at, 4, "fmt ") == 0;
        data |= f.compare(at, 4, "data") == 0;
        at += 8 + n + (n & 1);
    }
    if (!fmt || !data) return path + ": no format or no data chunk";
    return "";
}

// wholeFramesOnly: a clip whose header counts frames past a hole (a frame the recorder
// refused) is reported; only where the job does not keep such holes.
inline std::string CheckReadable(const std::string& path, bool wholeFramesOnly = true)
{
    const std::string ext = fs::path(path).extension().string();
    int status = -1;
    if (ext == ".zub") {
        const ClipRead r = ReadClip(path);
        if (r.status != 0 || r.readable < 0) return "zubclip cannot read " + path + ": " + r.text;
        if (wholeFramesOnly && r.header >= 0 && r.readable != r.header) {
            // Frames past a hole are not whole: a kept clip must end on its last whole frame.
            return path + ": header says " + std::to_string(r.header) + " frames, " + std::to_string(r.readable) +
                   " readable\n" + r.text;
        }
        return "";
    }
    if (ext == ".wav" || ext == ".dva") {
        const std::string out = Capture("sox --i " + Sh(path) + " 2>&1", &status);
        if (status != 0) return "sox cannot read " + path + ": " + out;
        return CheckWaveSizes(path);
    }
    const std::string out = Capture("ffprobe -v error " + Sh(path) + " 2>&1", &status);
    if (status != 0) return "ffprobe cannot read " + path + ": " + out;
    return "";
}

// A recorder volume in a temporary folder, with the importing folders and a scratch folder
// the jobs' temporary files go to; the environment is set in the parent, before the fork.
class Volume {
public:
    explicit Volume(const char* lines = "525")
    {
        fs::create_directories(dir_.Path() / "video");
        fs::create_directories(dir_.Path() / "audio");
        fs::create_directories(dir_.Path() / "tmp");
        fs::create_directories(dir_.Path() / "modules");
        ::setenv(kRecorderDirVariable, Built().recorderDir.c_str(), 1);
        ::setenv("ZUBIMPORT_IMAGING_LIBRARY", Built().imaging.c_str(), 1);
        ::setenv("ZUBREC_CONFIG", (dir_ / "none.ini").c_str(), 1);
        ::setenv("ZUBREC_VOLUME", (dir_.Path().string() + "/").c_str(), 1);
        ::setenv("ZUBREC_LINES", lines, 1);
        ::setenv("ZUBREC_MONITOR", "off", 1);
        ::setenv("TMPDIR", (dir_ / "tmp").c_str(), 1);
        for (const char* v : {"ZUBREC_LIMIT", "ZUBREC_FAIL_CREATE", "ZUBREC_FAIL_IMPORT", "ZUBREC_FULL_AFTER",
                              "ZUBREC_FAIL_APPINFO", "ZUBREC_WRITE_DELAY"})
            ::unsetenv(v);
    }
    ~Volume()
    {
        for (const char* v : {"ZUBREC_FAIL_CREATE", "ZUBREC_FAIL_IMPORT", "ZUBREC_FULL_AFTER", "ZUBREC_FAIL_APPINFO",
                              "ZUBREC_WRITE_DELAY", "ZUBREC_LIMIT"})
            ::unsetenv(v);
        ::setenv("TMPDIR", "/tmp", 1);
        // A test may have made a folder read-only or removed it: make sure it can be cleaned.
        std::error_code ec;
        for (auto it = fs::recursive_directory_iterator(dir_.Path(), ec); !ec && it != fs::recursive_directory_iterator();
             it.increment(ec))
            if (it->is_directory(ec)) fs::permissions(it->path(), fs::perms::owner_all, fs::perm_options::add, ec);
    }
    std::string VideoDir() const { return dir_.Path().string() + "/video/"; }
    std::string AudioDir() const { return dir_.Path().string() + "/audio/"; }
    std::string Tmp() const { return dir_.Path().string() + "/tmp"; }
    std::string ModuleDir() const { return dir_.Path().string() + "/modules"; }
    std::string Root() const { return dir_.Path().string(); }
    // Files the jobs made: everything in the importing folders and the scratch folder.
    std::set<std::string> Made() const
    {
        std::set<std::string> out;
        for (const auto& f : Listing(dir_.Path() / "video")) out.insert("video/" + f);
        for (const auto& f : Listing(dir_.Path() / "audio")) out.insert("audio/" + f);
        for (const auto& f : Listing(dir_.Path() / "tmp")) out.insert("tmp/" + f);
        return out;
    }
    void Clear() const
    {
        for (const char* d : {"video", "audio", "tmp"}) {
            std::error_code ec;
            for (const auto& e : fs::directory_iterator(dir_.Path() / d, ec)) fs::remove_all(e.path(), ec);
        }
    }

private:
    TempDir dir_;
};

// Whether this process can be kept from reading a file by its mode bits (not as root, or
// with CAP_DAC_OVERRIDE).
inline bool PermissionsBind(const std::string& scratch)
{
    const std::string probe = scratch + "/perm-probe";
    WriteBytes(probe, "x");
    ::chmod(probe.c_str(), 0);
    std::ifstream in(probe);
    const bool readable = in.good();
    std::error_code ec;
    fs::remove(probe, ec);
    return !readable;
}

// Media made with the project's generator (coded frame numbers).
inline std::string MakeMovie(const std::string& path, const char* preset, int frames, bool audio = true)
{
    testmedia::MediaSpec spec;
    if (!testmedia::Preset(preset, &spec)) {
        ADD_FAILURE() << "no preset " << preset;
        return path;
    }
    spec.frames = frames;
    if (!audio) spec.audio = testmedia::AudioCodec::None;
    std::string error;
    EXPECT_TRUE(testmedia::MakeMedia(path, spec, &error)) << error;
    return path;
}

// Numbered TGA stills whose pictures carry their frame numbers, made by ffmpeg from a
// generated raw movie.
inline std::vector<std::string> MakeStills(const std::string& dir, const std::string& name, int count,
                                           const std::string& ext = "tga")
{
    testmedia::MediaSpec spec;
    spec.width = 320;
    spec.height = 240;
    spec.frames = count;
    spec.video = testmedia::VideoCodec::Raw;
    spec.container = "avi";
    const std::string movie = dir + "/stills-source.avi";
    std::string error;
    if (!testmedia::MakeMedia(movie, spec, &error)) {
        ADD_FAILURE() << error;
        return {};
    }
    const std::string pattern = dir + "/" + name + "%04d." + ext;
    if (zub::test::Run({"ffmpeg", "-nostdin", "-loglevel", "error", "-y", "-i", movie, "-start_number", "1", pattern}) != 0) {
        ADD_FAILURE() << "ffmpeg could not write " << pattern;
        return {};
    }
    fs::remove(movie);
    std::vector<std::string> files;
    for (int i = 1; i <= count; ++i) {
        char buf[32];
        std::snprintf(buf, sizeof buf, "%04d.", i);
        files.push_back(dir + "/" + name + buf + ext);
    }
    return files;
}

}  // namespace zub::rel

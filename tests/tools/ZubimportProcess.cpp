#include "tests/tools/ZubimportProcess.h"

#include <fcntl.h>
#include <poll.h>
#include <pty.h>
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <regex>
#include <sstream>
#include <thread>

#include "TestMedia.h"

namespace fs = std::filesystem;

namespace zubtest {
namespace {

std::vector<char*> Argv(const std::vector<std::string>& args, std::vector<std::string>& store,
                        const std::vector<std::string>& launcher = {})
{
    store = launcher;
    store.push_back(ZUBIMPORT_BIN);
    store.insert(store.end(), args.begin(), args.end());
    std::vector<char*> argv;
    for (auto& s : store) argv.push_back(s.data());
    argv.push_back(nullptr);
    return argv;
}

void ApplyEnv(const std::map<std::string, std::string>& env)
{
    for (const auto& [k, v] : env) setenv(k.c_str(), v.c_str(), 1);
}

std::string ReadAll(const fs::path& p)
{
    std::ifstream in(p, std::ios::binary);
    std::stringstream s;
    s << in.rdbuf();
    return s.str();
}

int StatusOf(int status)
{
    if (WIFEXITED(status)) return WEXITSTATUS(status);
    if (WIFSIGNALED(status)) return 128 + WTERMSIG(status);
    return -1;
}

std::string Capture(const std::string& command)
{
    std::string out;
    FILE* p = popen(command.c_str(), "r");
    if (!p) return out;
    char buf[4096];
    std::size_t n;
    while ((n = fread(buf, 1, sizeof buf, p)) > 0) out.append(buf, n);
    pclose(p);
    return out;
}

}  // namespace

HostSandbox::HostSandbox()
{
    std::string pattern = (fs::temp_directory_path() / "zubimport-test-XXXXXX").string();
    root_ = mkdtemp(pattern.data());
    fs::create_directories(Config());
    fs::create_directories(Volume());
    fs::create_directories(Media());
}

HostSandbox::~HostSandbox()
{
    std::error_code ec;
    fs::remove_all(root_, ec);
}

std::map<std::string, std::string> HostSandbox::Env(const std::map<std::string, std::string>& extra) const
{
    std::map<std::string, std::string> env = {
        {"XDG_CONFIG_HOME", Config().string()},
        {"XDG_DATA_HOME", (root_ / "data").string()},
        {"ZUBREC_CONFIG", (root_ / "no-recorder.ini").string()},
        {"ZUBREC_VOLUME", Volume().string() + "/"},
        {"ZUBREC_LINES", "525"},
        {"ZUBREC_MONITOR", "off"},
        {"ZUBREC_LIMIT", ""},
        {"ZUBREC_WRITE_DELAY", ""},
        {"QT_QPA_PLATFORM", "offscreen"},
    };
    for (const auto& [k, v] : extra) env[k] = v;
    return env;
}

ProcessResult HostSandbox::Run(const std::vector<std::string>& args, const std::map<std::string, std::string>& extra) const
{
    return RunInterrupted(args, nullptr, 0, extra);
}

ProcessResult HostSandbox::RunUnder(const std::vector<std::string>& launcher, const std::vector<std::string>& args,
                                    const std::map<std::string, std::string>& extra) const
{
    return Spawn(launcher, args, nullptr, 0, extra);
}

ProcessResult HostSandbox::RunInterrupted(const std::vector<std::string>& args,
                                          const std::function<bool(const std::string&)>& ready, int interrupts,
                                          const std::map<std::string, std::string>& extra) const
{
    return Spawn({}, args, ready, interrupts, extra);
}

ProcessResult HostSandbox::Spawn(const std::vector<std::string>& launcher, const std::vector<std::string>& args,
                                 const std::function<bool(const std::string&)>& ready, int interrupts,
                                 const std::map<std::string, std::string>& extra) const
{
    static int serial = 0;
    const fs::path outFile = root_ / ("out" + std::to_string(++serial));
    const fs::path errFile = root_ / ("err" + std::to_string(serial));
    std::vector<std::string> store;
    std::vector<char*> argv = Argv(args, store, launcher);
    const auto env = Env(extra);
    const pid_t pid = fork();
    if (pid == 0) {
        ApplyEnv(env);
        const int in = open("/dev/null", O_RDONLY);
        const int out = open(outFile.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0644);
        const int err = open(errFile.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0644);
        dup2(in, 0);
        dup2(out, 1);
        dup2(err, 2);
        setsid();  // no controlling terminal
        execvp(argv[0], argv.data());
        _exit(127);
    }
    ProcessResult r;
    int status = 0;
    if (ready && interrupts > 0) {
        const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(120);
        bool sent = false;
        while (std::chrono::steady_clock::now() < deadline) {
            if (waitpid(pid, &status, WNOHANG) == pid) {
                r.exit = StatusOf(status);
                break;
            }
            if (ready(ReadAll(errFile))) {
                // Close together, so every one reaches the job while it runs: once the first
                // abort is carried out the host finishes within a fraction of a second.
                for (int i = 0; i < interrupts; ++i) {
                    kill(pid, SIGINT);
                    std::this_thread::sleep_for(std::chrono::milliseconds(30));
                }
                sent = true;
                break;
            }
            std::this_thread::sleep_for(std::chrono::milliseconds(20));
        }
        (void)sent;
    }
    if (r.exit == -1) {
        waitpid(pid, &status, 0);
        r.exit = StatusOf(status);
    }
    r.out = ReadAll(outFile);
    r.err = ReadAll(errFile);
    return r;
}

ProcessResult HostSandbox::RunOnTerminal(const std::vector<std::string>& args, const std::vector<Step>& script,
                                         const std::map<std::string, std::string>& extra) const
{
    std::vector<std::string> store;
    std::vector<char*> argv = Argv(args, store);
    const auto env = Env(extra);
    int master = -1;
    struct winsize ws {};
    ws.ws_col = 120;
    ws.ws_row = 40;
    const pid_t pid = forkpty(&master, nullptr, nullptr, &ws);
    if (pid == 0) {
        ApplyEnv(env);
        setenv("TERM", "dumb", 1);
        execv(argv[0], argv.data());
        _exit(127);
    }
    ProcessResult r;
    std::size_t step = 0, searchFrom = 0;
    const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(120);
    for (;;) {
        pollfd p{master, POLLIN, 0};
        const int n = poll(&p, 1, 100);
        if (n > 0) {
            char buf[4096];
            const ssize_t got = read(master, buf, sizeof buf);
            if (got <= 0) break;  // the child closed the terminal
            r.err.append(buf, static_cast<std::size_t>(got));
        }
        if (step < script.size()) {
            const std::size_t at = r.err.find(script[step].waitFor, searchFrom);
            if (at != std::string::npos) {
                searchFrom = at + script[step].waitFor.size();
                const std::string& reply = script[step].reply;
                [[maybe_unused]] const ssize_t w = write(master, reply.data(), reply.size());
                ++step;
            }
        }
        if (std::chrono::steady_clock::now() > deadline) {
            kill(pid, SIGKILL);
            break;
        }
    }
    int status = 0;
    waitpid(pid, &status, 0);
    close(master);
    r.exit = StatusOf(status);
    return r;
}

long ClipFrames(const std::string& clip)
{
    const std::string out = Capture(std::string(ZUBCLIP_BIN) + " info '" + clip + "' 2>/dev/null");
    std::smatch m;
    static const std::regex frames("frames readable: video ([0-9]+)");
    if (!std::regex_search(out, m, frames)) return -1;
    return std::stol(m[1]);
}

std::string ProbeAudio(const std::string& path)
{
    std::string out = Capture("ffprobe -v error -show_entries stream=sample_rate,channels,bits_per_sample -of "
                              "csv=p=0 '" + path + "' 2>/dev/null");
    while (!out.empty() && (out.back() == '\n' || out.back() == '\r')) out.pop_back();
    return out;
}

bool WriteTestTga(const std::string& path, int width, int height, int number)
{
    std::vector<std::uint8_t> pixels(static_cast<std::size_t>(width) * height * 4);
    zub::testmedia::PaintFrame(pixels.data(), width, height, width * 4, zub::testmedia::PixelFormat::Bgra32, number,
                               true);
    std::uint8_t head[18] = {};
    head[2] = 2;
    head[12] = width & 0xFF;
    head[13] = width >> 8;
    head[14] = height & 0xFF;
    head[15] = height >> 8;
    head[16] = 32;
    head[17] = 0x28;
    std::ofstream out(path, std::ios::binary);
    out.write(reinterpret_cast<const char*>(head), sizeof head);
    out.write(reinterpret_cast<const char*>(pixels.data()), static_cast<std::streamsize>(pixels.size()));
    return static_cast<bool>(out);
}

}  // namespace zubtest

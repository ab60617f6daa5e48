// Running zubimport as a child process the way a user or a script does: with its own
// configuration folder and recorder volume, standard output and error captured, optionally
// on a pseudo-terminal, optionally interrupted.
#pragma once

#include <sys/types.h>

#include <filesystem>
#include <functional>
#include <map>
#include <string>
#include <vector>

namespace zubtest {

struct ProcessResult {
    int exit = -1;          // exit status, or 128 + signal when killed
    std::string out, err;   // on a pseudo-terminal both arrive in `err`
};

// A temporary home for one test: config folder, recorder volume, media folder.
class HostSandbox {
public:
    HostSandbox();
    ~HostSandbox();
    const std::filesystem::path& Root() const { return root_; }
    std::filesystem::path Config() const { return root_ / "config"; }
    std::filesystem::path Volume() const { return root_ / "volume"; }
    std::filesystem::path Media() const { return root_ / "media"; }
    std::filesystem::path SettingsFile() const { return Config() / "zubimport" / "settings.ini"; }
    // Environment for the child: the sandbox's folders plus `extra`.
    std::map<std::string, std::string> Env(const std::map<std::string, std::string>& extra = {}) const;

    // Runs zubimport with `args`, standard input empty (not a terminal).
    ProcessResult Run(const std::vector<std::string>& args, const std::map<std::string, std::string>& extra = {}) const;
    // Runs `launcher` (for example xvfb-run -a) with zubimport and `args` after it.
    ProcessResult RunUnder(const std::vector<std::string>& launcher, const std::vector<std::string>& args,
                           const std::map<std::string, std::string>& extra = {}) const;
    // Same, and once `ready(err so far)` is true sends SIGINT `interrupts` times, 300 ms apart.
    ProcessResult RunInterrupted(const std::vector<std::string>& args, const std::function<bool(const std::string&)>& ready,
                                 int interrupts, const std::map<std::string, std::string>& extra = {}) const;
    // On a pseudo-terminal: each time the output so far contains a script entry's prompt, its
    // reply is typed (a reply of "\x03" is Ctrl-C). The whole terminal output is in `err`.
    struct Step {
        std::string waitFor;
        std::string reply;
    };
    ProcessResult RunOnTerminal(const std::vector<std::string>& args, const std::vector<Step>& script,
                                const std::map<std::string, std::string>& extra = {}) const;

private:
    ProcessResult Spawn(const std::vector<std::string>& launcher, const std::vector<std::string>& args,
                        const std::function<bool(const std::string&)>& ready, int interrupts,
                        const std::map<std::string, std::string>& extra) const;
    std::filesystem::path root_;
};

// Frames zubclip reads back from a clip (video), -1 when it cannot read it.
long ClipFrames(const std::string& clip);
// "sample_rate,channels,bits" of an audio file as ffprobe sees it.
std::string ProbeAudio(const std::string& path);
// A 32-bit TGA of the generator's frame `number` (alpha coded too).
bool WriteTestTga(const std::string& path, int width, int height, int number);

}  // namespace zubtest

#include "batch/Companion.h"

#include "batch/TypeFilter.h"

#include <spawn.h>
#include <sys/stat.h>
#include <sys/wait.h>

#include <cerrno>
#include <condition_variable>
#include <cstring>
#include <mutex>
#include <thread>
#include <vector>

#include "zubimport/ModuleState.h"
#include "zubimport/Paths.h"

extern char** environ;

namespace zub::batch {

namespace {

std::mutex g_folderMutex;
std::string g_folderOverride;

std::mutex g_reapMutex;
std::condition_variable g_reapDone;
int g_running = 0;

}  // namespace

const char* CompanionName(int type)
{
    switch (type) {
    case kTypeVideo: return "Batch_Import_Video";
    case kTypeAudio: return "Batch_Import_Audio";
    case kTypeImages: return "Batch_Import_Graphics";
    default: return "";
    }
}

std::string ModuleFolderForBatch()
{
    {
        std::lock_guard lock(g_folderMutex);
        if (!g_folderOverride.empty()) return g_folderOverride;
    }
    return WithTrailingSeparator(TheModuleState().Folder());
}

void SetModuleFolderForTesting(const std::string& folder)
{
    std::lock_guard lock(g_folderMutex);
    g_folderOverride = folder.empty() ? std::string() : WithTrailingSeparator(folder);
}

CompanionStart StartCompanion(const std::string& folder, const std::string& name, const std::string& source,
                              const std::string& note)
{
    CompanionStart s;
    s.program = JoinPath(folder, name);
    struct stat st{};
    if (::stat(s.program.c_str(), &st) != 0) return s;  // not installed: nothing to do

    std::vector<char*> argv{const_cast<char*>(s.program.c_str()), const_cast<char*>(source.c_str()),
                            const_cast<char*>(note.c_str()), nullptr};
    // The companion gets standard input, output and error and nothing else of the host's.
    posix_spawn_file_actions_t actions;
    ::posix_spawn_file_actions_init(&actions);
    ::posix_spawn_file_actions_addclosefrom_np(&actions, 3);
    pid_t pid = -1;
    const int rc = ::posix_spawn(&pid, s.program.c_str(), &actions, nullptr, argv.data(), environ);
    ::posix_spawn_file_actions_destroy(&actions);
    if (rc != 0) {
        s.ok = false;
        s.error = s.program + ": cannot start (" + std::strerror(rc) + ")";
        return s;
    }
    s.started = true;
    s.pid = pid;
    {
        std::lock_guard lock(g_reapMutex);
        ++g_running;
    }
    // The import goes on at once; this waiter only collects the exit status when the
    // companion ends, so no zombie stays behind in the host.
    std::thread([pid] {
        int status = 0;
        while (::waitpid(pid, &status, 0) < 0 && errno == EINTR) {
        }
        std::lock_guard lock(g_reapMutex);
        --g_running;
        g_reapDone.notify_all();
    }).detach();
    return s;
}

void WaitForCompanionsForTesting()
{
    std::unique_lock lock(g_reapMutex);
    g_reapDone.wait(lock, [] { return g_running == 0; });
}

}  // namespace zub::batch

#include <gtest/gtest.h>

#include <signal.h>
#include <sys/stat.h>
#include <unistd.h>

#include <chrono>
#include <filesystem>
#include <fstream>
#include <sstream>
#include <thread>

#include "TempDir.h"
#include "batch/Companion.h"
#include "batch/TypeFilter.h"

using namespace zub::batch;

namespace {

std::string Slurp(const std::string& path)
{
    std::ifstream in(path, std::ios::binary);
    std::ostringstream s;
    s << in.rdbuf();
    return s.str();
}

// A companion that writes each argument it got, NUL-terminated, into a file beside itself.
void WriteRecorder(const std::string& program, const std::string& out)
{
    std::ofstream f(program);
    f << "#!/bin/sh\n"
         "for a in \"$0\" \"$@\"; do printf '%s\\0' \"$a\"; done > '" << out << ".part'\n"
         "echo $# >> '" << out << ".part'\n"
         "mv '" << out << ".part' '" << out << "'\n";
    f.close();
    ::chmod(program.c_str(), 0755);
}

bool WaitForFile(const std::string& path)
{
    for (int i = 0; i < 500; ++i) {
        if (std::filesystem::exists(path)) return true;
        std::this_thread::sleep_for(std::chrono::milliseconds(10));
    }
    return false;
}

// State letter of a process from /proc, or 0 when it no longer exists.
char ProcessState(pid_t pid)
{
    std::ifstream in("/proc/" + std::to_string(pid) + "/stat");
    std::string all;
    if (!std::getline(in, all)) return 0;
    const auto close = all.rfind(')');
    return close == std::string::npos || close + 2 >= all.size() ? 0 : all[close + 2];
}

}  // namespace

TEST(Companion, NamesPerType)
{
    EXPECT_STREQ(CompanionName(kTypeVideo), "Batch_Import_Video");
    EXPECT_STREQ(CompanionName(kTypeAudio), "Batch_Import_Audio");
    EXPECT_STREQ(CompanionName(kTypeImages), "Batch_Import_Graphics");
}

TEST(Companion, MissingProgramIsSuccessWithoutAProcess)
{
    zub::test::TempDir dir;
    const CompanionStart s = StartCompanion(dir.Path().string(), "Batch_Import_Video", "/a.mov", "n");
    EXPECT_TRUE(s.ok);
    EXPECT_FALSE(s.started);
    EXPECT_EQ(s.program, dir / "Batch_Import_Video");
}

TEST(Companion, HostileArgumentsArriveByteForByte)
{
    zub::test::TempDir dir;
    const std::string out = dir / "args.bin";
    WriteRecorder(dir / "Batch_Import_Audio", out);
    const std::string source = dir / "my clip \"1\"; $(touch pwned) `id` 'x'\n.wav";
    const std::string note = "note with spaces\nnew line; $(echo hi) \"q\" \\ \t end";
    const CompanionStart s = StartCompanion(dir.Path().string() + "/", "Batch_Import_Audio", source, note);
    ASSERT_TRUE(s.ok) << s.error;
    ASSERT_TRUE(s.started);
    ASSERT_TRUE(WaitForFile(out));
    const std::string expected = (dir / "Batch_Import_Audio") + '\0' + source + '\0' + note + '\0' + "2\n";
    EXPECT_EQ(Slurp(out), expected);
    EXPECT_FALSE(std::filesystem::exists(dir / "pwned"));
    EXPECT_FALSE(std::filesystem::exists("pwned"));
    WaitForCompanionsForTesting();
}

TEST(Companion, EndedCompanionLeavesNoZombie)
{
    zub::test::TempDir dir;
    const std::string out = dir / "args.bin";
    WriteRecorder(dir / "Batch_Import_Graphics", out);
    const CompanionStart s = StartCompanion(dir.Path().string(), "Batch_Import_Graphics", "/a.tga", "");
    ASSERT_TRUE(s.started);
    ASSERT_TRUE(WaitForFile(out));
    char state = 'R';
    for (int i = 0; i < 500 && (state = ProcessState(s.pid)) != 0; ++i)
        std::this_thread::sleep_for(std::chrono::milliseconds(10));
    EXPECT_EQ(state, 0) << "companion " << s.pid << " still in state " << state;
    // The process is gone from the table: nothing is left to wait for.
    EXPECT_EQ(::kill(s.pid, 0), -1);
    WaitForCompanionsForTesting();
}

TEST(Companion, ProgramThatCannotRunFails)
{
    zub::test::TempDir dir;
    std::ofstream(dir / "Batch_Import_Video") << "not a program\n";  // present, not executable
    const CompanionStart s = StartCompanion(dir.Path().string(), "Batch_Import_Video", "/a.mov", "");
    EXPECT_FALSE(s.ok);
    EXPECT_NE(s.error.find("Batch_Import_Video: cannot start"), std::string::npos) << s.error;
}

TEST(Companion, ModuleFolderOverride)
{
    SetModuleFolderForTesting("/tmp/somewhere");
    EXPECT_EQ(ModuleFolderForBatch(), "/tmp/somewhere/");
    SetModuleFolderForTesting("");
    EXPECT_NE(ModuleFolderForBatch(), "/tmp/somewhere/");
    EXPECT_EQ(ModuleFolderForBatch().back(), '/');
}

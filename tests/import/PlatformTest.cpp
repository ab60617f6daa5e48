#include <gtest/gtest.h>

#include <cstring>
#include <thread>

#include "zubimport/ModuleState.h"
#include "zubimport/Paths.h"
#include "zubimport/Platform.h"
#include "zubimport/Prompt.h"

using namespace zub;

TEST(PlatformTypes, LayoutMatchesHostAbi)
{
    // A WAVEFORMATEX read from a file must land in the right fields.
    const unsigned char bytes[18] = {1, 0, 2, 0, 0x44, 0xAC, 0, 0, 0x10, 0xB1, 2, 0, 4, 0, 16, 0, 0, 0};
    WAVEFORMATEX w;
    std::memcpy(&w, bytes, sizeof w);
    EXPECT_EQ(w.wFormatTag, 1);
    EXPECT_EQ(w.nChannels, 2);
    EXPECT_EQ(w.nSamplesPerSec, 44100u);
    EXPECT_EQ(w.nAvgBytesPerSec, 176400u);
    EXPECT_EQ(w.nBlockAlign, 4);
    EXPECT_EQ(w.wBitsPerSample, 16);
    EXPECT_EQ(MakeFourCC('R', 'I', 'F', 'F'), 0x46464952u);
    EXPECT_TRUE(Failed(E_FAIL));
    EXPECT_TRUE(Succeeded(S_FALSE));
}

TEST(Paths, BothSeparatorsSplit)
{
    EXPECT_EQ(DirectoryPart("C:\\clips\\a.avi"), "C:\\clips\\");
    EXPECT_EQ(FileNamePart("C:\\clips\\a.avi"), "a.avi");
    EXPECT_EQ(DirectoryPart("/media/in/b.mov"), "/media/in/");
    EXPECT_EQ(FileNamePart("/media/in\\mixed/c.wav"), "c.wav");
    EXPECT_EQ(FileNamePart("plain"), "plain");
    EXPECT_EQ(DirectoryPart("plain"), "");
    EXPECT_EQ(ExtensionPart("/a.b/clip"), "");
    EXPECT_EQ(ExtensionPart("/a/clip.tar.gz"), ".gz");
    EXPECT_EQ(JoinPath("/v", "x.zub"), "/v/x.zub");
    EXPECT_EQ(JoinPath("C:\\v\\", "x.zub"), "C:\\v\\x.zub");
    EXPECT_EQ(JoinPath("", "x"), "x");
    EXPECT_EQ(WithTrailingSeparator(""), "");
    EXPECT_EQ(WithTrailingSeparator("/v"), "/v/");
    EXPECT_TRUE(EqualsNoCase("Clip.MOV", "clip.mov"));
    EXPECT_FALSE(EqualsNoCase("clip.mov", "clip.mo"));
}

TEST(Prompt, ScriptedAnswersInOrderThenDefault)
{
    auto scripted = std::make_shared<ScriptedPrompt>(std::vector<Answer>{Answer::No});
    ScopedPrompter scope(scripted);
    EXPECT_EQ(Prompter().Ask({"first?", "", Buttons::YesNo, Icon::Question, 0}), Answer::No);
    // Queue empty: the default button answers, as Enter would.
    EXPECT_EQ(Prompter().Ask({"second?", "", Buttons::OkCancel, Icon::Warning, 1}), Answer::Cancel);
    Prompter().Tell("done");
    EXPECT_EQ(scripted->Texts(), (std::vector<std::string>{"first?", "second?", "done"}));
    EXPECT_EQ(scripted->Requests()[0].icon, Icon::Question);
}

TEST(Prompt, ScopeRestoresPreviousPrompter)
{
    auto outer = std::make_shared<ScriptedPrompt>();
    ScopedPrompter a(outer);
    {
        auto inner = std::make_shared<ScriptedPrompt>();
        ScopedPrompter b(inner);
        Prompter().Tell("inner");
        EXPECT_EQ(inner->Texts().size(), 1u);
    }
    Prompter().Tell("outer");
    EXPECT_EQ(outer->Texts(), std::vector<std::string>{"outer"});
}

TEST(Prompt, UsableFromOtherThreads)
{
    auto scripted = std::make_shared<ScriptedPrompt>();
    ScopedPrompter scope(scripted);
    std::thread t1([] { for (int i = 0; i < 100; ++i) Prompter().Tell("a"); });
    std::thread t2([] { for (int i = 0; i < 100; ++i) Prompter().Tell("b"); });
    t1.join();
    t2.join();
    EXPECT_EQ(scripted->Texts().size(), 200u);
}

TEST(ModuleState, StringTableHoldsResourceTexts)
{
    const ModuleState& m = TheModuleState();
    EXPECT_EQ(m.LoadString(10000),
              "Failed to open the ZUB Hardware device.\nPlease make sure all the drivers are started up properly.");
    const std::string filter = m.LoadString(10007);
    EXPECT_EQ(filter.rfind("tga\tAll Supported Image Files\t*.tga;*.bmp;", 0), 0u);
    EXPECT_EQ(filter.substr(filter.size() - 20), "All Files (*.*)\t*.*\t");
    EXPECT_EQ(m.LoadString(12345), "");
    EXPECT_FALSE(m.HasString(12345));
    ASSERT_FALSE(m.Folder().empty());
    EXPECT_EQ(m.Folder().back(), '/');
}

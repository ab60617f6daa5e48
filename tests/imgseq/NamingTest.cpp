#include <gtest/gtest.h>

#include <filesystem>
#include <fstream>
#include <set>

#include "imgseq/SequenceNaming.h"
#include "TempDir.h"

using namespace zub;

namespace {

void Touch(const std::string& path, const std::string& content = "x")
{
    std::ofstream(path, std::ios::binary) << content;
}

}  // namespace

TEST(SequenceNaming, SplitPathBothStyles)
{
    std::string d, s, e;
    ASSERT_TRUE(SplitPath("C:\\seq\\img0099.tga", d, s, e));
    EXPECT_EQ(d, "C:\\seq\\");
    EXPECT_EQ(s, "img0099");
    EXPECT_EQ(e, ".tga");
    ASSERT_TRUE(SplitPath("/media/seq.v2/shot", d, s, e));
    EXPECT_EQ(d, "/media/seq.v2/");
    EXPECT_EQ(s, "shot");
    EXPECT_EQ(e, "");
    ASSERT_TRUE(SplitPath("frame.01.tif", d, s, e));
    EXPECT_EQ(d, "");
    EXPECT_EQ(s, "frame.01");
    EXPECT_EQ(e, ".tif");
    EXPECT_FALSE(SplitPath("", d, s, e));
    EXPECT_TRUE(d.empty() && s.empty() && e.empty());
}

TEST(SequenceNaming, NextNameKeepsPaddingAsMinimumWidth)
{
    EXPECT_EQ(NextSequenceName("C:\\seq\\img0099.tga"), "C:\\seq\\img0100.tga");
    EXPECT_EQ(NextSequenceName("C:\\seq\\img9.tga"), "C:\\seq\\img10.tga");
    EXPECT_EQ(NextSequenceName("C:\\seq\\img.tga"), "C:\\seq\\img2.tga");
    EXPECT_EQ(NextSequenceName("C:\\seq\\0999.tga"), "C:\\seq\\1000.tga");
    EXPECT_EQ(NextSequenceName("C:\\seq\\take1_final.tga"), "C:\\seq\\take1_final2.tga");
    EXPECT_EQ(NextSequenceName("/seq/a099.tga"), "/seq/a100.tga");
    EXPECT_EQ(NextSequenceName("/seq/a009.tga"), "/seq/a010.tga");
    EXPECT_EQ(NextSequenceName("/seq/a99.tga"), "/seq/a100.tga");
    EXPECT_EQ(NextSequenceName("/seq/a0.tga"), "/seq/a1.tga");
    EXPECT_EQ(NextSequenceName("clip"), "clip2");
    EXPECT_EQ(NextSequenceName("titles.zub"), "titles2.zub");
    // Digits in a folder name or after the dot are not the sequence number.
    EXPECT_EQ(NextSequenceName("/seq7/shot.tga"), "/seq7/shot2.tga");
    // Runs longer than any integer still count on.
    EXPECT_EQ(NextSequenceName("/s/20261122193000999999.tga"), "/s/20261122193001000000.tga");
}

TEST(SequenceNaming, NumberedRunStopsAtFirstGap)
{
    test::TempDir dir;
    for (const char* n : {"f001.tga", "f002.tga", "f004.tga", "g9.tga", "g10.tga", "g11.tga"}) Touch(dir / n);

    std::vector<std::string> list{"existing"};
    EXPECT_EQ(AddNumberedRun(dir / "f001.tga", list), 2u);
    EXPECT_EQ(list, (std::vector<std::string>{"existing", dir / "f001.tga", dir / "f002.tga"}));

    list.clear();
    EXPECT_EQ(AddNumberedRun(dir / "g9.tga", list), 3u);
    EXPECT_EQ(list.back(), dir / "g11.tga");

    list.clear();
    EXPECT_EQ(AddNumberedRun(dir / "f001.tga", list, false), 1u);  // numbered mode off
    EXPECT_EQ(AddNumberedRun(dir / "f003.tga", list), 0u);         // missing pick: skipped
    EXPECT_EQ(list.size(), 1u);
    // Paths handed in by the owner go in untested; the following ones are still tested.
    EXPECT_EQ(AddNumberedRun(dir / "f003.tga", list, true, false), 2u);
    EXPECT_EQ(list.back(), dir / "f004.tga");
}

TEST(SequenceNaming, DefaultClipNameSkipsExistingClips)
{
    test::TempDir images, video;
    const std::string vdir = video.Path().string() + "/";
    EXPECT_EQ(DefaultClipName(images / "titles0001.tga", vdir), "titles");
    Touch(video / "titles.zub");
    Touch(video / "titles2.zub");
    EXPECT_EQ(DefaultClipName(images / "titles0001.tga", vdir), "titles3");
    // An all-digit stem is kept whole.
    EXPECT_EQ(DefaultClipName("C:\\seq\\0001.tga", vdir), "0001");
    Touch(video / "0001.zub");
    EXPECT_EQ(DefaultClipName("C:\\seq\\0001.tga", vdir), "0002");
    // The folder may come without its trailing separator.
    EXPECT_EQ(DefaultClipName(images / "titles7.tga", video.Path().string()), "titles3");
}

TEST(SequenceNaming, TempNamesAreFreshAndInTmpdir)
{
    test::TempDir tmp;
    const char* old = std::getenv("TMPDIR");
    const std::string saved = old ? old : "";
    setenv("TMPDIR", tmp.Path().c_str(), 1);

    const std::string real = std::filesystem::canonical(tmp.Path()).string();
    std::set<std::string> seen;
    for (int i = 0; i < 300; ++i) {  // more than 256: the counter must run past two digits
        const std::string name = MakeTempFileName("imp", "wav");
        ASSERT_FALSE(name.empty());
        EXPECT_EQ(name.rfind(real + "/imp", 0), 0u) << name;
        EXPECT_EQ(name.substr(name.size() - 4), ".wav");
        EXPECT_FALSE(FileExists(name));
        EXPECT_TRUE(seen.insert(name).second);
        Touch(name);
    }
    const std::string bare = MakeTempFileName(nullptr, nullptr);
    EXPECT_EQ(bare.back(), '.');
    EXPECT_FALSE(FileExists(bare));

    setenv("TMPDIR", (tmp / "missing").c_str(), 1);
    EXPECT_EQ(MakeTempFileName("a", "b"), "");
    if (old)
        setenv("TMPDIR", saved.c_str(), 1);
    else
        unsetenv("TMPDIR");
}

TEST(SequenceNaming, NativeVideoMagic)
{
    test::TempDir dir;
    Touch(dir / "clip.zub", std::string("ZUB0") + std::string(12, '\0'));
    Touch(dir / "short.zub", "ZUB0");
    Touch(dir / "other.zub", std::string("RIFF") + std::string(12, '\0'));
    EXPECT_TRUE(IsNativeVideoFile(dir / "clip.zub"));
    EXPECT_FALSE(IsNativeVideoFile(dir / "short.zub"));
    EXPECT_FALSE(IsNativeVideoFile(dir / "other.zub"));
    EXPECT_FALSE(IsNativeVideoFile(dir / "missing.zub"));
    EXPECT_FALSE(IsNativeVideoFile(dir.Path().string()));
}

#include <gtest/gtest.h>

#include <filesystem>

#include "TempDir.h"
#include "settings/SettingsPages.h"

using namespace zub;
using namespace zub::settings;

namespace {

// Settings with existing folders, so a test fails only where it means to.
struct PagesTest : ::testing::Test {
    test::TempDir dir;
    ImportSettings s;
    void SetUp() override
    {
        s.videoDir = dir.Path().string() + "/";
        s.audioDir = dir.Path().string() + "/";
    }
};

}  // namespace

TEST(RateConversion, BytesPerSecondToHundredthsAndBack)
{
    EXPECT_EQ(RateToHundredths(3145728), 300);
    EXPECT_EQ(HundredthsToRate(300), 3145728);
    EXPECT_EQ(RateToHundredths(kDefaultDataRate), 500);
    EXPECT_EQ(HundredthsToRate(50), 524288);
    EXPECT_EQ(HundredthsToRate(1500), 15728640);
    // Rounded to the nearest hundredth on the way in: 0.004999 MB/s and 0.005 MB/s.
    EXPECT_EQ(RateToHundredths(5242), 0);
    EXPECT_EQ(RateToHundredths(5243), 1);
    // Truncated on the way out: 3.33 MB/s is 3,491,758.08 bytes.
    EXPECT_EQ(HundredthsToRate(333), 3491758);
    // Every value the edit can hold comes back unchanged after a store.
    for (int h = kRateMinHundredths; h <= kRateMaxHundredths; ++h)
        ASSERT_EQ(RateToHundredths(HundredthsToRate(h)), h) << h;
}

TEST(RateEnables, FollowCreateAlphaSameAsVideoAndUncompressed)
{
    auto e = ComputeRateEnables(true, false, false);
    EXPECT_TRUE(e.sameAsVideo && e.rateLabel && e.uncompressed && e.rateEdit && e.mbLabel && e.fixedField);

    e = ComputeRateEnables(true, false, true);
    EXPECT_TRUE(e.sameAsVideo && e.rateLabel && e.uncompressed);
    EXPECT_FALSE(e.rateEdit || e.mbLabel || e.fixedField);

    e = ComputeRateEnables(true, true, false);
    EXPECT_TRUE(e.sameAsVideo);
    EXPECT_FALSE(e.rateLabel || e.uncompressed || e.rateEdit || e.mbLabel);
    EXPECT_TRUE(e.fixedField);

    e = ComputeRateEnables(false, false, false);
    EXPECT_FALSE(e.sameAsVideo || e.rateLabel || e.uncompressed || e.rateEdit || e.mbLabel);
}

TEST_F(PagesTest, VideoPageHasNoAlphaControlsSoTheyCountAsTickedAndCleared)
{
    s.createAlpha = 0;
    s.alphaSameAsVideo = 1;
    RatePage page(RatePage::Kind::Video, s);
    const auto e = page.Enables();
    EXPECT_TRUE(e.rateLabel && e.uncompressed && e.rateEdit && e.mbLabel && e.fixedField);
    page.uncompressed = true;
    EXPECT_FALSE(page.Enables().rateEdit);
    EXPECT_FALSE(page.Enables().fixedField);
    EXPECT_TRUE(page.Enables().uncompressed);
}

TEST_F(PagesTest, AlphaPageWithCreateAlphaClearedDisablesEverythingElse)
{
    s.createAlpha = 0;
    s.alphaSameAsVideo = 0;
    RatePage page(RatePage::Kind::Alpha, s);
    EXPECT_FALSE(page.createAlpha);
    const auto e = page.Enables();
    EXPECT_FALSE(e.sameAsVideo || e.rateLabel || e.uncompressed || e.rateEdit || e.mbLabel);
}

TEST_F(PagesTest, VideoPageShowsStoredValues)
{
    s.videoDataRate = 3145728;
    s.videoUncompressed = 1;
    s.fixedFieldSize = 1;
    RatePage page(RatePage::Kind::Video, s);
    EXPECT_EQ(page.rateText, "3.00");
    EXPECT_TRUE(page.uncompressed);
    EXPECT_TRUE(page.fixedFieldSize);
    EXPECT_EQ(page.directory, s.videoDir);
}

TEST_F(PagesTest, TypedRateIsStoredInBytesPerSecond)
{
    RatePage page(RatePage::Kind::Video, s);
    page.rateText = "3.00";
    ASSERT_TRUE(page.Apply());
    EXPECT_EQ(s.videoDataRate, 3145728);
    EXPECT_EQ(s.videoUncompressed, 0);
}

TEST_F(PagesTest, RateOutsideRangeIsRefusedOnlyWhenCompressed)
{
    for (const char* bad : {"0.49", "15.01", "", "abc", "3.001"}) {
        ImportSettings before = s;
        RatePage page(RatePage::Kind::Video, s);
        page.rateText = bad;
        page.fixedFieldSize = true;
        const auto r = page.Apply();
        EXPECT_FALSE(r.ok) << bad;
        EXPECT_EQ(r.message, "Invalid video recording datarate");
        EXPECT_EQ(r.field, Field::DataRate);
        EXPECT_EQ(s, before) << "nothing after the failed check may be written: " << bad;
    }
    for (const char* edge : {"0.50", "15.00"}) {
        RatePage page(RatePage::Kind::Video, s);
        page.rateText = edge;
        EXPECT_TRUE(page.Apply()) << edge;
    }
    // Ticked: the edit is not looked at, and the stored rate stays.
    s.videoDataRate = 1234567;
    RatePage page(RatePage::Kind::Video, s);
    page.uncompressed = true;
    page.rateText = "0.49";
    ASSERT_TRUE(page.Apply());
    EXPECT_EQ(s.videoUncompressed, 1);
    EXPECT_EQ(s.videoDataRate, 1234567);
}

TEST_F(PagesTest, VideoDirectoryGetsSeparatorAndMustExist)
{
    RatePage page(RatePage::Kind::Video, s);
    page.directory = dir.Path().string();  // no trailing separator
    ASSERT_TRUE(page.Apply());
    EXPECT_EQ(s.videoDir, dir.Path().string() + "/");

    ImportSettings before = s;
    page.directory = (dir.Path() / "missing").string();
    page.rateText = "7.25";
    page.uncompressed = false;
    page.fixedFieldSize = true;
    const auto r = page.Apply();
    EXPECT_FALSE(r.ok);
    EXPECT_EQ(r.message, "Directory does not exist");
    EXPECT_EQ(r.field, Field::Directory);
    // The checks before the folder's have already written their values; the folder has not.
    EXPECT_EQ(s.videoDataRate, HundredthsToRate(725));
    EXPECT_EQ(s.videoUncompressed, 0);
    EXPECT_EQ(s.fixedFieldSize, 1);
    EXPECT_EQ(s.videoDir, before.videoDir);
}

TEST_F(PagesTest, EmptyVideoDirectoryBecomesTheRoot)
{
    RatePage page(RatePage::Kind::Video, s);
    page.directory = "";
    ASSERT_TRUE(page.Apply());
    EXPECT_EQ(s.videoDir, "/");
}

TEST_F(PagesTest, CreateAlphaIsWrittenAtOnce)
{
    s.createAlpha = 0;
    RatePage page(RatePage::Kind::Alpha, s);
    page.SetCreateAlpha(true);
    EXPECT_EQ(s.createAlpha, 1);
    page.SetCreateAlpha(false);
    EXPECT_EQ(s.createAlpha, 0);
    // The Video page has no such box and writes nothing.
    s.createAlpha = 1;
    RatePage video(RatePage::Kind::Video, s);
    video.SetCreateAlpha(false);
    EXPECT_EQ(s.createAlpha, 1);
}

TEST_F(PagesTest, AlphaPageTakesUncompressedFromTheStoredVideoFlag)
{
    s.videoUncompressed = 1;
    s.alphaUncompressed = 0;
    s.alphaDataRate = 2000000;
    RatePage page(RatePage::Kind::Alpha, s);
    page.createAlpha = true;
    page.uncompressed = false;   // the page's own box says compressed...
    page.rateText = "99";        // ...with a rate that would be refused
    ASSERT_TRUE(page.Apply());
    EXPECT_EQ(s.alphaUncompressed, 1);
    EXPECT_EQ(s.alphaDataRate, 2000000);

    s.videoUncompressed = 0;
    RatePage again(RatePage::Kind::Alpha, s);
    again.uncompressed = true;  // ignored: the video flag is clear, so the rate counts
    again.rateText = "4.00";
    ASSERT_TRUE(again.Apply());
    EXPECT_EQ(s.alphaUncompressed, 0);
    EXPECT_EQ(s.alphaDataRate, 4194304);
}

TEST_F(PagesTest, AlphaPageRefusalKeepsOnlyTheAlphaFlags)
{
    s.videoUncompressed = 0;
    s.createAlpha = 0;
    s.alphaSameAsVideo = 0;
    ImportSettings before = s;
    RatePage page(RatePage::Kind::Alpha, s);
    page.createAlpha = true;
    page.sameAsVideo = true;
    page.rateText = "16.00";
    const auto r = page.Apply();
    EXPECT_FALSE(r.ok);
    EXPECT_EQ(r.message, "Invalid video recording datarate");
    EXPECT_EQ(s.createAlpha, 1);
    EXPECT_EQ(s.alphaSameAsVideo, 1);
    EXPECT_EQ(s.alphaDataRate, before.alphaDataRate);
    EXPECT_EQ(s.alphaUncompressed, before.alphaUncompressed);
    // The Alpha page never touches the video values or folders.
    EXPECT_EQ(s.videoDataRate, before.videoDataRate);
    EXPECT_EQ(s.videoDir, before.videoDir);
    EXPECT_EQ(s.fixedFieldSize, before.fixedFieldSize);
}

TEST_F(PagesTest, AudioPageShowsStoredChoices)
{
    s.audioRateIndex = 3;
    s.audioChannels = 1;
    s.audioSampleSize = 1;
    s.makeDva = 1;
    AudioPage page(s, true);
    EXPECT_EQ(page.sampleRatePos, 3);
    EXPECT_EQ(page.channelsPos, 1);
    EXPECT_EQ(page.dataBitsPos, 1);
    EXPECT_TRUE(page.dva);

    s.audioChannels = -1;  // unknown counts as mono
    s.audioSampleSize = -1;  // and as 16 bits
    s.audioRateIndex = 9;
    AudioPage other(s, false);
    EXPECT_EQ(other.channelsPos, 1);
    EXPECT_EQ(other.dataBitsPos, 0);
    EXPECT_EQ(other.sampleRatePos, -1);
    EXPECT_FALSE(other.dva);
    EXPECT_FALSE(other.DvaShown());
}

TEST_F(PagesTest, AudioListPositionsBecomeCodes)
{
    struct Case {
        int channelsPos, bitsPos, channelsCode, sizeCode;
    };
    for (const Case c : {Case{0, 0, 0, 0}, Case{1, 1, 1, 1}, Case{0, 1, 0, 1}, Case{1, 0, 1, 0}, Case{-1, -1, 1, 0},
                         Case{5, 7, 1, 0}}) {
        AudioPage page(s, false);
        page.channelsPos = c.channelsPos;
        page.dataBitsPos = c.bitsPos;
        page.sampleRatePos = 2;
        ASSERT_TRUE(page.Apply());
        EXPECT_EQ(s.audioChannels, c.channelsCode) << c.channelsPos;
        EXPECT_EQ(s.audioSampleSize, c.sizeCode) << c.bitsPos;
        EXPECT_EQ(s.audioRateIndex, 2);
    }
}

TEST_F(PagesTest, AudioDvaStoredOnlyWhenShown)
{
    s.makeDva = 0;
    AudioPage hidden(s, false);
    hidden.dva = true;
    ASSERT_TRUE(hidden.Apply());
    EXPECT_EQ(s.makeDva, 0);
    AudioPage shown(s, true);
    shown.dva = true;
    ASSERT_TRUE(shown.Apply());
    EXPECT_EQ(s.makeDva, 1);
}

TEST_F(PagesTest, AudioDirectoryRules)
{
    AudioPage page(s, false);
    page.directory = dir.Path().string();
    ASSERT_TRUE(page.Apply());
    EXPECT_EQ(s.audioDir, dir.Path().string() + "/");

    const std::string before = s.audioDir;
    page.directory = "";
    page.dataBitsPos = 1;
    auto r = page.Apply();
    EXPECT_FALSE(r.ok);
    EXPECT_EQ(r.message, "Invalid audio directory - directory does not exist.");
    EXPECT_EQ(r.field, Field::Directory);
    EXPECT_EQ(s.audioDir, before);
    EXPECT_EQ(s.audioSampleSize, 1) << "the lists precede the folder check and are kept";

    page.directory = (dir.Path() / "nope").string();
    r = page.Apply();
    EXPECT_FALSE(r.ok);
    EXPECT_EQ(r.message, "Invalid audio directory - directory does not exist.");
    EXPECT_EQ(s.audioDir, before);

    // A regular file is not a folder.
    const std::string file = dir / "file";
    FILE* f = std::fopen(file.c_str(), "w");
    ASSERT_NE(f, nullptr);
    std::fclose(f);
    page.directory = file;
    EXPECT_FALSE(page.Apply().ok);
}

TEST(PickedFolder, EndsWithSeparator)
{
    EXPECT_EQ(PickedFolderForEdit("/tmp"), "/tmp/");
    EXPECT_EQ(PickedFolderForEdit("/tmp/"), "/tmp/");
    EXPECT_EQ(PickedFolderForEdit("C:\\clips\\"), "C:\\clips\\");
}

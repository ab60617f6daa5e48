#include <gtest/gtest.h>

#include "batch/TypeFilter.h"

using namespace zub::batch;

namespace {

// A scripted media database: what one machine's MIME list could hold.
PatternLists Scripted()
{
    return {
        "*.mp3;*.mpga",          // audio only, though ".mpg" is inside one of its patterns
        "*.avi;*.divx",          // video
        "*.wav",                 // audio
        ";*.mpg;*.mpeg;*.mpe;",  // stray separators around a video list
        "*.avi",                 // listed twice
        "flac",                  // a pattern without "*."
    };
}

class TypeFilterTest : public ::testing::Test {
protected:
    void SetUp() override
    {
        SetPatternListSourceForTesting(Scripted);
        ForgetCapturedRangesForTesting();
    }
    void TearDown() override
    {
        SetPatternListSourceForTesting({});
        ForgetCapturedRangesForTesting();
    }
};

std::vector<std::string> Descriptions(const TypeFilter& f, int type)
{
    std::vector<std::string> out;
    const EntryRange r = f.Range(type);
    for (int i = r.first; i < r.end; ++i) out.push_back(f.Entries()[i].description);
    return out;
}

}  // namespace

TEST_F(TypeFilterTest, BuilderFollowsTheFilterAlgorithm)
{
    const FilterPart p = BuildFilterPart("\t", "All Supported Video Files", "Video ", {"*.mxf", ";*.avi;avi;", "*.mov"});
    EXPECT_EQ(p.filter, "mxf\tAll Supported Video Files\t*.mxf;*.avi;avi;*.mov\t");
    EXPECT_EQ(p.singles, "Video mxf Files\t*.mxf\tVideo avi Files\t*.avi\tVideo mov Files\t*.mov\t");
    EXPECT_EQ(p.entries, 4);
    // A default extension already there stays; a two-character first pattern gives none.
    EXPECT_EQ(BuildFilterPart("tga\t", "H", "W ", {"*.x"}).filter, "tga\tH\t*.x\t");
    EXPECT_EQ(BuildFilterPart("\t", "H", "W ", {"*."}).filter, "\tH\t*.\t");
}

TEST_F(TypeFilterTest, AudioOnlyValueStaysOutOfTheVideoFilter)
{
    const TypeFilter f(0);
    const auto video = Descriptions(f, kTypeVideo);
    EXPECT_EQ(video.front(), "All Supported Video Files");
    EXPECT_EQ(std::count(video.begin(), video.end(), "Video mp3 Files"), 0);
    EXPECT_EQ(std::count(video.begin(), video.end(), "Video wav Files"), 0);
    EXPECT_EQ(f.Entries()[f.Range(kTypeVideo).first].patterns, "*.mxf;*.mov;*.avi;*.divx;*.mpg;*.mpeg;*.mpe;*.avi");
    // Audio takes every list, video ones included.
    const auto audio = Descriptions(f, kTypeAudio);
    EXPECT_EQ(std::count(audio.begin(), audio.end(), "Audio mp3 Files"), 1);
    EXPECT_EQ(std::count(audio.begin(), audio.end(), "Audio avi Files"), 1);
    EXPECT_EQ(std::count(audio.begin(), audio.end(), "Audio flac Files"), 1);
}

TEST_F(TypeFilterTest, AviGivesOneVideoAviEntry)
{
    const TypeFilter f(0);
    int found = 0;
    for (const auto& e : f.Entries())
        if (e.description == "Video avi Files") {
            ++found;
            EXPECT_EQ(e.patterns, "*.avi");
        }
    EXPECT_EQ(found, 1);  // listed by two values, entered once
}

TEST_F(TypeFilterTest, TextLayoutAndDefaultExtension)
{
    const TypeFilter f(0);
    EXPECT_EQ(f.DefaultExtension(), "mxf");
    const std::string tail = "All Files (*.*)\t*.*\t";
    EXPECT_EQ(f.Text().rfind(tail), f.Text().size() - tail.size());
    EXPECT_EQ(f.Text().substr(0, 30), "mxf\tAll Supported Video Files\t");
    EXPECT_EQ(f.Entries().back().description, "All Files (*.*)");
    const auto filters = f.DialogFilters();
    EXPECT_EQ(filters[1], "Video mxf Files (*.mxf)");

    const TypeFilter images(2);
    EXPECT_EQ(images.DefaultExtension(), "tga");
    EXPECT_EQ(images.Text().substr(0, 40), "tga\tAll Supported Image Sequence+ Files\t");
    EXPECT_EQ(images.Entries()[1].description, "Image Sequence+ tga Files");
}

TEST_F(TypeFilterTest, RangesFollowTheMediaKindMode)
{
    const TypeFilter both(1), images(2), all(7);
    // Video: heading + mxf mov avi divx mpg mpeg mpe = 8; audio: heading + 9 singles.
    EXPECT_EQ(both.Range(kTypeVideo).first, 0);
    EXPECT_EQ(both.Range(kTypeVideo).end, 8);
    EXPECT_EQ(both.Range(kTypeAudio).first, 8);
    EXPECT_EQ(both.Range(kTypeAudio).end, 18);
    EXPECT_EQ(both.Range(kTypeImages).first, both.Range(kTypeImages).end);
    EXPECT_EQ(static_cast<int>(both.Entries().size()), 19);

    EXPECT_EQ(images.Range(kTypeVideo).end, 0);
    EXPECT_EQ(images.Range(kTypeImages).first, 0);
    EXPECT_EQ(images.Range(kTypeImages).end, 11);

    EXPECT_EQ(all.Range(kTypeImages).first, 18);
    EXPECT_EQ(all.Range(kTypeImages).end, 29);
    EXPECT_EQ(all.Entries()[18].description, "All Supported Image Sequence+ Files");
}

TEST_F(TypeFilterTest, ClassifiesVideoThenAudioThenImagesUnknownIsVideo)
{
    const TypeFilter f(0);
    EXPECT_EQ(f.Classify("/m/a.AVI"), kTypeVideo);
    EXPECT_EQ(f.Classify("/m/clip.MXF"), kTypeVideo);
    EXPECT_EQ(f.Classify("/m/song.mp3"), kTypeAudio);
    EXPECT_EQ(f.Classify("C:\\m\\tone.Wav"), kTypeAudio);
    EXPECT_EQ(f.Classify("/m/still.tga"), kTypeImages);
    EXPECT_EQ(f.Classify("/m/notes.xyz"), kTypeVideo);
    EXPECT_EQ(f.Classify("/m/noextension"), kTypeVideo);
    EXPECT_EQ(f.Classify("/m.d/noext"), kTypeVideo);
}

TEST_F(TypeFilterTest, FirstClassificationCapturesRangesForTheProcess)
{
    EXPECT_FALSE(RangesCaptured());
    const TypeFilter images(2);
    EXPECT_EQ(images.Classify("/m/a.tga"), kTypeImages);
    ASSERT_TRUE(RangesCaptured());
    EXPECT_EQ(CapturedRange(kTypeImages).first, 0);
    EXPECT_EQ(CapturedRange(kTypeImages).end, 11);
    // A later filter of another mode classifies with the first one's ranges: in a video/audio
    // filter, entries 0..10 are the video entries and the audio heading, so a still is no
    // longer recognised and a WAVE file lands in the third kind.
    const TypeFilter both(1);
    EXPECT_EQ(both.Classify("/m/a.tga"), kTypeVideo);
    EXPECT_EQ(both.Classify("/m/a.wav"), kTypeImages);
    EXPECT_EQ(CapturedRange(kTypeImages).end, 11);
}

TEST(TypeFilterSystem, MimeDatabaseGivesVideoAndAudioLists)
{
    const PatternLists lists = SystemMediaPatternLists();
    ASSERT_FALSE(lists.empty());
    ForgetCapturedRangesForTesting();
    const TypeFilter f(0);
    EXPECT_EQ(f.Classify("a.avi"), kTypeVideo);
    EXPECT_EQ(f.Classify("a.wav"), kTypeAudio);
    EXPECT_EQ(f.Classify("a.mp3"), kTypeAudio);
    EXPECT_EQ(f.Classify("a.bmp"), kTypeImages);
    ForgetCapturedRangesForTesting();
}

TEST(TypeFilterNames, TypeNamesByIndex)
{
    EXPECT_STREQ(TypeName(0), "Unknown");
    EXPECT_STREQ(TypeName(1), "Video");
    EXPECT_STREQ(TypeName(2), "Audio");
    EXPECT_STREQ(TypeName(3), "Images");
    EXPECT_STREQ(TypeName(9), "Unknown");
}

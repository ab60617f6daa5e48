// The sequence report (gaps, odd sizes and depths, unreadable files) and the run that fills
// gaps by holding the previous image.
#include <gtest/gtest.h>

#include <filesystem>
#include <fstream>

#include "tests/imgseq/RunTestSupport.h"
#include "imgseq/ImgSeqRun.h"
#include "imgseq/SequenceReport.h"

using namespace zub;
using namespace zub::test;

TEST(SequenceReportNames, GapsAreMissingNumbersBetweenNeighboursOfOneSeries)
{
    const std::vector<std::string> files = {"/s/a0098.tga", "/s/a0099.tga", "/s/a0100.tga", "/s/a0104.tga",
                                            "/s/a0105.tga", "/s/a0107.tga", "/s/b0200.tga", "/s/b0190.tga",
                                            "/s/plain.tga", "/s/img9.tga",  "/s/img11.tga"};
    const auto gaps = FindGaps(files);
    ASSERT_EQ(gaps.size(), 3u);
    EXPECT_EQ(gaps[0].afterRow, 2u);
    EXPECT_EQ(gaps[0].first, 101u);
    EXPECT_EQ(gaps[0].last, 103u);
    EXPECT_EQ(gaps[1].first, 106u);
    EXPECT_EQ(gaps[1].Count(), 1u);
    EXPECT_EQ(gaps[2].afterRow, 9u);
    EXPECT_EQ(gaps[2].first, 10u);
    EXPECT_EQ(gaps[2].width, 0);
    EXPECT_EQ(gaps[0].width, 4);

    const auto plan = FramePlan(files, true);
    EXPECT_EQ(plan, (std::vector<std::size_t>{0, 1, 2, 2, 2, 2, 3, 4, 4, 5, 6, 7, 8, 9, 9, 10}));
    std::vector<std::size_t> straight(files.size());
    for (std::size_t i = 0; i < straight.size(); ++i) straight[i] = i;
    EXPECT_EQ(FramePlan(files, false), straight);
}

TEST(SequenceReportNames, SummaryIsOneLine)
{
    SequenceReport r;
    r.images = 240;
    std::vector<std::string> names = {"/x/f0100.tga"};
    for (int n = 104; n <= 179; ++n) names.push_back("/x/f0" + std::to_string(n) + ".tga");
    names.push_back("/x/f0181.tga");
    r.gaps = FindGaps(names);
    r.unreadable.resize(1);
    EXPECT_EQ(r.Summary(), "240 images, 2 gaps (frames 0101\u20130103, 0180), 1 unreadable");
    SequenceReport one;
    one.images = 1;
    EXPECT_EQ(one.Summary(), "1 image");
}

// A sequence with two gaps, one image of another size, one of another depth (grey) and one
// cut short after its header.
TEST(SequenceReportFiles, FindsGapsOddImagesAndDamagedFiles)
{
    Volume vol;
    const std::string dir = vol.ImageDir();
    auto files = MakeStills(dir, "seq", "tga", 12, 320, 240, 95);
    ASSERT_EQ(files.size(), 12u);
    // Numbers 0095..0106; take out 0098 and 0101-0102.
    std::filesystem::remove(files[3]);
    std::filesystem::remove(files[6]);
    std::filesystem::remove(files[7]);
    std::vector<std::string> list;
    for (std::size_t i = 0; i < files.size(); ++i)
        if (i != 3 && i != 6 && i != 7) list.push_back(files[i]);
    // 0100 another size, 0103 grey, 0105 damaged.
    ASSERT_EQ(zub::test::Run({"ffmpeg", "-nostdin", "-loglevel", "error", "-y", "-f", "lavfi", "-i", "testsrc2=size=200x100",
                   "-frames:v", "1", files[5]}), 0);
    ASSERT_EQ(zub::test::Run({"ffmpeg", "-nostdin", "-loglevel", "error", "-y", "-f", "lavfi", "-i", "testsrc2=size=320x240",
                   "-frames:v", "1", "-pix_fmt", "gray", files[8]}), 0);
    std::filesystem::resize_file(files[10], 1000);

    std::vector<int> progress;
    const SequenceReport r = ReportSequence(list, [&](int done, int total) {
        EXPECT_EQ(total, 9);
        progress.push_back(done);
    });
    EXPECT_EQ(r.images, 9u);
    EXPECT_EQ(progress.size(), 9u);
    ASSERT_EQ(r.gaps.size(), 2u);
    EXPECT_EQ(r.MissingFrames(), 3u);
    ASSERT_EQ(r.differing.size(), 2u);
    EXPECT_EQ(r.differing[0].path, files[5]);
    EXPECT_EQ(r.differing[0].width, 200);
    EXPECT_EQ(r.differing[1].path, files[8]);
    EXPECT_EQ(r.differing[1].channels, 1);
    EXPECT_EQ(r.first.channels, 3);
    EXPECT_EQ(r.first.bitsPerChannel, 8);
    ASSERT_EQ(r.unreadable.size(), 1u);
    EXPECT_EQ(r.unreadable[0].path, files[10]);
    EXPECT_NE(r.unreadable[0].error.find(files[10]), std::string::npos) << r.unreadable[0].error;
    EXPECT_EQ(r.Summary(), "9 images, 2 gaps (frames 0098, 0101\u20130102), 2 of another size or depth, 1 unreadable");

    std::atomic<int> cancel{1};
    const SequenceReport stopped = ReportSequence(list, {}, &cancel);
    EXPECT_TRUE(stopped.cancelled);
    EXPECT_TRUE(stopped.unreadable.empty());
}

// Filling gaps keeps the sequence's timing: one frame per number from the first to the last,
// a missing number showing the image before it.
TEST(SequenceFillGaps, ClipLengthIsTheNumberingsSpan)
{
    Volume vol;
    ASSERT_TRUE(vol.Opened());
    CurrentSettings().videoUncompressed = 0;
    CurrentSettings().videoDataRate = 3 * 1024 * 1024;
    CurrentSettings().fitWord = 0x2208;
    // Pictures 10..19 numbered 0001..0010; 0004 and 0007-0008 missing.
    auto files = MakeStills(vol.ImageDir(), "gap", "jpg", 10, 320, 240, 1, 10);
    ASSERT_EQ(files.size(), 10u);
    std::vector<std::string> list;
    for (int i : {0, 1, 2, 4, 5, 8, 9}) list.push_back(files[i]);

    ImgSeqRunRequest req;
    req.files = list;
    req.clipName = "plain";
    ImgSeqRunResult r = RunImageSequence(req);
    ASSERT_EQ(r.endCode, 1) << r.message;
    EXPECT_EQ(FramesReadable(r.clipPath), 7);  // off: exactly one frame per image

    req.fillGaps = true;
    req.clipName = "filled";
    r = RunImageSequence(req);
    ASSERT_EQ(r.endCode, 1) << r.message;
    EXPECT_EQ(r.framesWritten, 10);
    EXPECT_EQ(FramesReadable(r.clipPath), 10);
    const auto frames = ExportFrames(r.clipPath, vol.Path("out"), 720, 486);
    ASSERT_EQ(frames.size(), 10u);
    const int expect[] = {10, 11, 12, 12, 14, 15, 15, 15, 18, 19};
    for (int i = 0; i < 10; ++i) EXPECT_EQ(FrameNumberOf(frames[i]), expect[i]) << "frame " << i;
}

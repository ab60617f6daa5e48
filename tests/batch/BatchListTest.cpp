#include <gtest/gtest.h>

#include <filesystem>
#include <fstream>
#include <random>

#include "TempDir.h"
#include "batch/BatchList.h"

using namespace zub::batch;

namespace {

std::vector<BatchRow> Sample()
{
    BatchRow a;
    a.fileName = "/media/a clip.mov";
    a.type = kTypeVideo;
    a.props = "rate=5242880;alpha=0";
    a.note = "first\tline\nsecond \\ line\r";
    BatchRow b;
    b.fileName = "C:\\sounds\\tone.wav";
    b.type = kTypeAudio;
    b.start = "10";
    b.end = "20";
    BatchRow c;
    c.fileName = "/stills/ünïcode;$(rm -rf).tga";
    c.type = kTypeImages;
    c.note = "\"quoted\"";
    return {a, b, c};
}

}  // namespace

TEST(BatchColumns, TitlesAndWidths)
{
    const char* titles[] = {"FileName", "Type", "Start", "End", "Props", "Result", "Note"};
    const int widths[] = {400 - 118, 50, 0, 0, 0, 60, 0};
    for (int c = 0; c < kColumnCount; ++c) {
        EXPECT_STREQ(ColumnTitle(c), titles[c]);
        EXPECT_EQ(ColumnWidth(c, 400), widths[c]) << c;
    }
}

TEST(BatchListFile, RoundTripKeepsPropsAndNotesButNotResults)
{
    zub::test::TempDir dir;
    std::vector<BatchRow> rows = Sample();
    rows[0].result = "done";
    rows[0].failed = true;
    std::string error;
    ASSERT_TRUE(SaveBatchList(dir / "list.zbl", rows, &error)) << error;
    std::vector<BatchRow> back;
    ASSERT_TRUE(LoadBatchList(dir / "list.zbl", back, &error)) << error;
    rows[0].result.clear();
    rows[0].failed = false;
    EXPECT_EQ(back, rows);
    // One line per row plus the header: escapes keep rows on their lines.
    std::ifstream in(dir / "list.zbl");
    int lines = 0;
    for (std::string l; std::getline(in, l);) ++lines;
    EXPECT_EQ(lines, 4);
    EXPECT_FALSE(std::filesystem::exists(dir / "list.zbl.tmp"));
}

TEST(BatchListFile, ErrorsNameTheFileAndTheReason)
{
    zub::test::TempDir dir;
    std::vector<BatchRow> rows;
    std::string error;
    EXPECT_FALSE(LoadBatchList(dir / "missing.zbl", rows, &error));
    EXPECT_NE(error.find("missing.zbl: cannot open"), std::string::npos) << error;

    auto write = [&](const std::string& text) {
        std::ofstream(dir / "bad.zbl", std::ios::binary) << text;
        error.clear();
        return LoadBatchList(dir / "bad.zbl", rows, &error);
    };
    EXPECT_FALSE(write(""));
    EXPECT_NE(error.find("bad.zbl: line 1: the file is empty"), std::string::npos) << error;
    EXPECT_FALSE(write("hello\n"));
    EXPECT_NE(error.find("not a batch list"), std::string::npos) << error;
    EXPECT_FALSE(write("ZUBBATCH 1\n/a.mov\t1\t\t\t\n"));
    EXPECT_NE(error.find("line 2: expected 6"), std::string::npos) << error;
    EXPECT_FALSE(write("ZUBBATCH 1\n/a.mov\t7\t\t\t\t\n"));
    EXPECT_NE(error.find("the type must be"), std::string::npos) << error;
    EXPECT_FALSE(write("ZUBBATCH 1\n/a.mov\t1\t\t\t\t\\q\n"));
    EXPECT_NE(error.find("unknown escape"), std::string::npos) << error;
    EXPECT_FALSE(write("ZUBBATCH 1\n\t1\t\t\t\t\n"));
    EXPECT_NE(error.find("file name is empty"), std::string::npos) << error;
    EXPECT_FALSE(SaveBatchList(dir / "no/such/dir/x.zbl", Sample(), &error));
    EXPECT_NE(error.find("x.zbl: cannot write"), std::string::npos) << error;

    // A failed load leaves what the caller had.
    rows = Sample();
    EXPECT_FALSE(write("ZUBBATCH 1\n/a.mov\t1\t\t\t\t\n\\"));
    EXPECT_EQ(rows, Sample());
    // Windows line ends and blank lines are accepted.
    EXPECT_TRUE(write("ZUBBATCH 1\r\n/a.mov\t2\t\t\t\tp\r\n\r\n")) << error;
    ASSERT_EQ(rows.size(), 1u);
    EXPECT_EQ(rows[0].type, kTypeAudio);
    EXPECT_EQ(rows[0].note, "p");
}

// The parser reads files from anywhere: random damage must give a clean yes or no.
TEST(BatchListFile, MutatedInputNeverCrashes)
{
    const std::string good = FormatBatchList(Sample());
    std::mt19937 rng(1234);
    int accepted = 0;
    for (int i = 0; i < 20000; ++i) {
        std::string text = good;
        const int edits = 1 + static_cast<int>(rng() % 8);
        for (int e = 0; e < edits; ++e) {
            const std::size_t at = rng() % (text.size() + 1);
            switch (rng() % 3) {
            case 0: if (at < text.size()) text[at] = static_cast<char>(rng()); break;
            case 1: text.insert(at, 1, static_cast<char>(rng())); break;
            default: if (at < text.size()) text.erase(at, 1 + rng() % 5); break;
            }
        }
        std::vector<BatchRow> rows;
        std::string error;
        if (ParseBatchList(text, rows, &error)) {
            ++accepted;
            // What was accepted formats back to a list that parses to the same rows.
            std::vector<BatchRow> again;
            ASSERT_TRUE(ParseBatchList(FormatBatchList(rows), again, &error)) << error;
            EXPECT_EQ(again, rows);
        } else {
            EXPECT_EQ(error.rfind("line ", 0), 0u) << error;
        }
    }
    EXPECT_GT(accepted, 0);
}

TEST(BatchListModelTest, ColumnsItemDataAndOperations)
{
    BatchListModel m;
    m.SetRows(Sample());
    ASSERT_EQ(m.rowCount(), 3);
    ASSERT_EQ(m.columnCount(), kColumnCount);
    EXPECT_EQ(m.headerData(kColResult, Qt::Horizontal).toString(), "Result");
    EXPECT_EQ(m.data(m.index(1, kColType)).toString(), "Audio");
    EXPECT_EQ(m.data(m.index(1, kColType), BatchListModel::kTypeRole).toInt(), kTypeAudio);
    EXPECT_EQ(m.data(m.index(1, kColStart)).toString(), "10");

    m.SortByFileName();
    EXPECT_EQ(m.Row(0).fileName, "/media/a clip.mov");
    EXPECT_EQ(m.Row(1).fileName, "/stills/ünïcode;$(rm -rf).tga");
    EXPECT_EQ(m.Row(2).fileName, "C:\\sounds\\tone.wav");

    m.SetNote(2, "one", false);
    m.SetNote(2, " two", true);
    EXPECT_EQ(m.Row(2).note, "one two");
    m.SetNote(2, "three", false);
    EXPECT_EQ(m.data(m.index(2, kColNote)).toString(), "three");

    m.SetResult(0, "Error", true);
    EXPECT_TRUE(m.data(m.index(0, 0), BatchListModel::kFailedRole).toBool());
    m.ClearResults();
    EXPECT_EQ(m.Row(0).result, "");

    EXPECT_TRUE(m.removeRows(1, 1));
    EXPECT_EQ(m.rowCount(), 2);
    EXPECT_FALSE(m.removeRows(1, 5));
    m.InsertRows(0, {Sample()[1]});
    EXPECT_EQ(m.Row(0).fileName, "C:\\sounds\\tone.wav");
    EXPECT_TRUE(m.setData(m.index(0, kColProps), "x=1"));
    EXPECT_EQ(m.Row(0).props, "x=1");
    EXPECT_FALSE(m.setData(m.index(0, kColType), 9, BatchListModel::kTypeRole));
}

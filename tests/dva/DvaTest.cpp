#include <gtest/gtest.h>

#include <cstring>
#include <vector>

#include "TempDir.h"
#include "tests/dva/WaveFiles.h"
#include "zubimport/Dva.h"

using namespace zub;
using namespace zub::test;

namespace {

const std::string kHead("Head - Rva Tape and Timecode 01\0", 32);
const std::string kTail("Tail - Rva Tape and Timecode 01\0", 32);

std::string Field(const std::string& text, std::size_t size)
{
    std::string f = text;
    f.resize(size, '\0');
    return f;
}

struct Entry {
    std::int32_t first, last;
    std::string path;
};

std::string EntryBytes(const Entry& e) { return Le32(std::uint32_t(e.first)) + Le32(std::uint32_t(e.last)) + Field(e.path, 260); }

std::string Description(std::uint32_t length)
{
    float rate = 25.0f;
    std::uint32_t rateBits;
    std::memcpy(&rateBits, &rate, 4);
    return "BDID" + Le32(720) + Le32(576) + Le32(rateBits) + Le32(24) + Le32(length) + Le32(0) + std::string(8, '\0') +
           Le32(0) + Le32(0);
}

// Chunk data: optional tape block, description, count (defaults to the entries'), entries.
std::string AssocData(const std::vector<Entry>& entries, bool tapeBlock = true, const std::string& tape = "TAPE 7",
                      const std::string& tc = "01:02:03:04", long count = -1, const std::string& tail = kTail)
{
    std::string d;
    if (tapeBlock) d = kHead + Field(tape, 256) + Field(tc, 12) + tail;
    d += Description(100) + Le32(count < 0 ? std::uint32_t(entries.size()) : std::uint32_t(count));
    for (const Entry& e : entries) d += EntryBytes(e);
    return d;
}

std::string DvaFile(const std::string& assocData)
{
    return Riff(Chunk("fmt ", Fmt(1, 2, 48000, 4, 16)) + Chunk("data", Samples(400)) + Chunk("BD11", assocData));
}

std::vector<Entry> ThreeEntries()
{
    return {{0, 99, "/vol/a.zub"}, {100, 149, "/vol/b.zub"}, {150, 150, "C:\\clips\\c.zub"}};
}

// A list the host builds itself: one node per path, each made with new.
CSMSBDPlayList* MakeList(const std::vector<std::string>& paths)
{
    CSMSBDPlayList* head = nullptr;
    CSMSBDPlayList* tail = nullptr;
    for (const std::string& p : paths) {
        auto* n = new CSMSBDPlayList{};
        std::strncpy(n->szPath, p.c_str(), sizeof n->szPath - 1);
        n->pPrev = tail;
        (tail ? tail->pNext : head) = n;
        tail = n;
    }
    return head;
}

class DvaFiles : public ::testing::Test {
protected:
    TempDir dir;
    std::string Make(const std::string& name, const std::string& bytes)
    {
        const std::string p = dir / name;
        WriteFile(p, bytes);
        return p;
    }
};

}  // namespace

TEST_F(DvaFiles, ReadsPlayListAndTapeBlockOfBothLayouts)
{
    const std::string current = Make("new.dva", DvaFile(AssocData(ThreeEntries())));
    const std::string older = Make("old.dva", DvaFile(AssocData(ThreeEntries(), false)));
    for (const std::string& path : {current, older}) {
        SCOPED_TRACE(path);
        CDva dva;
        ASSERT_EQ(dva.ReadPlayList(path.c_str()), 1) << CDva::GetLastError();
        EXPECT_EQ(dva.m_strFile, path);
        EXPECT_FALSE(dva.IsEmpty());
        std::vector<Entry> got;
        const CSMSBDPlayList* prev = nullptr;
        for (const CSMSBDPlayList* n = dva.GetPlayList(); n; prev = n, n = n->pNext) {
            EXPECT_EQ(n->pPrev, prev);
            got.push_back({n->lFirstFrame, n->lLastFrame, n->szPath});
        }
        ASSERT_EQ(got.size(), 3u);
        for (std::size_t i = 0; i < 3; ++i) {
            EXPECT_EQ(got[i].first, ThreeEntries()[i].first);
            EXPECT_EQ(got[i].last, ThreeEntries()[i].last);
            EXPECT_EQ(got[i].path, ThreeEntries()[i].path);
        }
        // The null-path form reads the stored file again and keeps what it does not read.
        ASSERT_EQ(dva.ReadTapeNameTc(nullptr), 1);
        EXPECT_EQ(dva.m_strFile, path);
        EXPECT_NE(dva.GetPlayList(), nullptr);
        ASSERT_EQ(dva.ReadPlayList(nullptr), 1);
        if (path == current) {
            EXPECT_EQ(dva.GetTapeName(), "TAPE 7");
            EXPECT_EQ(dva.GetTc(), "01:02:03:04");
        } else {
            EXPECT_EQ(dva.GetTapeName(), "");
            EXPECT_EQ(dva.GetTc(), "00:00:00:00");
        }
    }
}

TEST_F(DvaFiles, BrokenChunksFailAndLeaveObjectEmpty)
{
    const std::vector<Entry> two = {{0, 9, "/v/a.zub"}, {10, 19, "/v/b.zub"}};
    std::string cut = DvaFile(AssocData(two));
    cut.resize(cut.size() - 100);
    const std::map<std::string, std::string> cases = {
        {"count0.dva", DvaFile(AssocData({}, true, "T", "00:00:00:01", 0))},
        {"hugecount.dva", DvaFile(AssocData(two, true, "T", "00:00:00:01", 0xFFFFFFFF))},
        {"cut.dva", cut},
        {"nochunk.dva", Riff(Chunk("fmt ", Fmt(1, 2, 48000, 4, 16)) + Chunk("data", Samples(40)))},
        {"badtail.dva", DvaFile(AssocData(two, true, "T", "00:00:00:01", -1, Field("Tail - Rva Tape and Timecode 02", 32)))},
        {"shortheader.dva", DvaFile(kHead + Field("T", 256) + Field("", 12) + kTail + "BDID")},
    };
    const std::string good = Make("good.dva", DvaFile(AssocData(two)));
    for (const auto& [name, bytes] : cases) {
        SCOPED_TRACE(name);
        const std::string path = Make(name, bytes);
        CDva dva;
        ASSERT_EQ(dva.ReadPlayList(good.c_str()), 1);
        EXPECT_EQ(dva.ReadPlayList(path.c_str()), 0);
        EXPECT_NE(CDva::GetLastError().find(name), std::string::npos) << CDva::GetLastError();
        EXPECT_TRUE(dva.IsEmpty());
        EXPECT_EQ(dva.m_strFile, "");
        // The null-path form keeps the path it failed on, but not the list.
        ASSERT_EQ(dva.ReadPlayList(good.c_str()), 1);
        dva.m_strFile = path;
        EXPECT_EQ(dva.ReadPlayList(nullptr), 0);
        EXPECT_TRUE(dva.IsEmpty());
        EXPECT_EQ(dva.m_strFile, path);
    }
    CDva dva;
    EXPECT_EQ(dva.ReadTapeNameTc((dir / "badtail.dva").c_str()), 0);
    EXPECT_EQ(dva.ReadTapeNameTc((dir / "count0.dva").c_str()), 1) << "the tape block alone is fine";
    EXPECT_EQ(dva.GetTapeName(), "T");
    EXPECT_EQ(dva.ReadTapeNameTc((dir / "missing.dva").c_str()), 0);
    EXPECT_EQ(dva.GetTapeName(), "");
}

TEST_F(DvaFiles, WritePlayListRewritesPathsOnlyWhenCountsMatch)
{
    const std::string path = Make("pl.dva", DvaFile(AssocData(ThreeEntries())));
    const std::string before = ReadFile(path);
    const std::vector<std::vector<std::string>> wrong = {{"/x/1.zub", "/x/2.zub"}, {"/x/1", "/x/2", "/x/3", "/x/4"},
                                                         {"/x/1", "unterminated", "/x/3"}};
    for (const auto& paths : wrong) {
        CSMSBDPlayList* list = MakeList(paths);
        if (paths[1] == "unterminated") std::memset(list->pNext->szPath, 'p', sizeof list->szPath);
        CDva dva;
        EXPECT_EQ(dva.WritePlayList(path.c_str(), *list), 0);
        EXPECT_TRUE(ReadFile(path) == before) << "file left byte-identical";
        CSMSBDPlayList::Free(list);
    }
    CSMSBDPlayList* list = MakeList({"/new/one.zub", "/new/two.zub", std::string(258, 'q')});
    CDva dva;
    ASSERT_EQ(dva.WritePlayList(path.c_str(), *list), 1) << CDva::GetLastError();
    EXPECT_EQ(dva.m_strFile, path);
    CSMSBDPlayList::Free(list);

    std::vector<Entry> expect = ThreeEntries();
    expect[0].path = "/new/one.zub";
    expect[1].path = "/new/two.zub";
    expect[2].path = std::string(258, 'q');
    EXPECT_TRUE(ReadFile(path) == DvaFile(AssocData(expect))) << "frames and everything else stay";

    // The object's own list, read from another file, survives the Empty that comes first.
    const std::string other = Make("other.dva", DvaFile(AssocData({{5, 6, "/o/1.zub"}, {7, 8, "/o/2.zub"}, {9, 9, "/o/3.zub"}})));
    CDva own;
    ASSERT_EQ(own.ReadPlayList(other.c_str()), 1);
    ASSERT_EQ(own.WritePlayList(path.c_str(), *own.GetPlayList()), 1) << CDva::GetLastError();
    EXPECT_TRUE(own.IsEmpty());
    ASSERT_EQ(own.ReadPlayList(path.c_str()), 1);
    EXPECT_STREQ(own.GetPlayList()->pNext->pNext->szPath, "/o/3.zub");
    EXPECT_EQ(own.GetPlayList()->pNext->pNext->lFirstFrame, 150);

    // A stored count larger than the entries present changes nothing.
    std::string cut = DvaFile(AssocData(ThreeEntries()));
    cut.resize(cut.size() - 268);
    const std::string cutPath = Make("cut.dva", cut);
    CSMSBDPlayList* three = MakeList({"/a", "/b", "/c"});
    EXPECT_EQ(own.WritePlayList(cutPath.c_str(), *three), 0);
    EXPECT_TRUE(ReadFile(cutPath) == cut);
    CSMSBDPlayList::Free(three);
}

TEST_F(DvaFiles, WriteTapeNameTcOverwritesTapeBlock)
{
    const std::string path = Make("tape.dva", DvaFile(AssocData(ThreeEntries())));
    CDva dva;
    EXPECT_EQ(dva.WriteTapeNameTc("", "X", "00:00:00:00"), 0);
    EXPECT_EQ(dva.WriteTapeNameTc(nullptr, "X", "00:00:00:00"), 0);
    const std::string before = ReadFile(path);
    EXPECT_EQ(dva.WriteTapeNameTc(path.c_str(), std::string(256, 'n').c_str(), "00:00:00:00"), 0);
    EXPECT_EQ(dva.WriteTapeNameTc(path.c_str(), "X", "00:00:00:00:00"), 0);
    EXPECT_TRUE(ReadFile(path) == before);

    const std::string name(255, 'n');
    ASSERT_EQ(dva.WriteTapeNameTc(path.c_str(), name.c_str(), "10:20:30:40"), 1) << CDva::GetLastError();
    EXPECT_EQ(dva.m_strFile, path);
    EXPECT_TRUE(ReadFile(path) == DvaFile(AssocData(ThreeEntries(), true, name, "10:20:30:40")));
    CDva reader;
    ASSERT_EQ(reader.ReadTapeNameTc(path.c_str()), 1);
    EXPECT_EQ(reader.GetTapeName(), name);
    EXPECT_EQ(reader.GetTc(), "10:20:30:40");
}

TEST_F(DvaFiles, CopiesShareTheListAndEmptyReleasesIt)
{
    const std::string path = Make("share.dva", DvaFile(AssocData(ThreeEntries())));
    CDva a;
    ASSERT_EQ(a.ReadPlayList(path.c_str()), 1);
    ASSERT_EQ(a.ReadTapeNameTc(nullptr), 1);
    CDva b(a);
    EXPECT_EQ(b.GetPlayList(), a.GetPlayList());
    EXPECT_EQ(b.GetTapeName(), "TAPE 7");
    CDva c;
    c = a;
    EXPECT_EQ(c.GetPlayList(), a.GetPlayList());
    EXPECT_EQ(c.m_strFile, path);
    b.m_pPlayList = nullptr;  // one owner left
    c.m_pPlayList = nullptr;
    a.Empty();
    EXPECT_TRUE(a.IsEmpty());
    EXPECT_EQ(a.m_strFile, "");
    EXPECT_EQ(a.GetTc(), "");
}

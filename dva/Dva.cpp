#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>
#include <vector>

#include "dva/DvaChunk.h"
#include "zubimport/Dva.h"

namespace zub {

using namespace dva;

void CSMSBDPlayList::Free(CSMSBDPlayList* head)
{
    while (head) {
        CSMSBDPlayList* next = head->pNext;
        delete head;
        head = next;
    }
}

namespace dva {

namespace {

// A 32-byte marker field holds the marker text exactly, terminator included.
bool IsMarker(const char (&field)[32], const char (&marker)[32]) { return std::memcmp(field, marker, 32) == 0; }

// Copies text into a fixed field, zero-filling the rest; false when it does not fit whole.
bool PutField(char* field, std::size_t size, const char* text)
{
    const std::size_t len = text ? std::strlen(text) : 0;
    if (len >= size) return false;
    std::memset(field, 0, size);
    if (len) std::memcpy(field, text, len);
    return true;
}

// Debug trace for conditions the user is never told about.
void Trace(const char* text)
{
    if (std::getenv("ZUBIMPORT_TRACE")) std::fputs(text, stderr);
}

}  // namespace

bool OpenAssociation(const char* file, bool readWrite, CMmioFile& f, MMCKINFO& riff, MMCKINFO& chunk)
{
    if (!f.Open(file, nullptr, readWrite ? MMIO_READWRITE : MMIO_READ)) return FailFrom(f);
    riff = {};
    riff.fccType = kWave;
    if (!f.Descend(riff, nullptr, MMIO_FINDRIFF)) return FailWith(f.Path(), "not a RIFF WAVE file");
    chunk = {};
    chunk.ckid = kBd11;
    if (!f.Descend(chunk, &riff, MMIO_FINDCHUNK)) return FailWith(f.Path(), "no association chunk \"BD11\"");
    return true;
}

bool ReadTapeBlock(CMmioFile& f, char* tapeName, std::size_t tapeNameSize, char* tc, std::size_t tcSize)
{
    if (!tapeName || !tc || tapeNameSize < 10 || tcSize < 12) return FailWith(f.Path(), "tape name or timecode buffer too small");
    tapeName[0] = 0;
    std::memcpy(tc, kZeroTimecode, sizeof kZeroTimecode);

    TapeBlock block;
    const long got = f.Read(block.head, sizeof block.head);
    if (got < 0) return FailFrom(f);
    if (got != static_cast<long>(sizeof block.head) || !IsMarker(block.head, kHeadMarker)) {
        // Older layout: the chunk starts with the video description.
        if (f.Seek(-got, SEEK_CUR) < 0) return FailFrom(f);
        return true;
    }
    constexpr long rest = sizeof block - sizeof block.head;
    if (f.Read(block.tapeName, rest) != rest) return FailWith(f.Path(), "tape block is cut short");
    if (!IsMarker(block.tail, kTailMarker)) return FailWith(f.Path(), "tape block has no tail marker");
    const std::size_t nameLen = strnlen(block.tapeName, std::min(sizeof block.tapeName, tapeNameSize - 1));
    std::memcpy(tapeName, block.tapeName, nameLen);
    tapeName[nameLen] = 0;
    std::memcpy(tc, block.timecode, kTimecodeBytes);
    tc[kTimecodeBytes - 1] = 0;
    return true;
}

PlayListPtr ReadPlayListFrom(CMmioFile& f, VideoDescription* description)
{
    char name[kTapeNameBytes];
    char tc[kTimecodeBytes];
    if (!ReadTapeBlock(f, name, sizeof name, tc, sizeof tc)) return nullptr;
    VideoDescription header;
    std::uint32_t count = 0;
    if (f.Read(&header, sizeof header) != static_cast<long>(sizeof header) || f.Read(&count, 4) != 4) {
        FailWith(f.Path(), "video description is cut short");
        return nullptr;
    }
    if (description) *description = header;
    if (count == 0) {
        FailWith(f.Path(), "play list has no entries");
        return nullptr;
    }
    // One node is made per entry actually present: a count larger than the file stops at the
    // first short read, so the file's size bounds what is allocated.
    PlayListPtr head;
    CSMSBDPlayList* tail = nullptr;
    for (std::uint32_t i = 0; i < count; ++i) {
        auto* node = new CSMSBDPlayList{};
        node->pPrev = tail;
        if (tail)
            tail->pNext = node;
        else
            head.reset(node);
        tail = node;
        PlayListEntry entry;
        if (f.Read(&entry, sizeof entry) != static_cast<long>(sizeof entry)) {
            FailWith(f.Path(), "play list is cut short");
            return nullptr;
        }
        node->lFirstFrame = entry.firstFrame;
        node->lLastFrame = entry.lastFrame;
        std::memcpy(node->szPath, entry.path, sizeof node->szPath);
        node->szPath[MAX_PATH - 1] = 0;
    }
    return head;
}

}  // namespace dva

CDva::~CDva() { Empty(); }

CDva::CDva(const CDva& other)
    : m_strFile(other.m_strFile), m_pPlayList(other.m_pPlayList), m_strTapeName(other.m_strTapeName),
      m_strTc(other.m_strTc)
{
}

CDva& CDva::operator=(const CDva& other)
{
    m_strFile = other.m_strFile;
    m_pPlayList = other.m_pPlayList;
    m_strTapeName = other.m_strTapeName;
    m_strTc = other.m_strTc;
    return *this;
}

void CDva::Empty()
{
    m_strFile.clear();
    CSMSBDPlayList::Free(m_pPlayList);
    m_pPlayList = nullptr;
    m_strTapeName.clear();
    m_strTc.clear();
}

int CDva::ReadPlayList(const char* file)
{
    ClearError();
    std::string path;
    if (file) {
        Empty();
        path = file;
    } else {
        CSMSBDPlayList::Free(m_pPlayList);
        m_pPlayList = nullptr;
        path = m_strFile;
    }
    CMmioFile f;
    MMCKINFO riff, chunk;
    if (!OpenAssociation(path.c_str(), false, f, riff, chunk)) return 0;
    PlayListPtr list = ReadPlayListFrom(f, nullptr);
    if (!list) return 0;
    m_strFile = path;
    m_pPlayList = list.release();
    return 1;
}

int CDva::ReadTapeNameTc(const char* file)
{
    ClearError();
    std::string path;
    if (file) {
        Empty();
        path = file;
    } else {
        m_strTapeName.clear();
        m_strTc.clear();
        path = m_strFile;
    }
    CMmioFile f;
    MMCKINFO riff, chunk;
    if (!OpenAssociation(path.c_str(), false, f, riff, chunk)) return 0;
    char name[kTapeNameBytes];
    char tc[kTimecodeBytes];
    if (!ReadTapeBlock(f, name, sizeof name, tc, sizeof tc)) return 0;
    m_strFile = path;
    m_strTapeName = name;
    m_strTc = tc;
    return 1;
}

int CDva::WritePlayList(const char* file, CSMSBDPlayList& list)
{
    ClearError();
    // The paths are taken before Empty, which would release the list were it this object's own.
    constexpr std::size_t kMaxNodes = 1 << 20;  // far more than any chunk holds; ends a list that loops
    std::vector<std::string> paths;
    bool tooLong = false;
    for (const CSMSBDPlayList* n = &list; n && paths.size() <= kMaxNodes; n = n->pNext) {
        const std::size_t len = strnlen(n->szPath, MAX_PATH);
        tooLong = tooLong || len >= MAX_PATH;
        paths.emplace_back(n->szPath, std::min(len, MAX_PATH - 1));
    }
    Empty();
    const std::string path = file ? file : "";
    if (tooLong) return FailWith(path, "a play list path does not fit the 260-byte field");
    CMmioFile f;
    MMCKINFO riff, chunk;
    if (!OpenAssociation(path.c_str(), true, f, riff, chunk)) return 0;
    char name[kTapeNameBytes];
    char tc[kTimecodeBytes];
    if (!ReadTapeBlock(f, name, sizeof name, tc, sizeof tc)) return 0;
    VideoDescription header;
    std::uint32_t stored = 0;
    if (f.Read(&header, sizeof header) != static_cast<long>(sizeof header) || f.Read(&stored, 4) != 4)
        return FailWith(path, "video description is cut short");
    if (paths.size() != stored) {
        Trace("Error - Can't update RVA due to mismatch in playlist count!\r\n");
        return FailWith(path, "play list has " + std::to_string(paths.size()) + " entries, the file " +
                                  std::to_string(stored));
    }
    // Every stored entry must be there before the first one changes.
    const long first = f.Seek(0, SEEK_CUR);
    const long end = f.Seek(0, SEEK_END);
    if (first < 0 || end < 0 || f.Seek(first, SEEK_SET) < 0) return FailFrom(f);
    if (static_cast<std::uint64_t>(end - first) < std::uint64_t{stored} * sizeof(PlayListEntry))
        return FailWith(path, "play list is cut short");

    for (const std::string& p : paths) {
        PlayListEntry entry;
        if (f.Read(&entry, sizeof entry) != static_cast<long>(sizeof entry)) return FailWith(path, "play list is cut short");
        PutField(entry.path, sizeof entry.path, p.c_str());
        if (f.Seek(-static_cast<long>(sizeof entry), SEEK_CUR) < 0 ||
            f.Write(&entry, sizeof entry) != static_cast<long>(sizeof entry))
            return FailFrom(f);
    }
    if (!f.Ascend(chunk) || !f.Ascend(riff) || !f.Close()) return FailFrom(f);
    m_strFile = path;
    return 1;
}

int CDva::WriteTapeNameTc(const char* file, const char* tapeName, const char* tc)
{
    ClearError();
    Empty();
    if (!file || !*file) return FailWith("", "no association file name given");
    TapeBlock block;
    std::memcpy(block.head, kHeadMarker, sizeof block.head);
    std::memcpy(block.tail, kTailMarker, sizeof block.tail);
    if (!PutField(block.tapeName, sizeof block.tapeName, tapeName))
        return FailWith(file, "tape name longer than 255 characters");
    if (!PutField(block.timecode, sizeof block.timecode, tc)) return FailWith(file, "timecode longer than 11 characters");
    CMmioFile f;
    MMCKINFO riff, chunk;
    if (!OpenAssociation(file, true, f, riff, chunk)) return 0;
    if (f.Write(&block, sizeof block) != static_cast<long>(sizeof block)) return FailFrom(f);
    if (!f.Ascend(chunk) || !f.Ascend(riff) || !f.Close()) return FailFrom(f);
    m_strFile = file;
    return 1;
}

}  // namespace zub

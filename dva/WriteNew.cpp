// Creating an association: the finished WAVE file gets padded to a multiple of 4 bytes and
// the "BD11" chunk appended. The RIFF size is raised by the older layout's chunk size (324),
// not by the 656 bytes appended: files in the field carry that size and every reader finds
// "BD11" by its header, which lies inside it.
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <string>

#include "dva/DvaChunk.h"
#include "dva/DvaDevice.h"
#include "platform/ByteOrder.h"
#include "platform/FileIo.h"
#include "zubimport/Dva.h"

namespace zub {

using namespace dva;

namespace {

// Positioned access to the fixed header fields of a canonical WAVE file.
class RawFile {
public:
    explicit RawFile(const std::string& path) : path_(path)
    {
        fd_ = ::open(path.c_str(), O_RDWR | O_CLOEXEC);
        if (fd_ < 0) Fail("cannot open");
    }
    ~RawFile()
    {
        if (fd_ >= 0) ::close(fd_);
    }
    RawFile(const RawFile&) = delete;
    RawFile& operator=(const RawFile&) = delete;

    bool IsOpen() const { return fd_ >= 0; }
    bool ReadAt(off_t pos, void* buf, std::size_t n)
    {
        bool end = false;
        if (ReadAllAt(fd_, buf, n, static_cast<std::uint64_t>(pos), &end)) return true;
        return end ? FailWith(path_, "file is shorter than a WAVE header") : Fail("read failed");
    }
    bool WriteAt(off_t pos, const void* buf, std::size_t n)
    {
        return WriteAllAt(fd_, buf, n, static_cast<std::uint64_t>(pos)) || Fail("write failed");
    }
    bool Size(off_t& size)
    {
        struct stat st {};
        if (::fstat(fd_, &st) != 0) return Fail("cannot stat");
        size = st.st_size;
        return true;
    }
    bool Close()
    {
        const int fd = fd_;
        fd_ = -1;
        if (::close(fd) != 0) return Fail("close failed");
        return true;
    }

private:
    bool Fail(const char* what) { return FailWith(path_, std::string(what) + ": " + std::strerror(errno)); }

    std::string path_;
    int fd_ = -1;
};

bool Is(const unsigned char* p, const char* id) { return std::memcmp(p, id, 4) == 0; }

// Pads the audio so the RIFF size is a multiple of 4, with silence of the file's sample size.
bool PadToFour(const std::string& path, off_t& paddedLength)
{
    RawFile raw(path);
    if (!raw.IsOpen()) return false;
    unsigned char h[44];
    if (!raw.ReadAt(0, h, sizeof h)) return false;
    // The sizes below are patched at fixed offsets, so anything but the canonical 44-byte
    // header would be damaged: refuse it instead.
    if (!Is(h, "RIFF") || !Is(h + 8, "WAVE") || !Is(h + 12, "fmt ") || ReadLe32(h + 16) != 16 || !Is(h + 36, "data"))
        return FailWith(path, "not a WAVE file with the canonical 44-byte header");
    off_t length = 0;
    if (!raw.Size(length)) return false;
    const std::uint32_t riffSize = ReadLe32(h + 4);
    if (static_cast<off_t>(riffSize) + 8 != length)
        return FailWith(path, "RIFF size does not match the file length (already associated?)");
    const std::uint32_t pad = riffSize % 4;
    paddedLength = length;
    if (pad == 0) return raw.Close();
    const std::uint32_t add = 4 - pad;
    const std::uint32_t newRiff = riffSize + add;
    const std::uint32_t newData = ReadLe32(h + 40) + add;
    const std::uint16_t bits = static_cast<std::uint16_t>(h[34] | (h[35] << 8));
    const unsigned char fill[4] = {0, 0, 0, 0};
    const unsigned char fill8[4] = {0x80, 0x80, 0x80, 0x80};
    if (!raw.WriteAt(4, &newRiff, 4) || !raw.WriteAt(40, &newData, 4) ||
        !raw.WriteAt(length, bits == 8 ? fill8 : fill, add))
        return false;
    paddedLength = length + add;
    return raw.Close();
}

bool AppendChunk(const std::string& path, const TapeBlock& block, const VideoDescription& header,
                 const PlayListEntry& entry)
{
    CMmioFile f(path.c_str(), nullptr, MMIO_READWRITE);
    if (!f.IsOpen()) return FailFrom(f);
    const long end = f.Seek(0, SEEK_END);
    if (end == 0 || end == -1) return end == 0 ? FailWith(path, "file is empty") : FailFrom(f);
    MMCKINFO chunk{};
    chunk.ckid = kBd11;
    chunk.cksize = kNewChunkSize;
    const std::uint32_t count = 1;
    // No ascend afterwards: the declared size already is the size written.
    if (!f.CreateChunk(chunk, 0) || f.Write(&block, sizeof block) != static_cast<long>(sizeof block) ||
        f.Write(&header, sizeof header) != static_cast<long>(sizeof header) || f.Write(&count, 4) != 4 ||
        f.Write(&entry, sizeof entry) != static_cast<long>(sizeof entry) || !f.Close())
        return FailFrom(f);
    return true;
}

bool GrowRiffSize(const std::string& path)
{
    RawFile raw(path);
    if (!raw.IsOpen()) return false;
    std::uint32_t riffSize = 0;
    if (!raw.ReadAt(4, &riffSize, 4)) return false;
    riffSize += kRiffGrowth;
    return raw.WriteAt(4, &riffSize, 4) && raw.Close();
}

bool PutText(char* field, std::size_t size, const char* text)
{
    const std::size_t len = text ? std::strlen(text) : 0;
    if (len >= size) return false;
    std::memset(field, 0, size);
    if (len) std::memcpy(field, text, len);
    return true;
}

}  // namespace

int CDva::WriteNew(const char* dvaFile, const char* videoFile, const char* tapeName, const char* tc)
{
    ClearError();
    Empty();
    if (!dvaFile || !*dvaFile) return FailWith("", "no association file name given");
    const std::string path = dvaFile;

    // Everything that can be refused is refused before the file is touched.
    TapeBlock block;
    std::memcpy(block.head, kHeadMarker, sizeof block.head);
    std::memcpy(block.tail, kTailMarker, sizeof block.tail);
    if (!PutText(block.tapeName, sizeof block.tapeName, tapeName))
        return FailWith(path, "tape name longer than 255 characters");
    if (!PutText(block.timecode, sizeof block.timecode, tc)) return FailWith(path, "timecode longer than 11 characters");
    PlayListEntry entry{};
    if (!videoFile || !*videoFile) return FailWith(path, "no video file given");
    if (!PutText(entry.path, sizeof entry.path, videoFile))
        return FailWith(path, std::string("video file path does not fit the 260-byte field: ") + videoFile);

    VideoFacts facts;
    if (!QueryVideoFacts(videoFile, facts)) return 0;
    entry.firstFrame = 0;
    entry.lastFrame = static_cast<std::int32_t>(facts.length - 1);

    VideoDescription header{};
    std::memcpy(header.magic, "BDID", 4);
    header.width = facts.width;
    header.height = facts.height;
    header.frameRate = static_cast<float>(facts.rateHundredths / 100.0);
    header.always24 = 24;
    header.length = entry.lastFrame - entry.firstFrame + 1;
    header.zero = 0;
    header.flags = facts.key ? 1u : 0u;

    {
        CMmioFile probe(dvaFile, nullptr, MMIO_READWRITE);
        if (!probe.IsOpen()) return FailFrom(probe);
        const long end = probe.Seek(0, SEEK_END);
        if (end < 0) return FailFrom(probe);
        if (end == 0) return FailWith(path, "file is empty");
        if (!probe.Close()) return FailFrom(probe);
    }

    off_t paddedLength = 0;
    if (!PadToFour(path, paddedLength)) return 0;
    if (!AppendChunk(path, block, header, entry) || !GrowRiffSize(path)) {
        // The padding is silence and stays; a partial chunk is taken off again so the file
        // is still the plain WAVE it was.
        const std::string why = dva::LastError();
        if (::truncate(dvaFile, paddedLength) != 0) SetError(why + "; and the partial chunk could not be removed");
        return 0;
    }
    m_strFile = path;
    return 1;
}

}  // namespace zub

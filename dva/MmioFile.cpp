#include "dva/MmioFile.h"

#include <sys/stat.h>

#include <cerrno>
#include <cstring>
#include <limits>

#include "platform/ByteOrder.h"

namespace zub {

namespace {

constexpr std::int64_t kMaxOffset = 0xFFFFFFFFll;  // RIFF offsets and sizes are 32-bit
constexpr std::size_t kDefaultBuffer = 64 * 1024;

std::string FourCCText(FOURCC id)
{
    std::string s(4, ' ');
    for (int i = 0; i < 4; ++i) {
        const char c = static_cast<char>((id >> (8 * i)) & 0xFF);
        s[i] = (c >= 0x20 && c < 0x7F) ? c : '?';
    }
    return s;
}

}  // namespace

CMmioFile::CMmioFile(const char* path, MMIOINFO* info, DWORD flags)
{
    Open(path, info, flags);
}

CMmioFile::~CMmioFile()
{
    if (fp_) std::fclose(fp_);
}

bool CMmioFile::Fail(const std::string& what)
{
    error_ = zub::Error{path_.empty() ? std::string("(no file)") : path_, what};
    return false;
}

bool CMmioFile::Open(const char* path, MMIOINFO* info, DWORD flags)
{
    if (fp_) {
        error_ = zub::Error{path_, "already open"};
        if (info) info->wErrorRet = 1;
        return false;
    }
    path_ = path ? path : "";
    error_ = {};
    pos_ = 0;
    last_ = LastOp::None;
    auto failOpen = [&](const std::string& why) {
        if (info) info->wErrorRet = 1;
        return Fail(why);
    };
    if (path_.empty()) return failOpen("no file name given");

    const DWORD access = flags & 0x3;
    const bool create = (flags & MMIO_CREATE) != 0;
    if (access == 0x3) return failOpen("invalid open flags");
    const char* mode = nullptr;
    if (create)
        mode = access == MMIO_WRITE ? "wb" : "w+b";
    else
        mode = access == MMIO_READ ? "rb" : "r+b";
    canRead_ = access != MMIO_WRITE;
    canWrite_ = access != MMIO_READ;

    std::FILE* fp = std::fopen(path_.c_str(), mode);
    if (!fp) return failOpen(std::string("cannot open: ") + std::strerror(errno));
    struct stat st {};
    if (fstat(fileno(fp), &st) != 0 || !S_ISREG(st.st_mode)) {
        std::fclose(fp);
        return failOpen("not a regular file");
    }
    const std::size_t bufSize = info && info->cchBuffer ? info->cchBuffer : kDefaultBuffer;
    std::setvbuf(fp, nullptr, _IOFBF, bufSize);
    fp_ = fp;
    if (info) info->wErrorRet = 0;
    return true;
}

bool CMmioFile::Close()
{
    if (!fp_) return Fail("not open");
    std::FILE* fp = fp_;
    fp_ = nullptr;
    if (std::fclose(fp) != 0) return Fail(std::string("close failed: ") + std::strerror(errno));
    return true;
}

// stdio needs a positioning call between a write and a following read and vice versa.
bool CMmioFile::SyncForRead()
{
    if (last_ == LastOp::Write && !SeekTo(pos_)) return false;
    last_ = LastOp::Read;
    return true;
}

bool CMmioFile::SyncForWrite()
{
    if (last_ == LastOp::Read && !SeekTo(pos_)) return false;
    last_ = LastOp::Write;
    return true;
}

bool CMmioFile::SeekTo(std::int64_t pos)
{
    if (pos < 0 || pos > std::numeric_limits<off_t>::max()) return Fail("seek outside the file");
    if (fseeko(fp_, static_cast<off_t>(pos), SEEK_SET) != 0)
        return Fail(std::string("seek failed: ") + std::strerror(errno));
    pos_ = pos;
    last_ = LastOp::None;
    return true;
}

long CMmioFile::Read(void* buffer, long count)
{
    if (!fp_) return Fail("not open"), -1;
    if (!canRead_) return Fail("opened for writing only"), -1;
    if (count < 0 || (count > 0 && !buffer)) return Fail("invalid read request"), -1;
    if (count == 0) return 0;
    if (!SyncForRead()) return -1;
    const std::size_t n = std::fread(buffer, 1, static_cast<std::size_t>(count), fp_);
    pos_ += static_cast<std::int64_t>(n);
    if (n < static_cast<std::size_t>(count) && std::ferror(fp_)) {
        const int err = errno;
        std::clearerr(fp_);
        Fail(std::string("read failed: ") + std::strerror(err));
        return -1;
    }
    std::clearerr(fp_);  // end of file is not an error for later writes
    return static_cast<long>(n);
}

long CMmioFile::Write(const void* buffer, long count)
{
    if (!fp_) return Fail("not open"), -1;
    if (!canWrite_) return Fail("opened for reading only"), -1;
    if (count < 0 || (count > 0 && !buffer)) return Fail("invalid write request"), -1;
    if (count == 0) return 0;
    if (!SyncForWrite()) return -1;
    const std::size_t n = std::fwrite(buffer, 1, static_cast<std::size_t>(count), fp_);
    pos_ += static_cast<std::int64_t>(n);
    if (n != static_cast<std::size_t>(count)) {
        const int err = errno;
        std::clearerr(fp_);
        Fail(std::string("write failed: ") + std::strerror(err));
        return -1;
    }
    return static_cast<long>(n);
}

long CMmioFile::Seek(long offset, int origin)
{
    if (!fp_) return Fail("not open"), -1;
    std::int64_t target = 0;
    switch (origin) {
    case SEEK_SET:
        target = offset;
        break;
    case SEEK_CUR:
        target = pos_ + offset;
        break;
    case SEEK_END: {
        if (std::fflush(fp_) != 0) return Fail(std::string("write failed: ") + std::strerror(errno)), -1;
        struct stat st {};
        if (fstat(fileno(fp_), &st) != 0) return Fail(std::string("cannot stat: ") + std::strerror(errno)), -1;
        target = static_cast<std::int64_t>(st.st_size) + offset;
        break;
    }
    default:
        return Fail("invalid seek origin"), -1;
    }
    if (!SeekTo(target)) return -1;
    return static_cast<long>(pos_);
}

bool CMmioFile::Descend(MMCKINFO& ck, const MMCKINFO* parent, UINT flags)
{
    if (!fp_) return Fail("not open");
    const std::int64_t origin = pos_;
    std::int64_t parentEnd = std::numeric_limits<std::int64_t>::max();
    if (parent) {
        // A form too small to hold even its type was written by a streaming writer that never
        // went back to fill in the size: it runs to the end of the file.
        const bool unsized = (parent->ckid == FOURCC_RIFF || parent->ckid == FOURCC_LIST) && parent->cksize < 4;
        if (!unsized) parentEnd = static_cast<std::int64_t>(parent->dwDataOffset) + parent->cksize;
        if (origin < parent->dwDataOffset || origin >= parentEnd) return Fail("position is outside the parent chunk");
    }

    FOURCC wantId = 0;
    FOURCC wantType = 0;
    std::string what = "next chunk";
    if (flags & MMIO_FINDCHUNK) {
        wantId = ck.ckid;
        what = "chunk \"" + FourCCText(ck.ckid) + "\"";
    } else if (flags & MMIO_FINDRIFF) {
        wantId = FOURCC_RIFF;
        wantType = ck.fccType;
        what = "RIFF form \"" + FourCCText(ck.fccType) + "\"";
    } else if (flags & MMIO_FINDLIST) {
        wantId = FOURCC_LIST;
        wantType = ck.fccType;
        what = "LIST \"" + FourCCText(ck.fccType) + "\"";
    }

    std::int64_t start = origin;
    for (;;) {
        // Sizes are never trusted: the walk ends at the parent's end or the file's end,
        // whatever the chunk headers claim.
        if (start + 8 > parentEnd || start + 8 > kMaxOffset) break;
        if (!SeekTo(start)) return false;
        unsigned char hdr[12] = {};
        const long n = Read(hdr, sizeof hdr);
        if (n < 0) return false;
        if (n < 8) break;
        const FOURCC id = ReadLe32(hdr);
        const DWORD size = ReadLe32(hdr + 4);
        const FOURCC type = n >= 12 ? ReadLe32(hdr + 8) : 0;
        const bool isForm = id == FOURCC_RIFF || id == FOURCC_LIST;
        const bool match = (wantId == 0 || wantId == id) && (wantType == 0 || (isForm && n >= 12 && wantType == type));
        if (match) {
            ck.ckid = id;
            ck.cksize = size;
            ck.dwDataOffset = static_cast<DWORD>(start + 8);
            ck.dwFlags = 0;
            if (isForm) {
                ck.fccType = type;
                return SeekTo(start + 12);
            }
            ck.fccType = 0;
            return SeekTo(start + 8);
        }
        start = start + 8 + ((static_cast<std::int64_t>(size) + 1) & ~std::int64_t{1});
    }
    SeekTo(origin);
    return Fail(what + " not found");
}

bool CMmioFile::Ascend(MMCKINFO& ck)
{
    if (!fp_) return Fail("not open");
    if (ck.dwFlags & MMIO_DIRTY) {
        const std::int64_t size = pos_ - static_cast<std::int64_t>(ck.dwDataOffset);
        if (size < 0) return Fail("position is before the chunk being closed");
        if (size > kMaxOffset) return Fail("chunk grew beyond 4 GiB");
        if (size & 1) {
            const unsigned char pad = 0;
            if (Write(&pad, 1) != 1) return false;
        }
        if (static_cast<DWORD>(size) != ck.cksize) {
            const std::int64_t end = pos_;
            unsigned char le[4];
            WriteLe32(le, static_cast<DWORD>(size));
            if (!SeekTo(static_cast<std::int64_t>(ck.dwDataOffset) - 4) || Write(le, 4) != 4 || !SeekTo(end))
                return false;
            ck.cksize = static_cast<DWORD>(size);
        }
        ck.dwFlags = 0;
    }
    const std::int64_t end = static_cast<std::int64_t>(ck.dwDataOffset) + ((static_cast<std::int64_t>(ck.cksize) + 1) & ~std::int64_t{1});
    return SeekTo(end);
}

bool CMmioFile::CreateChunk(MMCKINFO& ck, UINT flags)
{
    if (!fp_) return Fail("not open");
    const std::int64_t start = pos_;
    if (start + 12 > kMaxOffset) return Fail("file too large for a RIFF chunk");
    if (flags & MMIO_CREATERIFF)
        ck.ckid = FOURCC_RIFF;
    else if (flags & MMIO_CREATELIST)
        ck.ckid = FOURCC_LIST;
    const bool isForm = (flags & (MMIO_CREATERIFF | MMIO_CREATELIST)) != 0;
    unsigned char hdr[12];
    WriteLe32(hdr, ck.ckid);
    WriteLe32(hdr + 4, ck.cksize);
    WriteLe32(hdr + 8, ck.fccType);
    const long len = isForm ? 12 : 8;
    ck.dwDataOffset = static_cast<DWORD>(start + 8);
    ck.dwFlags = MMIO_DIRTY;
    if (Write(hdr, len) != len) {
        const zub::Error why = error_;
        SeekTo(start);
        error_ = why;
        return false;
    }
    return true;
}

}  // namespace zub

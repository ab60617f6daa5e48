// A RIFF chunk file with the semantics of the host platform's multimedia file service, which
// all of the module's WAVE code (and the conversion engine's audio code) was written against:
// descend by identifier within the parent chunk, create chunks with a provisional size and let
// ascend fix the size and pad to an even length. Files from outside are read without trusting
// any size field: a search never leaves the parent chunk or the file, and reads simply stop at
// the end of the file.
#pragma once

#include <cstdint>
#include <cstdio>
#include <string>

#include "platform/Error.h"
#include "zubimport/Platform.h"

namespace zub {

using UINT = unsigned int;

// Open flags.
inline constexpr DWORD MMIO_READ = 0x0;
inline constexpr DWORD MMIO_WRITE = 0x1;
inline constexpr DWORD MMIO_READWRITE = 0x2;
inline constexpr DWORD MMIO_CREATE = 0x1000;
inline constexpr DWORD MMIO_ALLOCBUF = 0x10000;

// Descend flags.
inline constexpr UINT MMIO_FINDCHUNK = 0x10;
inline constexpr UINT MMIO_FINDRIFF = 0x20;
inline constexpr UINT MMIO_FINDLIST = 0x40;
// Create-chunk flags.
inline constexpr UINT MMIO_CREATERIFF = 0x20;
inline constexpr UINT MMIO_CREATELIST = 0x40;
// Set in MMCKINFO::dwFlags by CreateChunk: ascend fixes the size field.
inline constexpr DWORD MMIO_DIRTY = 0x10000000;

inline constexpr FOURCC FOURCC_RIFF = MakeFourCC('R', 'I', 'F', 'F');
inline constexpr FOURCC FOURCC_LIST = MakeFourCC('L', 'I', 'S', 'T');

// A chunk as descend and create report it. dwDataOffset is the file offset just past the size
// field; for RIFF and LIST chunks the form type is the first four bytes of the data.
struct MMCKINFO {
    FOURCC ckid = 0;
    DWORD cksize = 0;
    FOURCC fccType = 0;
    DWORD dwDataOffset = 0;
    DWORD dwFlags = 0;
};

// Optional open parameters. cchBuffer selects the I/O buffer size (0: the default);
// wErrorRet receives a non-zero code when the open fails.
struct MMIOINFO {
    DWORD cchBuffer = 0;
    UINT wErrorRet = 0;
};

class CMmioFile {
public:
    CMmioFile() = default;
    // Opens at once; IsOpen() and GetError() tell how that went.
    CMmioFile(const char* path, MMIOINFO* info, DWORD flags);
    ~CMmioFile();
    CMmioFile(const CMmioFile&) = delete;
    CMmioFile& operator=(const CMmioFile&) = delete;

    // MMIO_READ (0), MMIO_WRITE or MMIO_READWRITE open an existing file; with MMIO_CREATE the
    // file is created or truncated. MMIO_ALLOCBUF is accepted: I/O is always buffered.
    bool Open(const char* path, MMIOINFO* info, DWORD flags);
    // True when every buffered write reached the file; the handle is gone in any case.
    bool Close();
    bool IsOpen() const { return fp_ != nullptr; }

    // Searches forward from the current position for a chunk: with MMIO_FINDCHUNK one whose id
    // is ck.ckid, with MMIO_FINDRIFF / MMIO_FINDLIST a RIFF / LIST chunk of form type
    // ck.fccType, with no flag the next chunk. With a parent the search stays inside it.
    // Afterwards the position is at the chunk's data (past the form type for RIFF and LIST).
    bool Descend(MMCKINFO& ck, const MMCKINFO* parent, UINT flags);
    // Leaves a chunk: a chunk made by CreateChunk gets its real size written and is padded
    // to an even length; then the position moves past the chunk's (even) end.
    bool Ascend(MMCKINFO& ck);
    // Writes a chunk header at the current position: ck.ckid and ck.cksize, or with
    // MMIO_CREATERIFF / MMIO_CREATELIST "RIFF" / "LIST", the size and ck.fccType.
    bool CreateChunk(MMCKINFO& ck, UINT flags);

    // Bytes read (0 at the end of the file), or -1 on an error.
    long Read(void* buffer, long count);
    // Bytes written, or -1 on an error.
    long Write(const void* buffer, long count);
    // New position, or -1. origin is SEEK_SET, SEEK_CUR or SEEK_END.
    long Seek(long offset, int origin);

    const std::string& Path() const { return path_; }
    // Why the last failing operation failed, naming the file.
    // "file: reason" of the last failure; empty when the last open succeeded.
    std::string GetError() const { return error_.reason.empty() ? std::string() : error_.Message(); }

private:
    bool Fail(const std::string& what);
    bool SyncForRead();
    bool SyncForWrite();
    bool SeekTo(std::int64_t pos);

    enum class LastOp { None, Read, Write };

    std::FILE* fp_ = nullptr;
    std::string path_;
    zub::Error error_;
    std::int64_t pos_ = 0;
    LastOp last_ = LastOp::None;
    bool canRead_ = false;
    bool canWrite_ = false;
};

}  // namespace zub

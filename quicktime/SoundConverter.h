// The sound converter: a thin object over one converter reference, and the pass-through
// converter that copies uncompressed sound byte for byte (exchanging the bytes of every
// 16-bit pair) instead of converting it, every byte of every media sample, in whole frames. The converter reference itself decodes with
// libavcodec and converts with libswresample to uncompressed little-endian ("NONE") output.
#pragma once

#include <cstdint>
#include <cstddef>
#include <memory>
#include <string>
#include <vector>

#include "quicktime/MovieToolbox.h"

namespace zub::qt {

inline constexpr OSType kSoundNotCompressed = MakeOSType("NONE");
inline constexpr OSType k8BitOffsetBinaryFormat = MakeOSType("raw ");
inline constexpr OSType k16BitBigEndianFormat = MakeOSType("twos");
inline constexpr OSType k16BitLittleEndianFormat = MakeOSType("sowt");
inline constexpr OSType siDecompressionParams = MakeOSType("wave");

// Flags of SoundComponentData / ExtendedSoundComponentData.
inline constexpr std::int32_t kExtendedSoundData = 0x4000;
inline constexpr std::int32_t kExtendedSoundSampleCountNotValid = 1 << 0;
inline constexpr std::int32_t kExtendedSoundBufferSizeValid = 1 << 1;
// FillBuffer output flags.
inline constexpr std::uint32_t kSoundConverterDidntFillBuffer = 1 << 0;
inline constexpr std::uint32_t kSoundConverterHasLeftOverData = 1 << 1;

struct SoundComponentData {
    std::int32_t flags = 0;
    OSType format = 0;
    std::int16_t numChannels = 0;
    std::int16_t sampleSize = 0;
    UnsignedFixed sampleRate = 0;
    std::int32_t sampleCount = 0;
    std::uint8_t* buffer = nullptr;
    std::int32_t reserved = 0;
};

struct ExtendedSoundComponentData {
    SoundComponentData desc;
    std::int32_t recordSize = 0;
    std::int32_t extendedFlags = 0;
    std::int32_t bufferSize = 0;
    // Frames of this buffer the track's edit leaves out (encoder delay at the start, padding
    // at the end); only a decoding converter can honour them.
    std::int32_t trimStart = 0;
    std::int32_t trimEnd = 0;
};

// The source callback: hands back the next input record (or none) through *data and returns
// whether more source follows.
using SoundConverterFillBufferDataProc = bool (*)(ExtendedSoundComponentData** data, void* refCon);

// The converter reference (libavcodec + libswresample); opaque to everything but the calls
// below.
struct SoundConverterObject;
using SoundConverter = SoundConverterObject*;

OSErr SoundConverterOpen(const SoundComponentData* input, const SoundComponentData* output, SoundConverter* sc);
OSErr SoundConverterClose(SoundConverter sc);
OSErr SoundConverterBeginConversion(SoundConverter sc);
OSErr SoundConverterEndConversion(SoundConverter sc, void* outputPtr, std::uint32_t* outputFrames,
                                  std::uint32_t* outputBytes);
OSErr SoundConverterGetBufferSizes(SoundConverter sc, std::uint32_t inputBytesTarget, std::uint32_t* inputFrames,
                                   std::uint32_t* inputBytes, std::uint32_t* outputBytes);
OSErr SoundConverterGetInfo(SoundConverter sc, OSType selector, void* infoPtr);
// siDecompressionParams takes a const std::vector<std::uint8_t>* (the 'wave' atom).
OSErr SoundConverterSetInfo(SoundConverter sc, OSType selector, void* infoPtr);
OSErr SoundConverterConvertBuffer(SoundConverter sc, const void* inputPtr, std::uint32_t inputFrames,
                                  void* outputPtr, std::uint32_t* outputFrames, std::uint32_t* outputBytes);
OSErr SoundConverterFillBuffer(SoundConverter sc, SoundConverterFillBufferDataProc proc, void* refCon,
                               void* outputBuffer, std::uint32_t outputBufferByteSize, std::uint32_t* bytesWritten,
                               std::uint32_t* framesWritten, std::uint32_t* outputFlags);
// Why the last call on this reference failed ("" when it did not).
const char* SoundConverterLastError(SoundConverter sc);

class CSoundConverter {
public:
    CSoundConverter() = default;
    virtual ~CSoundConverter();
    CSoundConverter(const CSoundConverter&) = delete;
    CSoundConverter& operator=(const CSoundConverter&) = delete;

    virtual OSErr Open(const SoundComponentData* input, const SoundComponentData* output);
    virtual OSErr Close();
    virtual OSErr BeginConversion();
    virtual OSErr EndConversion(void* outputPtr, std::uint32_t* outputFrames, std::uint32_t* outputBytes);
    virtual OSErr GetBufferSizes(std::uint32_t inputBytesTarget, std::uint32_t* inputFrames, std::uint32_t* inputBytes,
                                 std::uint32_t* outputBytes);
    virtual OSErr GetInfo(OSType selector, void* infoPtr);
    virtual OSErr SetInfo(OSType selector, void* infoPtr);
    virtual OSErr ConvertBuffer(const void* inputPtr, std::uint32_t inputFrames, void* outputPtr,
                                std::uint32_t* outputFrames, std::uint32_t* outputBytes);
    virtual OSErr FillBuffer(SoundConverterFillBufferDataProc proc, void* refCon, void* outputBuffer,
                             std::uint32_t outputBufferByteSize, std::uint32_t* bytesWritten,
                             std::uint32_t* framesWritten, std::uint32_t* outputFlags);
    // Closes the current reference, then adopts `sc` and owns it.
    void Attach(SoundConverter sc);

    SoundConverter Reference() const { return converter_; }
    std::string LastError() const;

protected:
    SoundConverter converter_ = nullptr;
    bool owned_ = false;
};

class CPassThroughSoundConverter : public CSoundConverter {
public:
    OSErr Open(const SoundComponentData* input, const SoundComponentData* output) override;
    OSErr Close() override;
    OSErr BeginConversion() override;
    OSErr EndConversion(void* outputPtr, std::uint32_t* outputFrames, std::uint32_t* outputBytes) override;
    OSErr GetBufferSizes(std::uint32_t inputBytesTarget, std::uint32_t* inputFrames, std::uint32_t* inputBytes,
                         std::uint32_t* outputBytes) override;
    OSErr GetInfo(OSType selector, void* infoPtr) override;
    OSErr SetInfo(OSType selector, void* infoPtr) override;
    OSErr ConvertBuffer(const void* inputPtr, std::uint32_t inputFrames, void* outputPtr, std::uint32_t* outputFrames,
                        std::uint32_t* outputBytes) override;
    OSErr FillBuffer(SoundConverterFillBufferDataProc proc, void* refCon, void* outputBuffer,
                     std::uint32_t outputBufferByteSize, std::uint32_t* bytesWritten, std::uint32_t* framesWritten,
                     std::uint32_t* outputFlags) override;

    bool PassingThrough() const { return passThrough_; }

private:
    std::uint32_t FrameBytes() const;
    // What of a record's buffer is sound to pass on.
    std::size_t RecordBytes(const ExtendedSoundComponentData* rec) const;
    void ResetPending();

    bool passThrough_ = false;
    // Source bytes taken from the callback but not yet handed out (from pendingAt_ on).
    std::vector<std::uint8_t> pending_;
    std::size_t pendingAt_ = 0;
    bool sourceEnded_ = false;
    SoundComponentData input_{};
    SoundComponentData output_{};
};

}  // namespace zub::qt

// Turning one still image into one video frame: the two field (scanline) operations, placing
// or scaling the image into the frame or its safe area, and packing the result as a bottom-up
// 32-bit bitmap, the form in which frames go to the disk recorder. Decoding and resizing are
// done by libImportImaging.so, loaded on first use (ImagingLibrary.h); cropping, the canvas
// and the field operations are done here on the BGRA buffer.
//
// Every operation answers true or false; on false the optional `error` receives a message
// naming the file (where there is one) and the reason.
#pragma once

#include <cstddef>
#include <cstdint>
#include <memory>
#include <string>
#include <string_view>
#include <vector>

#include "zubimport/Platform.h"

namespace zub {

// ---- fit word: mode in bits 0-7, area in bits 8-11, resize method from bit 12 ----------

enum FitModeValue : int {
    kFitCenter = 0,
    kFitUpperLeft = 1,
    kFitUpperRight = 2,
    kFitLowerLeft = 3,
    kFitLowerRight = 4,
    kFitStretchAll = 5,
    kFitHeight = 6,
    kFitWidth = 7,
    kFitAll = 8,
    kFitStretchHeight = 9,
    kFitStretchWidth = 10,
};
enum FitAreaValue : int { kAreaSafeTitle = 0, kAreaSafeImage = 1, kAreaNormal = 2 };
enum ResizeMethodValue : int { kResizeNearest = 0, kResizeBiLinear = 1, kResizeBiCubic = 2 };

struct FitWordParts {
    int mode = 0;
    int area = 0;
    int method = 0;
};

// The low byte, then (word / 256) % 16, then word / 4096, as the settings page stores them.
FitWordParts SplitFitWord(std::int32_t word);
std::int32_t MakeFitWord(int mode, int area, int method);

// Size of a video frame of the current standard (from the recorder's settings).
struct FrameSize {
    int width = 0;
    int height = 0;
};

// An image as the fitting works on it: 24 (B, G, R) or 32 (B, G, R, A) bits per pixel, row
// 0 at the top, reached through a table of row pointers.
class Image {
public:
    Image() = default;
    Image(Image&&) noexcept = default;
    Image& operator=(Image&&) noexcept = default;
    Image(const Image&) = delete;
    Image& operator=(const Image&) = delete;

    // A width x height image, zero-filled unless the caller is about to overwrite every byte;
    // false (and empty) when the size is not sane or memory cannot be had.
    bool Allocate(int width, int height, int bitsPerPixel, bool zeroFill = true);
    void Release();
    bool Empty() const { return !data_; }

    int Width() const { return width_; }
    int Height() const { return height_; }
    int BitsPerPixel() const { return bitsPerPixel_; }
    int BytesPerRow() const { return bytesPerRow_; }
    std::uint8_t* Row(int y) { return rows_[static_cast<std::size_t>(y)]; }
    const std::uint8_t* Row(int y) const { return rows_[static_cast<std::size_t>(y)]; }
    std::uint8_t* Data() { return data_.get(); }
    const std::uint8_t* Data() const { return data_.get(); }

private:
    int width_ = 0;
    int height_ = 0;
    int bitsPerPixel_ = 0;
    int bytesPerRow_ = 0;
    std::unique_ptr<std::uint8_t[]> data_;
    std::vector<std::uint8_t*> rows_;
};

// One packed device-independent bitmap in one block: the 40-byte header (height positive, so
// rows run bottom-up; 32 bits; uncompressed), then the pixels, the image's last row first.
class FrameHolder {
public:
    // False when the size is not sane or the block cannot be allocated.
    bool Allocate(int width, int height);
    void Release();
    bool Empty() const { return !block_; }

    const BITMAPINFOHEADER* Header() const;
    std::uint8_t* Pixels() { return block_ ? block_.get() + sizeof(BITMAPINFOHEADER) : nullptr; }
    const std::uint8_t* Pixels() const { return block_ ? block_.get() + sizeof(BITMAPINFOHEADER) : nullptr; }
    const std::uint8_t* Block() const { return block_.get(); }
    std::size_t BlockSize() const { return size_; }

private:
    std::unique_ptr<std::uint8_t[]> block_;
    std::size_t size_ = 0;
};

// True for the 18 extensions the reader takes (.6RN .BMP .RGB .IFF .JPEG .JPE .JPG .PIC .PIX
// .PSD .RLA .SGI .SUN .TGA .TIFF .TIF .VPB .YUV, any case). The extension counts only when
// its dot stands after the last separator. ".ras" is not among them, though the file dialog's
// filter offers it.
bool IsReadableImageName(std::string_view path);

// Reads and decodes the file into a 32-bit BGRA image.
bool ReadImageFile(const std::string& path, Image& image, std::string* error = nullptr);

// What the file's header says: size, and channels and bits per channel as stored (0 when
// the reader cannot tell).
struct ImageFileInfo {
    int width = 0;
    int height = 0;
    int channels = 0;
    int bitsPerChannel = 0;
};
bool DescribeImageFile(const std::string& path, ImageFileInfo& info, std::string* error = nullptr);

// The single steps, in place.
bool ShiftDownOneScanline(Image& image, std::string* error = nullptr);
bool SwapFieldScanlines(Image& image, std::string* error = nullptr);
// Resize with method 0 Nearest, 1 BiLinear, 2 BiCubic.
bool ResizeImage(Image& image, int width, int height, int method, std::string* error = nullptr);
// The width x height rectangle at (left, top); where it reaches outside the image the canvas
// grows with zero pixels.
bool CropImage(Image& image, int left, int top, int width, int height, std::string* error = nullptr);
bool ConvertTo32Bits(Image& image, std::string* error = nullptr);
bool FitImage(Image& image, std::int32_t fitWord, FrameSize frame, std::string* error = nullptr);

// Shift (when asked), then swap (when asked), then fit into the frame, then 32 bits.
bool PrepareImage(Image& image, std::int32_t fitWord, bool swap, bool shift, FrameSize frame,
                  std::string* error = nullptr);

// Packs a 32-bit image into the frame holder, bottom row first.
bool PackFrame(const Image& image, FrameHolder& frame, std::string* error = nullptr);

// Read, prepare and pack one frame; the image is released afterwards.
bool LoadFrame(const std::string& path, std::int32_t fitWord, bool swap, bool shift, FrameSize frameSize,
               FrameHolder& frame, std::string* error = nullptr);

}  // namespace zub

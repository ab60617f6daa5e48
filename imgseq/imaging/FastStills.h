// Direct readers for the two formats image sequences are mostly made of, true-colour TGA and
// JPEG, decoding straight into the caller's BGRA buffer in one pass. They take only the
// common layouts and say "not mine" for anything else, which then goes to OpenImageIO.
#pragma once

#include <cstddef>
#include <cstdint>
#include <functional>
#include <string>

namespace zub::imaging {

// Each reader answers true when it decoded the picture, or when it left the file alone
// (*taken false) because the layout is not one it reads; false when the file is damaged, with
// the reason (without the file name, which the caller adds) in *error.

// `allocate` is called once with the picture's size and returns width * height * 4 bytes
// (rows top first), or null.
using FastAllocate = std::function<std::uint8_t*(int width, int height)>;

// Called once with the picture's size; fills planes[0..3] (B, G, R, A) with width * height
// bytes each, rows top first, or returns false.
using PlanesAllocate = std::function<bool(int width, int height, std::uint8_t* planes[4])>;

// Uncompressed or run-length true-colour TGA of 24 or 32 bits, either row order, left to
// right. 32-bit pixels keep their alpha unless the file says it holds none.
bool DecodeTga(const std::uint8_t* data, std::size_t size, const FastAllocate& allocate, bool* taken,
               std::string* error);

// The same TGA layouts into one plane per channel, the form a resize works on, without the
// packed picture in between. *opaque tells whether every alpha byte is 255; a 24-bit file is
// opaque and its alpha plane is left unwritten.
bool DecodeTgaPlanes(const std::uint8_t* data, std::size_t size, const PlanesAllocate& allocate, bool* opaque,
                     bool* taken, std::string* error);

// Baseline or progressive JPEG in grey or YCbCr, through TurboJPEG with libjpeg's default
// (accurate) transform and smooth upsampling. With a denominator of 2, 4 or 8 the picture is
// decoded at that fraction of its size in the DCT domain (each side rounded up), which skips
// most of the inverse transform and the colour conversion of the pixels a shrink would drop.
bool DecodeJpeg(const std::uint8_t* data, std::size_t size, const FastAllocate& allocate, bool* taken,
                std::string* error, int denominator = 1);

// The full size of a JPEG that DecodeJpeg takes; false for one it would leave to the general
// reader.
bool JpegSize(const std::uint8_t* data, std::size_t size, int* width, int* height);

// The largest denominator (1, 2, 4 or 8) at which a width x height JPEG still decodes to at
// least minWidth x minHeight, so a later resize only ever shrinks.
int JpegReduction(int width, int height, int minWidth, int minHeight);

}  // namespace zub::imaging

// Softimage PIC stills, read by our own code: OpenImageIO 2.4 decodes uncompressed channel
// packets as all black, which would silently put black frames into a clip.
//
// Layout (all big-endian): a 104-byte header (magic 0x5380F634, version, comment, "PICT",
// width, height, ratio, fields), then channel packets of 4 bytes each (chained, bits per
// channel, encoding, channel mask R 0x80 G 0x40 B 0x20 A 0x10) until one is not chained, then
// the scanlines top first; each scanline holds every packet's data in packet order.
#pragma once

#include <cstddef>
#include <cstdint>
#include <functional>
#include <string>

namespace zub::imaging {

// Gives a buffer of height rows of width * 4 bytes for the decoded pixels, or null to stop.
using PicAllocFn = std::function<std::uint8_t*(int width, int height)>;

// Decodes the whole file in data/size into 8-bit B, G, R, A (alpha 255 when the file has no
// alpha packet; colour channels no packet names stay 0). Never reads outside data. Returns
// false with the reason in *error (without the file name, which the caller adds) on a
// damaged, cut-off or unsupported file; nothing is allocated then unless the damage lies in
// the pixel data.
bool DecodeSoftimagePic(const std::uint8_t* data, std::size_t size, const PicAllocFn& alloc, std::string* error);

}  // namespace zub::imaging

#include "recorder/BackendEntry.h"

namespace zub::rec {

PixelKind BackendEntry::Kind(std::int32_t word) const
{
    if (word == pixels_.pipeline) return PixelKind::Pipeline;
    if (word == pixels_.bits24) return PixelKind::Bits24;
    if (word == pixels_.server) return PixelKind::Server;
    return PixelKind::Unknown;
}

std::int32_t BackendEntry::Standard(std::int32_t device, std::int32_t& lines, std::int32_t& width,
                                    std::int32_t& height)
{
    RecorderConfig c;
    if (const Status s = recorder_.Config(device, c); s != Status::Ok) return Code(s);
    lines = c.lines;
    width = c.Width();
    height = c.Height();
    return Code(Status::Ok);
}

std::int32_t BackendEntry::FramesFit(std::int32_t device, const char* folder, std::int32_t videoRate,
                                     std::int32_t alphaRate, std::int32_t& frames)
{
    return Code(recorder_.FramesFit(device, folder, videoRate, alphaRate, frames));
}

std::int32_t BackendEntry::CreateClip(std::int32_t device, const ClipRequest& request, std::int32_t& videoItem,
                                      std::int32_t& alphaItem)
{
    std::int32_t video = -1, alpha = -1;
    const Status s = recorder_.CreateClip(device, request, video, alpha);
    if (s != Status::Ok) return Code(s);
    videoItem = video;
    alphaItem = alpha;
    return Code(Status::Ok);
}

std::int32_t BackendEntry::Import(std::int32_t device, std::int32_t videoItem, std::int32_t alphaItem,
                                  std::int32_t videoField, std::int32_t alphaField, const void* data,
                                  std::int32_t pixelWord)
{
    return Code(recorder_.Import(device, videoItem, alphaItem, videoField, alphaField, data, Kind(pixelWord)));
}

}  // namespace zub::rec

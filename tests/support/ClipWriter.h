// Clips written through the real device layer for tests that need one on the volume: grey
// uncompressed frames, with or without a key track, through whichever recorder is open.
#pragma once

#include <cstdint>
#include <cstring>
#include <string>
#include <vector>

#include "device/RecorderBackends.h"
#include "device/RecorderDevice.h"
#include "zubimport/Platform.h"

namespace zub::test {

inline bool WriteClip(const std::string& path, int frames, bool key = false)
{
    CRecorderDeviceInfo& rec = TheRecorder();
    ClipSpec spec;
    spec.path = path;
    spec.frames = frames + 2;
    spec.videoRate = -1;
    spec.videoUncompressed = true;
    spec.createAlpha = key;
    spec.alphaSameAsVideo = key;
    spec.alphaRate = key ? -1 : 0;
    ClipItems items;
    if (rec.CreateClipItem(spec, items) != ClipStatus::Ok) return false;
    const int w = rec.frameWidth, h = rec.frameHeight;
    std::vector<std::uint8_t> holder(sizeof(BITMAPINFOHEADER) + std::size_t(w) * h * 4, 0x80);
    BITMAPINFOHEADER bih{};
    bih.biSize = sizeof bih;
    bih.biWidth = w;
    bih.biHeight = h;
    bih.biPlanes = 1;
    bih.biBitCount = 32;
    std::memcpy(holder.data(), &bih, sizeof bih);
    bool ok = true;
    for (int i = 0; i < frames && ok; ++i) {
        FrameImport f;
        f.videoItem = items.video;
        f.alphaItem = items.alpha;
        f.frame = i;
        f.data = holder.data();
        f.videoRate = -1;
        f.alphaRate = key ? -1 : 0;
        f.videoType = VideoTypeFor(true);
        f.alphaType = AlphaTypeFor(key, key, true, true);
        ok = rec.ImportFrame(f) == 1;
    }
    rec.ReleaseItem(items.video);
    rec.ReleaseItem(items.alpha);
    return ok;
}

}  // namespace zub::test

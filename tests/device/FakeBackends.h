// Scripted ZUB and Tbx back-ends for the device tests: each call is logged with its main
// arguments, its record kept, and its result taken from the script.
#pragma once

#include <cstdint>
#include <cstring>
#include <string>
#include <vector>

#include "device/RecorderAbi.h"

namespace zub::test {

struct FakeRecorder {
    std::vector<std::string> calls;
    // Script.
    std::int32_t openResult = 0;
    std::int32_t handleToGive = 41;
    std::int32_t referenceResult = 0;
    std::int32_t init0Result = 0;
    std::int32_t init1Result = 0;
    std::int32_t versionLines = 525;
    rec::ZubSystemInfo systemInfo{625, 720, 576, {}};
    std::int32_t createResult = 0;
    std::int32_t importResult = 0;
    std::int32_t framesFit = 0;
    std::int32_t fileFlags = 0;
    std::int32_t fileFrames = 0;
    bool haveBlock = false;
    std::uint8_t block[256] = {};
    rec::ZubOutputBus bus{0, 0, 9, 7, 0, 4};
    // What the module handed over.
    rec::TbxClipCreateIn tbxCreate{};
    rec::ZubClipCreate zubCreate{};
    rec::TbxImportRecord tbxImport{};
    rec::ZubImportRecord zubImport{};
    rec::ZubGfxImage gfx{};
    rec::TbxVolumeSpace tbxSpace{};
    rec::ZubVolumeQuery zubSpace{};
    std::string spaceFolder;
    rec::TbxPreview tbxPreview{};
    rec::TbxM2Routing tbxRouting{};
    rec::ZubPreviewBus zubPreview{};
    rec::ZubOutputBus zubBusSet{};

    void Log(const std::string& s) { calls.push_back(s); }
    int Count(const std::string& prefix) const
    {
        int n = 0;
        for (const auto& c : calls) n += c.rfind(prefix, 0) == 0;
        return n;
    }
};

// The fake that the tables below call; installed by InstallFakes().
FakeRecorder& Fake();
const rec::ZubApi& FakeZubApi();
const rec::TbxApi& FakeTbxApi();

}  // namespace zub::test

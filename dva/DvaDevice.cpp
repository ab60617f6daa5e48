#include "dva/DvaDevice.h"

#include <cstdint>

#include "dva/DvaInternal.h"
#include "device/RecorderDevice.h"
#include "zubimport/Dva.h"

namespace zub {

namespace {

struct DeviceSetup {
    int deviceName = 0;
    void* existingHandle = nullptr;
    int mode24p = 0;
    int useZub = 0;
};
DeviceSetup g_setup;

// A recorder opened only for one association is closed again however that ends.
class ScopedRecorder {
public:
    explicit ScopedRecorder(CRecorderDeviceInfo& rec) : rec_(rec) {}
    ~ScopedRecorder()
    {
        if (openedHere_) rec_.CloseDevice();
    }
    ScopedRecorder(const ScopedRecorder&) = delete;
    ScopedRecorder& operator=(const ScopedRecorder&) = delete;

    bool EnsureOpen()
    {
        if (rec_.handle != 0 && rec_.handle != -1) return true;
        // The host's handle travels as a pointer-sized value; the recorder's handles are 32-bit.
        const auto existing = static_cast<int>(reinterpret_cast<std::intptr_t>(g_setup.existingHandle));
        if (!rec_.OpenDeviceWithInfo(g_setup.useZub, g_setup.deviceName, existing)) return false;
        rec_.mode24p = g_setup.mode24p;
        openedHere_ = true;
        return true;
    }

private:
    CRecorderDeviceInfo& rec_;
    bool openedHere_ = false;
};

}  // namespace

void CDva::SetupDevice(int deviceName, void* existingHandle, int mode24p, int useZub)
{
    g_setup = {deviceName, existingHandle, mode24p, useZub};
}

bool dva::QueryVideoFacts(const char* videoFile, VideoFacts& facts)
{
    CRecorderDeviceInfo& rec = TheRecorder();
    ScopedRecorder scope(rec);
    if (!scope.EnsureOpen())
        return FailWith(videoFile ? videoFile : "", "cannot open the recorder: " + CRecorderDevice::GetError());
    facts.width = rec.frameWidth;
    facts.height = rec.frameHeight;
    facts.rateHundredths = rec.mode24p ? 2400 : rec.lines == 525 ? 2997 : 2500;
    // A failed query counts as no key and no length, as the recorder cannot tell.
    facts.key = rec.QueryFileKey(videoFile) == 1;
    facts.length = rec.QueryFileLength(videoFile);
    return true;
}

}  // namespace zub

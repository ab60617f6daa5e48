#include "DvaDevice.h"

#include "DvaInternal.h"
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
}  // namespace

void CDva::SetupDevice(int deviceName, void* existingHandle, int mode24p, int useZub)
{
    g_setup = {deviceName, existingHandle, mode24p, useZub};
}

bool dva::QueryVideoFacts(const char* videoFile, VideoFacts&)
{
    return FailWith(videoFile ? videoFile : "", "recorder access is not built yet");
}

}  // namespace zub

// WriteNew against the substitute recorder: the length and key it stores come from a real
// clip written through the device layer, on both back-ends.
#include <gtest/gtest.h>

#include <cstdlib>
#include <cstring>
#include <vector>

#include "device/RecorderBackends.h"
#include "device/RecorderDevice.h"
#include "ClipWriter.h"
#include "TempDir.h"
#include "tests/dva/WaveFiles.h"
#include "zubimport/Dva.h"
#include "zubimport/Platform.h"

using namespace zub;
using namespace zub::test;

TEST(WriteNewOnSubstitute, LengthAndKeyOfRealClipsOnBothBackEnds)
{
    TempDir vol;
    setenv(kRecorderDirVariable, ZUB_TEST_RECORDER_DIR, 1);
    setenv("ZUBREC_CONFIG", (vol / "none.ini").c_str(), 1);
    setenv("ZUBREC_VOLUME", (vol.Path().string() + "/").c_str(), 1);
    setenv("ZUBREC_LINES", "625", 1);
    setenv("ZUBREC_MONITOR", "off", 1);

    const std::string keyed = vol / "keyed.zub";
    const std::string plain = vol / "plain.zub";
    ASSERT_EQ(TheRecorder().OpenDeviceWithInfo(1, 0, 0), 1) << CRecorderDevice::GetError();
    ASSERT_TRUE(WriteClip(keyed, 3, true)) << CRecorderDevice::GetError();
    ASSERT_TRUE(WriteClip(plain, 5, false)) << CRecorderDevice::GetError();
    TheRecorder().CloseDevice();

    for (int useZub : {1, 0}) {
        SCOPED_TRACE(useZub ? "ZUB" : "Tbx");
        CDva::SetupDevice(0, nullptr, 0, useZub);
        struct Case {
            const std::string& clip;
            std::uint32_t frames, key;
        } cases[] = {{keyed, 3, 1}, {plain, 5, 0}};
        for (const Case& c : cases) {
            const std::string dva = vol / "audio.dva";
            WriteFile(dva, Riff(Chunk("fmt ", Fmt(1, 2, 48000, 4, 16)) + Chunk("data", Samples(4800))));
            CDva writer;
            ASSERT_EQ(writer.WriteNew(dva.c_str(), c.clip.c_str(), "", "00:00:00:00"), 1) << CDva::GetLastError();
            EXPECT_EQ(TheRecorder().handle, -1);
            const std::string out = ReadFile(dva);
            const std::size_t h = 44 + 4800 + 8 + 332;
            EXPECT_EQ(GetLe32(out, h + 4), 720u);
            EXPECT_EQ(GetLe32(out, h + 8), 576u);
            EXPECT_EQ(GetLe32(out, h + 20), c.frames);
            EXPECT_EQ(GetLe32(out, h + 36), c.key);
            CDva reader;
            ASSERT_EQ(reader.ReadPlayList(dva.c_str()), 1);
            EXPECT_EQ(reader.GetPlayList()->lLastFrame, std::int32_t(c.frames) - 1);
            EXPECT_EQ(std::string(reader.GetPlayList()->szPath), c.clip);
            ExpectWave(dva, 48000, 2, 16, 1200);
        }
    }
}

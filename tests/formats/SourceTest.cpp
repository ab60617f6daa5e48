// Reader-level checks of what the conversion relies on beyond decoding: downmix levels,
// sound starting with the picture, variable frame rate, rotation, aspect and timecode.
#include <gtest/gtest.h>

#include "FormatSupport.h"
#include "TempDir.h"
#include "TestMedia.h"

namespace zub::formats {
namespace {

namespace tm = zub::testmedia;

TEST(SourceFacts, UncompressedSoundLengthIsExactInEveryContainer)
{
    test::TempDir dir;
    for (const char* ext : {".wav", ".aiff", ".mov"}) {
        const std::string path = dir / (std::string("tone") + ext);
        const char* codec = std::string(ext) == ".wav" ? "pcm_s16le" : "pcm_s16be";
        ASSERT_EQ(Ffmpeg("-f lavfi -i sine=frequency=1000:sample_rate=48000:duration=1.5 -ac 2 -c:a " + std::string(codec) +
                         " '" + path + "'"),
                  "");
        AudioFacts facts;
        std::string why;
        ASSERT_TRUE(ReadAudioFacts(path, &facts, &why)) << why;
        EXPECT_EQ(facts.samples, 72000) << ext;
        EXPECT_EQ(facts.startSkip, 0) << ext;
        EXPECT_EQ(facts.rate, 48000);
        EXPECT_EQ(facts.channels, 2);
    }
}

}  // namespace
}  // namespace zub::formats

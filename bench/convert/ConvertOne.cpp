// bench_convert_audio_one SOURCE TARGET [BLOCK_FRAMES]: the module's audio conversion of one
// WAVE file to 44.1 kHz 16-bit stereo, as its own process, so that the benchmarks can time it
// and take its peak memory exactly as they do for the peer programs. Exit status 0 on success.
#include <cstdio>
#include <cstdlib>

#include "convert/audio/AudioConverter.h"
#include "zubimport/Prompt.h"

int main(int argc, char** argv)
{
    if (argc < 3) {
        std::fprintf(stderr, "usage: %s SOURCE TARGET [BLOCK_FRAMES]\n", argv[0]);
        return 2;
    }
    zub::audio::AudioConverter conv;
    if (argc > 3) conv.SetBlockFrames(std::strtoul(argv[3], nullptr, 10));
    zub::SilentPrompt silent;
    if (conv.Convert(argv[1], argv[2], {44100, 16, 1}, silent) != 1) {
        std::fprintf(stderr, "%s\n", conv.LastError().c_str());
        return 1;
    }
    return 0;
}

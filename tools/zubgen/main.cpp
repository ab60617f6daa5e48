// zubgen: makes test media with known content (frame numbers coded in the picture, sine tones
// in the sound) for the test suites and for trying the importer by hand.
#include <CLI/CLI.hpp>

#include <cstdio>
#include <map>
#include <string>

extern "C" {
#include <libavutil/log.h>
}

#include "tests/support/testmedia/TestMedia.h"

namespace zt = zub::testmedia;

namespace {

const std::map<std::string, zt::VideoCodec> kVideo = {
    {"none", zt::VideoCodec::None},   {"h264", zt::VideoCodec::H264},   {"mpeg4", zt::VideoCodec::Mpeg4},
    {"mpeg2", zt::VideoCodec::Mpeg2}, {"mjpeg", zt::VideoCodec::Mjpeg}, {"raw", zt::VideoCodec::Raw},
    {"qtrle", zt::VideoCodec::Qtrle}, {"png", zt::VideoCodec::Png},     {"prores4444", zt::VideoCodec::ProRes4444},
};
const std::map<std::string, zt::AudioCodec> kAudio = {
    {"none", zt::AudioCodec::None},  {"sowt", zt::AudioCodec::PcmS16le}, {"s16le", zt::AudioCodec::PcmS16le},
    {"twos", zt::AudioCodec::PcmS16be}, {"s16be", zt::AudioCodec::PcmS16be}, {"twos8", zt::AudioCodec::PcmS8},
    {"raw8", zt::AudioCodec::PcmU8}, {"u8", zt::AudioCodec::PcmU8},      {"aac", zt::AudioCodec::Aac},
    {"ima4", zt::AudioCodec::ImaQt}, {"mp2", zt::AudioCodec::Mp2},       {"ac3", zt::AudioCodec::Ac3},
    {"vorbis", zt::AudioCodec::Vorbis}, {"flac", zt::AudioCodec::Flac},
};

bool ParseRate(const std::string& text, int* num, int* den)
{
    int n = 0, d = 1;
    if (std::sscanf(text.c_str(), "%d/%d", &n, &d) < 1 || n <= 0 || d <= 0) return false;
    *num = n;
    *den = d;
    return true;
}

}  // namespace

int main(int argc, char** argv)
{
    av_log_set_level(AV_LOG_ERROR);
    CLI::App app{"zubgen - make test media with frame numbers coded in the picture and sine tones in the sound"};
    app.require_subcommand(1);

    zt::MediaSpec spec;
    std::string out, preset, video = "h264", audio = "none", fps = "30";
    auto* media = app.add_subcommand("media", "Make one movie (or sound file) as described");
    media->add_option("output", out, "File to write; the container follows its extension")->required();
    media->add_option("--preset", preset, "Start from a named recipe (see 'zubgen list')");
    auto* videoOpt = media->add_option("--video", video, "Video codec")->check(CLI::IsMember(kVideo));
    auto* audioOpt = media->add_option("--audio", audio, "Audio codec")->check(CLI::IsMember(kAudio));
    media->add_option("--width", spec.width, "Picture width");
    media->add_option("--height", spec.height, "Picture height");
    media->add_option("--frames", spec.frames, "Number of frames");
    auto* fpsOpt = media->add_option("--fps", fps, "Frame rate, N or N/D");
    media->add_option("--first", spec.firstFrameNumber, "Number coded in the first frame");
    media->add_flag("--alpha", spec.alpha, "Code the frame number in an alpha plane as well");
    media->add_flag("--unknown-rate", spec.variableRate, "Irregular frame times and no stored frame rate");
    media->add_option("--rate", spec.sampleRate, "Audio sample rate");
    media->add_option("--channels", spec.channels, "Audio channels");
    media->add_option("--tone", spec.toneHz, "Tone frequency in Hz");
    media->add_option("--level", spec.toneLevel, "Tone peak as a fraction of full scale");
    media->add_option("--seconds", spec.audioSeconds, "Audio length (default: as long as the video)");
    media->add_option("--container", spec.container, "libavformat container name, overriding the extension");
    media->add_option("--bitrate", spec.videoBitRate, "Video bit rate in bits per second");
    media->add_option("--grain", spec.grain, "Sensor-like noise in every frame, +-N per sample (camera-like cost to decode)");

    int bits = 16, rate = 48000, channels = 2;
    double seconds = 1.0, tone = 1000.0, level = 0.5;
    auto* wave = app.add_subcommand("wave", "Make a PCM WAVE file with a sine tone");
    wave->add_option("output", out, "File to write")->required();
    wave->add_option("--bits", bits, "8 or 16")->check(CLI::IsMember({8, 16}));
    wave->add_option("--rate", rate, "Sample rate");
    wave->add_option("--channels", channels, "Channels");
    wave->add_option("--seconds", seconds, "Length");
    wave->add_option("--tone", tone, "Tone frequency in Hz");
    wave->add_option("--level", level, "Tone peak as a fraction of full scale");

    std::string dir;
    std::vector<std::string> names;
    auto* set = app.add_subcommand("presets", "Make named recipes (all by default) into a folder");
    set->add_option("folder", dir, "Folder to write into")->required()->check(CLI::ExistingDirectory);
    set->add_option("names", names, "Recipes to make");

    auto* list = app.add_subcommand("list", "List the named recipes");

    CLI11_PARSE(app, argc, argv);

    std::string error;
    if (*list) {
        for (const std::string& n : zt::PresetNames()) std::printf("%s%s\n", n.c_str(), zt::PresetExtension(n).c_str());
        return 0;
    }
    if (*set) {
        if (names.empty()) names = zt::PresetNames();
        int failed = 0;
        for (const std::string& n : names) {
            const std::string path = zt::MakePreset(dir, n, &error);
            if (path.empty()) {
                std::fprintf(stderr, "zubgen: %s\n", error.c_str());
                ++failed;
            } else {
                std::printf("%s\n", path.c_str());
            }
        }
        return failed ? 1 : 0;
    }
    if (*wave) {
        if (!zt::MakeWave(out, bits, rate, channels, seconds, tone, level, &error)) {
            std::fprintf(stderr, "zubgen: %s\n", error.c_str());
            return 1;
        }
        return 0;
    }
    if (!preset.empty()) {
        zt::MediaSpec base;
        if (!zt::Preset(preset, &base)) {
            std::fprintf(stderr, "zubgen: %s: no such recipe\n", preset.c_str());
            return 2;
        }
        // Options given on the command line win over the recipe.
        zt::MediaSpec given = spec;
        spec = base;
        const zt::MediaSpec defaults;
        if (given.width != defaults.width) spec.width = given.width;
        if (given.height != defaults.height) spec.height = given.height;
        if (given.frames != defaults.frames) spec.frames = given.frames;
        if (given.firstFrameNumber) spec.firstFrameNumber = given.firstFrameNumber;
        if (given.alpha) spec.alpha = true;
        if (given.variableRate) spec.variableRate = true;
        if (given.sampleRate != defaults.sampleRate) spec.sampleRate = given.sampleRate;
        if (given.channels != defaults.channels) spec.channels = given.channels;
        if (given.toneHz != defaults.toneHz) spec.toneHz = given.toneHz;
        if (given.toneLevel != defaults.toneLevel) spec.toneLevel = given.toneLevel;
        if (given.audioSeconds >= 0) spec.audioSeconds = given.audioSeconds;
        if (!given.container.empty()) spec.container = given.container;
        if (given.videoBitRate) spec.videoBitRate = given.videoBitRate;
        if (given.grain) spec.grain = given.grain;
        if (*videoOpt) spec.video = kVideo.at(video);
        if (*audioOpt) spec.audio = kAudio.at(audio);
        if (*fpsOpt && !ParseRate(fps, &spec.fpsNum, &spec.fpsDen)) {
            std::fprintf(stderr, "zubgen: bad frame rate '%s'\n", fps.c_str());
            return 2;
        }
    } else {
        spec.video = kVideo.at(video);
        spec.audio = kAudio.at(audio);
        if (!ParseRate(fps, &spec.fpsNum, &spec.fpsDen)) {
            std::fprintf(stderr, "zubgen: bad frame rate '%s'\n", fps.c_str());
            return 2;
        }
    }
    if (!zt::MakeMedia(out, spec, &error)) {
        std::fprintf(stderr, "zubgen: %s\n", error.c_str());
        return 1;
    }
    return 0;
}

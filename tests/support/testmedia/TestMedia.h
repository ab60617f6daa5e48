// Test media made at test time: short movies and WAVE files with known content, encoded
// in-process with libavformat/libavcodec, and the readers that recognise that content again
// in whatever a decoder under test hands back.
//
// Picture. Every video frame carries its frame number as a block code that survives lossy
// compression, chroma subsampling and resizing to any other size:
//   - the picture is mid grey (128) with three colour patches in its top band, red, green and
//     blue from left to right, so a test can tell RGB from BGR;
//   - a band from 35% to 85% of the height and 10% to 90% of the width holds 2 rows x 10
//     columns of cells; cells are white (bit 1) or black (bit 0); the 20 bits are the frame
//     number (16 bits, most significant first, row by row) and a 4-bit check;
//   - movies with alpha carry the same code in the alpha plane, inverted (a 1 bit is
//     transparent, alpha 0; everything else is opaque, 255), so reading the wrong plane fails
//     the check instead of giving a plausible number.
// The reader locates the picture inside the image by its bright (non-black) extent, so a
// frame letterboxed or pillarboxed on black bars reads back as well as a full-frame one.
//
// Sound. Channel c carries a sine of `toneHz[c]` (or `toneHz` for all) at `toneLevel` of full
// scale, phase 0 at the first sample, so level, pitch and resampling quality can be measured
// on whatever comes back (`AnalyzeTone`).
#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

namespace zub::testmedia {

enum class VideoCodec {
    None,
    H264,        // libx264, 4:2:0
    Mpeg4,       // MPEG-4 part 2, 4:2:0
    Mpeg2,       // MPEG-2 video, 4:2:0 (needs a standard frame rate such as 25 or 30000/1001)
    Mjpeg,       // Motion JPEG, full-range 4:2:0
    Raw,         // uncompressed BGR 24 bits (AVI) / RGB 24 bits (QuickTime)
    Qtrle,       // QuickTime Animation; ARGB with alpha, RGB 24 without
    Png,         // PNG frames; RGBA with alpha, RGB without
    ProRes4444,  // ProRes 4444 with a 10-bit alpha plane (alpha always on)
};

enum class AudioCodec {
    None,
    PcmS16le,  // QuickTime 'sowt', WAVE 16-bit
    PcmS16be,  // QuickTime 'twos' 16-bit
    PcmS8,     // QuickTime 'twos' 8-bit
    PcmU8,     // QuickTime 'raw ', WAVE 8-bit
    Aac,
    ImaQt,     // QuickTime 'ima4'
    Mp2,
    Ac3,
    Vorbis,
    Flac,
};

struct MediaSpec {
    int width = 320;
    int height = 240;
    int frames = 30;          // video frames
    int fpsNum = 30;          // frame rate fpsNum/fpsDen, e.g. 30000/1001
    int fpsDen = 1;
    VideoCodec video = VideoCodec::H264;
    bool alpha = false;       // code the frame number in an alpha plane too (Qtrle, Png; ProRes4444 always)
    int firstFrameNumber = 0; // number coded in the first frame; later frames count up from it
    bool variableRate = false;// irregular frame durations and no frame rate stored: a file whose rate is unknown

    AudioCodec audio = AudioCodec::None;
    int sampleRate = 48000;
    int channels = 2;
    double toneHz = 1000.0;             // every channel, unless toneHzPerChannel says otherwise
    std::vector<double> toneHzPerChannel;
    double toneLevel = 0.5;             // peak, as a fraction of full scale
    double audioSeconds = -1.0;         // < 0: as long as the video (frames / rate); needed when there is no video

    std::string container;    // libavformat short name ("mov", "mp4", "matroska", "avi", "mpeg", "wav");
                              // empty: guessed from the file name
    int videoBitRate = 0;     // 0: the encoder's default quality
    int grain = 0;            // sensor-like noise, different in every frame: each 8-bit 4:2:0 sample moves by
                              // up to +-grain. What makes a camera's stream costly to decode; 0: none
};

// Writes `path` (replacing it) as described. On failure returns false, removes any partial
// file and puts "path: reason" in *error when given. The first call lowers libav's (global)
// log level to errors unless the environment sets ZUBGEN_VERBOSE.
bool MakeMedia(const std::string& path, const MediaSpec& spec, std::string* error = nullptr);

// A WAVE file of plain PCM (8 bits unsigned or 16 bits signed) with the tone described.
bool MakeWave(const std::string& path, int bitsPerSample, int sampleRate, int channels, double seconds,
              double toneHz = 1000.0, double toneLevel = 0.5, std::string* error = nullptr);

// Named recipes shared by every area's tests, so a test asks for "mov_twos" instead of
// repeating a spec. `Preset` returns false for an unknown name. The names, their file
// extension and what they hold are listed by `PresetNames` / `PresetExtension`:
//   mp4_h264_aac, mp4_mpeg4_aac, mkv_h264_vorbis, avi_mpeg4_pcm, avi_mjpeg_pcm, avi_raw_pcm,
//   mpg_mpeg2_mp2, mov_h264_aac, mov_twos, mov_sowt, mov_raw8, mov_twos8, mov_ima4, mov_aac,
//   mov_sound_only, mov_no_sound, mov_qtrle_alpha, mov_png_alpha, mov_prores4444,
//   mkv_unknown_rate, wav_u8_mono, wav_u8_stereo, wav_s16_mono, wav_s16_stereo,
//   wav_s16_44k_stereo, wav_s16_22k_mono, wav_s16_32k_stereo
bool Preset(std::string_view name, MediaSpec* spec);
std::vector<std::string> PresetNames();
std::string PresetExtension(std::string_view name);  // ".mov", ".wav", ...; empty when unknown

// Makes the preset into dir/<name><ext>, overriding nothing; returns the path or "" on error.
std::string MakePreset(const std::string& dir, std::string_view name, std::string* error = nullptr);

// ---- reading the content back ----

enum class PixelFormat { Rgb24, Bgr24, Rgba32, Bgra32, Argb32, Bgrx32, Gray8 };

int BytesPerPixel(PixelFormat format);

struct ImageView {
    const std::uint8_t* data = nullptr;  // first byte of the top row as displayed
    int width = 0;
    int height = 0;
    std::ptrdiff_t stride = 0;           // bytes from one displayed row to the next; negative for bottom-up
    PixelFormat format = PixelFormat::Bgr24;
};

// A bottom-up buffer (the first row in memory is the bottom of the picture) seen top-down.
ImageView BottomUp(const std::uint8_t* buffer, int width, int height, std::ptrdiff_t rowBytes, PixelFormat format);

enum class Plane { Luma, Alpha };

// The frame number coded in the image, or -1 when no valid code is found (no picture, check
// failed). Plane::Alpha reads the inverted code of the alpha plane (formats with alpha only).
int ReadFrameNumber(const ImageView& image, Plane plane = Plane::Luma);

// Mean colour (R, G, B) of the three patches, in the order red, green, blue. False when the
// picture cannot be located.
bool ReadPatchColours(const ImageView& image, std::array<std::array<int, 3>, 3>* rgb);

// Paints frame `number` into a top-down buffer; `alpha` fills the alpha byte of 32-bit formats
// with the alpha code (otherwise 255). Used by the generator, and by tests that need a frame
// without a codec in between.
void PaintFrame(std::uint8_t* data, int width, int height, std::ptrdiff_t stride, PixelFormat format, int number,
                bool alpha);

struct ToneAnalysis {
    double amplitude = 0;  // peak of the fitted sine, fraction of full scale
    double phase = 0;      // radians at the first sample analysed
    double snrDb = 0;      // fitted sine against everything else (noise, distortion, other tones)
    double dc = 0;         // mean, fraction of full scale
};

// Fits a sine of `hz` to one channel of interleaved 16-bit samples (least squares over a
// whole number of samples, so any length works).
ToneAnalysis AnalyzeTone(const std::int16_t* samples, std::size_t frames, int channels, int channel, int sampleRate,
                         double hz);

}  // namespace zub::testmedia

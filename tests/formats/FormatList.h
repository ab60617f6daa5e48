// The one list of source formats the module reads: the format matrix test makes and reads
// every entry, and the README's format table is generated from it (the test fails when the
// README says otherwise), so the table cannot claim what the test does not check.
//
// Each entry is made at test time by the ffmpeg command-line tool from its own test sources.
// A route that does not read an entry is left out of `routes`; an entry no route reads says
// why in `note` and the test checks that both routes refuse it with the file named.
#pragma once

#include <string>
#include <vector>

namespace zub::formats {

enum Route : unsigned { kNone = 0, kGraph = 1, kMovie = 2 };

struct Format {
    const char* id;         // file stem, unique
    const char* ext;        // with the dot
    bool video;             // a video entry (frames counted) or a sound entry (WAVE measured)
    const char* container;  // as the README names it
    const char* codec;
    unsigned routes;
    const char* encoder;    // the ffmpeg encoder the entry needs (skipped when missing)
    // Input: a video test pattern of this size/rate/seconds (width 0: no picture) and, for
    // sound, a 2 s tone of `channels` at 48 kHz (0: no sound).
    int width, height, rateNum, rateDen;
    double seconds;
    int channels;
    const char* args;       // ffmpeg output options
    const char* note;
};

inline const std::vector<Format>& Formats()
{
    static const std::vector<Format> list = {
        // Video.
        {"mp4_h264", ".mp4", true, "MP4", "H.264 8-bit 4:2:0", kGraph | kMovie, "libx264", 320, 240, 30, 1, 2, 0,
         "-c:v libx264 -preset ultrafast -pix_fmt yuv420p", ""},
        {"mov_h264_422_10", ".mov", true, "QuickTime MOV", "H.264 10-bit 4:2:2", kGraph | kMovie, "libx264", 320, 240, 30, 1, 2, 0,
         "-c:v libx264 -preset ultrafast -pix_fmt yuv422p10le", ""},
        {"mp4_hevc", ".mp4", true, "MP4", "HEVC", kGraph | kMovie, "libx265", 320, 240, 30, 1, 2, 0,
         "-c:v libx265 -preset ultrafast -tag:v hvc1 -x265-params log-level=error", ""},
        {"mov_prores422", ".mov", true, "QuickTime MOV", "ProRes 422", kGraph | kMovie, "prores_ks", 320, 240, 30, 1, 2, 0,
         "-c:v prores_ks -profile:v 2", ""},
        {"mov_prores4444", ".mov", true, "QuickTime MOV", "ProRes 4444 with alpha", kGraph | kMovie, "prores_ks", 320, 240, 30, 1,
         2, 0, "-c:v prores_ks -profile:v 4 -pix_fmt yuva444p10le", ""},
        {"mov_dnxhd", ".mov", true, "QuickTime MOV", "DNxHD", kGraph | kMovie, "dnxhd", 1280, 720, 25, 1, 1, 0,
         "-c:v dnxhd -b:v 90M -pix_fmt yuv422p", ""},
        {"mxf_mpeg2", ".mxf", true, "MXF OP1a", "MPEG-2", kGraph, "mpeg2video", 320, 240, 25, 1, 2, 0,
         "-c:v mpeg2video -f mxf", ""},
        {"mxf_dnxhd", ".mxf", true, "MXF OP1a", "DNxHD", kGraph, "dnxhd", 1280, 720, 25, 1, 1, 0,
         "-c:v dnxhd -b:v 90M -pix_fmt yuv422p -f mxf", ""},
        {"mxf_opatom_dnxhd", ".mxf", true, "MXF OP-Atom", "DNxHD", kGraph, "dnxhd", 1280, 720, 25, 1, 1, 0,
         "-c:v dnxhd -b:v 90M -pix_fmt yuv422p -f mxf_opatom",
         "read from a scratch copy of its streams in a QuickTime file (GStreamer 1.22's MXF demuxer stops on OP-Atom)"},
        {"ps_mpeg2", ".mpg", true, "MPEG-2 program stream", "MPEG-2", kGraph, "mpeg2video", 320, 240, 30, 1, 2, 0,
         "-c:v mpeg2video -f vob", ""},
        {"ts_mpeg2", ".ts", true, "MPEG-2 transport stream", "MPEG-2", kGraph, "mpeg2video", 320, 240, 30, 1, 2, 0,
         "-c:v mpeg2video -f mpegts", ""},
        {"es_mpeg2", ".m2v", true, "MPEG-2 elementary stream", "MPEG-2", kGraph, "mpeg2video", 320, 240, 30, 1, 2, 0,
         "-c:v mpeg2video -f mpeg2video", ""},
        {"avi_dv", ".avi", true, "AVI", "DV (NTSC 4:1:1)", kGraph, "dvvideo", 720, 480, 30000, 1001, 1, 0,
         "-c:v dvvideo -pix_fmt yuv411p", ""},
        {"avi_mjpeg", ".avi", true, "AVI", "Motion JPEG", kGraph, "mjpeg", 320, 240, 30, 1, 2, 0, "-c:v mjpeg -q:v 5", ""},
        {"dv_raw", ".dv", true, "raw DV", "DV (PAL 4:2:0)", kGraph, "dvvideo", 720, 576, 25, 1, 1, 0,
         "-c:v dvvideo -pix_fmt yuv420p -f dv", ""},
        {"mkv_ffv1", ".mkv", true, "Matroska", "FFV1", kGraph, "ffv1", 320, 240, 30, 1, 2, 0, "-c:v ffv1", ""},
        {"mkv_av1", ".mkv", true, "Matroska", "AV1", kGraph, "libsvtav1", 320, 240, 30, 1, 2, 0,
         "-c:v libsvtav1 -preset 12", ""},
        {"webm_vp8", ".webm", true, "WebM", "VP8", kGraph, "libvpx", 320, 240, 30, 1, 2, 0,
         "-c:v libvpx -deadline realtime -cpu-used 8 -b:v 500k", ""},
        {"webm_vp9", ".webm", true, "WebM", "VP9", kGraph, "libvpx-vp9", 320, 240, 30, 1, 2, 0,
         "-c:v libvpx-vp9 -deadline realtime -cpu-used 8 -b:v 500k", ""},
        {"ogg_theora", ".ogv", true, "Ogg", "Theora", kGraph, "libtheora", 320, 240, 30, 1, 2, 0, "-c:v libtheora -q:v 5", ""},
        {"gif_anim", ".gif", true, "GIF", "animated GIF", kGraph, "gif", 160, 120, 10, 1, 2, 0, "-c:v gif -f gif", ""},
        {"asf_wmv", ".wmv", true, "ASF", "Windows Media Video 8 + WMA 2", kGraph, "wmv2", 320, 240, 30, 1, 2, 2,
         "-c:v wmv2 -c:a wmav2", ""},
        // Sound.
        {"m4a_aac", ".m4a", false, "MP4", "AAC stereo", kGraph | kMovie, "aac", 0, 0, 0, 0, 2, 2, "-c:a aac", ""},
        {"mp4_aac51", ".mp4", false, "MP4", "AAC 5.1 (mixed down to stereo)", kGraph | kMovie, "aac", 0, 0, 0, 0, 2, 6, "-c:a aac", ""},
        {"ac3_es", ".ac3", false, "AC-3 elementary stream", "AC-3", kGraph, "ac3", 0, 0, 0, 0, 2, 2, "-c:a ac3", ""},
        {"eac3_es", ".eac3", false, "E-AC-3 elementary stream", "E-AC-3", kGraph, "eac3", 0, 0, 0, 0, 2, 2, "-c:a eac3", ""},
        {"dts_es", ".dts", false, "DTS elementary stream", "DTS", kGraph, "dca", 0, 0, 0, 0, 2, 2, "-c:a dca -strict -2", ""},
        {"flac", ".flac", false, "FLAC", "FLAC", kGraph, "flac", 0, 0, 0, 0, 2, 2, "-c:a flac", ""},
        {"mp3", ".mp3", false, "MPEG audio", "MP3", kGraph, "libmp3lame", 0, 0, 0, 0, 2, 2, "-c:a libmp3lame", ""},
        {"ogg_vorbis", ".ogg", false, "Ogg", "Vorbis", kGraph, "libvorbis", 0, 0, 0, 0, 2, 2, "-c:a libvorbis", ""},
        {"ogg_opus", ".opus", false, "Ogg", "Opus", kGraph, "libopus", 0, 0, 0, 0, 2, 2, "-c:a libopus", ""},
        {"m4a_alac", ".m4a", false, "MP4", "ALAC", kGraph | kMovie, "alac", 0, 0, 0, 0, 2, 2, "-c:a alac", ""},
        {"wav_s16", ".wav", false, "WAVE", "PCM 16-bit", kGraph, "pcm_s16le", 0, 0, 0, 0, 2, 2, "-c:a pcm_s16le", ""},
        {"wav_s24", ".wav", false, "WAVE", "PCM 24-bit", kGraph, "pcm_s24le", 0, 0, 0, 0, 2, 2, "-c:a pcm_s24le", ""},
        {"wav_f32", ".wav", false, "WAVE", "PCM 32-bit float", kGraph, "pcm_f32le", 0, 0, 0, 0, 2, 2, "-c:a pcm_f32le", ""},
        {"wav_mulaw", ".wav", false, "WAVE", "mu-law", kGraph, "pcm_mulaw", 0, 0, 0, 0, 2, 2, "-c:a pcm_mulaw", ""},
        {"mov_s24", ".mov", false, "QuickTime MOV", "PCM 24-bit", kGraph | kMovie, "pcm_s24be", 0, 0, 0, 0, 2, 2,
         "-c:a pcm_s24be", ""},
        {"aiff", ".aiff", false, "AIFF", "PCM 16-bit", kGraph, "pcm_s16be", 0, 0, 0, 0, 2, 2, "-c:a pcm_s16be",
         ""},
        {"wma", ".wma", false, "ASF", "WMA 2", kGraph, "wmav2", 0, 0, 0, 0, 2, 2, "-c:a wmav2", ""},
        {"mxf_opatom_pcm", ".mxf", false, "MXF OP-Atom", "PCM 16-bit, one channel a file", kGraph, "pcm_s16le", 0, 0, 0, 0, 2,
         1, "-c:a pcm_s16le -f mxf_opatom",
         "read from a scratch copy of its streams in a QuickTime file (GStreamer 1.22's MXF demuxer stops on OP-Atom)"},
    };
    return list;
}

inline std::string RouteText(unsigned routes)
{
    if (routes == (kGraph | kMovie)) return "graph, movie";
    if (routes == kGraph) return "graph";
    if (routes == kMovie) return "movie";
    return "none";
}

// The README table, as generated from the list.
inline std::string ReadmeTable()
{
    std::string t = "| kind | container | codec | read by | note |\n|---|---|---|---|---|\n";
    for (const Format& f : Formats()) {
        t += std::string("| ") + (f.video ? "video" : "sound") + " | " + f.container + " | " + f.codec + " | " +
             RouteText(f.routes) + " | " + f.note + " |\n";
    }
    return t;
}

}  // namespace zub::formats

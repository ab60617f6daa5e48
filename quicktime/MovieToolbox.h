// The movie toolbox as the movie source needs it, on libavformat's mov/mp4 demuxer and
// libavcodec: movies opened from files, the movie box, sample times of the video track taken
// from the demuxer's sample index, drawing the frame at a movie time into a 24-bit bitmap, and
// the sound track's media (sample description, media samples, duration).
//
// Result codes and four-character types keep the toolbox's own conventions (16-bit signed
// results, big-endian OSType values such as 'twos' == 0x74776F73) so the sources above read
// exactly like the toolbox code they stand for.
#pragma once

#include <cstddef>
#include <cstdint>
#include <memory>
#include <string>
#include <vector>

#include "zubimport/Platform.h"

struct AVFormatContext;
struct AVCodecContext;
struct AVFrame;
struct AVPacket;
struct SwsContext;

namespace zub::qt {

using OSErr = std::int16_t;
using OSType = std::uint32_t;
using TimeValue = std::int32_t;
using Fixed = std::int32_t;
using UnsignedFixed = std::uint32_t;

constexpr OSType MakeOSType(const char (&s)[5])
{
    return (static_cast<OSType>(static_cast<unsigned char>(s[0])) << 24) |
           (static_cast<OSType>(static_cast<unsigned char>(s[1])) << 16) |
           (static_cast<OSType>(static_cast<unsigned char>(s[2])) << 8) | static_cast<OSType>(static_cast<unsigned char>(s[3]));
}
std::string OSTypeText(OSType type);

inline constexpr OSErr noErr = 0;
inline constexpr OSErr unimpErr = -4;
inline constexpr OSErr ioErr = -36;
inline constexpr OSErr fnfErr = -43;
inline constexpr OSErr paramErr = -50;
inline constexpr OSErr memFullErr = -108;
inline constexpr OSErr badFormat = -206;
inline constexpr OSErr siUnknownInfoType = -231;
inline constexpr OSErr couldNotResolveDataRef = -2000;
inline constexpr OSErr badImageDescription = -2001;
inline constexpr OSErr cantFindHandler = -2003;
inline constexpr OSErr invalidMedia = -2008;
inline constexpr OSErr invalidTrack = -2009;
inline constexpr OSErr invalidMovie = -2010;
inline constexpr OSErr movieToolboxUninitialized = -2020;
inline constexpr OSErr noSoundTrackInMovieErr = -2046;  // also: media sample read failed
inline constexpr OSErr maxSizeToGrowTooSmall = -2041;
inline constexpr OSErr notEnoughDataErr = -2149;

inline constexpr OSType VideoMediaType = MakeOSType("vide");
inline constexpr OSType SoundMediaType = MakeOSType("soun");
inline constexpr OSType SystemSoundFileType = MakeOSType("sfil");
inline constexpr OSType UnknownFileType = MakeOSType("????");

// GetMovieNextInterestingTime flags.
inline constexpr int nextTimeMediaSample = 1 << 0;
inline constexpr int nextTimeEdgeOK = 1 << 14;

inline constexpr Fixed fixed1 = 0x00010000;

// Permissions of OpenMovieFile.
inline constexpr int fsRdPerm = 1;
inline constexpr int fsRdWrPerm = 3;

struct Rect {
    int top = 0;
    int left = 0;
    int bottom = 0;
    int right = 0;
};

// The sound sample description as the toolbox reports it.
struct SoundDescription {
    OSType dataFormat = 0;
    std::int16_t numChannels = 0;
    std::int16_t sampleSize = 0;
    std::int16_t compressionID = 0;  // 0 uncompressed, -1 fixed compression, -2 variable
    UnsignedFixed sampleRate = 0;    // 16.16
};

// Library start and stop. Initialise checks that the mov demuxer is built into libavformat.
OSErr InitializeQTML(long flags);
void TerminateQTML();
OSErr EnterMovies();
void ExitMovies();

// A path as the toolbox holds it; resolving checks only that the name is usable.
struct FSSpec {
    std::string path;
};
OSErr NativePathNameToFSSpec(const char* path, FSSpec* spec, long flags);
// The file's type: 'sfil' and the like come from the Finder information a copy from a Mac
// keeps in the extended attribute "user.com.apple.FinderInfo"; files without it are '????'.
OSErr FSpGetFInfo(const FSSpec& spec, OSType* fileType);

// The toolbox keeps an open movie file apart from the movie; here opening the file checks
// that it can be read, and the movie opens the file itself.
struct MovieFile {
    std::string path;
};
OSErr OpenMovieFile(const FSSpec& spec, std::unique_ptr<MovieFile>* file, int permission);
OSErr CloseMovieFile(std::unique_ptr<MovieFile>& file);

// Where a movie draws: a 24-bit bitmap with rows of `stride` bytes, top row first.
// libswscale's vector code stores whole 8-byte groups, past the last pixel of the last row: a
// bitmap it draws into carries this much more after its rows.
inline constexpr std::size_t kDrawSlack = 64;

struct GWorld {
    std::uint8_t* bits = nullptr;  // stride x height bytes, then kDrawSlack more
    int width = 0;
    int height = 0;
    std::size_t stride = 0;
};

class Media;

// A movie: one demuxer over one file. Only the first video track is drawn; sound tracks are
// reached through Media.
class Movie {
public:
    ~Movie();
    Movie(const Movie&) = delete;
    Movie& operator=(const Movie&) = delete;

    // NewMovieFromFile: the file must be a QuickTime/MPEG-4 movie (mov demuxer).
    static OSErr FromFile(const MovieFile& file, std::unique_ptr<Movie>* movie, std::string* why);
    // NewMovie: an empty movie, filled by ImportFile.
    static std::unique_ptr<Movie> NewEmpty();
    // MovieImportFile: brings any file libavformat can read into an empty movie.
    OSErr ImportFile(const FSSpec& spec, std::string* why);

    const std::string& Path() const { return path_; }
    // The picture's box as shown: a movie whose track is turned a quarter is as wide as its
    // frames are high.
    Rect Box() const;
    // Clockwise degrees (0, 90, 180, 270) the video track is turned when shown. Draw turns
    // it; CurrentPicture hands out the frame as stored.
    int Rotation() const { return rotation_; }

    // GetMovieNextInterestingTime for media type 'vide'; -1 when there is no such time.
    TimeValue NextInterestingTime(int flags, OSType mediaType, TimeValue time, Fixed rate) const;
    void SetTimeValue(TimeValue time) { time_ = time; }
    TimeValue TimeValueNow() const { return time_; }
    // The video track's time scale: movie times are in units of num/den seconds (0/0 without
    // video).
    void VideoTimeBase(int* num, int* den) const;
    // Video samples the movie holds, and the one (0-based, in display order) shown at `time`.
    std::size_t VideoSampleCount() const { return videoTimes_.size(); }
    std::size_t OrdinalAt(TimeValue time) const;

    void SetGWorld(const GWorld* world) { world_ = world; }
    // UpdateMovie + MoviesTask: draws the video frame shown at the current time into the
    // graphics world. Returns noErr when a frame was drawn.
    OSErr Draw(std::string* why);
    // The video frame shown at the current time as the decoder made it, nothing drawn:
    // `picture` gets a new reference to the decoded frame (its planes are shared, not
    // copied, and stay valid while the reference lives). Returns noErr when there is one.
    OSErr CurrentPicture(AVFrame* picture, std::string* why);

    // GetMovieIndTrackType(movie, index, type, by media type): the index-th (1-based) track
    // of that media type, or invalidTrack. The track is the demuxer's stream number.
    OSErr IndTrackType(int index, OSType mediaType, int* track) const;
    // GetTrackMedia.
    OSErr TrackMedia(int track, std::unique_ptr<Media>* media);

    AVFormatContext* Format() const { return format_.get(); }

private:
    Movie() = default;
    OSErr OpenFormat(const std::string& path, bool movieOnly, std::string* why);
    void BuildVideoTimes();
    bool RestartVideo(std::string* why);
    bool DecodeOrdinal(std::size_t ordinal, std::string* why);

    struct FormatCloser {
        void operator()(AVFormatContext* c) const;
    };
    struct CodecCloser {
        void operator()(AVCodecContext* c) const;
    };
    struct FrameFree {
        void operator()(AVFrame* f) const;
    };
    struct PacketFree {
        void operator()(AVPacket* p) const;
    };
    struct SwsFree {
        void operator()(SwsContext* s) const;
    };

    std::string path_;
    std::unique_ptr<AVFormatContext, FormatCloser> format_;
    int videoStream_ = -1;
    int rotation_ = 0;
    std::vector<std::uint8_t> unturned_;  // a turned track's frame drawn as stored, before turning
    std::int64_t timeOffset_ = 0;          // stream timestamp of movie time 0
    std::int64_t firstStamp_ = 0;          // first index entry, where decoding starts over
    std::vector<TimeValue> videoTimes_;    // every video sample's time, ascending
    TimeValue time_ = 0;
    const GWorld* world_ = nullptr;

    // Video decoding runs forward; a time before the frame last decoded starts over.
    std::unique_ptr<AVCodecContext, CodecCloser> videoCodec_;
    std::unique_ptr<AVFrame, FrameFree> decoded_;
    std::unique_ptr<AVFrame, FrameFree> shown_;
    std::unique_ptr<AVPacket, PacketFree> packet_;
    std::unique_ptr<SwsContext, SwsFree> sws_;
    std::size_t nextOrdinal_ = 0;     // ordinal of the next frame the decoder will hand out
    bool haveShown_ = false;
    std::size_t shownOrdinal_ = 0;
    bool demuxEnded_ = false;
    bool decoderEnded_ = false;
};

// One sound track's media: its description, its samples in media time (sample frames at the
// media's own rate) and its duration. Reading runs forward; a time other than the end of
// the last sample read seeks.
class Media {
public:
    ~Media();
    Media(const Media&) = delete;
    Media& operator=(const Media&) = delete;

    OSErr SampleDescription(int index, SoundDescription* desc, std::string* why) const;
    // GetSoundDescriptionExtension(…, 'wave'): the decompression parameters (the codec's
    // setup data), when the track has any; a missing atom gives a non-zero result and an
    // empty block.
    OSErr SoundDescriptionExtension(OSType atomType, std::vector<std::uint8_t>* atom) const;
    TimeValue Duration() const;

    struct Sample {
        std::size_t size = 0;
        TimeValue sampleTime = 0;
        TimeValue durationPerSample = 0;
        long numberOfSamples = 0;
        // Frames the track's edit drops from the start / end of this sample (encoder delay
        // and padding of compressed sound).
        std::int32_t trimStart = 0;
        std::int32_t trimEnd = 0;
    };
    // GetMediaSample: the sample data at `time` into `block` (grown up to maxSizeToGrow).
    OSErr GetSample(TimeValue time, std::vector<std::uint8_t>* block, std::size_t maxSizeToGrow, Sample* sample,
                    std::string* why);

private:
    friend class Movie;
    Media(Movie* movie, int stream);
    bool ReadPacket(std::string* why);

    struct PacketFree {
        void operator()(AVPacket* p) const;
    };
    Movie* movie_;
    int stream_;
    std::unique_ptr<AVPacket, PacketFree> packet_;
    std::int64_t firstPts_ = 0;
    bool haveFirst_ = false;
    TimeValue nextTime_ = 0;  // media time just past the last sample read
    bool ended_ = false;
};

}  // namespace zub::qt

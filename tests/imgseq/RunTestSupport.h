// Pieces of the image sequence run tests: a recorder volume in a temporary folder served by
// the substitute back-ends, numbered stills made by the media generator and ffmpeg, and
// reading clips back through zubclip and ffmpeg.
#pragma once

#include <gtest/gtest.h>

#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <memory>
#include <string>
#include <vector>

#include "device/RecorderBackends.h"
#include "device/RecorderDevice.h"
#include "TempDir.h"
#include "TestMedia.h"
#include "Tool.h"
#include "imgseq/ImagingLibrary.h"
#include "zubimport/ImportSettings.h"
#include "zubimport/Prompt.h"

namespace zub::test {

inline const bool kRunEnvironmentSet = [] {
    setenv(kImagingLibraryEnv, ZUB_TEST_IMAGING_LIBRARY, 1);
    setenv(kRecorderDirVariable, ZUB_TEST_RECORDER_DIR, 1);
    return true;
}();

inline std::string Quote(const std::string& s)
{
    return "'" + s + "'";
}

// A volume folder for one test, the recorder opened on it, the settings put back afterwards.
class Volume {
public:
    explicit Volume(int useZub = 1, const char* lines = "525", const char* limit = nullptr)
        : saved_(CurrentSettings())
    {
        setenv("ZUBREC_CONFIG", (dir_ / "none.ini").c_str(), 1);
        setenv("ZUBREC_VOLUME", (dir_.Path().string() + "/clips/").c_str(), 1);
        setenv("ZUBREC_LINES", lines, 1);
        setenv("ZUBREC_MONITOR", (dir_ / "monitor.jpg").c_str(), 1);
        if (limit) setenv("ZUBREC_LIMIT", limit, 1);
        else unsetenv("ZUBREC_LIMIT");
        std::filesystem::create_directories(dir_.Path() / "clips");
        std::filesystem::create_directories(dir_.Path() / "images");
        TheRecorder().CloseDevice();
        opened_ = TheRecorder().OpenDeviceWithInfo(useZub, 0, 0) == 1;
        ImportSettings& s = CurrentSettings();
        s.videoDir = ClipDir();
        s.showImagesOnOutput = 0;
    }
    ~Volume()
    {
        TheRecorder().CloseDevice();
        CurrentSettings() = saved_;
        unsetenv("ZUBREC_LIMIT");
    }
    bool Opened() const { return opened_; }
    std::string ClipDir() const { return dir_.Path().string() + "/clips/"; }
    std::string ImageDir() const { return dir_.Path().string() + "/images/"; }
    std::string Path(const std::string& name) const { return dir_ / name; }
    std::vector<std::string> Clips() const
    {
        std::vector<std::string> out;
        for (const auto& e : std::filesystem::directory_iterator(dir_.Path() / "clips"))
            out.push_back(e.path().filename().string());
        std::sort(out.begin(), out.end());
        return out;
    }

private:
    TempDir dir_;
    ImportSettings saved_;
    bool opened_ = false;
};

// `count` stills numbered first.. (name%04d.ext) whose pictures carry frame numbers
// picture0.. coded by the media generator; made by ffmpeg from a generated raw movie.
inline std::vector<std::string> MakeStills(const std::string& dir, const std::string& name, const std::string& ext,
                                           int count, int width = 320, int height = 240, int first = 1,
                                           int picture0 = 0)
{
    testmedia::MediaSpec spec;
    spec.width = width;
    spec.height = height;
    spec.frames = count;
    spec.video = testmedia::VideoCodec::Raw;
    spec.container = "avi";
    spec.firstFrameNumber = picture0;
    const std::string movie = dir + "/" + name + "-source.avi";
    std::string error;
    if (!testmedia::MakeMedia(movie, spec, &error)) {
        ADD_FAILURE() << error;
        return {};
    }
    const std::string pattern = dir + "/" + name + "%04d." + ext;
    std::vector<std::string> args = {"ffmpeg", "-nostdin", "-loglevel", "error", "-y", "-i", movie,
                                     "-start_number", std::to_string(first)};
    if (ext == "jpg") args.insert(args.end(), {"-q:v", "2"});
    args.push_back(pattern);
    if (Run(args) != 0) {
        ADD_FAILURE() << "ffmpeg could not write " << pattern;
        return {};
    }
    std::filesystem::remove(movie);
    std::vector<std::string> files;
    for (int i = 0; i < count; ++i) {
        char buf[32];
        std::snprintf(buf, sizeof buf, "%04d.", first + i);
        files.push_back(dir + "/" + name + buf + ext);
    }
    return files;
}

// zubclip's report of a clip.
inline std::string ClipInfo(const std::string& clip)
{
    return Capture(std::string(ZUBCLIP) + " info " + Quote(clip) + " 2>&1");
}

inline int FramesReadable(const std::string& clip)
{
    const std::string info = ClipInfo(clip);
    const auto at = info.find("frames readable: video ");
    return at == std::string::npos ? -1 : std::atoi(info.c_str() + at + 23);
}

inline int RateSectors(const std::string& clip)
{
    const std::string info = ClipInfo(clip);
    const auto at = info.find("sectors per frame ");
    return at == std::string::npos ? -1 : std::atoi(info.c_str() + at + 18);
}

// One exported frame as top-down BGRA, decoded by ffmpeg.
struct Exported {
    int width = 0, height = 0;
    std::vector<std::uint8_t> bgra;
};

inline std::vector<Exported> ExportFrames(const std::string& clip, const std::string& outDir, int width, int height)
{
    std::vector<Exported> frames;
    std::filesystem::create_directories(outDir);
    int status = 0;
    const std::string list = Capture(std::string(ZUBCLIP) + " export " + Quote(clip) + " -o " + Quote(outDir), &status);
    if (status != 0) {
        ADD_FAILURE() << "zubclip export failed for " << clip;
        return frames;
    }
    std::size_t start = 0;
    while (start < list.size()) {
        std::size_t end = list.find('\n', start);
        if (end == std::string::npos) end = list.size();
        const std::string png = list.substr(start, end - start);
        start = end + 1;
        if (png.empty()) continue;
        const std::string raw = Capture("ffmpeg -v error -i " + Quote(png) + " -f rawvideo -pix_fmt bgra -");
        Exported e;
        e.width = width;
        e.height = height;
        e.bgra.assign(raw.begin(), raw.end());
        if (e.bgra.size() != static_cast<std::size_t>(width) * height * 4) ADD_FAILURE() << png << ": wrong size";
        frames.push_back(std::move(e));
    }
    return frames;
}

inline int FrameNumberOf(const Exported& e)
{
    return testmedia::ReadFrameNumber(
        testmedia::ImageView{e.bgra.data(), e.width, e.height, e.width * 4, testmedia::PixelFormat::Bgra32});
}

}  // namespace zub::test

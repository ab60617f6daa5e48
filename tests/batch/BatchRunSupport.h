// Shared by the batch run tests: a recorder volume in a temporary folder, clips written
// through the real device layer, and an importer whose outcome each test scripts per file.
#pragma once

#include <stdlib.h>
#include <sys/stat.h>

#include <cstring>
#include <filesystem>
#include <fstream>
#include <map>
#include <sstream>
#include <vector>

#include "ClipWriter.h"
#include "TempDir.h"
#include "TestMedia.h"
#include "batch/BatchRun.h"
#include "device/RecorderBackends.h"
#include "device/RecorderDevice.h"
#include "zubimport/Platform.h"

namespace zub::test {

// Points the recorder at the substitute back-ends and a volume inside `vol`.
inline void UseTestVolume(const TempDir& vol)
{
    ::setenv(kRecorderDirVariable, ZUB_TEST_RECORDER_DIR, 1);
    ::setenv("ZUBREC_CONFIG", (vol / "none.ini").c_str(), 1);
    ::setenv("ZUBREC_VOLUME", (vol.Path().string() + "/").c_str(), 1);
    ::setenv("ZUBREC_LINES", "625", 1);
    ::setenv("ZUBREC_MONITOR", "off", 1);
}

inline std::string Slurp(const std::string& path)
{
    std::ifstream in(path, std::ios::binary);
    std::ostringstream s;
    s << in.rdbuf();
    return s.str();
}

// What the fake importer does for one file (matched by file name).
struct Script {
    bool ok = true;
    std::string text;
    int clipFrames = -1;      // >= 0: write a clip of that many frames
    long reportFrames = -2;   // -2: report what was written
    bool wave = false;        // write a WAVE file as well (or alone)
    bool truncateWave = false;
};

struct Call {
    char kind;  // 'v', 'a', 'i'
    std::string path, props;
    bool existed = false;  // the file handed in was there during the import
};

class FakeImporter final : public batch::IBatchRowImporter {
public:
    explicit FakeImporter(std::string outFolder) : out_(std::move(outFolder)) {}
    std::map<std::string, Script> scripts;  // by file name part
    std::vector<Call> calls;

    batch::RowImport ImportVideo(const std::string& p, const std::string& props) override { return Do('v', p, props); }
    batch::RowImport ImportAudio(const std::string& p, const std::string& props) override { return Do('a', p, props); }
    batch::RowImport ImportImages(const std::string& p, const std::string& props) override { return Do('i', p, props); }

private:
    batch::RowImport Do(char kind, const std::string& path, const std::string& props)
    {
        struct stat st{};
        calls.push_back({kind, path, props, ::stat(path.c_str(), &st) == 0});
        const std::string name = std::filesystem::path(path).filename().string();
        const auto it = scripts.find(name);
        const Script s = it == scripts.end() ? Script{} : it->second;
        batch::RowImport r;
        r.ok = s.ok;
        r.resultText = s.text;
        const std::string stem = out_ + std::to_string(calls.size()) + "_" + std::filesystem::path(path).stem().string();
        if (s.clipFrames >= 0) {
            r.clipPath = stem + ".zub";
            if (!WriteClip(r.clipPath, s.clipFrames)) r.ok = false;
            r.expectedFrames = s.reportFrames == -2 ? s.clipFrames : s.reportFrames;
        }
        if (s.wave) {
            const std::string wav = stem + ".wav";
            testmedia::MakeWave(wav, 16, 48000, 2, 0.2);
            if (s.truncateWave) std::filesystem::resize_file(wav, std::filesystem::file_size(wav) - 1001);
            if (r.clipPath.empty())
                r.clipPath = wav;
            else {
                r.secondPath = r.clipPath;  // the .wav first, then the clip, as the conversion lists them
                r.clipPath = wav;
            }
        }
        return r;
    }
    std::string out_;
};

}  // namespace zub::test

// zubimport demo: the main job. Makes demo media in a temporary folder, imports it through
// the three jobs exactly as a user would run them (each one a zubimport process), reads every
// clip back with zubclip, draws a contact sheet per clip and prints what was made.
#include <QByteArray>
#include <QJsonArray>
#include <QJsonDocument>
#include <QJsonObject>
#include <QProcess>
#include <QProcessEnvironment>
#include <QStringList>

#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <memory>
#include <regex>

#include "tools/zubimport/Host.h"
#include "tools/zubimport/Jobs.h"
#include "device/RecorderDevice.h"
#include "TestMedia.h"
#include "zubimport/ConvertDlg.h"
#include "zubimport/ImportSettings.h"
#include "zubimport/Prefs.h"

namespace fs = std::filesystem;
namespace gen = zub::testmedia;

namespace zubhost {
namespace {

struct DemoArgs {
    bool keepMedia = false;
    std::string sheets;  // folder for the contact sheets; "" = beside the clips
    bool quiet = false;
};

struct Standard {
    int lines = 525, width = 720, height = 486;
    std::string volume;
};

bool AskStandard(Standard& st, std::string* error)
{
    zub::CConvertDlgPrefs prefs;
    if (!EnterModule(zub::ImportSettings{}, 1, prefs, error)) return false;
    const bool ok = zub::TheRecorder().QuerySystemPrefs(st.volume, st.lines, st.width, st.height) == 1;
    if (!ok && error) *error = zub::CRecorderDevice::GetError();
    LeaveModule(prefs);
    return ok;
}

// A 32-bit top-left TGA of frame `number` with the frame code in its alpha too.
bool WriteTga(const std::string& path, int width, int height, int number, std::string* error)
{
    std::vector<std::uint8_t> pixels(static_cast<std::size_t>(width) * height * 4);
    gen::PaintFrame(pixels.data(), width, height, width * 4, gen::PixelFormat::Bgra32, number, true);
    std::uint8_t head[18] = {};
    head[2] = 2;  // uncompressed true colour
    head[12] = static_cast<std::uint8_t>(width & 0xFF);
    head[13] = static_cast<std::uint8_t>(width >> 8);
    head[14] = static_cast<std::uint8_t>(height & 0xFF);
    head[15] = static_cast<std::uint8_t>(height >> 8);
    head[16] = 32;
    head[17] = 0x28;  // 8 alpha bits, first row at the top
    std::ofstream out(path, std::ios::binary);
    out.write(reinterpret_cast<const char*>(head), sizeof head);
    out.write(reinterpret_cast<const char*>(pixels.data()), static_cast<std::streamsize>(pixels.size()));
    if (!out) {
        if (error) *error = path + ": cannot be written";
        return false;
    }
    return true;
}

struct Made {
    std::string job, what, path;
    long frames = 0;
    long expectFrames = 0;
    bool key = false;
    std::string check;  // "" when it read back as expected, else why not
    std::string sheet;
    double seconds = 0;
};

Made NewMade(std::string job, std::string what, std::string path)
{
    Made m;
    m.job = std::move(job);
    m.what = std::move(what);
    m.path = std::move(path);
    return m;
}

struct ChildResult {
    int exit = -1;
    QJsonObject report;
    double seconds = 0;
};

ChildResult RunSelf(const QStringList& args, const QProcessEnvironment& env)
{
    ChildResult r;
    QProcess p;
    p.setProcessEnvironment(env);
    p.setProcessChannelMode(QProcess::SeparateChannels);
    p.setInputChannelMode(QProcess::ForwardedInputChannel);
    p.setReadChannel(QProcess::StandardOutput);
    p.setProcessChannelMode(QProcess::ForwardedErrorChannel);
    const auto start = std::chrono::steady_clock::now();
    p.start(QString::fromStdString(ProgramFolder() + "/zubimport"), args);
    if (!p.waitForStarted(10000)) return r;
    p.waitForFinished(-1);
    r.seconds = std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
    r.exit = p.exitStatus() == QProcess::NormalExit ? p.exitCode() : -1;
    const QJsonDocument doc = QJsonDocument::fromJson(p.readAllStandardOutput());
    r.report = doc.object();
    return r;
}

// Frames zubclip reads back (video and key), or the reason it cannot.
std::string ReadBack(const std::string& clip, long& video, long& key)
{
    QProcess p;
    p.start(QString::fromStdString(ProgramFolder() + "/zubclip"), {"info", QString::fromStdString(clip)});
    if (!p.waitForFinished(60000) || p.exitCode() != 0)
        return "zubclip info failed: " + p.readAllStandardError().trimmed().toStdString();
    const std::string out = p.readAllStandardOutput().toStdString();
    std::smatch m;
    static const std::regex frames("frames readable: video ([0-9]+)(, key ([0-9]+))?");
    if (!std::regex_search(out, m, frames)) return "zubclip info shows no frame count";
    video = std::stol(m[1]);
    key = m[3].matched ? std::stol(m[3]) : -1;
    return {};
}

std::string Sheet(const std::string& clip, const std::string& png, bool key)
{
    QProcess p;
    QStringList args = {"sheet", QString::fromStdString(clip), "-o", QString::fromStdString(png), "--count", "12",
                        "--columns", "4", "--width", "240"};
    if (key) args << "--key";
    p.start(QString::fromStdString(ProgramFolder() + "/zubclip"), args);
    if (!p.waitForFinished(120000) || p.exitCode() != 0)
        return "zubclip sheet failed: " + p.readAllStandardError().trimmed().toStdString();
    return {};
}

std::string SizeText(std::uintmax_t bytes)
{
    char buf[32];
    if (bytes >= 1024 * 1024)
        std::snprintf(buf, sizeof buf, "%.1f MB", bytes / (1024.0 * 1024.0));
    else
        std::snprintf(buf, sizeof buf, "%.1f KB", bytes / 1024.0);
    return buf;
}

std::string AudioCheck(const std::string& path, double seconds, const char* expectFormat, long rate, int channels,
                       int bits)
{
    const AudioFacts f = ReadAudioFacts(path);
    if (!f.ok) return "no WAVE format found";
    if (f.rate != rate || f.channels != channels || f.bits != bits) {
        char buf[160];
        std::snprintf(buf, sizeof buf, "%ld Hz %d ch %d bits, expected %s", f.rate, f.channels, f.bits, expectFormat);
        return buf;
    }
    const double got = static_cast<double>(f.dataBytes) / (rate * channels * bits / 8);
    if (got < seconds - 0.2 || got > seconds + 0.2) {
        char buf[96];
        std::snprintf(buf, sizeof buf, "%.2f s of sound, expected %.2f s", got, seconds);
        return buf;
    }
    return {};
}

int RunDemo(const DemoArgs& a)
{
    const auto demoStart = std::chrono::steady_clock::now();
    Standard st;
    std::string error;
    {
        auto silent = std::make_shared<zub::SilentPrompt>();
        zub::ScopedPrompter scope(silent);
        if (!AskStandard(st, &error)) return Fail(kExitFailed, "the recorder does not open: " + error);
    }
    const int fpsNum = st.lines == 525 ? 30000 : 25, fpsDen = st.lines == 525 ? 1001 : 1;
    const int fps = st.lines == 525 ? 30 : 25;
    std::printf("recorder: %d lines, %d x %d, volume %s\n", st.lines, st.width, st.height, st.volume.c_str());

    const char* tmpdir = std::getenv("TMPDIR");
    std::string pattern = std::string(tmpdir && *tmpdir ? tmpdir : "/tmp") + "/zubimport-demo-XXXXXX";
    if (!mkdtemp(pattern.data())) return Fail(kExitFailed, pattern + ": cannot make the demo folder");
    const fs::path media = pattern;
    std::printf("demo media in %s\n", media.c_str());

    // ---- the media ----
    std::printf("making a 10 s 1080p H.264 movie with stereo sound, a 2 s movie with alpha, 60 TGA frames "
                "with alpha and a gap, a WAVE file ...\n");
    std::fflush(stdout);
    gen::MediaSpec movie;
    movie.width = 1920;
    movie.height = 1080;
    movie.frames = 10 * fps;
    movie.fpsNum = fpsNum;
    movie.fpsDen = fpsDen;
    movie.video = gen::VideoCodec::H264;
    movie.audio = gen::AudioCodec::Aac;
    movie.channels = 2;
    movie.sampleRate = 48000;
    movie.toneHzPerChannel = {440.0, 660.0};
    const std::string moviePath = (media / "DemoMovie.mp4").string();
    if (!gen::MakeMedia(moviePath, movie, &error)) return Fail(kExitFailed, error);

    gen::MediaSpec key;
    key.width = st.width;
    key.height = st.height;
    key.frames = 2 * fps;
    key.fpsNum = fpsNum;
    key.fpsDen = fpsDen;
    key.video = gen::VideoCodec::Qtrle;
    key.alpha = true;
    key.firstFrameNumber = 1000;
    const std::string keyPath = (media / "DemoKey.mov").string();
    if (!gen::MakeMedia(keyPath, key, &error)) return Fail(kExitFailed, error);

    const fs::path tgaDir = media / "tga";
    fs::create_directories(tgaDir);
    const int tgaFrames = 60, gapAt = 31;
    for (int n = 1; n <= tgaFrames; ++n) {
        if (n == gapAt) continue;
        char name[32];
        std::snprintf(name, sizeof name, "DemoTGA%04d.tga", n);
        if (!WriteTga((tgaDir / name).string(), st.width, st.height, 2000 + n, &error))
            return Fail(kExitFailed, error);
    }
    const std::string wavePath = (media / "DemoTone.wav").string();
    const double waveSeconds = 5.0;
    if (!gen::MakeWave(wavePath, 16, 48000, 2, waveSeconds, 1000.0, 0.5, &error)) return Fail(kExitFailed, error);

    // Children keep their settings in the demo folder, so the demo neither depends on nor
    // changes the user's defaults; the recorder's own configuration stays the user's.
    QProcessEnvironment env = QProcessEnvironment::systemEnvironment();
    const char* xdg = std::getenv("XDG_CONFIG_HOME");
    const char* home = std::getenv("HOME");
    const std::string userConfig = xdg && *xdg ? std::string(xdg) : std::string(home ? home : ".") + "/.config";
    if (!env.contains("ZUBREC_CONFIG"))
        env.insert("ZUBREC_CONFIG", QString::fromStdString(userConfig + "/zubrecorder/recorder.ini"));
    env.insert("XDG_CONFIG_HOME", QString::fromStdString((media / "config").string()));
    const QString quiet = a.quiet ? "--quiet" : "";

    std::vector<Made> made;
    int failures = 0;
    auto expectAudio = [&](Made& m, const std::string& path, double seconds, bool dva) {
        m.check = AudioCheck(path, seconds, "48000 Hz 2 ch 16 bits", 48000, 2, 16);
        (void)dva;
    };

    // 1. the conversion with a .dva association
    std::printf("\n[1/3] zubimport convert DemoMovie.mp4 --dva --fit all\n");
    std::fflush(stdout);
    // The whole 16:9 picture scaled into the frame, letterboxed, rather than its middle.
    QStringList convertArgs = {"convert", QString::fromStdString(moviePath), "--name", "DemoMovie", "--dva",
                               "--fit", "all", "--area", "normal", "--filter", "bicubic", "--batch", "--json"};
    if (a.quiet) convertArgs << quiet;
    const ChildResult c = RunSelf(convertArgs, env);
    if (c.exit != 0) {
        ++failures;
        std::printf("convert ended with exit status %d\n", c.exit);
    }
    {
        const QJsonObject v = c.report.value("video").toObject();
        Made m = NewMade("convert", "1080p H.264 movie", v.value("path").toString().toStdString());
        m.expectFrames = movie.frames;
        m.frames = v.value("frames").toInt();
        m.seconds = c.seconds;
        made.push_back(m);
        const QJsonObject au = c.report.value("audio").toObject();
        Made s = NewMade("convert", "its stereo sound (.dva)", au.value("path").toString().toStdString());
        s.seconds = c.seconds;
        s.frames = -1;
        if (!au.value("dva").toBool()) s.check = "no .dva association was made";
        made.push_back(s);
    }

    // 2. the image sequence, gap filled
    std::printf("\n[2/3] zubimport imgseq tga/DemoTGA0001.tga --alpha --fill-gaps\n");
    std::fflush(stdout);
    QStringList seqArgs = {"imgseq", QString::fromStdString((tgaDir / "DemoTGA0001.tga").string()), "--name",
                           "DemoTGA", "--alpha", "--alpha-same", "--fill-gaps", "--batch", "--json"};
    if (a.quiet) seqArgs << quiet;
    const ChildResult q = RunSelf(seqArgs, env);
    if (q.exit != 0) {
        ++failures;
        std::printf("imgseq ended with exit status %d\n", q.exit);
    }
    {
        const QJsonObject v = q.report.value("video").toObject();
        Made m = NewMade("imgseq", "60 TGA frames with alpha, one gap", v.value("path").toString().toStdString());
        m.expectFrames = tgaFrames;
        m.frames = v.value("frames").toInt();
        m.key = true;
        m.seconds = q.seconds;
        made.push_back(m);
    }

    // 3. a batch of the rest
    std::printf("\n[3/3] zubimport batch DemoKey.mov DemoTone.wav --alpha\n");
    std::fflush(stdout);
    QStringList batchArgs = {"batch", QString::fromStdString(keyPath), QString::fromStdString(wavePath), "--alpha",
                             "--alpha-same", "--batch", "--json"};
    if (a.quiet) batchArgs << quiet;
    const ChildResult b = RunSelf(batchArgs, env);
    if (b.exit != 0) {
        ++failures;
        std::printf("batch ended with exit status %d\n", b.exit);
    }
    const QJsonArray rows = b.report.value("rows").toArray();
    for (int i = 0; i < 2; ++i) {
        const QJsonObject row = i < rows.size() ? rows[i].toObject() : QJsonObject{};
        const double rowSeconds = row.value("seconds").toDouble();
        if (i == 0) {
            const QJsonObject v = row.value("video").toObject();
            Made m = NewMade("batch", "2 s movie with alpha", v.value("path").toString().toStdString());
            m.expectFrames = key.frames;
            m.frames = v.value("frames").toInt();
            m.key = true;
            m.seconds = rowSeconds > 0 ? rowSeconds : b.seconds;
            if (row.value("result").toString() != "done") m.check = "row " + row.value("result").toString().toStdString();
            made.push_back(m);
        } else {
            const QJsonObject au = row.value("audio").toObject();
            Made s = NewMade("batch", "WAVE tone", au.value("path").toString().toStdString());
            s.frames = -1;
            s.seconds = rowSeconds > 0 ? rowSeconds : b.seconds;
            if (row.value("result").toString() != "done") s.check = "row " + row.value("result").toString().toStdString();
            made.push_back(s);
        }
    }

    // ---- read everything back ----
    const fs::path sheetDir = a.sheets.empty() ? media / "sheets" : fs::path(a.sheets);
    fs::create_directories(sheetDir);
    for (Made& m : made) {
        if (m.path.empty()) {
            if (m.check.empty()) m.check = "nothing was made";
            continue;
        }
        if (!m.check.empty()) continue;
        if (m.frames < 0) {
            const double seconds = m.job == "convert" ? movie.frames * double(fpsDen) / fpsNum : waveSeconds;
            expectAudio(m, m.path, seconds, m.job == "convert");
            continue;
        }
        long video = 0, keyFrames = 0;
        m.check = ReadBack(m.path, video, keyFrames);
        if (m.check.empty() && video != m.expectFrames)
            m.check = std::to_string(video) + " frames read back, expected " + std::to_string(m.expectFrames);
        if (m.check.empty() && m.key && keyFrames != video) m.check = "the key track has " + std::to_string(keyFrames) + " frames";
        if (m.check.empty() && video != m.frames)
            m.check = "the job reported " + std::to_string(m.frames) + " frames, the clip holds " + std::to_string(video);
        m.frames = video;
        const std::string stem = fs::path(m.path).stem().string();
        m.sheet = (sheetDir / (stem + ".png")).string();
        if (const std::string s = Sheet(m.path, m.sheet, false); !s.empty()) {
            if (m.check.empty()) m.check = s;
            m.sheet.clear();
        } else if (m.key) {
            const std::string keySheet = (sheetDir / (stem + "-key.png")).string();
            if (const std::string s2 = Sheet(m.path, keySheet, true); !s2.empty() && m.check.empty()) m.check = s2;
        }
    }

    // ---- the table ----
    std::printf("\n%-8s %-34s %-56s %7s %10s %8s  %s\n", "job", "what", "file", "frames", "size", "time", "check");
    for (const Made& m : made) {
        std::error_code ec;
        const auto bytes = m.path.empty() ? 0 : fs::file_size(m.path, ec);
        char frames[24] = "-";
        if (m.frames >= 0) std::snprintf(frames, sizeof frames, "%ld", m.frames);
        char secs[24];
        std::snprintf(secs, sizeof secs, "%.1f s", m.seconds);
        if (!m.check.empty()) ++failures;
        std::printf("%-8s %-34s %-56s %7s %10s %8s  %s\n", m.job.c_str(), m.what.c_str(),
                    m.path.empty() ? "(none)" : m.path.c_str(), frames, ec ? "?" : SizeText(bytes).c_str(), secs,
                    m.check.empty() ? "ok" : m.check.c_str());
    }
    const double total = std::chrono::duration<double>(std::chrono::steady_clock::now() - demoStart).count();
    std::printf("\ncontact sheets: %s\n", sheetDir.c_str());
    std::printf("demo media: %s%s\n", media.c_str(), a.keepMedia ? "" : " (removed now; --keep-media keeps it)");
    std::printf("total time: %.1f s\n", total);
    if (!a.keepMedia) {
        std::error_code ec;
        for (const char* sub : {"tga", "config"}) fs::remove_all(media / sub, ec);
        for (const std::string& f : {moviePath, keyPath, wavePath}) fs::remove(f, ec);
    }
    std::fflush(stdout);
    if (failures) return Fail(kExitNothing, "demo: " + std::to_string(failures) + " check(s) failed, see the table");
    std::printf("demo: every clip read back as expected\n");
    return kExitDone;
}

}  // namespace

CLI::App* AddDemo(CLI::App& app, JobRunner& run)
{
    auto args = std::make_shared<DemoArgs>();
    auto* cmd = app.add_subcommand("demo", "Make demo media, import it with every job, check it and draw sheets");
    cmd->footer(
        "Runs on the recorder's configured volume (by default $XDG_DATA_HOME/zubrecorder/volume/).\n"
        "Example:\n  zubimport demo\n  zubimport demo --sheets /tmp/sheets --keep-media");
    cmd->add_flag("--keep-media", args->keepMedia, "Keep the generated demo media");
    cmd->add_option("--sheets", args->sheets, "Folder for the contact sheets (default: in the demo folder)");
    cmd->add_flag("-q,--quiet", args->quiet, "No progress from the jobs");
    run = [args] { return RunDemo(*args); };
    return cmd;
}

}  // namespace zubhost

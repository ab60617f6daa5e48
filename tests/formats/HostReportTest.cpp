// The command-line host's report of a conversion: a variable-rate source is named, with what
// conforming did, in the printed report and in the JSON one; a constant-rate source is not.
#include <gtest/gtest.h>

#include <QJsonArray>
#include <QJsonDocument>
#include <QJsonObject>

#include <fstream>
#include <regex>
#include <string>

#include "tests/formats/FormatSupport.h"
#include "tests/tools/ZubimportProcess.h"

namespace zub::formats {
namespace {

using zubtest::HostSandbox;
using zubtest::ProcessResult;

// 30 frames at 30 fps, then 30 at 15 fps, with a tone beside them.
std::string VariableRateMovie(const HostSandbox& box, const std::string& name = "vfr.mp4")
{
    const std::string source = (box.Media() / name).string();
    EXPECT_EQ(Ffmpeg("-f lavfi -i testsrc2=size=160x120:rate=30:duration=2 -f lavfi -i sine=frequency=1000:sample_rate=48000 "
                     "-vf \"setpts='if(lt(N,30),N/30,1+(N-30)/15)/TB'\" -fps_mode:v passthrough -c:v libx264 -preset ultrafast "
                     "-c:a aac -t 2.9667 -video_track_timescale 90000 '" + source + "'"),
              "");
    return source;
}

TEST(HostReport, VariableRateIsNamedWithTheFramesRepeatedAndDropped)
{
    if (!HaveEncoder("libx264")) GTEST_SKIP() << "this ffmpeg has no libx264 encoder";
    HostSandbox box;
    const std::string source = VariableRateMovie(box);

    const ProcessResult json = box.Run({"convert", source, "--name", "Vfr", "--batch", "--json"});
    ASSERT_EQ(json.exit, 0) << json.err;
    const QJsonObject j = QJsonDocument::fromJson(QByteArray::fromStdString(json.out)).object();
    const std::string note = j["frame_rate_note"].toString().toStdString();
    const int frames = j["video"].toObject()["frames"].toInt();
    ASSERT_GT(frames, 60);
    EXPECT_EQ(zubtest::ClipFrames(j["video"].toObject()["path"].toString().toStdString()), frames);
    std::smatch m;
    ASSERT_TRUE(std::regex_search(note, m, std::regex("variable frame rate, conformed to [0-9.]+ fps: (\\d+) frames? repeated, "
                                                      "(\\d+) frames? dropped$")))
        << json.out;
    EXPECT_EQ(std::stoi(m[1]) - std::stoi(m[2]), frames - 60);
    EXPECT_EQ(note.rfind(source, 0), 0u) << "the note names the source";

    const ProcessResult text = box.Run({"convert", source, "--name", "Vfr2", "--batch"});
    ASSERT_EQ(text.exit, 0) << text.err;
    EXPECT_NE(text.out.find("note: " + note + "\n"), std::string::npos) << text.out;
}

// Asked to keep the frames as delivered, the clip holds the source's 60 frames and the note
// says so.
TEST(HostReport, KeptFramesAreNamedAsDelivered)
{
    if (!HaveEncoder("libx264")) GTEST_SKIP() << "this ffmpeg has no libx264 encoder";
    HostSandbox box;
    const std::string source = VariableRateMovie(box);
    const ProcessResult json = box.Run({"convert", source, "--name", "Kept", "--batch", "--json", "--keep-vfr-frames"});
    ASSERT_EQ(json.exit, 0) << json.err;
    const QJsonObject j = QJsonDocument::fromJson(QByteArray::fromStdString(json.out)).object();
    EXPECT_EQ(j["video"].toObject()["frames"].toInt(), 60) << json.out;
    EXPECT_EQ(j["frame_rate_note"].toString().toStdString(), source + ": variable frame rate, frames kept as delivered");
}

// A batch names each variable-rate row's conform in its row, through either route, and only
// there.
TEST(HostReport, BatchRowsNameTheirVariableRate)
{
    if (!HaveEncoder("libx264")) GTEST_SKIP() << "this ffmpeg has no libx264 encoder";
    HostSandbox box;
    const std::string mp4 = VariableRateMovie(box, "a.mp4");
    const std::string mov = VariableRateMovie(box, "b.mov");
    const std::string cfr = (box.Media() / "c.mp4").string();
    ASSERT_EQ(Ffmpeg("-f lavfi -i testsrc2=size=160x120:rate=30000/1001:duration=1 -c:v libx264 -preset ultrafast '" + cfr +
                     "'"),
              "");
    // Saved as the batch dialog saves a list, each row typed Video: by its extension alone an
    // .mp4 file counts as audio.
    const std::string list = (box.Media() / "rows.zubbatch").string();
    {
        std::ofstream out(list);
        out << "ZUBBATCH 1\n";
        for (const std::string& f : {mp4, mov, cfr}) out << f << "\t1\t\t\t\t\n";
    }
    const ProcessResult json = box.Run({"batch", "--list", list, "--json"});
    ASSERT_EQ(json.exit, 0) << json.err << json.out;
    const QJsonArray rows = QJsonDocument::fromJson(QByteArray::fromStdString(json.out)).object()["rows"].toArray();
    ASSERT_EQ(rows.size(), 3) << json.out;
    for (int i = 0; i < 2; ++i) {
        const QJsonObject row = rows[i].toObject();
        const std::string note = row["frame_rate_note"].toString().toStdString();
        EXPECT_EQ(note.rfind(i == 0 ? mp4 : mov, 0), 0u) << note;
        EXPECT_NE(note.find("conformed to 29.97 fps"), std::string::npos) << note;
        EXPECT_NEAR(row["video"].toObject()["frames"].toInt(), 2.9667 * 30000 / 1001, 1) << json.out;
    }
    EXPECT_TRUE(rows[2].toObject()["frame_rate_note"].isNull()) << json.out;

    const ProcessResult text = box.Run({"batch", "--list", list});
    ASSERT_EQ(text.exit, 0) << text.err;
    EXPECT_NE(text.out.find("   note: " + mov + ": variable frame rate, conformed"), std::string::npos) << text.out;
}

TEST(HostReport, ConstantRateHasNoNote)
{
    if (!HaveEncoder("libx264")) GTEST_SKIP() << "this ffmpeg has no libx264 encoder";
    HostSandbox box;
    const std::string source = (box.Media() / "cfr.mp4").string();
    ASSERT_EQ(Ffmpeg("-f lavfi -i testsrc2=size=160x120:rate=30000/1001:duration=1 -c:v libx264 -preset ultrafast '" +
                     source + "'"),
              "");
    const ProcessResult json = box.Run({"convert", source, "--name", "Cfr", "--batch", "--json"});
    ASSERT_EQ(json.exit, 0) << json.err;
    const QJsonObject j = QJsonDocument::fromJson(QByteArray::fromStdString(json.out)).object();
    EXPECT_TRUE(j.contains("frame_rate_note"));
    EXPECT_TRUE(j["frame_rate_note"].isNull()) << json.out;
    const ProcessResult text = box.Run({"convert", source, "--name", "Cfr2", "--batch"});
    EXPECT_EQ(text.out.find("note:"), std::string::npos) << text.out;
}

}  // namespace
}  // namespace zub::formats

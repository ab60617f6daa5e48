#include <gtest/gtest.h>

#include <cctype>
#include <fstream>
#include <map>
#include <sstream>

#include "imgseq/Profile.h"
#include "TempDir.h"

using namespace zub;

namespace {

void Write(const std::string& path, const std::string& text)
{
    std::ofstream(path, std::ios::binary) << text;
}

std::string Slurp(const std::string& path)
{
    std::ifstream in(path, std::ios::binary);
    std::stringstream s;
    s << in.rdbuf();
    return s.str();
}

std::string Lower(std::string s)
{
    for (char& c : s) c = char(std::tolower(static_cast<unsigned char>(c)));
    return s;
}

std::string Trim(const std::string& s)
{
    const auto b = s.find_first_not_of(" \t\r");
    const auto e = s.find_last_not_of(" \t\r");
    return b == std::string::npos ? "" : s.substr(b, e - b + 1);
}

// A reader written the way the host platform reads its profile files, independent of the
// one under test: "[section]" lines, "key=value" lines, names trimmed and compared without
// case, the first of repeated keys wins. Gives section/key -> value plus the key order.
struct HostReader {
    std::map<std::string, std::string> values;
    std::vector<std::string> order;
    explicit HostReader(const std::string& text)
    {
        std::istringstream in(text);
        std::string line, section;
        while (std::getline(in, line)) {
            line = Trim(line);
            if (line.empty() || line[0] == ';') continue;
            if (line[0] == '[') {
                section = Lower(Trim(line.substr(1, line.find(']') - 1)));
                continue;
            }
            const auto eq = line.find('=');
            if (eq == std::string::npos) continue;
            const std::string key = section + "/" + Lower(Trim(line.substr(0, eq)));
            if (values.emplace(key, Trim(line.substr(eq + 1))).second) order.push_back(key);
        }
    }
};

ProfileRecord Sample()
{
    ProfileRecord r;
    r.fitWord = -1;
    r.swapFields = 1;
    r.shiftDown = 0;
    r.videoAdaptive = 1;
    r.alphaAdaptive = 0;
    r.createAlpha = 1;
    r.alphaSameAsVideo = 0;
    r.alphaUncompressed = 1;
    r.alphaDataRate = 2097152;
    r.videoUncompressed = 0;
    r.videoDataRate = 3145728;
    r.fixedFieldSize = 1;
    r.videoPath = "D:\\Video\\Clips\\";
    r.fillGaps = 1;
    return r;
}

}  // namespace

TEST(SeqProfile, RoundTripReadsBackEveryKey)
{
    test::TempDir dir;
    const std::string path = dir / "sub/mine.ImpSeqProfile";  // the folder is made (one level)
    std::string err;
    ASSERT_TRUE(WriteProfile(path, Sample(), &err)) << err;
    ProfileRecord back;
    ASSERT_TRUE(ReadProfile(path, &back, &err)) << err;
    EXPECT_EQ(back, Sample());
    EXPECT_TRUE(ReadProfile(path));  // validate only

    // Another record over the same file replaces every value.
    ProfileRecord other;
    other.videoPath = "/srv/video/";
    other.fitWord = 0x2208;
    ASSERT_TRUE(WriteProfile(path, other, &err)) << err;
    ASSERT_TRUE(ReadProfile(path, &back, &err)) << err;
    EXPECT_EQ(back, other);
}

TEST(SeqProfile, WrittenFileReadsTheSameOnTheHostsRules)
{
    test::TempDir dir;
    const std::string path = dir / "host.ImpSeqProfile";
    ASSERT_TRUE(WriteProfile(path, Sample()));
    const HostReader host(Slurp(path));
    const std::vector<std::string> expected = {
        "header/product",           "header/version",           "header/type",
        "header/description",       "parameter/importseqfit",   "parameter/importseqswap",
        "parameter/importseqshift", "parameter/importseqadapt", "parameter/importseqalphaadapt",
        "parameter/videoalphacreate", "parameter/videoalphasameasvideo", "parameter/videoalphauncompressed",
        "parameter/videoalphadatarate", "parameter/videouncompressed", "parameter/videodatarate",
        "parameter/videofixedsize", "parameter/videopath", "parameter/importseqfillgaps"};
    EXPECT_EQ(host.order, expected);
    EXPECT_EQ(host.values.at("header/product"), "Kestrel");
    EXPECT_EQ(host.values.at("header/version"), "1");
    EXPECT_EQ(host.values.at("header/type"), "1");
    EXPECT_EQ(host.values.at("header/description"), path);
    EXPECT_EQ(host.values.at("parameter/importseqfit"), "-1");
    EXPECT_EQ(host.values.at("parameter/videodatarate"), "3145728");
    EXPECT_EQ(host.values.at("parameter/videopath"), "D:\\Video\\Clips\\");
    EXPECT_EQ(host.values.at("parameter/importseqfillgaps"), "1");
    // Exact key spelling as written.
    EXPECT_NE(Slurp(path).find("[Parameter]"), std::string::npos);
    EXPECT_NE(Slurp(path).find("VideoAlphaSameAsVideo=0"), std::string::npos);
}

TEST(SeqProfile, HandWrittenFileWithOtherSpacingAndCase)
{
    test::TempDir dir;
    const std::string path = dir / "hand.ImpSeqProfile";
    Write(path,
          "; written by hand\r\n"
          "[HEADER]\r\n"
          "  PRODUCT =  zubhalo  \r\n"
          "type=1\r\n"
          "\r\n"
          "[ parameter ]\r\n"
          "importseqfit = -4096\r\n"
          "IMPORTSEQSWAP=1\r\n"
          "ImportSeqSwap=0\r\n"  // a repeated key: the first counts
          "VideoDataRate = 3145728 bytes\r\n"
          "videoalphadatarate=junk\r\n"
          "VideoPath =  \"C:\\My Clips\\\"  \r\n");
    ProfileRecord r;
    std::string err;
    ASSERT_TRUE(ReadProfile(path, &r, &err)) << err;
    EXPECT_EQ(r.fitWord, -4096);
    EXPECT_EQ(r.swapFields, 1);
    EXPECT_EQ(r.videoDataRate, 3145728);
    EXPECT_EQ(r.alphaDataRate, 0);
    EXPECT_EQ(r.videoPath, "C:\\My Clips\\");
}

TEST(SeqProfile, HeaderOnlyReadsAllZero)
{
    test::TempDir dir;
    const std::string path = dir / "bare.ImpSeqProfile";
    Write(path, "[Header]\nProduct=Kestrel\nType=1\n");
    ProfileRecord r = Sample();
    ASSERT_TRUE(ReadProfile(path, &r));
    EXPECT_EQ(r, ProfileRecord{});
}

TEST(SeqProfile, WrongProductOrTypeFails)
{
    test::TempDir dir;
    std::string err;
    const struct {
        const char* text;
        bool ok;
    } cases[] = {
        {"[Header]\nProduct=zubHalo\nType=1\n", true},
        {"[Header]\nProduct=KESTREL\nVersion=99\nType=1\n", true},
        {"[Header]\nProduct=Kestrel\nType=2\n", false},
        {"[Header]\nProduct=Kestrel\n", false},
        {"[Header]\nProduct=Kestrel2\nType=1\n", false},
        {"[Header]\nType=1\n", false},
        {"[Parameter]\nProduct=Kestrel\nType=1\n", false},
        {"", false},
    };
    for (const auto& c : cases) {
        Write(dir / "p.ImpSeqProfile", c.text);
        EXPECT_EQ(ReadProfile(dir / "p.ImpSeqProfile", nullptr, &err), c.ok) << c.text;
    }
    EXPECT_FALSE(ReadProfile(dir / "missing.ImpSeqProfile", nullptr, &err));
    EXPECT_NE(err.find("missing.ImpSeqProfile"), std::string::npos);
    // A wrong profile leaves the record untouched.
    Write(dir / "p.ImpSeqProfile", "[Header]\nProduct=Other\nType=1\n[Parameter]\nImportSeqFit=5\n");
    ProfileRecord r = Sample();
    EXPECT_FALSE(ReadProfile(dir / "p.ImpSeqProfile", &r));
    EXPECT_EQ(r, Sample());
}

TEST(SeqProfile, Summary)
{
    test::TempDir dir;
    const std::string path = dir / "s.ImpSeqProfile";
    ASSERT_TRUE(WriteProfile(path, Sample()));
    EXPECT_EQ(DescribeProfile(path),
              "Video Settings:\r\n      Compressed, 3.00 MB/Sec \r\n      D:\\Video\\Clips\\ \r\n\r\n"
              "Alpha Settings:\r\n      Uncompressed \r\n");
    ProfileRecord r;
    r.videoUncompressed = 1;
    r.alphaDataRate = 5242880;
    r.createAlpha = 0;  // the alpha line follows the alpha fields regardless
    ASSERT_TRUE(WriteProfile(path, r));
    EXPECT_EQ(DescribeProfile(path),
              "Video Settings:\r\n      Uncompressed \r\n       \r\n\r\nAlpha Settings:\r\n      Compressed, 5.00 MB/Sec \r\n");
    EXPECT_EQ(DescribeProfile(dir / "none.ImpSeqProfile"), "");
}

TEST(SeqProfile, SettingsAndFolder)
{
    ImportSettings s;
    s.fitWord = 0x1207;
    s.videoDir = "/v/";
    s.videoDataRate = 12345;
    ImportSettings t;
    ApplyProfile(ProfileFromSettings(s), t);
    EXPECT_EQ(t.fitWord, 0x1207);
    EXPECT_EQ(t.videoDir, "/v/");
    EXPECT_EQ(t.videoDataRate, 12345);

    test::TempDir dir;
    const std::string folder = ProfilesFolderIn(dir.Path().string());
    EXPECT_EQ(folder, dir.Path().string() + "/Profiles/");
    EXPECT_TRUE(std::filesystem::is_directory(folder));
    EXPECT_EQ(ProfilesFolderIn(dir.Path().string() + "/"), folder);  // again: already there

    // A write that cannot happen says so and leaves no file behind.
    std::string err;
    EXPECT_FALSE(WriteProfile(dir / "no/such/deep/x.ImpSeqProfile", ProfileRecord{}, &err));
    EXPECT_FALSE(err.empty());
}

#include <gtest/gtest.h>

#include <unistd.h>

#include <atomic>

#include "tests/batch/BatchRunSupport.h"
#include "Tool.h"
#include "batch/Companion.h"
#include "batch/MxfUnwrap.h"
#include "zubimport/Import.h"
#include "zubimport/ImportSettings.h"
#include "zubimport/Prompt.h"

using namespace zub;
using namespace zub::batch;
using namespace zub::test;
namespace fs = std::filesystem;

namespace {

struct Notice {
    int zero, every;
    std::string clip, second;
    int type;
};
std::vector<Notice> g_notices;

void RecordNotice(int zero, int every, const char* clip, const char* second, int type)
{
    g_notices.push_back({zero, every, clip, second, type});
}

BatchRow Row(const std::string& file, int type, const std::string& props = {}, const std::string& note = {})
{
    BatchRow r;
    r.fileName = file;
    r.type = type;
    r.props = props;
    r.note = note;
    return r;
}

class BatchRunTest : public ::testing::Test {
protected:
    void SetUp() override
    {
        UseTestVolume(vol_);
        ASSERT_EQ(TheRecorder().OpenDeviceWithInfo(1, 0, 0), 1) << CRecorderDevice::GetError();
        g_notices.clear();
        options_.importer = &fake_;
        options_.moduleFolder = module_.Path().string();
    }
    void TearDown() override
    {
        WaitForCompanionsForTesting();
        TheRecorder().CloseDevice();
    }
    // A file that exists, so an importer handed it can tell.
    std::string Source(const std::string& name)
    {
        const std::string p = src_ / name;
        std::ofstream(p) << "source " << name;
        return p;
    }
    // A companion that appends its two arguments, NUL-separated, to a log in the module folder.
    void InstallCompanion(const std::string& name)
    {
        const std::string prog = module_ / name;
        std::ofstream f(prog);
        f << "#!/bin/sh\nprintf '%s\\0%s\\0%s\\n' \"$(basename \"$0\")\" \"$1\" \"$2\" >> '" << (module_ / "log") << "'\n";
        f.close();
        ::chmod(prog.c_str(), 0755);
    }

    TempDir vol_, module_, src_;
    FakeImporter fake_{vol_.Path().string() + "/"};
    BatchRunOptions options_;
};

}  // namespace

TEST_F(BatchRunTest, MixedListEachRowThroughItsImporter)
{
    fake_.scripts["a.mov"] = {true, "", 3, -2, true};
    fake_.scripts["b.wav"] = {true, "", -1, -2, true};
    fake_.scripts["c.tga"] = {true, "", 1};
    fake_.scripts["broken.mov"] = {false, "Unable to render the file."};
    fake_.scripts["nomsg.avi"] = {false, ""};
    fake_.scripts["notes.xyz"] = {true, "", 2};
    const std::vector<BatchRow> rows = {
        Row(Source("a.mov"), kTypeVideo, "p1"), Row(Source("b.wav"), kTypeAudio, "p2"), Row(Source("c.tga"), kTypeImages),
        Row(Source("broken.mov"), kTypeVideo), Row(Source("nomsg.avi"), kTypeVideo), Row(Source("notes.xyz"), kTypeVideo),
    };
    std::vector<std::pair<int, int>> progress;
    options_.progress = [&](int r, int n) { progress.emplace_back(r, n); };
    const BatchRunResult run = RunBatch(rows, options_);

    ASSERT_EQ(fake_.calls.size(), 6u);
    const char kinds[] = {'v', 'a', 'i', 'v', 'v', 'v'};
    for (std::size_t i = 0; i < 6; ++i) {
        EXPECT_EQ(fake_.calls[i].kind, kinds[i]) << i;
        EXPECT_EQ(fake_.calls[i].path, rows[i].fileName);
        EXPECT_EQ(fake_.calls[i].props, rows[i].props);
    }
    ASSERT_EQ(run.rows.size(), 6u);
    EXPECT_TRUE(run.rows[0].ok);
    EXPECT_EQ(fs::path(run.rows[0].clipPath).extension(), ".wav");
    EXPECT_EQ(fs::path(run.rows[0].secondPath).extension(), ".zub");
    EXPECT_TRUE(run.rows[1].ok);
    EXPECT_TRUE(run.rows[2].ok);
    EXPECT_FALSE(run.rows[3].ok);
    EXPECT_EQ(run.rows[3].result, "Unable to render the file.");
    EXPECT_FALSE(run.rows[4].ok);
    EXPECT_EQ(run.rows[4].result, "Error");
    EXPECT_TRUE(run.rows[5].ok);  // the failures before it did not stop the batch
    EXPECT_TRUE(run.anyFailed);
    EXPECT_FALSE(run.closeDialog);
    EXPECT_EQ(progress.size(), 7u);
    EXPECT_EQ(progress.back(), std::make_pair(6, 6));
    // What the rows made is there and is what the recorder and sox read.
    EXPECT_EQ(TheRecorder().QueryFileLength(run.rows[0].secondPath.c_str()), 3u);
    EXPECT_EQ(CaptureLine("sox --i -r '" + run.rows[1].clipPath + "'"), "48000");
}

TEST_F(BatchRunTest, NoFailureClosesTheDialogAndEmptyListToo)
{
    fake_.scripts["a.mov"] = {true, "", 2};
    BatchRunResult run = RunBatch({Row(Source("a.mov"), kTypeVideo)}, options_);
    EXPECT_TRUE(run.closeDialog);
    EXPECT_FALSE(run.anyFailed);
    run = RunBatch({}, options_);
    EXPECT_TRUE(run.closeDialog);
    EXPECT_TRUE(fake_.calls.size() == 1u);
}

TEST_F(BatchRunTest, NotifiesEveryItemWithFiveArguments)
{
    fake_.scripts["a.mov"] = {true, "", 2, -2, true};
    fake_.scripts["b.wav"] = {true, "", -1, -2, true};
    fake_.scripts["x.mov"] = {false, "bad"};
    fake_.scripts["c.tga"] = {true, "", 1};
    options_.notify = RecordNotice;
    options_.notifyEveryItem = 1;
    const BatchRunResult run = RunBatch({Row(Source("a.mov"), kTypeVideo), Row(Source("b.wav"), kTypeAudio),
                                         Row(Source("x.mov"), kTypeVideo), Row(Source("c.tga"), kTypeImages)},
                                        options_);
    ASSERT_EQ(g_notices.size(), 3u);  // not for the failed row
    EXPECT_EQ(g_notices[0].zero, 0);
    EXPECT_EQ(g_notices[0].every, 1);
    EXPECT_EQ(g_notices[0].clip, run.rows[0].clipPath);
    EXPECT_EQ(g_notices[0].second, run.rows[0].secondPath);
    EXPECT_EQ(g_notices[0].type, kTypeVideo);
    EXPECT_EQ(g_notices[1].type, kTypeAudio);
    EXPECT_EQ(g_notices[1].second, "");
    EXPECT_EQ(g_notices[2].type, kTypeImages);
    EXPECT_EQ(fs::path(g_notices[2].clip).extension(), ".zub");
}

TEST_F(BatchRunTest, WithoutEveryItemOnlyTheLastRowNotifies)
{
    fake_.scripts["a.mov"] = {true, "", 2};
    fake_.scripts["b.mov"] = {true, "", 2};
    options_.notify = RecordNotice;
    options_.notifyEveryItem = 0;
    RunBatch({Row(Source("a.mov"), kTypeVideo), Row(Source("b.mov"), kTypeVideo)}, options_);
    ASSERT_EQ(g_notices.size(), 1u);
    EXPECT_EQ(g_notices[0].every, 0);
    EXPECT_NE(g_notices[0].clip.find("b.zub"), std::string::npos);

    // A failed last row: nobody is told.
    g_notices.clear();
    fake_.scripts["z.mov"] = {false, ""};
    RunBatch({Row(Source("a.mov"), kTypeVideo), Row(Source("z.mov"), kTypeVideo)}, options_);
    EXPECT_TRUE(g_notices.empty());
}

TEST_F(BatchRunTest, ReadBackMismatchFailsTheRowWithTheReason)
{
    InstallCompanion("Batch_Import_Video");
    InstallCompanion("Batch_Import_Audio");
    fake_.scripts["short.mov"] = {true, "", 3, 5};
    fake_.scripts["cut.wav"] = {true, "", -1, -2, true, true};
    fake_.scripts["gone.mov"] = {true, ""};
    const BatchRunResult run = RunBatch({Row(Source("short.mov"), kTypeVideo), Row(Source("cut.wav"), kTypeAudio)}, options_);
    EXPECT_FALSE(run.rows[0].ok);
    EXPECT_NE(run.rows[0].result.find("holds 3 frames, 5 were imported"), std::string::npos) << run.rows[0].result;
    EXPECT_FALSE(run.rows[1].ok);
    EXPECT_NE(run.rows[1].result.find("cut short"), std::string::npos) << run.rows[1].result;
    EXPECT_TRUE(run.anyFailed);
    WaitForCompanionsForTesting();
    EXPECT_FALSE(fs::exists(module_ / "log"));  // no companion hears of a file that failed its read-back

    // The same check on its own: a file that is not there, and a clip the recorder cannot read.
    EXPECT_NE(VerifyMadeFile(vol_ / "nothing.wav", -1).find("cannot be opened"), std::string::npos);
    std::ofstream(vol_ / "fake.zub") << "not a clip";
    EXPECT_NE(VerifyMadeFile(vol_ / "fake.zub", 1).find("cannot be read back"), std::string::npos);
}

TEST_F(BatchRunTest, CompanionsRunAfterSuccessfulRowsOnly)
{
    InstallCompanion("Batch_Import_Video");
    InstallCompanion("Batch_Import_Audio");
    // Batch_Import_Graphics is missing: the image row still succeeds.
    fake_.scripts["a b.mov"] = {true, "", 1};
    fake_.scripts["bad.mov"] = {false, ""};
    fake_.scripts["t.wav"] = {true, "", -1, -2, true};
    fake_.scripts["s.tga"] = {true, "", 1};
    const std::vector<BatchRow> rows = {Row(Source("a b.mov"), kTypeVideo, "", "note \"1\"; $(x)"),
                                        Row(Source("bad.mov"), kTypeVideo, "", "n2"), Row(Source("t.wav"), kTypeAudio),
                                        Row(Source("s.tga"), kTypeImages)};
    const BatchRunResult run = RunBatch(rows, options_);
    EXPECT_FALSE(run.rows[1].ok);
    EXPECT_TRUE(run.rows[3].ok);
    WaitForCompanionsForTesting();
    const std::string log = Slurp(module_ / "log");
    const std::string v = std::string("Batch_Import_Video") + '\0' + rows[0].fileName + '\0' + rows[0].note + "\n";
    const std::string a = std::string("Batch_Import_Audio") + '\0' + rows[2].fileName + '\0' + "\n";
    EXPECT_NE(log.find(v), std::string::npos);
    EXPECT_NE(log.find(a), std::string::npos);
    EXPECT_EQ(log.size(), v.size() + a.size());
}

TEST_F(BatchRunTest, CompanionThatCannotStartFailsTheRow)
{
    std::ofstream(module_ / "Batch_Import_Video") << "not executable";
    fake_.scripts["a.mov"] = {true, "", 1};
    const BatchRunResult run = RunBatch({Row(Source("a.mov"), kTypeVideo)}, options_);
    EXPECT_FALSE(run.rows[0].ok);
    EXPECT_NE(run.rows[0].result.find("Batch_Import_Video: cannot start"), std::string::npos) << run.rows[0].result;
}

TEST_F(BatchRunTest, MxfRowIsUnwrappedImportedAsVideoAndTheCopyRemoved)
{
    fs::copy_file(ZUB_TEST_MXFWRAP, module_ / "libMXFWrap.so");
    TempDir tmp;
    ::setenv("TMPDIR", tmp.Path().c_str(), 1);
    const std::string mxf = src_ / "clip.MXF";
    ASSERT_EQ(zub::test::Run({"ffmpeg", "-v", "error", "-f", "lavfi", "-i", "testsrc=size=320x240:rate=25", "-t", "0.4",
                   "-c:v", "mpeg2video", "-f", "mxf", mxf}),
              0);
    const std::string before = Slurp(mxf);
    InstallCompanion("Batch_Import_Video");
    const BatchRunResult run = RunBatch({Row(mxf, kTypeVideo, "", "n")}, options_);
    ::unsetenv("TMPDIR");
    ASSERT_EQ(fake_.calls.size(), 1u);
    EXPECT_EQ(fake_.calls[0].kind, 'v');
    EXPECT_NE(fake_.calls[0].path, mxf);
    EXPECT_EQ(fs::path(fake_.calls[0].path).parent_path().parent_path(), tmp.Path());
    EXPECT_EQ(fs::path(fake_.calls[0].path).filename(), "clip.mkv");  // the clip is named after the source
    EXPECT_TRUE(fake_.calls[0].existed);
    EXPECT_TRUE(run.rows[0].ok) << run.rows[0].result;
    EXPECT_FALSE(fs::exists(fake_.calls[0].path));  // removed once the row was done
    EXPECT_TRUE(fs::is_empty(tmp.Path()));
    EXPECT_EQ(Slurp(mxf), before);
    WaitForCompanionsForTesting();
    // The companion hears of the file the user listed, not of the temporary copy.
    EXPECT_NE(Slurp(module_ / "log").find(mxf), std::string::npos);
}

TEST_F(BatchRunTest, MxfWithoutTheLibraryOrItsEntryFailsTheRow)
{
    auto prompt = std::make_shared<ScriptedPrompt>();
    ScopedPrompter scoped(prompt);
    const std::string mxf = Source("a.mxf");
    BatchRunResult run = RunBatch({Row(mxf, kTypeVideo), Row(Source("b.mov"), kTypeVideo)}, options_);
    EXPECT_FALSE(run.rows[0].ok);
    EXPECT_EQ(run.rows[0].result.rfind("Failed to load MXFWrap.dll!", 0), 0u) << run.rows[0].result;
    EXPECT_TRUE(run.rows[1].ok);
    ASSERT_EQ(prompt->Texts().size(), 1u);
    EXPECT_EQ(prompt->Texts()[0], "Failed to load MXFWrap.dll!");
    ASSERT_EQ(fake_.calls.size(), 1u);  // the MXF row never reached the importer

    fs::copy_file(ZUB_TEST_NOENTRY_LIBRARY, module_ / "libMXFWrap.so");
    run = RunBatch({Row(mxf, kTypeVideo)}, options_);
    EXPECT_FALSE(run.rows[0].ok);
    EXPECT_NE(run.rows[0].result.find("no entry G_LaunchMXFUnwrap"), std::string::npos) << run.rows[0].result;
    EXPECT_EQ(prompt->Texts().size(), 1u);
}

TEST_F(BatchRunTest, CancelStopsBeforeTheNextRow)
{
    std::atomic<int> cancel{0};
    options_.cancel = &cancel;
    options_.progress = [&](int r, int) {
        if (r == 1) cancel = 1;
    };
    const BatchRunResult run =
        RunBatch({Row(Source("a.mov"), kTypeVideo), Row(Source("b.mov"), kTypeVideo), Row(Source("c.mov"), kTypeVideo)}, options_);
    EXPECT_TRUE(run.cancelled);
    EXPECT_FALSE(run.closeDialog);
    EXPECT_EQ(fake_.calls.size(), 2u);
    EXPECT_TRUE(run.rows[1].ran);
    EXPECT_FALSE(run.rows[2].ran);
}

TEST(BatchEntry, StartBatchImpDlgHeadlessAppliesAndReturnsTheSettings)
{
    TempDir vol;
    UseTestVolume(vol);
    ImportSettings& s = CurrentSettings();
    s = ImportSettings{};
    CBatchImpPrefsInfo prefs;
    prefs.strSetting1 = "/clips/video/";
    prefs.nSetting10 = 1234567;
    prefs.nSetting4 = -1;
    const int fitBefore = s.fitWord;
    testing::internal::CaptureStderr();
    EXPECT_EQ(StartBatchImpDlg(&prefs), 0);
    const std::string err = testing::internal::GetCapturedStderr();
    EXPECT_NE(err.find("StartBatchImpDlg: no widgets application"), std::string::npos) << err;
    EXPECT_EQ(s.videoDir, "/clips/video/");
    EXPECT_EQ(s.videoDataRate, 1234567);
    EXPECT_EQ(s.fitWord, fitBefore);
    EXPECT_EQ(prefs.nSetting4, fitBefore);  // read back after the dialog
    EXPECT_EQ(TheRecorder().kind, RecorderKind::Closed);      // closed again
    s = ImportSettings{};
}

TEST(BatchEntry, DeviceThatCannotOpenShowsString10000)
{
    TempDir vol;
    UseTestVolume(vol);
    ::setenv("ZUBREC_LINES", "999", 1);
    auto prompt = std::make_shared<ScriptedPrompt>();
    ScopedPrompter scoped(prompt);
    CBatchImpPrefsInfo prefs;
    prefs.strSetting1 = "/not/applied/";
    const std::string before = CurrentSettings().videoDir;
    EXPECT_EQ(StartBatchImpDlg(&prefs), 0);
    ASSERT_EQ(prompt->Texts().size(), 1u);
    EXPECT_EQ(prompt->Texts()[0],
              "Failed to open the ZUB Hardware device.\nPlease make sure all the drivers are started up properly.");
    EXPECT_EQ(CurrentSettings().videoDir, before);
    BatchRunResult run;
    EXPECT_FALSE(RunBatchWithPrefs(prefs, {}, &run));
    ::setenv("ZUBREC_LINES", "625", 1);
}

TEST(BatchEntry, RunWithPrefsNotifiesTheRegisteredHost)
{
    TempDir vol, module;
    UseTestVolume(vol);
    SetModuleFolderForTesting(module.Path().string());
    g_notices.clear();
    ImportDllSetBatchNotify(RecordNotice);
    FakeImporter fake(vol.Path().string() + "/");
    fake.scripts["a.mov"] = {true, "", 2};
    fake.scripts["b.mov"] = {true, "", 2};
    std::ofstream(vol / "a.mov") << "x";
    std::ofstream(vol / "b.mov") << "x";
    CBatchImpPrefsInfo prefs;
    prefs.nDlgParam2 = 1;
    BatchRunResult run;
    ASSERT_TRUE(RunBatchWithPrefs(prefs, {Row(vol / "a.mov", kTypeVideo), Row(vol / "b.mov", kTypeVideo)}, &run, &fake));
    EXPECT_TRUE(run.closeDialog);
    EXPECT_EQ(g_notices.size(), 2u);
    ImportDllSetBatchNotify(nullptr);
    SetModuleFolderForTesting("");
    EXPECT_EQ(TheRecorder().kind, RecorderKind::Closed);
}

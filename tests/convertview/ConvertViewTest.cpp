// The Media Conversion dialog driven through its widgets (offscreen unless a display is
// given): texts, object names and enable rules against the session it shows, the Settings
// button's dialog, and whole conversions pressed through Convert and Abort, compared with the
// same conversion run without a window.
#include "tests/convertview/ConvertViewSupport.h"

#include <QCheckBox>
#include <QComboBox>
#include <QLabel>
#include <QLineEdit>
#include <QPlainTextEdit>
#include <QPushButton>
#include <QScrollBar>
#include <QTabWidget>
#include <QTimer>

#include <functional>
#include <optional>

#include "controls/ProgressBar.h"
#include "controls/TabbedDialog.h"

using namespace zub;
using namespace zub::test;

namespace {

// A session shown in its dialog, as the runner does, but with the test holding both.
struct Shown {
    CConvertDlg dlg;
    ConvertSession session;
    CConvertView view;
    bool ok = false;

    explicit Shown(const std::string& src, const std::function<void(CConvertDlg&)>& setUp = {})
        : dlg(src), session(dlg), view(session)
    {
        if (setUp) setUp(dlg);
        ok = session.Init();
        view.Refresh();
        view.show();
        view.activateWindow();
        ok = ok && QTest::qWaitForWindowActive(&view);
    }
};

QString Names(const std::string& first, const std::string& second = {})
{
    return QString::fromStdString(second.empty() ? first : first + "\n" + second);
}

// Runs `act` once a modal dialog other than `below` is up (the settings dialog opened by a
// button press that does not return until it closes).
void WhenModalAbove(QWidget* below, std::function<void(QWidget*)> act)
{
    auto* poll = new QTimer;
    poll->setInterval(20);
    QObject::connect(poll, &QTimer::timeout, [poll, below, act] {
        QWidget* top = QApplication::activeModalWidget();
        if (!top || top == below) return;
        poll->stop();
        poll->deleteLater();
        act(top);
    });
    poll->start();
}

}  // namespace

// ---- texts, names and keyboard ------------------------------------------------------------

TEST_F(ConvertViewTest, TitleLabelsAndObjectNamesAreThoseOfTheDialog)
{
    Shown s(Movie("movie.mp4"));
    ASSERT_TRUE(s.ok);
    CConvertView& v = s.view;
    EXPECT_EQ(v.windowTitle(), "Media Conversion");
    EXPECT_EQ(v.findChild<QLineEdit*>("clipName_1168"), v.ClipName());
    EXPECT_EQ(v.findChild<QCheckBox*>("video_1127"), v.Video());
    EXPECT_EQ(v.findChild<QCheckBox*>("audio_1129"), v.Audio());
    EXPECT_EQ(v.findChild<QCheckBox*>("dva_1333"), v.Dva());
    EXPECT_EQ(v.findChild<QPlainTextEdit*>("fileNames_1173"), v.FileNames());
    EXPECT_EQ(v.findChild<QCheckBox*>("showImages_1136"), v.ShowImages());
    EXPECT_EQ(v.findChild<QPushButton*>("settings_2275"), v.Settings());
    EXPECT_EQ(v.findChild<QPushButton*>("convert_1508"), v.Convert());
    EXPECT_EQ(v.findChild<QPushButton*>("close_2"), v.Close());
    ASSERT_NE(v.VideoProgress(), nullptr);
    ASSERT_NE(v.AudioProgress(), nullptr);

    EXPECT_EQ(v.ShowImages()->text(), "Show Images on Output");
    EXPECT_EQ(v.Settings()->text(), "&Settings...");
    EXPECT_EQ(v.Convert()->text(), "Convert");
    EXPECT_EQ(v.Close()->text(), "Cancel");
    EXPECT_TRUE(v.Convert()->isDefault());
    EXPECT_EQ(v.findChild<QLabel*>("clipNameLabel")->buddy(), v.ClipName());

    // What the session proposes: the source's name and its two targets.
    const ImportSettings& st = CurrentSettings();
    EXPECT_EQ(v.ClipName()->text(), "movie");
    EXPECT_EQ(v.FileNames()->toPlainText(), Names(st.videoDir + "movie.zub", st.audioDir + "movie.wav"));
    // Before a conversion the bars stand at nothing: frames with counts, sound in percent.
    EXPECT_EQ(v.VideoProgress()->Text(), "0 of 0 - 0%");
    EXPECT_EQ(v.AudioProgress()->Text(), "0%");

    // Typing a clip name renames the targets as the user types.
    v.ClipName()->setFocus();
    v.ClipName()->selectAll();
    QTest::keyClicks(v.ClipName(), "take2");
    EXPECT_EQ(s.session.View().clipName, "take2");
    EXPECT_EQ(v.FileNames()->toPlainText(), Names(st.videoDir + "take2.zub", st.audioDir + "take2.wav"));
}

TEST_F(ConvertViewTest, TabGoesDownTheFormAndMnemonicsReachTheBoxes)
{
    Shown s(Movie("movie.mp4"), [](CConvertDlg& d) { d.SetSettingsButton(1); });
    ASSERT_TRUE(s.ok);
    CConvertView& v = s.view;
    v.ClipName()->setFocus();
    const std::vector<QWidget*> order{v.Video(),      v.Audio(),    v.Dva(),     v.FileNames(),
                                      v.ShowImages(), v.Settings(), v.Convert(), v.Close()};
    for (QWidget* expected : order) {
        QTest::keyClick(QApplication::focusWidget(), Qt::Key_Tab);
        EXPECT_EQ(QApplication::focusWidget(), expected) << expected->objectName().toStdString();
    }

    // Alt+V clears Video: the session hears it and the dva box follows.
    ASSERT_TRUE(v.Video()->isChecked());
    QTest::keyClick(&v, Qt::Key_V, Qt::AltModifier);
    EXPECT_TRUE(QTest::qWaitFor([&] { return !s.session.View().videoChecked; }, 2000));
    EXPECT_FALSE(v.Video()->isChecked());
    EXPECT_FALSE(v.Dva()->isEnabled());
    // Alt+N goes to the clip name.
    QTest::keyClick(&v, Qt::Key_N, Qt::AltModifier);
    EXPECT_EQ(QApplication::focusWidget(), v.ClipName());
}

TEST_F(ConvertViewTest, CancelAndEscapeBeforeConvertCloseWithoutAQuestion)
{
    const std::string src = Movie("movie.mp4");
    {
        Shown s(src);
        ASSERT_TRUE(s.ok);
        QTest::mouseClick(s.view.Close(), Qt::LeftButton);
        EXPECT_TRUE(s.session.Ended());
        EXPECT_EQ(s.session.EndCode(), 2);
        EXPECT_FALSE(s.view.isVisible());
        EXPECT_EQ(s.view.result(), 2);
    }
    {
        Shown s(src);
        ASSERT_TRUE(s.ok);
        QTest::keyClick(&s.view, Qt::Key_Escape);
        EXPECT_TRUE(s.session.Ended());
        EXPECT_EQ(s.session.EndCode(), 2);
        EXPECT_FALSE(s.view.isVisible());
    }
    {
        Shown s(src);
        ASSERT_TRUE(s.ok);
        s.view.close();  // the window's close box
        EXPECT_TRUE(s.session.Ended());
        EXPECT_EQ(s.session.EndCode(), 2);
        EXPECT_FALSE(s.view.isVisible());
    }
    EXPECT_TRUE(prompt->Texts().empty()) << ::testing::PrintToString(prompt->Texts());
    EXPECT_TRUE(Listing(vol.Path() / "run").empty());
}

// ---- enable rules -------------------------------------------------------------------------

TEST_F(ConvertViewTest, BoxesFollowTheirEnableRules)
{
    CurrentSettings().showImagesOnOutput = 1;
    Shown s(Movie("movie.mp4"));
    ASSERT_TRUE(s.ok);
    CConvertView& v = s.view;
    const ImportSettings& st = CurrentSettings();

    EXPECT_TRUE(v.Video()->isChecked() && v.Video()->isEnabled());
    EXPECT_TRUE(v.Audio()->isChecked() && v.Audio()->isEnabled());
    EXPECT_FALSE(v.Dva()->isChecked());
    EXPECT_TRUE(v.Dva()->isEnabled());
    EXPECT_FALSE(v.Settings()->isEnabled()) << "the host did not ask for the Settings button";
    EXPECT_TRUE(v.ShowImages()->isEnabled()) << "the ZUB recorder outside server mode";
    EXPECT_TRUE(v.ShowImages()->isChecked());

    Tick(v.Video());
    EXPECT_FALSE(v.Video()->isChecked());
    EXPECT_FALSE(v.Dva()->isEnabled());
    EXPECT_TRUE(v.Convert()->isEnabled());
    EXPECT_EQ(v.FileNames()->toPlainText(), Names(st.audioDir + "movie.wav"));

    Tick(v.Audio());
    EXPECT_FALSE(v.Convert()->isEnabled()) << "nothing left to convert";
    EXPECT_EQ(v.FileNames()->toPlainText(), "");

    Tick(v.Video());
    EXPECT_TRUE(v.Convert()->isEnabled());
    EXPECT_FALSE(v.Dva()->isEnabled());
    EXPECT_EQ(v.FileNames()->toPlainText(), Names(st.videoDir + "movie.zub"));

    Tick(v.Audio());
    EXPECT_TRUE(v.Dva()->isEnabled());
    Tick(v.Dva());
    EXPECT_TRUE(v.Dva()->isChecked());
    EXPECT_EQ(v.FileNames()->toPlainText(), Names(st.audioDir + "movie.dva"));

    // A disabled box does not move, whatever is clicked.
    Tick(v.Video());
    EXPECT_FALSE(v.Dva()->isEnabled());
    Tick(v.Dva());
    EXPECT_TRUE(v.Dva()->isChecked()) << "a disabled box keeps its tick";
    EXPECT_EQ(v.FileNames()->toPlainText(), Names(st.audioDir + "movie.wav"));

    Tick(v.ShowImages());
    EXPECT_FALSE(s.session.View().showImagesChecked);
    EXPECT_FALSE(v.ShowImages()->isChecked());
}

TEST_F(ConvertViewTest, ASoundFileOffersOnlyAudio)
{
    gen::MediaSpec spec;
    ASSERT_TRUE(gen::Preset("wav_s16_stereo", &spec));
    Shown s(Make("tone.wav", spec));
    ASSERT_TRUE(s.ok);
    CConvertView& v = s.view;
    EXPECT_FALSE(v.Video()->isChecked());
    EXPECT_FALSE(v.Video()->isEnabled());
    EXPECT_TRUE(v.Audio()->isChecked());
    EXPECT_TRUE(v.Audio()->isEnabled());
    EXPECT_FALSE(v.Dva()->isChecked());
    EXPECT_FALSE(v.Dva()->isEnabled());
    EXPECT_EQ(v.FileNames()->toPlainText(), Names(CurrentSettings().audioDir + "tone.wav"));
    Tick(v.Video());
    EXPECT_FALSE(v.Video()->isChecked());
}

TEST_F(ConvertViewTest, ServerModeTurnsShowImagesOff)
{
    CurrentSettings().showImagesOnOutput = 1;
    gen::MediaSpec spec;
    spec.width = 720;
    spec.height = 480;
    spec.frames = 3;
    spec.video = gen::VideoCodec::Mpeg4;
    spec.container = "avi";
    const std::string src = Make("dv.avi", spec);
    CConvertDlg dlg(src, 1);
    ConvertSession session(dlg);
    CConvertView view(session);
    ASSERT_TRUE(session.Init());
    EXPECT_FALSE(view.ShowImages()->isEnabled());
    EXPECT_FALSE(view.ShowImages()->isChecked());
}

// ---- settings ------------------------------------------------------------------------------

TEST_F(ConvertViewTest, SettingsOnlyAnswersOkWithTheChoices)
{
    Shown s(Movie("movie.mp4"), [](CConvertDlg& d) {
        d.SetSettingsOnly(1);
        d.SetSettingsButton(1);
        d.SetStrSettings("A|1,1,0");
    });
    ASSERT_TRUE(s.ok);
    CConvertView& v = s.view;
    EXPECT_EQ(v.Convert()->text(), "OK");
    EXPECT_FALSE(v.Settings()->isEnabled());
    EXPECT_EQ(v.ClipName()->text(), "A");
    Tick(v.Audio());
    QTest::keyClick(&v, Qt::Key_Return);  // the default button
    ASSERT_TRUE(s.session.Ended());
    EXPECT_EQ(s.session.EndCode(), 1);
    EXPECT_EQ(v.result(), 1);
    EXPECT_EQ(s.dlg.GetStrSettings(), "A|1,0,0");
    EXPECT_TRUE(Listing(vol.Path() / "run").empty()) << "settings-only converts nothing";
}

TEST_F(ConvertViewTest, SettingsButtonEditsTheSettingsAndRenamesTheTargets)
{
    Shown s(Movie("movie.mp4"), [](CConvertDlg& d) { d.SetSettingsButton(1); });
    ASSERT_TRUE(s.ok);
    CConvertView& v = s.view;
    ASSERT_TRUE(v.Settings()->isEnabled());
    const std::filesystem::path other = vol.Path() / "elsewhere";
    std::filesystem::create_directories(other);

    QStringList tabs;
    QString title;
    bool seen = false;
    WhenModalAbove(&v, [&](QWidget* top) {
        auto* dlg = dynamic_cast<controls::CTabdDlg*>(top);
        ASSERT_NE(dlg, nullptr);
        seen = true;
        title = dlg->windowTitle();
        for (int i = 0; i < dlg->Tabs()->count(); ++i) tabs << dlg->Tabs()->tabText(i);
        // The first page: fit and resize choices, applied when it is left.
        QWidget* page = dlg->Page(0);
        page->findChild<QComboBox*>("fitMode")->setCurrentIndex(kFitCenter);
        page->findChild<QComboBox*>("area")->setCurrentIndex(kAreaSafeTitle);
        page->findChild<QComboBox*>("resizeMethod")->setCurrentIndex(kResizeBiCubic);
        ASSERT_TRUE(dlg->SetActivePage(1));
        auto* dir = dlg->Page(1)->findChild<QLineEdit*>("directory_2254");
        ASSERT_NE(dir, nullptr);
        dir->setText(QString::fromStdString(other.string()));
        dlg->findChild<QPushButton*>("ok_1")->click();
    });
    QTest::mouseClick(v.Settings(), Qt::LeftButton);
    ASSERT_TRUE(seen);
    EXPECT_EQ(title, "Media Conversion Settings");
    EXPECT_EQ(tabs, (QStringList{"Convert Video", "Video", "Alpha", "Audio"}));
    EXPECT_EQ(CurrentSettings().fitWord, MakeFitWord(kFitCenter, kAreaSafeTitle, kResizeBiCubic));
    EXPECT_EQ(v.FileNames()->toPlainText(),
              Names(other.string() + "/movie.zub", CurrentSettings().audioDir + "movie.wav"));

    // Without the alpha page, and Cancel leaves the settings as they were.
    s.dlg.SetAlphaPage(0);
    const ImportSettings before = CurrentSettings();
    tabs.clear();
    WhenModalAbove(&v, [&](QWidget* top) {
        auto* dlg = dynamic_cast<controls::CTabdDlg*>(top);
        ASSERT_NE(dlg, nullptr);
        for (int i = 0; i < dlg->Tabs()->count(); ++i) tabs << dlg->Tabs()->tabText(i);
        dlg->Page(0)->findChild<QComboBox*>("fitMode")->setCurrentIndex(kFitStretchAll);
        ASSERT_TRUE(dlg->SetActivePage(1));
        QTest::keyClick(dlg, Qt::Key_Escape);
    });
    QTest::mouseClick(v.Settings(), Qt::LeftButton);
    EXPECT_EQ(tabs, (QStringList{"Convert Video", "Video", "Audio"}));
    EXPECT_EQ(CurrentSettings(), before);
    EXPECT_FALSE(s.session.Ended());
}

TEST_F(ConvertViewTest, FileNamesAreScrolledToTheirEnd)
{
    std::string deep = (vol.Path() / "run").string();
    for (int i = 0; i < 8; ++i) deep += "/a_rather_long_folder_name_" + std::to_string(i);
    CurrentSettings().videoDir = deep + "/";
    CurrentSettings().audioDir = deep + "/";
    Shown s(Movie("movie.mp4"));
    ASSERT_TRUE(s.ok);
    CConvertView& v = s.view;
    v.resize(320, v.height());
    QTest::qWait(400);  // past the 200 ms scroll timer
    QPlainTextEdit* box = v.FileNames();
    const QString text = box->toPlainText();
    EXPECT_TRUE(text.endsWith("movie.wav"));
    EXPECT_EQ(box->textCursor().position(), text.size());
    QScrollBar* bar = box->horizontalScrollBar();
    EXPECT_GT(bar->maximum(), 0) << "the names are wider than the box";
    // Both names are as long: with the caret at the end of the last, the box shows their ends.
    EXPECT_EQ(bar->value(), bar->maximum());
}

// ---- whole conversions: through the dialog and without a window --------------------------

namespace {

struct Outcome {
    int code = 0;
    std::set<std::string> files;
    std::vector<std::string> texts;
    ClipInfo clip;
    std::string wav;  // sox's reading, "" when there is none
    // Seen through the dialog only.
    QString closeWhileConverting;
    bool lockedWhileConverting = false;
    bool closeEnabledAfterAnswer = true;
    bool abortPressed = false;
};

}  // namespace

class ConvertThroughDialogTest : public ConvertViewTest,
                                 public ::testing::WithParamInterface<std::optional<Answer>> {
protected:
    Outcome Collect(int code, const std::filesystem::path& root, std::size_t firstText)
    {
        Outcome o;
        o.code = code;
        o.files = Listing(root);
        const auto texts = prompt->Texts();
        o.texts.assign(texts.begin() + static_cast<std::ptrdiff_t>(firstText), texts.end());
        const std::string clip = (root / "video/slow.zub").string();
        const std::string wav = (root / "audio/slow.wav").string();
        if (std::filesystem::exists(clip)) o.clip = ReadClip(clip);
        if (std::filesystem::exists(wav)) o.wav = SoxInfo(wav);
        return o;
    }

    Outcome Headless(const std::string& src, const std::optional<Answer>& answer)
    {
        const std::filesystem::path root = Folders("headless");
        const std::size_t first = prompt->Texts().size();
        const ConvertDialogRunner runner = RegisteredConvertDialogRunner();
        RegisterConvertDialogRunner(nullptr);  // Modal now runs without a window
        CConvertDlg dlg(src);
        bool pressed = false;
        dlg.SetProgressCallback([&](const ConvertProgress& p) {
            if (answer && !pressed && p.converting && p.framesDone > 0) {
                pressed = true;
                prompt->Push(*answer);
                dlg.PressAbort();
            }
        });
        const int code = dlg.Modal();
        RegisterConvertDialogRunner(runner);
        EXPECT_EQ(pressed, answer.has_value());
        return Collect(code, root, first);
    }

    // Convert pressed with the mouse; Abort with the mouse (or Escape, for Cancel) once the
    // video bar shows frames.
    Outcome ThroughDialog(const std::string& src, const std::optional<Answer>& answer)
    {
        const std::filesystem::path root = Folders("dialog");
        const std::size_t first = prompt->Texts().size();
        Outcome o;
        int stage = 0;
        QTimer poll;
        poll.setInterval(20);
        QObject::connect(&poll, &QTimer::timeout, [&] {
            CConvertView* v = ShownView();
            if (!v) return;
            if (stage == 0) {
                stage = 1;
                QTest::mouseClick(v->Convert(), Qt::LeftButton);
                o.closeWhileConverting = v->Close()->text();
                o.lockedWhileConverting = !v->ClipName()->isEnabled() && !v->Video()->isEnabled() &&
                                          !v->Audio()->isEnabled() && !v->Dva()->isEnabled() &&
                                          !v->Convert()->isEnabled() && !v->Settings()->isEnabled();
            } else if (stage == 1 && answer && v->VideoProgress()->Pos() > 0) {
                stage = 2;
                prompt->Push(*answer);
                o.abortPressed = true;
                if (*answer == Answer::Cancel)
                    QTest::keyClick(v, Qt::Key_Escape);
                else
                    QTest::mouseClick(v->Close(), Qt::LeftButton);
                if (ShownView() == v) o.closeEnabledAfterAnswer = v->Close()->isEnabled();
            }
        });
        poll.start();
        CConvertDlg dlg(src);
        const int code = dlg.Modal();
        poll.stop();
        const Outcome c = Collect(code, root, first);
        o.code = c.code;
        o.files = c.files;
        o.texts = c.texts;
        o.clip = c.clip;
        o.wav = c.wav;
        return o;
    }
};

TEST_P(ConvertThroughDialogTest, EndsWithTheSameFilesAndCodeAsWithoutAWindow)
{
    const std::optional<Answer> answer = GetParam();
    constexpr int kFrames = 90;
    setenv("ZUBREC_WRITE_DELAY", "25", 1);  // a few seconds, so Abort meets a running conversion
    Reopen();
    const std::string src = Movie("slow.mp4", kFrames);

    const Outcome headless = Headless(src, answer);
    const Outcome shown = ThroughDialog(src, answer);

    EXPECT_EQ(shown.code, headless.code);
    EXPECT_EQ(shown.files, headless.files);
    EXPECT_EQ(shown.texts, headless.texts);
    EXPECT_EQ(shown.closeWhileConverting, "&Abort");
    EXPECT_TRUE(shown.lockedWhileConverting);
    EXPECT_EQ(shown.abortPressed, answer.has_value());

    const std::set<std::string> both{"audio/slow.wav", "video/slow.zub"};
    if (!answer || *answer == Answer::Cancel) {
        // The whole conversion: every frame, the rate record, the sound as the settings say.
        EXPECT_EQ(shown.code, 1);
        EXPECT_EQ(shown.files, both);
        EXPECT_EQ(shown.clip.frames, kFrames) << shown.clip.text;
        EXPECT_EQ(headless.clip.frames, kFrames) << headless.clip.text;
        EXPECT_GT(shown.clip.sectors, 0);
        EXPECT_EQ(shown.clip.sectors, headless.clip.sectors);
        EXPECT_FALSE(shown.wav.empty());
        EXPECT_EQ(shown.wav, headless.wav);
    }
    if (answer) {
        ASSERT_EQ(shown.texts.size(), 1u);
        EXPECT_EQ(shown.texts[0],
                  "Abort and discard media files ?\r\nYES - aborts and discards the media file.\r\nNO - aborts and keeps "
                  "the media file built so far.\r\nCancel - cancels the abort request and continues importing the "
                  "media file.");
        const auto requests = prompt->Requests();
        EXPECT_EQ(requests.back().caption, "Media Conversion");
        EXPECT_EQ(requests.back().buttons, Buttons::YesNoCancel);
        EXPECT_EQ(requests.back().icon, Icon::Question);
    } else {
        EXPECT_TRUE(shown.texts.empty()) << ::testing::PrintToString(shown.texts);
    }
    if (answer == Answer::Yes) {
        EXPECT_EQ(shown.code, 2);
        EXPECT_TRUE(shown.files.empty()) << ::testing::PrintToString(shown.files);
        EXPECT_FALSE(shown.closeEnabledAfterAnswer);
    }
    if (answer == Answer::No) {
        // Stopped part-way: what was made stays, without the rate record.
        EXPECT_EQ(shown.code, 1);
        EXPECT_EQ(shown.files, both);
        EXPECT_FALSE(shown.closeEnabledAfterAnswer);
        EXPECT_GT(shown.clip.frames, 0) << shown.clip.text;
        EXPECT_LT(shown.clip.frames, kFrames) << shown.clip.text;
        EXPECT_EQ(shown.clip.sectors, -1);
        EXPECT_EQ(headless.clip.sectors, -1);
        EXPECT_GT(headless.clip.frames, 0);
        EXPECT_LT(headless.clip.frames, kFrames);
        // The sound kept is the decoder's 16-bit PCM on both sides; its length depends on when
        // Abort came.
        auto format = [](const std::string& sox) { return sox.substr(0, sox.rfind('/')); };
        EXPECT_EQ(format(shown.wav), format(headless.wav));
    }
    if (answer == Answer::Cancel) {
        EXPECT_TRUE(shown.closeEnabledAfterAnswer);
    }
}

INSTANTIATE_TEST_SUITE_P(Answers, ConvertThroughDialogTest,
                         ::testing::Values(std::nullopt, std::optional<Answer>(Answer::Yes),
                                           std::optional<Answer>(Answer::No), std::optional<Answer>(Answer::Cancel)),
                         [](const ::testing::TestParamInfo<std::optional<Answer>>& info) -> std::string {
                             if (!info.param) return "ConvertOnly";
                             switch (*info.param) {
                             case Answer::Yes: return "AbortYes";
                             case Answer::No: return "AbortNo";
                             case Answer::Cancel: return "AbortCancel";
                             default: return "Other";
                             }
                         });

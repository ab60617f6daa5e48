// In a real X window (run under xvfb-run): the screen's own pixels must show the Media
// Conversion dialog during a conversion, with its frame bar blue over the part done and its
// count written on it, and the settings dialog its Settings button opens. The screenshots are
// kept under the build folder for a person to look at.
#include "tests/convertview/ConvertViewSupport.h"

#include <QCheckBox>
#include <QDir>
#include <QGuiApplication>
#include <QImage>
#include <QPushButton>
#include <QRegularExpression>
#include <QScreen>
#include <QTimer>

#include <map>

#include "controls/ProgressBar.h"
#include "controls/TabbedDialog.h"
#include "tests/controls/ScreenShots.h"

using namespace zub;
using namespace zub::test;

namespace {

void ExpectNotBlank(const QImage& shot, const char* what)
{
    ASSERT_FALSE(shot.isNull()) << what;
    const auto [varied, colours] = Variety(shot);
    EXPECT_GT(varied, 0.02) << what << ": the screenshot is (nearly) one colour";
    EXPECT_GT(colours, 8u) << what;
}

}  // namespace

TEST_F(ConvertViewTest, DialogDuringAConversionAndItsSettingsAreDrawnOnScreen)
{
    if (!RealWindows()) GTEST_SKIP() << "no X display: run under xvfb-run (ctest does)";
    setenv("ZUBREC_WRITE_DELAY", "100", 1);  // ten frames a second: the bar is caught mid-way
    Reopen();
    constexpr int kFrames = 60;
    const std::string src = Movie("screen.mp4", kFrames);

    int stage = 0;
    bool settingsShot = false, dialogShot = false;
    QString barText;
    QTimer poll;
    poll.setInterval(50);
    QObject::connect(&poll, &QTimer::timeout, [&] {
        CConvertView* v = ShownView();
        if (!v || QApplication::activeModalWidget() != v) return;
        if (stage == 0) {
            stage = 1;
            v->raise();
            v->activateWindow();
            EXPECT_TRUE(QTest::qWaitForWindowExposed(v));
            // The settings dialog, shot while it is up, then cancelled.
            auto* shootSettings = new QTimer;
            shootSettings->setInterval(50);
            QObject::connect(shootSettings, &QTimer::timeout, [&, shootSettings, v] {
                auto* dlg = dynamic_cast<controls::CTabdDlg*>(QApplication::activeModalWidget());
                if (!dlg || dlg == static_cast<QWidget*>(v)) return;
                shootSettings->stop();
                shootSettings->deleteLater();
                EXPECT_TRUE(QTest::qWaitForWindowExposed(dlg));
                EXPECT_EQ(dlg->windowTitle(), "Media Conversion Settings");
                const QImage shot = ShootWindow(dlg, "convert_settings_dialog.png");
                ExpectNotBlank(shot, "settings dialog");
                EXPECT_GE(shot.width(), dlg->width());
                settingsShot = true;
                dlg->reject();
            });
            shootSettings->start();
            QTest::mouseClick(v->Settings(), Qt::LeftButton);
            QTest::mouseClick(v->Convert(), Qt::LeftButton);
            stage = 2;
            return;
        }
        controls::ProgressBar* bar = v->VideoProgress();
        if (stage == 2 && bar->Pos() >= 10 && bar->Pos() < bar->Maximum() - 10) {
            stage = 3;
            barText = bar->Text();
            const QImage dialog = ShootWindow(v, "convert_dialog_converting.png");
            ExpectNotBlank(dialog, "conversion dialog");
            const QRect r(bar->mapToGlobal(QPoint(0, 0)), bar->size());
            const QImage shot = Shoot(v, r, "convert_dialog_video_progress.png");
            const int filled = bar->FilledWidth();
            ASSERT_EQ(shot.width(), bar->width());
            ASSERT_GT(filled, 2);
            ASSERT_LT(filled, shot.width() - 2);
            // Top row, clear of the text: blue over the part done, white after it.
            EXPECT_EQ(shot.pixel(1, 0), qRgb(0, 0, 255));
            EXPECT_EQ(shot.pixel(filled - 1, 0), qRgb(0, 0, 255));
            EXPECT_EQ(shot.pixel(filled + 1, 0), qRgb(255, 255, 255));
            EXPECT_EQ(shot.pixel(shot.width() - 2, 0), qRgb(255, 255, 255));
            // The centred count: glyph pixels that are neither the bar's blue nor its white.
            int glyph = 0;
            for (int y = 0; y < shot.height(); ++y)
                for (int x = 0; x < shot.width(); ++x) {
                    const QRgb c = shot.pixel(x, y);
                    if (c != qRgb(0, 0, 255) && c != qRgb(255, 255, 255)) ++glyph;
                }
            EXPECT_GT(glyph, 30) << "no text drawn on the bar";
            dialogShot = true;
            prompt->Push(Answer::Yes);  // done looking: abort and discard
            QTest::mouseClick(v->Close(), Qt::LeftButton);
        }
    });
    poll.start();
    CConvertDlg dlg(src);
    dlg.SetSettingsButton(1);
    const int code = dlg.Modal();
    poll.stop();
    unsetenv("ZUBREC_WRITE_DELAY");
    EXPECT_TRUE(settingsShot);
    ASSERT_TRUE(dialogShot);
    EXPECT_EQ(code, 2);
    EXPECT_TRUE(QRegularExpression("^\\d+ of 60 - \\d+%$").match(barText).hasMatch()) << barText.toStdString();
    EXPECT_TRUE(Listing(vol.Path() / "run").empty());
}

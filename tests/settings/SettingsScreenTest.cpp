// In a real X window (run under xvfb-run): the screen's own pixels, not a widget rendering,
// must show the dialogs. Screenshots are kept under the build folder for a person to look at.
#include <gtest/gtest.h>

#include <QDir>
#include <QGuiApplication>
#include <QImage>
#include <QScreen>
#include <QTest>

#include <map>

#include "tests/controls/ScreenShots.h"
#include "TempDir.h"
#include "controls/ProgressBar.h"
#include "settings/view/SettingsViews.h"

using namespace zub;

namespace {

QImage ScreenShot(QWidget* w, const char* file)
{
    w->show();
    w->raise();
    w->activateWindow();
    EXPECT_TRUE(QTest::qWaitForWindowExposed(w));
    return test::ShootWindow(w, file);
}

}  // namespace

TEST(RealWindow, SettingsDialogIsDrawnOnScreen)
{
    if (!test::RealWindows()) GTEST_SKIP() << "no X display: run under xvfb-run (ctest does)";
    test::TempDir dir;
    ImportSettings s;
    s.videoDir = dir.Path().string() + "/";
    s.audioDir = s.videoDir;
    s.videoDataRate = 3145728;
    auto dlg = settings::MakeSettingsDialog(nullptr, settings::ConversionSettingsLayout(true, nullptr), s);
    dlg->resize(420, 300);
    const QImage shot = ScreenShot(dlg.get(), "settings_dialog.png");
    ASSERT_FALSE(shot.isNull());
    ASSERT_GE(shot.width(), 400);
    const auto [varied, colours] = test::Variety(shot);
    EXPECT_GT(varied, 0.02) << "the screenshot is (nearly) one colour";
    EXPECT_GT(colours, 8u);

    // The screen shows what the dialog draws: compare with the widget's own rendering.
    const QImage own = dlg->grab().toImage().convertToFormat(QImage::Format_RGB32);
    ASSERT_EQ(own.size(), shot.size());
    long same = 0;
    for (int y = 0; y < own.height(); ++y)
        for (int x = 0; x < own.width(); ++x) same += own.pixel(x, y) == shot.pixel(x, y);
    EXPECT_GT(double(same) / (double(own.width()) * own.height()), 0.95);
}

TEST(RealWindow, ProgressBarIsBlueWithItsTextOnScreen)
{
    if (!test::RealWindows()) GTEST_SKIP() << "no X display: run under xvfb-run (ctest does)";
    controls::ProgressBar bar;
    bar.setFixedSize(300, 24);
    bar.SetRange(0, 200);
    bar.SetShowCounts(true);
    ASSERT_TRUE(bar.SetPos(100));
    const QImage shot = ScreenShot(&bar, "progress_bar.png");
    ASSERT_EQ(shot.width(), 300);
    // Top row, clear of the text: blue up to the middle, white after.
    EXPECT_EQ(shot.pixel(10, 0), qRgb(0, 0, 255));
    EXPECT_EQ(shot.pixel(149, 0), qRgb(0, 0, 255));
    EXPECT_EQ(shot.pixel(150, 0), qRgb(255, 255, 255));
    EXPECT_EQ(shot.pixel(290, 0), qRgb(255, 255, 255));
    // "100 of 200 - 50%" straddles the edge: light glyphs on the blue, dark ones on the white.
    int light = 0, dark = 0;
    for (int y = 0; y < shot.height(); ++y)
        for (int x = 0; x < 300; ++x) {
            const QRgb c = shot.pixel(x, y);
            if (x < 150 && qRed(c) > 155 && qGreen(c) > 155) ++light;
            if (x >= 150 && qRed(c) < 100 && qGreen(c) < 100 && qBlue(c) < 100) ++dark;
        }
    EXPECT_GT(light, 10);
    EXPECT_GT(dark, 10);
}

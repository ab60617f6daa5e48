// Checks made on the screen's own pixels, in a real X window (run under xvfb-run): whether
// real windows exist, a shot of part of the screen saved and read back from its file, and how
// varied a shot is. The including test defines ZUB_SCREENSHOT_DIR, where the shots are kept
// for a person to look at.
#pragma once

#include <gtest/gtest.h>

#include <QDir>
#include <QGuiApplication>
#include <QImage>
#include <QScreen>
#include <QTest>
#include <QWidget>

#include <algorithm>
#include <map>
#include <utility>

#include "tests/controls/GuiApp.h"

namespace zub::test {

inline bool RealWindows()
{
    GuiApp();
    return QGuiApplication::platformName() == "xcb";
}

// The screen's pixels under `rect` (global coordinates), saved and read back from the file:
// what is checked is what was written, not what is in memory.
inline QImage Shoot(QWidget* w, const QRect& rect, const char* file)
{
    QTest::qWait(300);  // let the X server finish drawing
    QImage img = w->screen()->grabWindow(0, rect.x(), rect.y(), rect.width(), rect.height()).toImage();
    img = img.convertToFormat(QImage::Format_RGB32);
    QDir().mkpath(ZUB_SCREENSHOT_DIR);
    const QString path = QStringLiteral(ZUB_SCREENSHOT_DIR "/") + file;
    EXPECT_TRUE(img.save(path, "PNG")) << path.toStdString();
    QImage back(path);
    EXPECT_EQ(back.size(), img.size());
    return back.convertToFormat(QImage::Format_RGB32);
}

inline QImage ShootWindow(QWidget* w, const char* file) { return Shoot(w, w->frameGeometry(), file); }

// Share of pixels that differ from the commonest colour, and how many colours there are.
inline std::pair<double, std::size_t> Variety(const QImage& img)
{
    std::map<QRgb, int> counts;
    for (int y = 0; y < img.height(); ++y)
        for (int x = 0; x < img.width(); ++x) ++counts[img.pixel(x, y)];
    int most = 0;
    for (auto& [c, n] : counts) most = std::max(most, n);
    const double total = double(img.width()) * img.height();
    return {total > 0 ? 1.0 - most / total : 0.0, counts.size()};
}

}  // namespace zub::test

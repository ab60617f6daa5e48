// One widgets application for a test binary. Listing the tests (gtest_discover_tests) and
// running them without a display work offscreen; under xvfb-run a real window is used.
#pragma once

#include <QApplication>

#include <cstdlib>

namespace zub::test {

inline QApplication& GuiApp()
{
    static QApplication* app = [] {
        if (!std::getenv("DISPLAY") && !std::getenv("WAYLAND_DISPLAY")) setenv("QT_QPA_PLATFORM", "offscreen", 1);
        static int argc = 1;
        static char name[] = "zubtest";
        static char* argv[] = {name, nullptr};
        return new QApplication(argc, argv);
    }();
    return *app;
}

}  // namespace zub::test

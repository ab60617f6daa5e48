// One widgets application for a test binary. Listing the tests (gtest_discover_tests) and
// running them without a display work offscreen; under xvfb-run a real window is used.
#pragma once

#include <QApplication>
#include <QWidget>

#include <gtest/gtest.h>

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

// A dialog's child by its object name; a missing one fails the test that asked.
template <class T>
T* Find(QWidget* root, const char* name)
{
    T* w = root->findChild<T*>(name);
    EXPECT_NE(w, nullptr) << name;
    return w;
}

}  // namespace zub::test

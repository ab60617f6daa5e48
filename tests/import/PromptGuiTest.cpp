#include <gtest/gtest.h>

#include <QAbstractButton>
#include <QApplication>
#include <QEventLoop>
#include <QMessageBox>
#include <QTimer>

#include <atomic>
#include <cstdlib>
#include <thread>

#include "controls/MessageBoxPrompt.h"
#include "zubimport/Import.h"
#include "zubimport/Prompt.h"

using namespace zub;

namespace {

std::unique_ptr<QApplication> MakeApp()
{
    if (!std::getenv("DISPLAY") && !std::getenv("WAYLAND_DISPLAY")) setenv("QT_QPA_PLATFORM", "offscreen", 1);
    static int argc = 1;
    static char name[] = "test";
    static char* argv[] = {name, nullptr};
    return std::make_unique<QApplication>(argc, argv);
}

// Presses the given button of the message box as soon as one is shown; remembers its text.
void PressWhenShown(QMessageBox::StandardButton which, QString* seenText)
{
    auto* timer = new QTimer(qApp);
    QObject::connect(timer, &QTimer::timeout, [timer, which, seenText] {
        if (auto* box = qobject_cast<QMessageBox*>(QApplication::activeModalWidget())) {
            *seenText = box->text();
            box->button(which)->click();
            timer->deleteLater();
        }
    });
    timer->start(10);
}

}  // namespace

TEST(GuiPrompt, TerminalHostGetsTextPrompter)
{
    // Loading libImport registers the message-box factory, but without an application the
    // module must not try to show a window.
    (void)ImportDllGetStaticModuleState();
    EXPECT_NE(dynamic_cast<StderrPrompt*>(CurrentPrompter().get()), nullptr);
}

TEST(GuiPrompt, WidgetsApplicationGetsMessageBox)
{
    auto app = MakeApp();
    auto prompt = CurrentPrompter();
    ASSERT_NE(dynamic_cast<controls::MessageBoxPrompt*>(prompt.get()), nullptr);
    QString seen;
    PressWhenShown(QMessageBox::No, &seen);
    const Answer a = prompt->Ask({"Overwrite it?", "", Buttons::YesNo, Icon::Question, 0});
    EXPECT_EQ(a, Answer::No);
    EXPECT_EQ(seen, "Overwrite it?");
}

TEST(GuiPrompt, AskFromAnotherThreadShowsOnGuiThread)
{
    auto app = MakeApp();
    QString seen;
    PressWhenShown(QMessageBox::Cancel, &seen);
    std::atomic<int> answer{0};
    std::thread worker([&] {
        answer = static_cast<int>(Prompter().Ask({"Not enough space", "", Buttons::OkCancel, Icon::Warning, 1}));
    });
    QEventLoop loop;
    QTimer poll;
    QObject::connect(&poll, &QTimer::timeout, [&] {
        if (answer != 0) loop.quit();
    });
    poll.start(5);
    loop.exec();
    worker.join();
    EXPECT_EQ(static_cast<Answer>(answer.load()), Answer::Cancel);
    EXPECT_EQ(seen, "Not enough space");
}

#include <gtest/gtest.h>

#include <QFileDialog>
#include <QLineEdit>
#include <QTimer>

#include <filesystem>

#include "tests/controls/GuiApp.h"
#include "TempDir.h"
#include "controls/FolderPicker.h"

using namespace zub;

namespace {

// When the picker shows, records what it shows and either picks `choose` or cancels.
void AnswerPicker(QString* title, QString* start, const QString& choose)
{
    auto* timer = new QTimer(&test::GuiApp());
    QObject::connect(timer, &QTimer::timeout, [=] {
        auto* dlg = qobject_cast<QFileDialog*>(QApplication::activeModalWidget());
        if (!dlg || dlg->objectName() != "folderPicker") return;
        timer->stop();
        timer->deleteLater();
        *title = dlg->windowTitle();
        *start = dlg->directory().absolutePath();
        if (choose.isEmpty()) {
            dlg->reject();
        } else {
            // Entering the folder and accepting with no name typed picks the folder itself,
            // without waiting for the dialog's file list to load.
            dlg->setDirectory(choose);
            if (auto* name = dlg->findChild<QLineEdit*>("fileNameEdit")) name->clear();
            static_cast<QDialog*>(dlg)->accept();
        }
    });
    timer->start(10);
}

}  // namespace

TEST(FolderPicker, ReturnsChosenFolderWithSeparator)
{
    test::GuiApp();
    test::TempDir dir;
    std::filesystem::create_directory(dir.Path() / "clips");
    QString title, start;
    const QString clips = QString::fromStdString((dir.Path() / "clips").string());
    AnswerPicker(&title, &start, clips);
    const std::string got = controls::PickFolder(nullptr, "Pick one", dir.Path().string() + "/");
    EXPECT_EQ(title, "Pick one");
    EXPECT_EQ(start.toStdString(), dir.Path().string());
    EXPECT_EQ(got, (dir.Path() / "clips").string() + "/");
}

TEST(FolderPicker, CancelGivesNothing)
{
    test::GuiApp();
    test::TempDir dir;
    QString title, start;
    AnswerPicker(&title, &start, {});
    // A start folder that is gone opens at its nearest existing parent.
    EXPECT_EQ(controls::PickFolder(nullptr, "T", (dir.Path() / "gone" / "deeper").string()), "");
    EXPECT_EQ(start.toStdString(), dir.Path().string());
}

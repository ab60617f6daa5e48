#include <gtest/gtest.h>

#include <QColorDialog>
#include <QLabel>
#include <QSignalSpy>
#include <QTest>
#include <QTimer>

#include <cstring>
#include <vector>

#include "tests/controls/GuiApp.h"
#include "controls/BitmapButton.h"
#include "controls/ColourBox.h"
#include "controls/FamilyPalette.h"
#include "controls/NoteDialog.h"
#include "controls/PreviewWindow.h"
#include "controls/ThumbnailList.h"
#include "zubimport/Platform.h"

using namespace zub;
using namespace zub::controls;

namespace {

struct FamilyScope {
    FamilyColours& family;
    FamilyColours saved;
    explicit FamilyScope(FamilyColours& f) : family(f), saved(f) {}
    ~FamilyScope() { family = saved; }
};

QImage Grab(QWidget& w) { return w.grab().toImage().convertToFormat(QImage::Format_RGB32); }

}  // namespace

TEST(ColourRef, HostOrderIsBlueGreenRed)
{
    EXPECT_EQ(FromColorRef(0x0000FF), QColor(255, 0, 0));
    EXPECT_EQ(FromColorRef(0xFF0000), QColor(0, 0, 255));
    EXPECT_EQ(FromColorRef(0x336699), QColor(0x99, 0x66, 0x33));
    EXPECT_EQ(ToColorRef(QColor(0x99, 0x66, 0x33)), 0x336699u);
}

TEST(ThumbnailList, FitsPicturesKeepingTheirShapeOnTheFamilyBackground)
{
    test::GuiApp();
    FamilyScope scope(ListFamily());
    SetFamilyColours(ListFamily(), {0x00FF00, 0}, 1);  // green background
    ThumbnailList list(nullptr, {96, 72});
    QImage red(200, 100, QImage::Format_RGB32);
    red.fill(Qt::red);
    EXPECT_EQ(list.AddThumbnail("a.tga", red), 0);
    EXPECT_EQ(list.AddThumbnail("empty", QImage()), 1);
    EXPECT_EQ(list.count(), 2);
    EXPECT_EQ(list.item(0)->text(), "a.tga");
    const QImage t = list.Thumbnail(0);
    ASSERT_EQ(t.size(), QSize(96, 72));
    // 200x100 fitted in 96x72 is 96x48, centred: rows 12..59.
    EXPECT_EQ(t.pixelColor(48, 36), QColor(Qt::red));
    EXPECT_EQ(t.pixelColor(48, 13), QColor(Qt::red));
    EXPECT_EQ(t.pixelColor(48, 5), QColor(0, 255, 0));
    EXPECT_EQ(t.pixelColor(48, 66), QColor(0, 255, 0));
    EXPECT_EQ(list.Thumbnail(1).pixelColor(48, 36), QColor(0, 255, 0));
}

TEST(ColourBox, ShowsItsColourFramedAndPicks)
{
    test::GuiApp();
    FamilyScope scope(ButtonFamily());
    SetFamilyColours(ButtonFamily(), {0xFFFFFF, 0x00FFFF}, 1);  // yellow frame
    ColourBox box;
    box.resize(40, 20);
    box.SetColour(0x0000FF);
    QImage img = Grab(box);
    EXPECT_EQ(img.pixelColor(20, 10), QColor(255, 0, 0));
    EXPECT_EQ(img.pixelColor(0, 0), QColor(255, 255, 0));

    unsigned long heard = 0;
    box.SetPickable(true);
    box.SetOnChanged([&](unsigned long c) { heard = c; });
    QTimer::singleShot(50, [] {
        auto* d = qobject_cast<QColorDialog*>(QApplication::activeModalWidget());
        ASSERT_NE(d, nullptr);
        d->setCurrentColor(QColor(0, 0, 255));
        d->accept();
    });
    QTest::keyClick(&box, Qt::Key_Space);
    EXPECT_EQ(heard, 0xFF0000u);
    EXPECT_EQ(box.Colour(), 0xFF0000u);
    img = Grab(box);
    EXPECT_EQ(img.pixelColor(20, 10), QColor(0, 0, 255));
}

TEST(BitmapButton, PictureSinksWhenPressedAndGreysWhenDisabled)
{
    test::GuiApp();
    QPixmap green(16, 16);
    green.fill(QColor(0, 200, 0));
    BitmapButton button(green);
    button.resize(24, 24);
    QImage up = Grab(button);
    EXPECT_EQ(up.pixelColor(4, 4), QColor(0, 200, 0));
    EXPECT_EQ(up.pixelColor(19, 19), QColor(0, 200, 0));
    EXPECT_NE(up.pixelColor(20, 20), QColor(0, 200, 0));
    button.setDown(true);
    QImage down = Grab(button);
    EXPECT_NE(down.pixelColor(4, 4), QColor(0, 200, 0));
    EXPECT_EQ(down.pixelColor(20, 20), QColor(0, 200, 0));
    button.setDown(false);
    button.setEnabled(false);
    QImage off = Grab(button);
    EXPECT_NE(off.pixelColor(12, 12), QColor(0, 200, 0));
    button.setEnabled(true);
    QSignalSpy clicked(&button, &QAbstractButton::clicked);
    QTest::mouseClick(&button, Qt::LeftButton);
    EXPECT_EQ(clicked.count(), 1);
}

TEST(NoteDialog, ShowsTheNoteAndClosesWithEscape)
{
    test::GuiApp();
    QString seenTitle, seenNote;
    QTimer::singleShot(50, [&] {
        auto* d = dynamic_cast<NoteDialog*>(QApplication::activeModalWidget());
        ASSERT_NE(d, nullptr);
        seenTitle = d->windowTitle();
        seenNote = d->findChild<QLabel*>("note")->text();
        QTest::keyClick(d, Qt::Key_Escape);
    });
    NoteDialog::Show(nullptr, "Note", "Frames are fitted to the video size.");
    EXPECT_EQ(seenTitle, "Note");
    EXPECT_EQ(seenNote, "Frames are fitted to the video size.");
}

TEST(PreviewWindow, ShowsABottomUpFrameFittedAndCentred)
{
    test::GuiApp();
    FamilyScope scope(ButtonFamily());
    SetFamilyColours(ButtonFamily(), {0x808080, 0}, 1);
    // 4x2, 32-bit, bottom-up: the first stored row is the bottom one.
    std::vector<unsigned char> block(sizeof(BITMAPINFOHEADER) + 4 * 2 * 4);
    BITMAPINFOHEADER h{};
    h.biSize = sizeof h;
    h.biWidth = 4;
    h.biHeight = 2;
    h.biPlanes = 1;
    h.biBitCount = 32;
    h.biCompression = BI_RGB;
    std::memcpy(block.data(), &h, sizeof h);
    unsigned char* px = block.data() + sizeof h;
    for (int x = 0; x < 4; ++x) {
        const unsigned char bottomRed[4] = {0, 0, 255, 0}, topBlue[4] = {255, 0, 0, 0};
        std::memcpy(px + x * 4, bottomRed, 4);
        std::memcpy(px + 16 + x * 4, topBlue, 4);
    }
    PreviewWindow preview;
    preview.resize(400, 300);
    ASSERT_TRUE(preview.SetBitmap(block.data(), block.size()));
    EXPECT_EQ(preview.Image().pixelColor(0, 0), QColor(0, 0, 255));
    EXPECT_EQ(preview.Image().pixelColor(0, 1), QColor(255, 0, 0));
    EXPECT_EQ(preview.PictureRect(), QRect(0, 50, 400, 200));
    const QImage img = Grab(preview);
    EXPECT_EQ(img.pixelColor(200, 10), QColor(0x80, 0x80, 0x80));
    EXPECT_EQ(img.pixelColor(200, 70), QColor(0, 0, 255));
    EXPECT_EQ(img.pixelColor(200, 230), QColor(255, 0, 0));
    EXPECT_EQ(img.pixelColor(200, 290), QColor(0x80, 0x80, 0x80));

    // A block shorter than its header promises, or not 32-bit, is refused.
    EXPECT_FALSE(preview.SetBitmap(block.data(), block.size() - 1));
    EXPECT_FALSE(preview.SetBitmap(block.data(), 10));
    h.biBitCount = 24;
    std::memcpy(block.data(), &h, sizeof h);
    EXPECT_FALSE(preview.SetBitmap(block.data(), block.size()));
    EXPECT_EQ(preview.Image().size(), QSize(4, 2)) << "a refused block keeps the last picture";
}

#include <gtest/gtest.h>

#include <QAbstractButton>
#include <QHeaderView>
#include <QListWidget>
#include <QMenu>
#include <QTest>
#include <QTimer>

#include <functional>

#include "tests/controls/GuiApp.h"
#include "controls/ColumnListView.h"
#include "controls/FamilyPalette.h"

using namespace zub::controls;

namespace {

// Runs `act` on the first modal dialog of the given class that shows up.
template <class T>
void WhenShown(std::function<void(T*)> act)
{
    auto* timer = new QTimer(&zub::test::GuiApp());
    QObject::connect(timer, &QTimer::timeout, [timer, act] {
        auto* d = dynamic_cast<T*>(QApplication::activeModalWidget());
        if (!d) return;
        timer->stop();
        timer->deleteLater();
        act(d);
    });
    timer->start(10);
}

struct ListFixture : ::testing::Test {
    QApplication& app = zub::test::GuiApp();
    ColumnListView view;
    void SetUp() override
    {
        view.SetColumns({{"Name", 120}, {"Size", 60}, {"Key", 0}, {"Date", 80}});
        view.resize(400, 200);
    }
    std::vector<QString> Titles(QListWidget* list)
    {
        std::vector<QString> t;
        for (int i = 0; i < list->count(); ++i) t.push_back(list->item(i)->text());
        return t;
    }
};

// Restores a family's colours after a test changed them.
struct FamilyScope {
    FamilyColours& family;
    FamilyColours saved;
    explicit FamilyScope(FamilyColours& f) : family(f), saved(f) {}
    ~FamilyScope() { family = saved; }
};

}  // namespace

TEST_F(ListFixture, WidthZeroColumnsAreHiddenAndNotOffered)
{
    EXPECT_TRUE(view.IsKeptHidden(2));
    EXPECT_FALSE(view.IsColumnShown(2));
    EXPECT_TRUE(view.header()->isSectionHidden(2));
    EXPECT_TRUE(view.IsColumnShown(0) && view.IsColumnShown(1) && view.IsColumnShown(3));
    EXPECT_EQ(view.columnWidth(1), 60);
    std::vector<QString> offered;
    WhenShown<ColumnChooserDialog>([&](ColumnChooserDialog* d) {
        offered = Titles(d->List());
        d->reject();
    });
    EXPECT_FALSE(view.ChooseColumns());
    EXPECT_EQ(offered, (std::vector<QString>{"Name", "Size", "Date"}));
}

TEST_F(ListFixture, MoveUpMoveDownAndHide)
{
    QString title;
    WhenShown<ColumnChooserDialog>([&](ColumnChooserDialog* d) {
        title = d->windowTitle();
        auto* up = d->findChild<QAbstractButton*>("moveUp");
        auto* down = d->findChild<QAbstractButton*>("moveDown");
        EXPECT_EQ(up->text(), "Move &Up");
        EXPECT_EQ(down->text(), "Move &Down");
        d->List()->setCurrentRow(0);
        EXPECT_FALSE(up->isEnabled());
        d->List()->setCurrentRow(2);  // Date
        EXPECT_FALSE(down->isEnabled());
        up->click();                   // Name, Date, Size
        d->List()->item(2)->setCheckState(Qt::Unchecked);  // hide Size
        d->findChild<QAbstractButton*>("ok_1")->click();
    });
    ASSERT_TRUE(view.ChooseColumns());
    EXPECT_EQ(title, "Columns");
    std::vector<int> shownOrder;
    for (int c : view.VisualOrder())
        if (!view.IsKeptHidden(c)) shownOrder.push_back(c);
    EXPECT_EQ(shownOrder, (std::vector<int>{0, 3, 1}));
    EXPECT_FALSE(view.IsColumnShown(1));
    EXPECT_TRUE(view.header()->isSectionHidden(2)) << "the width-0 column must stay hidden";

    // Shown again, Size comes back at the width it had.
    WhenShown<ColumnChooserDialog>([&](ColumnChooserDialog* d) {
        d->List()->item(2)->setCheckState(Qt::Checked);
        d->List()->setCurrentRow(2);
        d->MoveDown();  // already last: nothing moves
        d->accept();
    });
    ASSERT_TRUE(view.ChooseColumns());
    EXPECT_TRUE(view.IsColumnShown(1));
    EXPECT_EQ(view.columnWidth(1), 60);
    EXPECT_TRUE(view.header()->isSectionHidden(2));
}

TEST_F(ListFixture, CancelChangesNothing)
{
    const auto before = view.VisualOrder();
    WhenShown<ColumnChooserDialog>([&](ColumnChooserDialog* d) {
        d->List()->setCurrentRow(1);
        d->MoveUp();
        d->List()->item(0)->setCheckState(Qt::Unchecked);
        QTest::keyClick(d, Qt::Key_Escape);
    });
    EXPECT_FALSE(view.ChooseColumns());
    EXPECT_EQ(view.VisualOrder(), before);
    EXPECT_TRUE(view.IsColumnShown(0));
}

TEST_F(ListFixture, HeaderMenuOpensTheChooser)
{
    bool opened = false;
    auto* timer = new QTimer(&app);
    QObject::connect(timer, &QTimer::timeout, [&, timer] {
        if (auto* menu = qobject_cast<QMenu*>(QApplication::activePopupWidget())) {
            ASSERT_FALSE(menu->actions().isEmpty());
            EXPECT_EQ(menu->actions().front()->text(), "&Columns...");
            menu->setActiveAction(menu->actions().front());
            QTest::keyClick(menu, Qt::Key_Return);
        } else if (auto* d = dynamic_cast<ColumnChooserDialog*>(QApplication::activeModalWidget())) {
            opened = true;
            timer->stop();
            d->reject();
        }
    });
    timer->start(10);
    view.show();
    ASSERT_TRUE(QTest::qWaitForWindowExposed(&view));
    // The menu and the dialog run their own loops inside this call.
    emit view.header()->customContextMenuRequested(QPoint(5, 5));
    timer->stop();
    EXPECT_TRUE(opened);
}

TEST_F(ListFixture, PaintsWithTheListFamilyColours)
{
    FamilyScope scope(ListFamily());
    SetFamilyColours(ListFamily(), {0x336699, 0x000000}, 1);
    ColumnListView coloured;
    coloured.SetColumns({{"Name", 100}});
    coloured.resize(200, 120);
    const QImage img = coloured.viewport()->grab().toImage();
    EXPECT_EQ(img.pixelColor(img.width() / 2, img.height() - 5), QColor(0x99, 0x66, 0x33));

    SetFamilyColours(ListFamily(), {0x336699, 0x000000}, 0);
    ColumnListView plain;
    plain.SetColumns({{"Name", 100}});
    plain.resize(200, 120);
    const QImage img2 = plain.viewport()->grab().toImage();
    EXPECT_NE(img2.pixelColor(img2.width() / 2, img2.height() - 5), QColor(0x99, 0x66, 0x33));
}

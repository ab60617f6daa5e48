#include <gtest/gtest.h>

#include <QAbstractButton>
#include <QLineEdit>
#include <QTabBar>
#include <QTabWidget>
#include <QTest>
#include <QVBoxLayout>

#include "tests/controls/GuiApp.h"
#include "controls/TabbedDialog.h"

using namespace zub::controls;

namespace {

// A page that refuses to be left while its edit holds "bad", focusing the edit.
class TestPage : public CTabdDlgPage {
public:
    explicit TestPage(const QString& title) : CTabdDlgPage(title), edit(new QLineEdit(this))
    {
        (new QVBoxLayout(this))->addWidget(edit);
    }
    void OnSetActive() override { ++shown; }
    bool OnKillActive() override
    {
        ++applied;
        if (edit->text() == "bad") {
            MakeActive();
            edit->setFocus();
            return false;
        }
        return true;
    }
    QLineEdit* edit;
    int shown = 0;
    int applied = 0;
};

struct Dialog : ::testing::Test {
    CTabdDlg* dlg = nullptr;
    TestPage* a = nullptr;
    TestPage* b = nullptr;
    void SetUp() override
    {
        zub::test::GuiApp();
        dlg = new CTabdDlg("Title");
        a = new TestPage("First");
        b = new TestPage("Second");
        dlg->AddPage(a);
        dlg->AddPage(b);
        dlg->show();
        ASSERT_TRUE(QTest::qWaitForWindowExposed(dlg));
    }
    void TearDown() override { delete dlg; }
};

}  // namespace

TEST_F(Dialog, PagesAreFilledWhenShownAndAppliedWhenLeft)
{
    EXPECT_EQ(dlg->windowTitle(), "Title");
    EXPECT_EQ(dlg->Tabs()->tabText(0), "First");
    EXPECT_EQ(a->shown, 1);
    EXPECT_EQ(b->shown, 0);
    ASSERT_TRUE(dlg->SetActivePage(1));
    EXPECT_EQ(a->applied, 1);
    EXPECT_EQ(b->shown, 1);
    ASSERT_TRUE(dlg->SetActivePage(0));
    EXPECT_EQ(b->applied, 1);
    EXPECT_EQ(a->shown, 2);
}

TEST_F(Dialog, InvalidPageCannotBeLeftByTab)
{
    a->edit->setText("bad");
    EXPECT_FALSE(dlg->SetActivePage(1));
    EXPECT_EQ(dlg->ActiveIndex(), 0);
    EXPECT_EQ(b->shown, 0);
    EXPECT_TRUE(a->edit->hasFocus());
    // A click on the other tab is refused the same way.
    auto* bar = dlg->Tabs()->findChild<QTabBar*>();
    ASSERT_NE(bar, nullptr);
    QTest::mouseClick(bar, Qt::LeftButton, {}, bar->tabRect(1).center());
    EXPECT_EQ(dlg->ActiveIndex(), 0);
    a->edit->setText("good");
    QTest::mouseClick(bar, Qt::LeftButton, {}, bar->tabRect(1).center());
    EXPECT_EQ(dlg->ActiveIndex(), 1);
}

TEST_F(Dialog, OkAppliesTheVisiblePageAndStaysWhenItRefuses)
{
    int cancelled = 0;
    dlg->SetOnCancel([&] { ++cancelled; });
    a->edit->setText("bad");
    dlg->findChild<QAbstractButton*>("ok_1")->click();
    EXPECT_TRUE(dlg->isVisible());
    EXPECT_EQ(a->applied, 1);
    a->edit->setText("fine");
    dlg->findChild<QAbstractButton*>("ok_1")->click();
    EXPECT_FALSE(dlg->isVisible());
    EXPECT_EQ(dlg->result(), QDialog::Accepted);
    EXPECT_EQ(cancelled, 0);
}

TEST_F(Dialog, EscapeCancelsWithoutApplying)
{
    int cancelled = 0;
    dlg->SetOnCancel([&] { ++cancelled; });
    a->edit->setText("bad");
    QTest::keyClick(a->edit, Qt::Key_Escape);
    EXPECT_FALSE(dlg->isVisible());
    EXPECT_EQ(dlg->result(), QDialog::Rejected);
    EXPECT_EQ(cancelled, 1);
    EXPECT_EQ(a->applied, 0);
}

TEST_F(Dialog, PlainWidgetPageTakesNoPartInApply)
{
    auto* plain = new QWidget;
    dlg->AddPage(plain, "Plain");
    ASSERT_TRUE(dlg->SetActivePage(2));
    ASSERT_TRUE(dlg->SetActivePage(1));
    EXPECT_EQ(dlg->PageCount(), 3);
    EXPECT_EQ(dlg->Page(2), plain);
}

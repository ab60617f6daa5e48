#include <gtest/gtest.h>

#include <QHBoxLayout>
#include <QTest>
#include <QWidget>

#include <memory>

#include "tests/controls/GuiApp.h"
#include "controls/NumericEdit.h"
#include "zubimport/Prompt.h"

using namespace zub;
using zub::controls::NumericEdit;

namespace {

// An edit for 0.50 .. 15.00 MB/sec placed in a window with its scroll control.
struct EditFixture : ::testing::Test {
    QApplication& app = test::GuiApp();  // before any widget member
    QWidget window;
    NumericEdit* edit = nullptr;
    void SetUp() override
    {
        auto* layout = new QHBoxLayout(&window);
        edit = new NumericEdit;
        edit->SetRange(50, 1500, 2);
        edit->SetMaxChars(5);
        layout->addWidget(edit);
        layout->addWidget(edit->Scroll());
        edit->SetValue(300);
    }
};

}  // namespace

TEST_F(EditFixture, ShowsHundredthsAndReadsThemBack)
{
    EXPECT_EQ(edit->text(), "3.00");
    EXPECT_EQ(edit->Value(), 300);
    edit->setText("12.5");
    EXPECT_EQ(edit->Value(), 1250);
    edit->setText("x");
    EXPECT_FALSE(edit->Value());
}

TEST_F(EditFixture, AtMostFiveCharactersCanBeTyped)
{
    edit->clear();
    QTest::keyClicks(edit, "12.345");
    EXPECT_EQ(edit->text(), "12.34");
}

TEST_F(EditFixture, ScrollControlStepsTheValueWithinRange)
{
    auto* scroll = edit->Scroll();
    EXPECT_EQ(scroll->orientation(), Qt::Vertical);
    // The scroll bar's own position runs the other way: down the bar is down in value.
    scroll->triggerAction(QAbstractSlider::SliderSingleStepSub);
    EXPECT_EQ(edit->text(), "3.01");
    scroll->triggerAction(QAbstractSlider::SliderSingleStepAdd);
    scroll->triggerAction(QAbstractSlider::SliderSingleStepAdd);
    EXPECT_EQ(edit->text(), "2.99");
    scroll->triggerAction(QAbstractSlider::SliderToMaximum);
    EXPECT_EQ(edit->text(), "0.50");
    scroll->triggerAction(QAbstractSlider::SliderSingleStepAdd);
    EXPECT_EQ(edit->text(), "0.50");
    scroll->triggerAction(QAbstractSlider::SliderToMinimum);
    EXPECT_EQ(edit->text(), "15.00");
    // Typing moves the scroll control along, so the next step starts from the typed value.
    edit->clear();
    QTest::keyClicks(edit, "7.25");
    scroll->triggerAction(QAbstractSlider::SliderSingleStepSub);
    EXPECT_EQ(edit->text(), "7.26");
}

TEST_F(EditFixture, UpArrowRaisesTheValue)
{
    window.show();
    ASSERT_TRUE(QTest::qWaitForWindowExposed(&window));
    auto* scroll = edit->Scroll();
    ASSERT_GT(scroll->height(), 8);
    QTest::mouseClick(scroll, Qt::LeftButton, {}, QPoint(scroll->width() / 2, 3));
    EXPECT_EQ(edit->text(), "3.01");
    QTest::mouseClick(scroll, Qt::LeftButton, {}, QPoint(scroll->width() / 2, scroll->height() - 3));
    EXPECT_EQ(edit->text(), "3.00");
}

TEST_F(EditFixture, ScrollFollowsEnabledState)
{
    edit->setEnabled(false);
    EXPECT_FALSE(edit->Scroll()->isEnabled());
    edit->setEnabled(true);
    EXPECT_TRUE(edit->Scroll()->isEnabled());
}

TEST_F(EditFixture, RangeMessages)
{
    EXPECT_EQ(edit->RangeMessage(), "");
    edit->setText("abc");
    EXPECT_EQ(edit->RangeMessage(), "Value is out of range!");
    edit->setText("0.49");
    EXPECT_EQ(edit->RangeMessage(), "Value is out of range!  Please enter a number between 0.50 and 15.00.");
    edit->setText("15.01");
    EXPECT_EQ(edit->RangeMessage(), "Value is out of range!  Please enter a number between 0.50 and 15.00.");
    edit->SetRange(50, 1500, 2, 25);
    edit->setText("0.60");
    EXPECT_EQ(edit->RangeMessage(),
              "Value is out of range!  Please enter one of the accepted numbers between 0.50 and 15.00.");
    edit->setText("0.75");
    EXPECT_EQ(edit->RangeMessage(), "");
}

TEST_F(EditFixture, ValidateTellsThroughThePrompter)
{
    auto prompt = std::make_shared<ScriptedPrompt>();
    ScopedPrompter scope(prompt);
    EXPECT_TRUE(edit->Validate());
    EXPECT_TRUE(prompt->Texts().empty());
    edit->setText("20");
    EXPECT_FALSE(edit->Validate());
    ASSERT_EQ(prompt->Texts().size(), 1u);
    EXPECT_EQ(prompt->Texts()[0], "Value is out of range!  Please enter a number between 0.50 and 15.00.");
}

TEST_F(EditFixture, ValidatesOnLeaveOnlyWhenAsked)
{
    auto prompt = std::make_shared<ScriptedPrompt>();
    ScopedPrompter scope(prompt);
    edit->clear();
    QTest::keyClicks(edit, "99");
    QTest::keyClick(edit, Qt::Key_Return);
    EXPECT_TRUE(prompt->Texts().empty());
    edit->SetValidateOnLeave(true);
    QTest::keyClick(edit, Qt::Key_Return);
    ASSERT_EQ(prompt->Texts().size(), 1u);
    EXPECT_EQ(prompt->Texts()[0], "Value is out of range!  Please enter a number between 0.50 and 15.00.");
}

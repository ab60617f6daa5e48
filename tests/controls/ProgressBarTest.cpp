#include <gtest/gtest.h>

#include <QImage>
#include <QTest>

#include "tests/controls/GuiApp.h"
#include "controls/ProgressBar.h"

using zub::controls::ProgressBar;

namespace {

const QRgb kBlue = qRgb(0, 0, 255);
const QRgb kWhite = qRgb(255, 255, 255);

bool IsDark(QRgb c) { return qRed(c) < 100 && qGreen(c) < 100 && qBlue(c) < 100; }
bool IsLight(QRgb c) { return qRed(c) > 155 && qGreen(c) > 155 && qBlue(c) > 155; }

QImage Grab(ProgressBar& bar)
{
    return bar.grab().toImage().convertToFormat(QImage::Format_RGB32);
}

// Leftmost and rightmost column holding a pixel accepted by `is` within [x0, x1).
std::pair<int, int> Span(const QImage& img, int x0, int x1, bool (*is)(QRgb))
{
    int lo = -1, hi = -1;
    for (int x = x0; x < x1; ++x)
        for (int y = 0; y < img.height(); ++y)
            if (is(img.pixel(x, y))) {
                if (lo < 0) lo = x;
                hi = x;
                break;
            }
    return {lo, hi};
}

struct FillCase {
    int min, max, pos, width, filled;
};

class ProgressFill : public ::testing::TestWithParam<FillCase> {};

}  // namespace

// Expected widths worked out by hand from ((pos - min) * width + (max - min) / 2) / (max - min).
INSTANTIATE_TEST_SUITE_P(Cases, ProgressFill,
                         ::testing::Values(FillCase{0, 100, 50, 200, 100}, FillCase{0, 3, 1, 100, 33},
                                           FillCase{0, 3, 2, 100, 67}, FillCase{10, 20, 15, 101, 51},
                                           FillCase{-50, 50, 0, 99, 50}, FillCase{100, 1100, 1099, 300, 300},
                                           FillCase{100, 1100, 1098, 300, 299}, FillCase{7, 9, 7, 120, 0},
                                           FillCase{0, 1000, 1, 250, 0}, FillCase{0, 1000, 2, 250, 1}));

TEST_P(ProgressFill, FilledWidthInPixels)
{
    zub::test::GuiApp();
    const auto c = GetParam();
    ProgressBar bar;
    bar.resize(c.width, 24);
    bar.SetRange(c.min, c.max);
    ASSERT_TRUE(bar.SetPos(c.pos));
    EXPECT_EQ(bar.FilledWidth(), c.filled);
    // The top row is above any glyph: blue exactly up to the filled width, white after it.
    const QImage img = Grab(bar);
    ASSERT_EQ(img.width(), c.width);
    for (int x = 0; x < c.width; ++x)
        ASSERT_EQ(img.pixel(x, 0), x < c.filled ? kBlue : kWhite) << "column " << x;
}

TEST(ProgressBar, BoundsAtOrBelowMinus32768AreIgnored)
{
    zub::test::GuiApp();
    ProgressBar bar;
    bar.SetRange(-32768, 50);
    EXPECT_EQ(bar.Minimum(), 0);
    EXPECT_EQ(bar.Maximum(), 50);
    bar.SetRange(-32767, -40000);
    EXPECT_EQ(bar.Minimum(), -32767);
    EXPECT_EQ(bar.Maximum(), 50);
    bar.SetRange(5, -32768);
    EXPECT_EQ(bar.Minimum(), 5);
    EXPECT_EQ(bar.Maximum(), 50);
}

TEST(ProgressBar, PositionOutsideRangeIsRefused)
{
    zub::test::GuiApp();
    ProgressBar bar;
    bar.resize(100, 20);
    bar.SetRange(10, 20);
    ASSERT_TRUE(bar.SetPos(15));
    EXPECT_FALSE(bar.SetPos(9));
    EXPECT_FALSE(bar.SetPos(21));
    EXPECT_EQ(bar.Pos(), 15);
    EXPECT_EQ(bar.FilledWidth(), 50);
    EXPECT_TRUE(bar.SetPos(10));
    EXPECT_TRUE(bar.SetPos(20));
}

TEST(ProgressBar, RepaintsOnlyWhenFilledWidthChanges)
{
    auto& app = zub::test::GuiApp();
    ProgressBar bar;
    bar.resize(100, 20);
    bar.SetRange(0, 1000);
    struct Counter : QObject {
        int paints = 0;
        bool eventFilter(QObject*, QEvent* e) override
        {
            if (e->type() == QEvent::Paint) ++paints;
            return false;
        }
    } counter;
    bar.installEventFilter(&counter);
    bar.show();
    ASSERT_TRUE(QTest::qWaitForWindowExposed(&bar));
    app.processEvents();
    QTest::qWait(20);
    const int before = counter.paints;
    ASSERT_GT(before, 0);

    // 1000 steps over 100 pixels: positions 1..4 still round to no pixel at all.
    for (int p = 1; p <= 4; ++p) ASSERT_TRUE(bar.SetPos(p));
    app.processEvents();
    QTest::qWait(20);
    EXPECT_EQ(counter.paints, before);
    EXPECT_EQ(bar.FilledWidth(), 0);

    ASSERT_TRUE(bar.SetPos(5));
    app.processEvents();
    QTest::qWait(20);
    EXPECT_EQ(bar.FilledWidth(), 1);
    EXPECT_GT(counter.paints, before);
}

TEST(ProgressBar, TextForms)
{
    zub::test::GuiApp();
    ProgressBar bar;
    bar.SetRange(10, 40);
    ASSERT_TRUE(bar.SetPos(20));
    EXPECT_EQ(bar.Text(), "33%");
    bar.SetShowCounts(true);
    EXPECT_EQ(bar.Text(), "10 of 30 - 33%");
    ASSERT_TRUE(bar.SetPos(40));
    EXPECT_EQ(bar.Text(), "30 of 30 - 100%");
}

TEST(ProgressBar, TextIsCentredBlackOnWhiteAndWhiteOnBlue)
{
    zub::test::GuiApp();
    ProgressBar bar;
    bar.resize(300, 24);
    bar.SetRange(0, 100);

    // Nothing filled: all the text is dark, and centred.
    ASSERT_TRUE(bar.SetPos(0));
    QImage img = Grab(bar);
    auto [lo, hi] = Span(img, 0, 300, IsDark);
    ASSERT_GE(lo, 0) << "no text drawn";
    EXPECT_NEAR((lo + hi) / 2.0, 150, 3);
    const int shortWidth = hi - lo;

    // The count form is wider, and still centred.
    bar.SetShowCounts(true);
    img = Grab(bar);
    auto [lo2, hi2] = Span(img, 0, 300, IsDark);
    ASSERT_GE(lo2, 0);
    EXPECT_GT(hi2 - lo2, shortWidth + 20);
    EXPECT_NEAR((lo2 + hi2) / 2.0, 150, 3);

    // All filled: the text is light on blue and nothing is dark.
    ASSERT_TRUE(bar.SetPos(100));
    img = Grab(bar);
    EXPECT_EQ(Span(img, 0, 300, IsDark).first, -1);
    auto [lo3, hi3] = Span(img, 0, 300, IsLight);
    ASSERT_GE(lo3, 0) << "no text drawn over the filled part";
    EXPECT_NEAR((lo3 + hi3) / 2.0, 150, 3);

    // Half filled across the text: light glyph pixels left of the edge, dark right of it.
    ASSERT_TRUE(bar.SetPos(50));
    img = Grab(bar);
    EXPECT_EQ(Span(img, 0, 150, IsDark).first, -1) << "dark text over the blue part";
    EXPECT_GT(Span(img, 0, 150, IsLight).first, 60) << "no light text, or light pixels away from the text";
    EXPECT_GE(Span(img, 150, 300, IsDark).first, 150) << "no dark text over the white part";
    for (int y = 0; y < img.height(); ++y) {
        EXPECT_EQ(qBlue(img.pixel(0, y)), 255);
        EXPECT_EQ(img.pixel(299, y), kWhite);
    }
}

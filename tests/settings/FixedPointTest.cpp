#include <gtest/gtest.h>

#include "settings/FixedPoint.h"

using zub::settings::FormatFixed;
using zub::settings::ParseFixed;

TEST(FixedPoint, ParsesHundredths)
{
    EXPECT_EQ(ParseFixed("3.00", 2), 300);
    EXPECT_EQ(ParseFixed("3", 2), 300);
    EXPECT_EQ(ParseFixed("3.5", 2), 350);
    EXPECT_EQ(ParseFixed(".5", 2), 50);
    EXPECT_EQ(ParseFixed("15.", 2), 1500);
    EXPECT_EQ(ParseFixed(" 0.49 ", 2), 49);
    EXPECT_EQ(ParseFixed("-1.25", 2), -125);
    EXPECT_EQ(ParseFixed("+7", 0), 7);
}

TEST(FixedPoint, RefusesWhatIsNotANumber)
{
    EXPECT_FALSE(ParseFixed("", 2));
    EXPECT_FALSE(ParseFixed(".", 2));
    EXPECT_FALSE(ParseFixed("-", 2));
    EXPECT_FALSE(ParseFixed("3,00", 2));
    EXPECT_FALSE(ParseFixed("3.001", 2));
    EXPECT_FALSE(ParseFixed("1e3", 2));
    EXPECT_FALSE(ParseFixed("3.0.0", 2));
    EXPECT_FALSE(ParseFixed("99999999999", 2));
    EXPECT_FALSE(ParseFixed("1.5", 0));
}

TEST(FixedPoint, FormatsWithAllPlaces)
{
    EXPECT_EQ(FormatFixed(300, 2), "3.00");
    EXPECT_EQ(FormatFixed(5, 2), "0.05");
    EXPECT_EQ(FormatFixed(1500, 2), "15.00");
    EXPECT_EQ(FormatFixed(-5, 2), "-0.05");
    EXPECT_EQ(FormatFixed(42, 0), "42");
    for (int v : {0, 1, 49, 50, 99, 100, 1234, 1500, -250})
        EXPECT_EQ(ParseFixed(FormatFixed(v, 2), 2), v) << v;
}

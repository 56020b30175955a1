#include "app/numeric_text.h"

#include <clocale>
#include <gtest/gtest.h>

namespace veltrin {
namespace {

TEST(LeadingNumber, ReadsTheNumberAtTheStartAndStopsAtTheFirstForeignCharacter)
{
    EXPECT_DOUBLE_EQ(leadingNumber("60 // roll speed mm/s"), 60.0);
    EXPECT_DOUBLE_EQ(leadingNumber("   127.3// width"), 127.3);
    EXPECT_DOUBLE_EQ(leadingNumber("\t-4.25mm"), -4.25);
    EXPECT_DOUBLE_EQ(leadingNumber("+7"), 7.0);
    EXPECT_DOUBLE_EQ(leadingNumber(".5"), 0.5);
    EXPECT_DOUBLE_EQ(leadingNumber("5."), 5.0);
    EXPECT_DOUBLE_EQ(leadingNumber("1e3"), 1000.0);
    EXPECT_DOUBLE_EQ(leadingNumber("2e"), 2.0) << "an 'e' without digits ends the number";
    EXPECT_DOUBLE_EQ(leadingNumber("3,5"), 3.0) << "the comma is never a decimal separator";
    EXPECT_DOUBLE_EQ(leadingNumber("1.2.3"), 1.2);
}

TEST(LeadingNumber, TextWithoutANumberReadsZero)
{
    EXPECT_EQ(leadingNumber(""), 0.0);
    EXPECT_EQ(leadingNumber("   "), 0.0);
    EXPECT_EQ(leadingNumber("// a comment"), 0.0);
    EXPECT_EQ(leadingNumber("Laser"), 0.0);
    EXPECT_EQ(leadingNumber("-"), 0.0);
    EXPECT_EQ(leadingNumber("."), 0.0);
    EXPECT_EQ(leadingNumber("x12"), 0.0);
}

TEST(LeadingNumber, IgnoresACommaDecimalLocale)
{
    const char* previous = std::setlocale(LC_NUMERIC, nullptr);
    const std::string saved = previous ? previous : "C";
    if (!std::setlocale(LC_NUMERIC, "de_DE.UTF-8") && !std::setlocale(LC_NUMERIC, "fr_FR.UTF-8"))
        GTEST_SKIP() << "no comma-decimal locale installed";
    EXPECT_DOUBLE_EQ(leadingNumber("4.2"), 4.2);
    EXPECT_EQ(plainNumber(4.2), "4.2");
    std::setlocale(LC_NUMERIC, saved.c_str());
}

TEST(FixedWidth, PadsWithZerosAndDropsLeadingDigitsOfTooWideValues)
{
    EXPECT_EQ(fixedWidth(0, 7), "0000000");
    EXPECT_EQ(fixedWidth(1500, 7), "0001500");
    EXPECT_EQ(fixedWidth(9999999, 7), "9999999");
    EXPECT_EQ(fixedWidth(10000000, 7), "0000000") << "10^7 wraps to zero in a 7-digit field";
    EXPECT_EQ(fixedWidth(123456, 5), "23456");
    EXPECT_EQ(fixedWidth(60, 3), "060");
    EXPECT_EQ(fixedWidth(1234, 3), "234");
}

TEST(FixedWidth, NegativeValuesFollowTheSameArithmetic)
{
    // 10^5 - 5 = 99995 -> "9995": one character short, as the arithmetic gives.
    EXPECT_EQ(fixedWidth(-5, 5), "9995");
    EXPECT_EQ(fixedWidth(-1, 3), "99");
    // Below -10^w the sum is negative and its sign is the character dropped.
    EXPECT_EQ(fixedWidth(-1500, 3), "500");
}

TEST(FixedWidth, TextOrderIsNumericOrderInsideTheField)
{
    std::vector<long long> values{5, 1200, 40, 999, 0, 70000};
    std::vector<std::string> texts;
    for (long long v : values)
        texts.push_back(fixedWidth(v, 7));
    std::sort(values.begin(), values.end());
    std::sort(texts.begin(), texts.end());
    for (std::size_t i = 0; i < values.size(); ++i)
        EXPECT_EQ(texts[i], fixedWidth(values[i], 7));
}

TEST(RoundHalfEven, RoundsTiesToTheEvenNeighbour)
{
    EXPECT_EQ(roundHalfEven(0.5), 0);
    EXPECT_EQ(roundHalfEven(1.5), 2);
    EXPECT_EQ(roundHalfEven(2.5), 2);
    EXPECT_EQ(roundHalfEven(2.5000001), 3);
    EXPECT_EQ(roundHalfEven(-0.5), 0);
    EXPECT_EQ(roundHalfEven(-1.5), -2);
    EXPECT_EQ(roundHalfEven(-2.4), -2);
    EXPECT_EQ(roundHalfEven(1234.49), 1234);
}

TEST(PlainNumber, WritesAtMostFifteenSignificantDigitsWithAPoint)
{
    EXPECT_EQ(plainNumber(0.0), "0");
    EXPECT_EQ(plainNumber(-0.0), "0");
    EXPECT_EQ(plainNumber(3.0), "3");
    EXPECT_EQ(plainNumber(12.5), "12.5");
    EXPECT_EQ(plainNumber(0.1), "0.1");
    EXPECT_EQ(plainNumber(-0.25), "-0.25");
    EXPECT_EQ(plainNumber(1e6), "1000000");
    EXPECT_EQ(plainNumber(0.1 + 0.2), "0.3") << "15 significant digits at most";
    EXPECT_EQ(plainNumber(6.3 - 1.5), "4.8");
    EXPECT_EQ(plainNumber(1.0 / 3.0), "0.333333333333333");
}

}  // namespace
}  // namespace veltrin

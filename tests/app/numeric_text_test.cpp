#include "app/numeric_text.h"

#include <string>
#include <tuple>
#include <utility>

#include <gtest/gtest.h>

namespace veltrin {
namespace {

TEST(LeadingNumber, ReadsTheNumberAtTheStartElseZero)
{
    const std::pair<const char*, double> cases[] = {
        {"60 // roll speed mm/s", 60}, {"   127.3// width", 127.3}, {"\t-4.25mm", -4.25},
        {"+7", 7}, {".5", 0.5}, {"5.", 5}, {"1e3", 1000}, {"2e", 2}, {"3,5", 3}, {"1.2.3", 1.2},
        {"", 0}, {"   ", 0}, {"// a comment", 0}, {"-", 0}, {".", 0}, {"x12", 0}};
    for (const auto& [text, value] : cases)
        EXPECT_DOUBLE_EQ(leadingNumber(text), value) << '"' << text << '"';
}

// Zero padded; a too wide value loses its leading digits, and a negative one follows the
// same arithmetic (10^w + value without its first character).
TEST(FixedWidth, PadsWithZerosAndDropsLeadingDigits)
{
    const std::tuple<long long, int, const char*> cases[] = {
        {0, 7, "0000000"}, {1500, 7, "0001500"}, {9999999, 7, "9999999"}, {10000000, 7, "0000000"},
        {123456, 5, "23456"}, {60, 3, "060"}, {-5, 5, "9995"}, {-1, 3, "99"}, {-1500, 3, "500"}};
    for (const auto& [value, width, text] : cases)
        EXPECT_EQ(fixedWidth(value, width), text) << value << " in " << width;
}

TEST(RoundHalfEven, RoundsTiesToTheEvenNeighbour)
{
    const std::pair<double, long long> cases[] = {{0.5, 0},   {1.5, 2},   {2.5, 2},   {2.5000001, 3},
                                                  {-0.5, 0},  {-1.5, -2}, {-2.4, -2}, {1234.49, 1234}};
    for (const auto& [value, rounded] : cases)
        EXPECT_EQ(roundHalfEven(value), rounded) << value;
}

TEST(PlainNumber, WritesAtMostFifteenSignificantDigitsWithAPoint)
{
    const std::pair<double, const char*> cases[] = {
        {0.0, "0"},        {-0.0, "0"},     {3.0, "3"},          {12.5, "12.5"},
        {0.1, "0.1"},      {-0.25, "-0.25"}, {1e6, "1000000"},   {0.1 + 0.2, "0.3"},
        {6.3 - 1.5, "4.8"}, {1.0 / 3.0, "0.333333333333333"}, {0.00125, "0.00125"}};
    for (const auto& [value, text] : cases)
        EXPECT_EQ(plainNumber(value), text);
}

}  // namespace
}  // namespace veltrin

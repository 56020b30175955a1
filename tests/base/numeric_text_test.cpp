#include "base/numeric_text.h"

#include <cmath>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <limits>
#include <random>
#include <string>
#include <tuple>
#include <utility>
#include <vector>

#include <gtest/gtest.h>

#include "support/plain_models.h"

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

using models::slowPlainNumber;

// Checks value, its neighbours and their negatives; returns false at the first difference.
bool agreesAround(double value)
{
    for (const double v : {value, std::nextafter(value, 0.0), std::nextafter(value, 2 * value + 1)}) {
        for (const double signedValue : {v, -v}) {
            const std::string expected = slowPlainNumber(signedValue);
            const std::string fast = plainNumber(signedValue);
            EXPECT_EQ(fast, expected) << std::hexfloat << signedValue;
            if (fast != expected)
                return false;
        }
    }
    return true;
}

// The fast paths of plainNumber (short decimals, 15-digit rounding by scaling) must give
// printf's text for every double.
TEST(PlainNumber, AgreesWithPrintfForEveryKindOfDouble)
{
    // Zero, carries of the 15-digit rounding, the edges of the double range and of its
    // normal numbers, values that are not numbers, exact ties at the 16th digit.
    const double chosen[] = {
        0.0, -0.0, 1.0, 0.1, 4.8 + 2 * 4.2, 6.3 - 1.5, 1e-7, 123456789012345678.0,
        0.999999999999999944, 9.9999999999999995, 99999999999999.99, 999999999999999.9,
        999999999999999.5, 100000000000000.5, 100000000000001.5, 0.5, 2.5, 1e15, 1e16, 1e21,
        1e22, 1e23, 5e-324, 2.2250738585072014e-308, 2.2250738585072009e-308,
        1.7976931348623157e308, std::numeric_limits<double>::infinity(),
        std::numeric_limits<double>::quiet_NaN(), 0.3, 2.675, 74.039999999999992, 1234.5,
        0.000123456789012345678, 1e-22, 1.5e-22, 9.5367431640625e-07};
    for (const double value : chosen)
        ASSERT_TRUE(agreesAround(value)) << value;

    std::mt19937_64 random(20261122);
    // Any bit pattern: every exponent, subnormals and non-numbers included.
    for (int i = 0; i < 100000; ++i) {
        const std::uint64_t bits = random();
        double value = 0.0;
        std::memcpy(&value, &bits, sizeof value);
        ASSERT_EQ(plainNumber(value), slowPlainNumber(value)) << bits;
    }
    // Short decimals k / 10^d, d up to 24, with k of 1 to 17 digits, and their neighbours.
    std::uniform_int_distribution<int> decimals(0, 24);
    std::uniform_int_distribution<int> length(1, 17);
    for (int i = 0; i < 60000; ++i) {
        const auto k = static_cast<double>(random() % static_cast<std::uint64_t>(std::pow(10.0, length(random))));
        ASSERT_TRUE(agreesAround(k / std::pow(10.0, decimals(random))));
    }
    // Halves between two 15-digit decimals at every scale, and values k + 1/2^n.
    std::uniform_int_distribution<std::int64_t> digits15(100000000000000, 999999999999999);
    std::uniform_int_distribution<int> shift(-30, 10);
    std::uniform_int_distribution<int> halving(1, 40);
    for (int i = 0; i < 30000; ++i) {
        ASSERT_TRUE(agreesAround((static_cast<double>(digits15(random)) * 10.0 + 5.0) *
                                 std::pow(10.0, shift(random))));
        ASSERT_TRUE(agreesAround(static_cast<double>(random() % 1000000) +
                                 std::ldexp(1.0, -halving(random))));
    }
    // Coordinates as programs have them: roll speeds times times, track positions.
    std::uniform_int_distribution<int> ms(0, 9999999);
    std::uniform_int_distribution<int> track(0, 120);
    std::uniform_real_distribution<double> setting(0.0, 200.0);
    for (int i = 0; i < 30000; ++i) {
        const double speed = std::round(setting(random) * 100.0) / 100.0;
        const double pitch = std::round(setting(random) * 10.0) / 1000.0;
        ASSERT_TRUE(agreesAround(speed * ms(random) / 1000.0 + 1.5));
        ASSERT_TRUE(agreesAround(speed * ms(random) / 1000.0));
        ASSERT_TRUE(agreesAround(6.3 - 1.5 + track(random) * pitch));
    }
    // Every magnitude, and near every power of ten, where the digit count changes.
    std::uniform_real_distribution<double> tenth(-30.0, 30.0);
    for (int i = 0; i < 30000; ++i)
        ASSERT_TRUE(agreesAround(std::pow(10.0, tenth(random))));
    for (int power = -323; power <= 308; ++power)
        ASSERT_TRUE(agreesAround(std::pow(10.0, power))) << power;
}

// writePlainNumber stays within kPlainNumberMaxChars, for the longest texts too.
TEST(PlainNumber, LongestTextsFitTheirRoom)
{
    EXPECT_EQ(plainNumber(-5e-324).size(), kPlainNumberMaxChars);
    EXPECT_EQ(plainNumber(-std::numeric_limits<double>::max()).size(), 310u);
    EXPECT_EQ(plainNumber(1e-22), "0." + std::string(21, '0') + "1");
}

}  // namespace
}  // namespace veltrin

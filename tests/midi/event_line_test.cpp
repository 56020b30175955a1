// The decoder's direct field writers against the general number rules they stand for.

#include <gtest/gtest.h>

#include <cmath>
#include <limits>
#include <random>
#include <string>
#include <vector>

#include "base/numeric_text.h"
#include "midi/event_line.h"

namespace veltrin {
namespace {

// The field writeField writes after its blank.
std::string field(long long value, int width)
{
    char text[event_line::kFieldRoom];
    const char* const end = event_line::writeField(text, value, width);
    EXPECT_EQ(text[0], ' ');
    return std::string(text + 1, static_cast<std::size_t>(end - text - 1));
}

TEST(EventLine, FieldsAreTheFixedWidthRule)
{
    std::vector<long long> values{0, 1, -1, -9, 99999999, -10000000, -123456789012LL,
                                  1000000000000000LL, -1000000000000000LL};
    // Each width's edges: the last value that fits, the first that is cut, the last one cut
    // to its digits directly and the first one written through the long path.
    long long power = 1;
    for (int width = 1; width <= 7; ++width) {
        power *= 10;
        for (const long long edge : {power - 1, power, 9 * power - 1, 9 * power, 10 * power})
            for (const long long value : {edge, -edge})
                values.push_back(value);
    }
    std::mt19937_64 random(99);
    std::uniform_int_distribution<long long> wide(-200000000, 200000000);
    for (int i = 0; i < 20000; ++i)
        values.push_back(i % 2 ? wide(random) : wide(random) % 2000);

    for (const long long value : values)
        for (int width = 1; width <= 7; ++width)
            ASSERT_EQ(field(value, width), fixedWidth(value, width))
                << value << " width " << width;
}

TEST(EventLine, TimesRoundHalfToEvenAndStayInRange)
{
    std::vector<double> values{0.0, -0.0, 0.5, 1.5, 2.5, -0.5, -1.5, -2.5, 0.49999999999999994,
                               -0.49999999999999994, 999999999999999.5, 1e15, 999999.5000001,
                               1234567.4999999};
    std::mt19937_64 random(5);
    std::uniform_real_distribution<double> ms(-2e7, 2e7);
    std::uniform_int_distribution<int> whole(-20000, 20000);
    for (int i = 0; i < 20000; ++i) {
        values.push_back(ms(random));
        values.push_back(whole(random) + 0.5);  // exact halves
        values.push_back(std::nextafter(whole(random) + 0.5, 0.0));
    }
    for (const double value : values)
        ASSERT_EQ(event_line::roundMs(value), roundHalfEven(value)) << value;

    // Absurd times are clamped first; a time that is not a number is 0.
    EXPECT_EQ(event_line::roundMs(1e300), 1000000000000000LL);
    EXPECT_EQ(event_line::roundMs(-std::numeric_limits<double>::infinity()), 0);
    EXPECT_EQ(event_line::roundMs(std::numeric_limits<double>::quiet_NaN()), 0);
    EXPECT_EQ(event_line::roundMs(-3e15), -1000000000000000LL);
}

}  // namespace
}  // namespace veltrin

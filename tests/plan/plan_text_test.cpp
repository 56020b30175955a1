// Number texts of the program and the operator's report lines.

#include <gtest/gtest.h>

#include <cmath>
#include <cstdint>
#include <cstring>
#include <limits>
#include <locale>
#include <random>
#include <string>
#include <vector>

#include "plan/plan_steps.h"
#include "app/numeric_text.h"
#include "plan/plan_text.h"

namespace veltrin {
namespace {

struct CommaDecimal : std::numpunct<char> {
    char do_decimal_point() const override { return ','; }
};

TEST(PlanText, NumbersOfProgramAndReport)
{
    const std::locale saved = std::locale::global(std::locale(std::locale::classic(), new CommaDecimal));
    EXPECT_EQ(plainNumber(12.5), "12.5");
    std::locale::global(saved);
    // 4.8 + 2 x 4.2 is 13.200000000000001 as a double: 15 digits give what people wrote.
    EXPECT_EQ(plainNumber(4.8 + 2 * 4.2), "13.2");
    EXPECT_EQ(plainNumber(-0.25), "-0.25");
    EXPECT_EQ(plainNumber(1e-7), "0.0000001");
    EXPECT_EQ(plainNumber(123456789012345678.0), "123456789012346000");
    // Half away from zero on the decimal value: 2.675 is 2.67499999999999982 as a double.
    EXPECT_EQ(fixedDecimals(2.675, 2, 1, '.'), "2.68");
    EXPECT_EQ(fixedDecimals(9.995, 2, 1, ','), "10,00");
    EXPECT_EQ(fixedDecimals(0.099, 3, 2, '.'), "00.099");
    EXPECT_EQ(clockText(14.5), "00:00:15");
    EXPECT_EQ(clockText(90061.0), "01:01:01");  // a day and more wraps round
}

std::string appended(double value)
{
    std::string text = "G0 X";
    appendPlainNumber(text, value);
    return text.substr(4);
}

TEST(PlanText, AppendedNumbersAreThePlainNumbers)
{
    // Chosen values: zero, signs, carries of the 15-digit rounding, the edges of the double
    // range and of its normal numbers, values that are not numbers.
    const std::vector<double> chosen = {
        0.0, -0.0, 1.0, -1.0, 0.1, 4.8 + 2 * 4.2, 6.3 - 1.5, 1e-7, 123456789012345678.0,
        0.999999999999999944, 9.9999999999999995, 99999999999999.99, 999999999999999.9,
        1e15, 1e16, 1e21, 1e22, 1e23, 5e-324, 2.2250738585072014e-308, 2.2250738585072009e-308,
        1.7976931348623157e308, std::numeric_limits<double>::infinity(),
        -std::numeric_limits<double>::infinity(), std::numeric_limits<double>::quiet_NaN(),
        0.3, 2.675, 74.039999999999992, 1234.5, 0.000123456789012345678};
    for (const double value : chosen)
        EXPECT_EQ(appended(value), plainNumber(value)) << value;

    std::mt19937_64 random(20261122);
    // Any bit pattern: every exponent, subnormals and non-numbers included.
    for (int i = 0; i < 200000; ++i) {
        const std::uint64_t bits = random();
        double value = 0.0;
        std::memcpy(&value, &bits, sizeof value);
        ASSERT_EQ(appended(value), plainNumber(value)) << bits;
    }
    // Coordinates as programs have them: track positions and roll lengths.
    std::uniform_int_distribution<int> track(0, 120);
    std::uniform_int_distribution<int> ms(0, 9999999);
    std::uniform_real_distribution<double> setting(0.0, 200.0);
    for (int i = 0; i < 100000; ++i) {
        const double speed = std::round(setting(random) * 100.0) / 100.0;
        const double pitch = std::round(setting(random) * 10.0) / 1000.0;
        const double y = speed * ms(random) / 1000.0 + 1.5;
        const double x = 6.5 - 0.35 + track(random) * pitch;
        ASSERT_EQ(appended(y), plainNumber(y)) << y;
        ASSERT_EQ(appended(-y), plainNumber(-y)) << y;
        ASSERT_EQ(appended(x), plainNumber(x)) << x;
    }
    // Every magnitude of the common case, and halves between two 15-digit decimals.
    std::uniform_real_distribution<double> tenth(-10.0, 17.0);
    std::uniform_int_distribution<std::int64_t> digits(100000000000000, 999999999999999);
    std::uniform_int_distribution<int> shift(-24, 2);
    for (int i = 0; i < 200000; ++i) {
        const double value = std::pow(10.0, tenth(random));
        ASSERT_EQ(appended(value), plainNumber(value)) << value;
        const double half = (static_cast<double>(digits(random)) * 10.0 + 5.0) * std::pow(10.0, shift(random));
        ASSERT_EQ(appended(half), plainNumber(half)) << half;
        const double below = std::nextafter(half, 0.0);
        ASSERT_EQ(appended(below), plainNumber(below)) << below;
    }
    // Near every power of ten, where the number of integer digits changes.
    for (int power = -320; power <= 308; ++power) {
        const double ten = std::pow(10.0, power);
        for (const double value : {ten, std::nextafter(ten, 0.0), std::nextafter(ten, std::numeric_limits<double>::infinity())})
            ASSERT_EQ(appended(value), plainNumber(value)) << value;
    }
}

TEST(Report, PunchNotesOutOfScaleAndRollLengths)
{
    ReportInput in;
    in.laser = false;
    in.Vitcarton = 60, in.L_poincon = 3, in.vitesse_avance = 8000;
    in.totals.nb_frappes = 1234, in.totals.distance_totale = 56789.5, in.totals.y_max = 9998.5;
    in.notes_hors_gamme = 1;
    in.duree_trou_poincon = 0.5;
    // Roll 9.9985 + 3 / 2000 = 10 m exactly: "0.000". Learned: 1234 x 0.5 = 617 s.
    EXPECT_EQ(reportLines(in), (std::vector<std::string>{
                                   "   - Overall distances : 56.79 m", "   - Number of punch strikes : 1234",
                                   "ATTENTION : ", "--->  1 note is not in the organ scale",
                                   "Roll length : 10.000 m", "Estimated punch duration : 00:10:17",
                                   "Ready to punch", ""}));
    in.notes_hors_gamme = 3, in.totals.y_max = 12345.6785, in.duree_trou_poincon = 999;
    in.decimalSeparator = ',';
    // 12.3456785 + 0.0015 m; unlearned: 56789.5 / 8000 x 1.5 x 60 = 638.88 s.
    const auto lines = reportLines(in);
    EXPECT_EQ(lines[0], "   - Overall distances : 56,79 m");
    EXPECT_EQ(lines[3], "--->  3 notes are not in the organ scale");
    EXPECT_EQ(lines[4], "Roll length : 12,347 m");
    EXPECT_EQ(lines[5], "Estimated punch duration : 00:10:39");
}

}  // namespace
}  // namespace veltrin

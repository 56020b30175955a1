// Number texts of the program and the operator's report lines.

#include <gtest/gtest.h>

#include <locale>
#include <string>
#include <vector>

#include "plan/plan_steps.h"
#include "base/numeric_text.h"
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

// The program writer appends its coordinates to lines under way: the text already there
// stays, and the number follows as plainNumber writes it (its own test checks the digits).
TEST(PlanText, AppendedNumbersFollowTheLine)
{
    std::string line = "G0 X";
    for (const double value : {42.6, -0.25, 1e-7, 5e-324, 1.7976931348623157e308, 0.0}) {
        line.append(" Y");
        const std::size_t before = line.size();
        appendPlainNumber(line, value);
        EXPECT_EQ(line.substr(before), plainNumber(value)) << value;
    }
    EXPECT_EQ(line.substr(0, 25), "G0 X Y42.6 Y-0.25 Y0.0000");
}

TEST(Report, PunchNotesOutOfScaleAndRollLengths)
{
    ReportInput in;
    in.laser = false;
    in.Vitcarton = 60, in.L_poincon = 3, in.vitesse_avance = 8000;
    in.totals.nb_frappes = 1234, in.totals.distance_totale = 56789.5, in.totals.y_max = 9998.5;
    in.notes_hors_gamme = 1;
    in.duree_trou_poincon = 0.5;
    // Roll 9.9985 + 3 / 2000 = 10 m exactly. Learned: 1234 x 0.5 = 617 s.
    EXPECT_EQ(reportLines(in), (std::vector<std::string>{
                                   "   - Overall distances : 56.79 m", "   - Number of punch strikes : 1234",
                                   "ATTENTION : ", "--->  1 note is not in the organ scale",
                                   "Roll length : 10.000 m", "Estimated punch duration : 00:10:17",
                                   "Ready to punch", ""}));
    // Up to 10 m the length has a single integer digit ("0.000"), above it two ("00.000").
    in.totals.y_max = 998.5;
    EXPECT_EQ(reportLines(in)[4], "Roll length : 1.000 m");
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

#include "plan/plan_text.h"

#include "base/numeric_text.h"

#include <array>
#include <cmath>
#include <cstdio>

namespace veltrin {

namespace {

// Adds one unit to the last digit of a decimal digit string.
void incrementDigits(std::string& digits)
{
    for (std::size_t i = digits.size(); i-- > 0;) {
        if (digits[i] != '9') {
            ++digits[i];
            return;
        }
        digits[i] = '0';
    }
    digits.insert(digits.begin(), '1');
}

}  // namespace

void appendPlainNumber(std::string& out, double value)
{
    std::array<char, kPlainNumberMaxChars> text;  // filled by writePlainNumber
    out.append(text.data(), writePlainNumber(text.data(), value));
}

std::string fixedDecimals(double value, int decimals, int minIntegerDigits, char decimalSeparator)
{
    // scaled: the digits of |value| x 10^decimals, rounded to a whole number.
    std::string scaled;
    bool negative = false;
    if (value != 0.0 && std::isfinite(value)) {
        const SignificantDigits d = significantDigits15(value);
        negative = d.negative;
        const int kept = d.exponent + decimals + 1;  // digits at or above 10^-decimals
        if (kept >= static_cast<int>(d.digits.size())) {
            scaled = d.digits + std::string(static_cast<std::size_t>(kept) - d.digits.size(), '0');
        } else if (kept >= 0) {
            scaled = d.digits.substr(0, static_cast<std::size_t>(kept));
            if (scaled.empty())
                scaled.assign(1, '0');
            if (d.digits[static_cast<std::size_t>(kept)] >= '5')
                incrementDigits(scaled);
        }
    }
    if (scaled.empty())
        scaled.assign(1, '0');
    while (scaled.size() > 1 && scaled.front() == '0')
        scaled.erase(scaled.begin());
    if (scaled == "0")
        negative = false;
    const auto width = static_cast<std::size_t>(decimals + minIntegerDigits);
    if (scaled.size() < width)
        scaled.insert(scaled.begin(), width - scaled.size(), '0');
    std::string text = scaled.substr(0, scaled.size() - static_cast<std::size_t>(decimals));
    if (decimals > 0) {
        text += decimalSeparator;
        text += scaled.substr(scaled.size() - static_cast<std::size_t>(decimals));
    }
    if (negative)
        text.insert(text.begin(), '-');
    return text;
}

std::string clockText(double seconds)
{
    long long whole = 0;
    if (std::isfinite(seconds) && std::fabs(seconds) < 1e15)
        whole = std::llround(seconds);
    whole %= 86400;
    if (whole < 0)
        whole += 86400;
    std::array<char, 16> buffer{};
    std::snprintf(buffer.data(), buffer.size(), "%02lld:%02lld:%02lld", whole / 3600,
                  (whole / 60) % 60, whole % 60);
    return buffer.data();
}

}  // namespace veltrin

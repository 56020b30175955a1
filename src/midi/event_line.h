#pragma once
// Pieces of the decoder's event lines, written straight into a character buffer: the times
// rounded half to even and the fixed-width number fields. They give the same results as
// roundHalfEven and fixedWidth (base/numeric_text.h) without making a string per field.

#include <algorithm>
#include <array>
#include <charconv>
#include <cmath>
#include <cstddef>
#include <cstdint>
#include <cstring>

namespace veltrin::event_line {

// Times are clamped to this before rounding, so that absurd tick counts cannot overflow.
inline constexpr double kTimeLimit = 1e15;

// Room that writeField needs: a blank and the field of any long long.
inline constexpr int kFieldRoom = 24;

// value rounded half to even (1.5 -> 2, 2.5 -> 2, -0.5 -> 0) after clamping to +-kTimeLimit;
// 0 for a non-finite value. Whole numbers of this size are exact doubles, so the floor is
// taken by a conversion instead of a call.
inline long long roundMs(double value)
{
    if (!std::isfinite(value))
        return 0;
    value = std::clamp(value, -kTimeLimit, kTimeLimit);
    long long result = static_cast<long long>(value);  // toward zero
    if (static_cast<double>(result) > value)
        --result;  // floor for negative values
    const double diff = value - static_cast<double>(result);
    if (diff > 0.5 || (diff == 0.5 && result % 2 != 0))
        ++result;
    return result;
}

// The last count decimal digits of value, zero-padded, ending at end; returns the first.
inline char* writeDigits(char* end, std::uint32_t value, int count)
{
    static constexpr char kPairs[] = "00010203040506070809101112131415161718192021222324"
                                     "25262728293031323334353637383940414243444546474849"
                                     "50515253545556575859606162636465666768697071727374"
                                     "75767778798081828384858687888990919293949596979899";
    for (; count >= 2; count -= 2) {
        end -= 2;
        std::memcpy(end, kPairs + 2 * (value % 100), 2);
        value /= 100;
    }
    if (count == 1)
        *--end = static_cast<char>('0' + value % 10);
    return end;
}

// Writes one blank and the field fixedWidth(value, width) (the decimal text of
// value + 10^width without its first character; width 1 to 7) at out, which has room for
// kFieldRoom characters; returns the end of what was written.
inline char* writeField(char* out, long long value, int width)
{
    static constexpr std::array<long long, 8> kPowersOfTen = {1,      10,      100,     1000,
                                                              10000,  100000,  1000000, 10000000};
    const long long power = kPowersOfTen[static_cast<std::size_t>(width)];
    *out++ = ' ';
    if (value >= 0 && value < 9 * power) {
        // value + 10^width has width + 1 digits: the last width are those of value.
        out += width;
        writeDigits(out, static_cast<std::uint32_t>(value), width);
        return out;
    }
    std::array<char, 24> digits{};
    const auto [end, ec] = std::to_chars(digits.data(), digits.data() + digits.size(), value + power);
    (void)ec;
    const auto count = static_cast<std::size_t>(end - digits.data()) - 1;
    std::memcpy(out, digits.data() + 1, count);
    return out + count;
}

}  // namespace veltrin::event_line

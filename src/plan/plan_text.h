#pragma once
// Number texts of the program and of its report.

#include <string>

namespace veltrin {

// value with a fixed number of decimals and at least minIntegerDigits integer digits,
// rounded half away from zero on the value's 15-significant-digit decimal form (so 2.675
// gives "2.68"), with decimalSeparator between the parts: fixedDecimals(12.3456, 3, 2, ',')
// == "12,346", fixedDecimals(0.5, 2, 1, '.') == "0.50".
std::string fixedDecimals(double value, int decimals, int minIntegerDigits, char decimalSeparator);

// Appends plainNumber(value) to out without making a string of its own.
void appendPlainNumber(std::string& out, double value);

// A duration in seconds as "hh:mm:ss", rounded to the nearest second; a day or more wraps
// round (86400 s gives "00:00:00"), as does a value that is not a finite number.
std::string clockText(double seconds);

}  // namespace veltrin

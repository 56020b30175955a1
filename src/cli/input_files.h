#pragma once
// Why a file named on a command line (or chosen in a dialog) cannot be used, in words for the
// operator.

#include <string>

namespace veltrin {

// Empty when path is a regular file that opens for reading; else why not: "no such file",
// "a folder, not a file", "not a regular file (a device, a pipe or a socket)", or the
// system's reason ("Permission denied").
std::string fileProblem(const std::string& path);

// fileProblem, and then whether the file holds a G-code program as text: empty when it does;
// else "an empty file", "a MIDI file, not a G-code program (convert it first)", "not a text
// file (byte 0x00 at offset 12)" or "not a G-code program (line 1: "...")" for text whose
// first command line does not start with a G-code word ("G0", "M3", "$H", ...).
std::string programFileProblem(const std::string& path);

}  // namespace veltrin

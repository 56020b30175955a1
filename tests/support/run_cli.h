#pragma once
// Runs the built veltrin-cli as a user would, through the shell.

#include <sys/wait.h>

#include <cstdlib>
#include <string>
#include <vector>

#include "support/temp_dir.h"

namespace veltrin::testing {

struct CliRun {
    int exitCode = -1;
    std::string out;
    std::string err;
};

inline std::string quoted(const std::string& text)
{
    std::string result = "'";
    for (char c : text)
        result += c == '\'' ? std::string("'\\''") : std::string(1, c);
    return result + "'";
}

// "<environment> veltrin-cli <arguments>": environment holds shell assignments such as
// "VELTRIN_DOCUMENTS='/tmp/x'"; each argument is quoted.
inline CliRun runCli(const std::string& environment, const std::vector<std::string>& arguments)
{
    const TempDir scratch;
    std::string command = environment + " QT_QPA_PLATFORM=offscreen " + quoted(VELTRIN_CLI);
    for (const std::string& argument : arguments)
        command.append(" ").append(quoted(argument));
    command.append(" >").append(quoted((scratch.path() / "out").string()));
    command.append(" 2>").append(quoted((scratch.path() / "err").string()));
    const int status = std::system(command.c_str());
    return {WIFEXITED(status) ? WEXITSTATUS(status) : -1, readText(scratch.path() / "out"),
            readText(scratch.path() / "err")};
}

}  // namespace veltrin::testing

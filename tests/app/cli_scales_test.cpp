#include <sys/wait.h>

#include <cstdio>
#include <string>

#include <gtest/gtest.h>

#include "settings_test_support.h"

namespace veltrin {
namespace {

// Runs "veltrin-cli <arguments>" with VELTRIN_DOCUMENTS set; returns stdout and the exit code.
std::string runCli(const std::string& documents, const std::string& arguments, int& exitCode)
{
    const std::string command = "VELTRIN_DOCUMENTS='" + documents + "' '" + VELTRIN_CLI + "' " +
                                arguments + " 2>/dev/null";
    FILE* pipe = popen(command.c_str(), "r");
    std::string output;
    char buffer[256];
    while (pipe && std::fgets(buffer, sizeof buffer, pipe))
        output += buffer;
    const int status = pipe ? pclose(pipe) : -1;
    exitCode = WIFEXITED(status) ? WEXITSTATUS(status) : -1;
    return output;
}

TEST(CliScales, ListsTheBuiltInsThenTheInstrumentsFiles)
{
    veltrin::testing::TempFolder documents("veltrin-cli-scales-");
    int exitCode = -1;
    EXPECT_EQ(runCli(documents.path(), "scales", exitCode), "Kolby 27-29\nAlder Fenn 20\n");
    EXPECT_EQ(exitCode, 0);
    documents.writeScale("Street", veltrin::testing::kStreetOrgan);
    documents.writeScale("fair organ", veltrin::testing::kStreetOrgan);
    EXPECT_EQ(runCli(documents.path(), "scales", exitCode),
              "Kolby 27-29\nAlder Fenn 20\nfair organ\nStreet\n");
    runCli(documents.path(), "scales --bogus", exitCode);
    EXPECT_EQ(exitCode, 2);
}

}  // namespace
}  // namespace veltrin

#include <gtest/gtest.h>

#include "support/run_cli.h"

namespace veltrin {
namespace {

TEST(CliScales, ListsTheBuiltInsThenTheInstrumentsFiles)
{
    testing::TempDir documents;
    const std::string environment = "VELTRIN_DOCUMENTS=" + testing::quoted(documents.str());
    const testing::CliRun builtIn = testing::runCli(environment, {"scales"});
    EXPECT_EQ(builtIn.out, "Kolby 27-29\nAlder Fenn 20\n");
    EXPECT_EQ(builtIn.exitCode, 0);
    documents.writeScale("Street", testing::kStreetOrgan);
    documents.writeScale("fair organ", testing::kStreetOrgan);
    EXPECT_EQ(testing::runCli(environment, {"scales"}).out, "Kolby 27-29\nAlder Fenn 20\nfair organ\nStreet\n");
    EXPECT_EQ(testing::runCli(environment, {"scales", "--bogus"}).exitCode, 2);
}

}  // namespace
}  // namespace veltrin

#include "midi/resume_file.h"

#include <filesystem>
#include <gtest/gtest.h>

#include "support/temp_dir.h"

namespace veltrin {
namespace {

TEST(ResumeFile, WritesFourCrLfLinesAtomicallyAndReadsThemBack)
{
    testing::TempDir dir;
    const std::string path = (dir.path() / "valse.mid.rep").string();
    ASSERT_TRUE(writeResumeFile(path, {"/a much longer path/than the next one.mid", 99999, 12345, "30"}).ok());
    auto written = writeResumeFile(path, {"/songs/valse.mid", 12345.5, 418, "9"});
    ASSERT_TRUE(written.ok()) << written.detail();
    EXPECT_EQ(testing::readText(path), "/songs/valse.mid\r\n12345.5\r\n418\r\n9\r\n");
    EXPECT_FALSE(std::filesystem::exists(path + ".tmp"));
    auto read = readResumeFile(path);
    ASSERT_TRUE(read.ok()) << read.detail();
    EXPECT_EQ(read->songPath + "|" + read->Fourchette, "/songs/valse.mid|9");
    EXPECT_DOUBLE_EQ(read->restartMs, 12345.5);
    EXPECT_EQ(read->restartLine, 418);

    // Bare LF line ends; blanks of the path and of Fourchette are kept.
    testing::writeText(path, "/my songs/b c.mid\n2500\nx\n 12 mm\nextra\n");
    read = readResumeFile(path);
    ASSERT_TRUE(read.ok());
    EXPECT_EQ(read->songPath + "|" + read->Fourchette, "/my songs/b c.mid| 12 mm");
    EXPECT_DOUBLE_EQ(read->restartMs, 2500);
    EXPECT_EQ(read->restartLine, 0);

    EXPECT_TRUE(isResumePath(path));
    for (const char* other : {"/songs/valse.mid.REP", "/songs/valse.mid.Rep", "ep"})
        EXPECT_FALSE(isResumePath(other)) << other;
    EXPECT_EQ(resumePathFor("/songs/a.mid"), "/songs/a.mid.rep");
}

TEST(ResumeFile, MissingShortAndUnwritableFilesAreErrors)
{
    testing::TempDir dir;
    EXPECT_EQ(readResumeFile((dir.path() / "none.mid.rep").string()).error(), ResumeFileError::CannotOpen);
    testing::writeText(dir.path() / "short.mid.rep", "/short.mid\r\n100\r\n3\r\n");
    EXPECT_EQ(readResumeFile((dir.path() / "short.mid.rep").string()).error(), ResumeFileError::Incomplete);
    EXPECT_EQ(writeResumeFile((dir.path() / "no such folder" / "x.rep").string(), {}).error(),
              ResumeFileError::CannotWrite);
}

}  // namespace
}  // namespace veltrin

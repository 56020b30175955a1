#include "midi/resume_file.h"

#include <filesystem>
#include <gtest/gtest.h>

#include "import/midi_bytes.h"
#include "import/temp_dir.h"

namespace veltrin {
namespace {

TEST(ResumeFile, WritesFourCrLfLinesAtomicallyAndReadsThemBack)
{
    TempDir dir;
    const std::string path = (dir.path() / "valse.mid.rep").string();
    ASSERT_TRUE(writeResumeFile(path, {"/a much longer path/than the next one.mid", 99999, 12345, "30"}).ok());
    auto written = writeResumeFile(path, {"/songs/valse.mid", 12345.5, 418, "9"});
    ASSERT_TRUE(written.ok()) << written.detail();
    EXPECT_EQ(testing::readText(path), "/songs/valse.mid\r\n12345.5\r\n418\r\n9\r\n");
    EXPECT_FALSE(std::filesystem::exists(path + ".tmp"));

    auto read = readResumeFile(path);
    ASSERT_TRUE(read.ok()) << read.detail();
    EXPECT_EQ(read->songPath, "/songs/valse.mid");
    EXPECT_DOUBLE_EQ(read->restartMs, 12345.5);
    EXPECT_EQ(read->restartLine, 418);
    EXPECT_EQ(read->Fourchette, "9");

    // Bare LF line ends; blanks of the path and of Fourchette are kept.
    testing::writeText(path, "/my songs/b c.mid\n2500\nx\n 12 mm\nextra\n");
    read = readResumeFile(path);
    ASSERT_TRUE(read.ok());
    EXPECT_EQ(read->songPath, "/my songs/b c.mid");
    EXPECT_DOUBLE_EQ(read->restartMs, 2500);
    EXPECT_EQ(read->restartLine, 0);
    EXPECT_EQ(read->Fourchette, " 12 mm");
}

TEST(ResumeFile, OnlyALowerCaseRepEndingIsOne)
{
    EXPECT_TRUE(isResumePath("/songs/valse.mid.rep"));
    EXPECT_FALSE(isResumePath("/songs/valse.mid.REP"));
    EXPECT_FALSE(isResumePath("/songs/valse.mid.Rep"));
    EXPECT_FALSE(isResumePath("ep"));
    EXPECT_EQ(resumePathFor("/songs/a.mid"), "/songs/a.mid.rep");
}

TEST(ResumeFile, MissingShortAndUnwritableFilesAreErrors)
{
    TempDir dir;
    auto missing = readResumeFile((dir.path() / "none.mid.rep").string());
    ASSERT_FALSE(missing.ok());
    EXPECT_EQ(missing.error(), ResumeFileError::CannotOpen);

    testing::writeText(dir.path() / "short.mid.rep", "/short.mid\r\n100\r\n3\r\n");
    auto incomplete = readResumeFile((dir.path() / "short.mid.rep").string());
    ASSERT_FALSE(incomplete.ok());
    EXPECT_EQ(incomplete.error(), ResumeFileError::Incomplete);

    auto unwritable = writeResumeFile((dir.path() / "no such folder" / "x.rep").string(), {});
    ASSERT_FALSE(unwritable.ok());
    EXPECT_EQ(unwritable.error(), ResumeFileError::CannotWrite);
}

}  // namespace
}  // namespace veltrin

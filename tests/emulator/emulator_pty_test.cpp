// `veltrin-cli emulate` on a pseudo-terminal, opened with the real QSerialPort. The machine link
// against it, the hang-up and the option errors are in machine_link_test.

#include "support/emulator_process.h"

#include <QDeadlineTimer>
#include <QFile>
#include <QFileInfo>
#include <QSerialPort>
#include <QTemporaryDir>

#include <gtest/gtest.h>

namespace veltrin::test {
namespace {

// Reads until `count` copies of `marker` arrived, or for at most timeoutMs.
QByteArray readUntil(QSerialPort& port, const QByteArray& marker, int count = 1, int timeoutMs = 5000)
{
    QByteArray received;
    const QDeadlineTimer deadline(timeoutMs);
    while (received.count(marker) < count && !deadline.hasExpired()) {
        if (port.waitForReadyRead(50))
            received += port.readAll();
    }
    return received;
}

TEST(EmulatorPty, EachOpeningGetsABannerThenAnAnswerPerLineInSplitReplies)
{
    QTemporaryDir dir;
    ASSERT_TRUE(dir.isValid());
    const QString link = dir.filePath("grbl");
    const QString record = dir.filePath("received.txt");
    EmulatorProcess grbl({"--speed", "0", "--boot-ms", "100", "--factory-settings", "--link", link, "--record", record,
                          "--split-replies"});
    ASSERT_TRUE(grbl.start()) << grbl.errorText().toStdString();
    EXPECT_TRUE(grbl.portPath().startsWith("/dev/pts/")) << grbl.portPath().toStdString();

    for (const QString& path : {grbl.portPath(), link}) {
        QSerialPort port;
        port.setPortName(path);
        port.setBaudRate(QSerialPort::Baud115200);
        ASSERT_TRUE(port.open(QIODevice::ReadWrite)) << port.errorString().toStdString();
        EXPECT_EQ(readUntil(port, "help]\r\n"), "\r\nGrbl 1.1h ['$' for help]\r\n");
        port.write("g0 x1 (first)\rG0 X\r");
        // The halves of a split reply arrive 20 ms apart (the core's timing is pinned by the
        // emulator tests); whatever the reader's wake-ups, they add up to whole replies.
        EXPECT_EQ(readUntil(port, "error:2\r\n"), "ok\r\nerror:2\r\n");
        port.write("?");
        EXPECT_EQ(readUntil(port, ">\r\n"), "<Idle|MPos:1.000,0.000,0.000|FS:0,0>\r\n");
    }
    QFile file(record);
    ASSERT_TRUE(file.open(QIODevice::ReadOnly));
    EXPECT_EQ(file.readAll(), "g0 x1 (first)\nG0 X\ng0 x1 (first)\nG0 X\n");

    grbl.stop();
    EXPECT_FALSE(QFileInfo(link).isSymLink()) << "the link goes with the emulator";
    EXPECT_EQ(grbl.exitCode(), 0);
}

}  // namespace
}  // namespace veltrin::test

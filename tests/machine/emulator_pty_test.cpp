// The emulator as the machine link meets it: `veltrin-cli emulate` on a pseudo-terminal,
// opened with the real QSerialPort.

#include "machine/emulator_process.h"

#include <QDeadlineTimer>
#include <QFile>
#include <QProcess>
#include <QSerialPort>
#include <QTemporaryDir>

#include <gtest/gtest.h>

namespace veltrin::test {
namespace {

const QByteArray kBanner = "\r\nGrbl 1.1h ['$' for help]\r\n";

// Reads until `count` copies of `marker` arrived, or the time is up; returns all it read.
QByteArray readUntil(QSerialPort& port, const QByteArray& marker, int count = 1,
                     int timeoutMs = 5000)
{
    QByteArray received;
    const QDeadlineTimer deadline(timeoutMs);
    while (received.count(marker) < count && !deadline.hasExpired()) {
        if (port.waitForReadyRead(50))
            received += port.readAll();
    }
    return received;
}

// Everything that arrives within ms.
QByteArray readFor(QSerialPort& port, int ms)
{
    QByteArray received;
    const QDeadlineTimer deadline(ms);
    while (!deadline.hasExpired()) {
        if (port.waitForReadyRead(int(std::max<qint64>(1, deadline.remainingTime()))))
            received += port.readAll();
    }
    return received;
}

bool openPort(QSerialPort& port, const QString& path)
{
    port.setPortName(path);
    port.setBaudRate(QSerialPort::Baud115200);
    return port.open(QIODevice::ReadWrite);
}

TEST(EmulatorPty, SerialPortGetsOneBannerPerOpeningAndAnAnswerPerLine)
{
    EmulatorProcess grbl({"--speed", "0", "--boot-ms", "100", "--factory-settings"});
    ASSERT_TRUE(grbl.start()) << grbl.errorText().toStdString();
    EXPECT_TRUE(grbl.portPath().startsWith("/dev/pts/")) << grbl.portPath().toStdString();

    for (int opening = 0; opening < 2; ++opening) {
        QSerialPort port;
        ASSERT_TRUE(openPort(port, grbl.portPath())) << port.errorString().toStdString();
        EXPECT_EQ(readFor(port, 400), kBanner) << "opening " << opening;
        port.write("G0 X1\r$$\r");
        const QByteArray answer = readUntil(port, "ok\r\n", 2);
        EXPECT_TRUE(answer.startsWith("ok\r\n$0=10\r\n$1=25\r\n")) << answer.toStdString();
        EXPECT_TRUE(answer.endsWith("$131=200.000\r\n$132=200.000\r\nok\r\n")) << answer.toStdString();
        port.write("?");
        EXPECT_EQ(readUntil(port, ">\r\n"), "<Idle|MPos:1.000,0.000,0.000|FS:0,0>\r\n");
        port.close();
    }
}

TEST(EmulatorPty, LinkRecordAndSplitRepliesWorkThroughThePort)
{
    QTemporaryDir dir;
    ASSERT_TRUE(dir.isValid());
    const QString link = dir.filePath("grbl");
    const QString record = dir.filePath("received.txt");
    EmulatorProcess grbl({"--speed", "0", "--boot-ms", "0", "--factory-settings", "--link", link,
                          "--record", record, "--split-replies", "--reply-delay-ms", "30"});
    ASSERT_TRUE(grbl.start()) << grbl.errorText().toStdString();

    QSerialPort port;
    ASSERT_TRUE(openPort(port, link)) << "through the symlink: " << port.errorString().toStdString();
    readUntil(port, kBanner);
    port.write("g0 x1 (first)\rG0 X\r");
    ASSERT_TRUE(port.waitForReadyRead(2000));
    const QByteArray first = port.readAll();
    EXPECT_EQ(first, "o") << "the first half comes alone";
    const QByteArray rest = first + readUntil(port, "error:2\r\n");
    EXPECT_EQ(rest, "ok\r\nerror:2\r\n");

    QFile file(record);
    ASSERT_TRUE(file.open(QIODevice::ReadOnly));
    EXPECT_EQ(file.readAll(), "g0 x1 (first)\nG0 X\n");

    grbl.stop();
    EXPECT_FALSE(QFile::exists(link)) << "the link goes with the emulator";
    EXPECT_EQ(grbl.exitCode(), 0);
}

TEST(EmulatorPty, HangUpFaultClosesThePortAndEndsTheEmulator)
{
    EmulatorProcess grbl({"--speed", "0", "--boot-ms", "0", "--factory-settings",
                          "--hangup-after", "1"});
    ASSERT_TRUE(grbl.start()) << grbl.errorText().toStdString();
    QSerialPort port;
    ASSERT_TRUE(openPort(port, grbl.portPath()));
    readUntil(port, kBanner);
    port.write("G0 X1\rG0 X2\r");
    EXPECT_EQ(readUntil(port, "ok\r\n"), "ok\r\n");
    EXPECT_TRUE(grbl.waitForExit(5000));
    EXPECT_EQ(grbl.exitCode(), 0);
    EXPECT_FALSE(QFile::exists(grbl.portPath()));
}

TEST(EmulatorPty, BadOptionsEndTheCommandWithAnExitCode)
{
    EmulatorProcess::ensureApplication();
    QProcess cli;
    cli.start(QStringLiteral(VELTRIN_CLI), {"emulate", "--error-at", "3"});
    ASSERT_TRUE(cli.waitForFinished(10000));
    EXPECT_EQ(cli.exitCode(), 2);
    cli.start(QStringLiteral(VELTRIN_CLI), {"emulate", "--record", "/nonexistent-folder/r.txt"});
    ASSERT_TRUE(cli.waitForFinished(10000));
    EXPECT_EQ(cli.exitCode(), 2);
    EXPECT_TRUE(cli.readAllStandardOutput().isEmpty());

    QTemporaryDir dir;
    const QString occupied = dir.filePath("ttyUSB0");
    QFile file(occupied);
    ASSERT_TRUE(file.open(QIODevice::WriteOnly));
    file.write("keep me");
    file.close();
    cli.start(QStringLiteral(VELTRIN_CLI), {"emulate", "--link", occupied});
    ASSERT_TRUE(cli.waitForFinished(10000));
    EXPECT_EQ(cli.exitCode(), 1) << "a link never replaces a real file";
    ASSERT_TRUE(file.open(QIODevice::ReadOnly));
    EXPECT_EQ(file.readAll(), "keep me");
}

}  // namespace
}  // namespace veltrin::test

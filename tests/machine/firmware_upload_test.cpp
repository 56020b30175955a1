// Flashing Grbl: avrdude's arguments per board, and the upload around it against the emulator's
// port, with a stand-in avrdude that records its arguments and talks like avrdude, and once
// with the real avrdude on a port where no boot loader answers.

#include <gtest/gtest.h>

#include <QCoreApplication>
#include <QElapsedTimer>
#include <QFile>
#include <QDir>
#include <QStandardPaths>
#include <QTemporaryDir>

#include <fstream>
#include <functional>
#include <unistd.h>

#include "app/app_state.h"
#include "app/grbl_link.h"
#include "machine/firmware_upload.h"
#include "machine/process_runner_qt.h"
#include "machine/serial_port_qt.h"
#include "support/emulator_process.h"
#include "support/wait_until.h"

namespace veltrin {
namespace {

using Lines = std::vector<std::string>;

TEST(FirmwareArguments, OnePerMenuEntryAndOnlyTheOldNanoAt57600)
{
    const std::string image = "/opt/Veltrin uploader/Veltrin_grblUpload.hex";
    for (const auto& [name, speed] : {std::pair{"uno", "115200"}, {"nano", "115200"}, {"nano-old", "57600"}}) {
        const auto board = boardByCliName(name);
        ASSERT_TRUE(board) << name;
        EXPECT_EQ(boardEntry(*board).speed, speed);
        EXPECT_EQ(avrdudeArguments(*board, "/dev/ttyUSB0", image),
                  (Lines{"-v", "-pm328p", "-carduino", "-P/dev/ttyUSB0", std::string("-b") + speed, "-D",
                         "-Uflash:w:" + image + ":i"}))
            << name;
    }
    EXPECT_FALSE(boardByCliName("mega"));
    EXPECT_EQ(firmwareImageCandidates({"/opt/veltrin/", "", "/usr/share/veltrin"}),
              (Lines{"/opt/veltrin/Veltrin_uploader/Binaire/Veltrin_grblUpload.hex",
                     "/usr/share/veltrin/Veltrin_uploader/Binaire/Veltrin_grblUpload.hex"}));
}

using testing::waitUntil;

class Host : public JobHost {
public:
    bool hasNextRoll() override { return false; }
    int rollGapMm() override { return 0; }
    std::optional<JobProgram> openNextRoll() override { return std::nullopt; }
    void askYesNo(std::string_view question, bool defaultYes, std::function<void(bool)> reply) override
    {
        questions.emplace_back(question);
        EXPECT_FALSE(defaultYes);
        reply(answer);
    }
    void showMessage(std::string_view text) override { messages.emplace_back(text); }
    void startBackwardFolds() override {}
    bool answer = true;
    Lines questions;
    Lines messages;
};

class UploadTest : public ::testing::Test {
protected:
    void SetUp() override
    {
        test::EmulatorProcess::ensureApplication();
        ASSERT_TRUE(dir.isValid());
        port = std::make_unique<MachinePort>(state);
        upload = std::make_unique<FirmwareUpload>(*port);
        upload->setHost(&host);
        upload->setImageFolders({dir.path()});
        QObject::connect(upload.get(), &FirmwareUpload::finished, [this](bool ok) { results.push_back(ok); });
        QObject::connect(port.get(), &MachinePort::detectionFinished, [this](bool) { ++detections; });
        // What the port and the link were while the stand-in ran.
        state.user_msg_list.setListener([this](std::string_view text) {
            if (text == "stand-in: writing flash")
                openWhileRunning = port->isOpen() || state.connecte;
        });
        // The stand-in avrdude: its arguments into a file, avrdude's kind of output on both
        // channels, and the exit status the test asks for.
        standIn = dir.filePath("avrdude-stand-in");
        std::ofstream(standIn.toStdString()) << "#!/bin/sh\n"
                                                "printf '%s\\n' \"$@\" > \"$STAND_IN_ARGS\"\n"
                                                "echo 'stand-in: writing flash'\n"
                                                "echo 'avrdude: 30 bytes of flash written' >&2\n"
                                                "exit \"${STAND_IN_EXIT:-0}\"\n";
        QFile::setPermissions(standIn, QFile::ReadOwner | QFile::WriteOwner | QFile::ExeOwner);
        upload->setProgram(standIn);
        qputenv("STAND_IN_ARGS", argsPath().toUtf8());
        qunsetenv("STAND_IN_EXIT");
    }
    void TearDown() override { state.user_msg_list.setListener({}); }

    QString argsPath() const { return dir.filePath("args.txt"); }
    QString image() const { return dir.filePath("Veltrin_uploader/Binaire/Veltrin_grblUpload.hex"); }
    void writeImage() const
    {
        QDir().mkpath(dir.filePath("Veltrin_uploader/Binaire"));
        std::ofstream(image().toStdString()) << ":00000001FF\n";
    }
    void connect()
    {
        emulator = std::make_unique<test::EmulatorProcess>(QStringList{"--speed", "0", "--boot-ms", "100"});
        ASSERT_TRUE(emulator->start()) << emulator->errorText().toStdString();
        ASSERT_TRUE(port->openPort(emulator->portPath()));
        ASSERT_TRUE(waitUntil([this] { return detections == 1; }, 8000));
    }
    Lines recordedArguments() const
    {
        std::ifstream file(argsPath().toStdString());
        Lines lines;
        for (std::string line; std::getline(file, line);)
            lines.push_back(line);
        return lines;
    }
    std::string log() const { return state.user_msg_list.text(); }
    std::size_t at(const std::string& text) const { return log().find(text); }

    QTemporaryDir dir;
    AppState state;
    Host host;
    std::unique_ptr<test::EmulatorProcess> emulator;
    std::unique_ptr<MachinePort> port;
    std::unique_ptr<FirmwareUpload> upload;
    QString standIn;
    std::vector<bool> results;
    int detections = 0;
    std::optional<bool> openWhileRunning;
};

// Yes: connexion_off, avrdude with its output in the log, its end in words, connexion_on; the
// same whether avrdude succeeds or fails.
TEST_F(UploadTest, YesLendsThePortToAvrdudeAndTakesItBack)
{
    writeImage();
    connect();
    const std::string location = port->portName().toStdString();
    for (const auto& [exitCode, outcome] : {std::pair{"0", "Upload done: Grbl is on the board"},
                                            {"3", "Upload failed: avrdude-stand-in ended with exit status 3"}}) {
        qputenv("STAND_IN_EXIT", exitCode);
        state.user_msg_list.clear();
        openWhileRunning.reset();
        upload->upload(GrblBoard::NanoOld);
        ASSERT_TRUE(waitUntil([&] { return results.size() == host.questions.size() && !port->link().detecting(); },
                              15000))
            << log();
        EXPECT_EQ(results.back(), std::string(exitCode) == "0");
        EXPECT_EQ(recordedArguments(), (Lines{"-v", "-pm328p", "-carduino", "-P" + location, "-b57600", "-D",
                                              "-Uflash:w:" + image().toStdString() + ":i"}));
        EXPECT_EQ(openWhileRunning, false) << "connexion_off before avrdude";
        EXPECT_TRUE(port->isOpen() && state.connecte) << "connexion_on after";
        Lines order = {"Waiting for uploading is finished", "stand-in: writing flash",
                       "avrdude: 30 bytes of flash written", outcome, "Select a midi file or enter a command"};
        for (std::size_t i = 1; i < order.size(); ++i)
            EXPECT_LT(at(order[i - 1]), at(order[i])) << order[i] << "\n" << log();
        EXPECT_NE(at(order.back()), std::string::npos) << log();
    }
    EXPECT_EQ(host.questions, (Lines{"Really want to re-flash firmware ?", "Really want to re-flash firmware ?"}));
}

TEST_F(UploadTest, NoBadPortAndNoImageRunNothing)
{
    // No image anywhere: told before any question.
    upload->upload(GrblBoard::Uno);
    ASSERT_EQ(host.messages.size(), 1u);
    EXPECT_NE(host.messages[0].find(image().toStdString()), std::string::npos) << host.messages[0];
    EXPECT_TRUE(host.questions.empty());

    // The port never opened: "Bad port number" after the question.
    writeImage();
    upload->upload(GrblBoard::Uno);
    EXPECT_EQ(host.messages.back(), "Bad port number");
    EXPECT_EQ(host.questions.size(), 1u);

    // No: the connection stays as it was.
    connect();
    host.answer = false;
    upload->upload(GrblBoard::Uno);
    EXPECT_FALSE(upload->running());
    EXPECT_TRUE(port->isOpen() && state.connecte);
    waitUntil([] { return false; }, 500);
    EXPECT_FALSE(QFile::exists(argsPath()));
    EXPECT_TRUE(results.empty());
    EXPECT_EQ(at("Waiting for uploading"), std::string::npos);
}

TEST_F(UploadTest, RealAvrdudeWithNoBootLoaderFailsCleanly)
{
    const QString avrdude = QStandardPaths::findExecutable(QStringLiteral("avrdude"));
    if (avrdude.isEmpty())
        GTEST_SKIP() << "avrdude is not installed";
    writeImage();
    connect();
    upload->setProgram(avrdude);
    upload->upload(GrblBoard::Uno);
    // avrdude tries ten times to get in sync with a boot loader, a few seconds each.
    ASSERT_TRUE(waitUntil([this] { return !results.empty() && detections == 2; }, 150000)) << log();
    EXPECT_FALSE(results[0]);
    EXPECT_NE(at("avrdude: Version"), std::string::npos) << log();
    EXPECT_NE(at("not in sync"), std::string::npos) << log();
    EXPECT_NE(at("Upload failed: avrdude ended with exit status 1"), std::string::npos) << log();
    EXPECT_TRUE(port->isOpen() && state.connecte);
}

}  // namespace
}  // namespace veltrin

// Lines per second that the sender streams to the Grbl emulator on a pseudo-terminal, with
// no motion time: the cost of the protocol alone (one line in flight, each released by its
// "ok"), through the same QSerialPort code as the application.
//   bench_stream [--benchmark_filter=...]

#include <benchmark/benchmark.h>

#include <QCoreApplication>
#include <QProcess>

#include <cstdio>
#include <memory>
#include <string>
#include <vector>

#include "app/app_state.h"
#include "machine/serial_port_qt.h"

namespace {

struct Rig {
    QProcess emulator;
    veltrin::AppState state;
    std::unique_ptr<veltrin::MachinePort> port;
    bool ready = false;
};

Rig* g_rig = nullptr;

bool startRig(Rig& rig)
{
    rig.emulator.start(QStringLiteral(VELTRIN_CLI),
                       {"emulate", "--speed", "0", "--boot-ms", "50", "--factory-settings", "--laser-mode", "1"});
    if (!rig.emulator.waitForReadyRead(10000))
        return false;
    const QString pty = QString::fromUtf8(rig.emulator.readLine()).trimmed();
    rig.port = std::make_unique<veltrin::MachinePort>(rig.state);
    bool detected = false;
    bool found = false;
    QObject::connect(rig.port.get(), &veltrin::MachinePort::detectionFinished, [&](bool f) {
        detected = true;
        found = f;
    });
    if (!rig.port->openPort(pty))
        return false;
    while (!detected)
        QCoreApplication::processEvents(QEventLoop::WaitForMoreEvents);
    return found;
}

std::vector<std::string> program(int lines)
{
    std::vector<std::string> out;
    out.reserve(static_cast<std::size_t>(lines));
    for (int i = 0; i < lines; ++i)
        out.push_back("G1 X" + std::to_string(6 + i % 50) + ".3 Y" + std::to_string(i) + ".25 F800 ;hole");
    return out;
}

void BM_StreamLines(benchmark::State& state)
{
    if (g_rig == nullptr || !g_rig->ready) {
        state.SkipWithError("no emulator");
        return;
    }
    const int lines = static_cast<int>(state.range(0));
    const auto lineTexts = program(lines);
    for (auto _ : state) {
        bool ended = false;
        veltrin::JobOutcome outcome{};
        const auto connection = QObject::connect(g_rig->port.get(), &veltrin::MachinePort::jobEnded,
                                                 [&](veltrin::JobOutcome o) {
                                                     ended = true;
                                                     outcome = o;
                                                 });
        veltrin::JobProgram job;
        job.lines = lineTexts;
        job.fileName = "bench.gcode";
        g_rig->state.user_msg_list.clear();
        g_rig->port->punch(std::move(job));
        while (!ended)
            QCoreApplication::processEvents(QEventLoop::WaitForMoreEvents);
        QObject::disconnect(connection);
        if (outcome != veltrin::JobOutcome::EndOfPunch) {
            state.SkipWithError("the job did not end well");
            return;
        }
    }
    state.SetItemsProcessed(state.iterations() * lines);
}
BENCHMARK(BM_StreamLines)->Arg(500)->Arg(5000)->Unit(benchmark::kMillisecond)->UseRealTime();

}  // namespace

int main(int argc, char** argv)
{
    int qtArgc = 1;
    char name[] = "bench_stream";
    char* qtArgv[] = {name, nullptr};
    QCoreApplication application(qtArgc, qtArgv);
    Rig rig;
    rig.ready = startRig(rig);
    if (!rig.ready)
        std::fprintf(stderr, "bench_stream: the emulator did not answer\n");
    g_rig = &rig;

    benchmark::Initialize(&argc, argv);
    benchmark::RunSpecifiedBenchmarks();
    benchmark::Shutdown();

    rig.port->closePort();
    rig.emulator.terminate();
    rig.emulator.waitForFinished(5000);
    return rig.ready ? 0 : 1;
}

// CPU cost per program byte of one G-code exchange, for programs of 10 KB to 1 MB. The answer
// arrives in polls of at most 200 bytes, so the cost of finding the markers in a growing answer
// shows up here; it should stay flat per byte as the program grows. Two sources: the controller
// simulator, unpaced, on a pseudo-terminal read through the host serial port, and an in-memory
// port that hands out the answer in 200-byte chunks (the exchange alone, without system calls).
#include "drv_dev_setting.h"
#include "hustgcodecontroller.h"
#include "partprogram.h"
#include "scriptedport.h"
#include "serialport.h"
#include "simulator.h"

#include <benchmark/benchmark.h>

#include <QList>

namespace {

QList<QByteArray> answerChunks(const QByteArray &text)
{
    const QByteArray answer = QByteArray("\x12%\r") + text + QByteArray("%\x14");
    QList<QByteArray> chunks;
    for (int i = 0; i < answer.size(); i += HustGCodeprotocol::PollSize)
        chunks.append(answer.mid(i, HustGCodeprotocol::PollSize));
    return chunks;
}

const QByteArray kRequestCurrent("\x12%\rO9012\rN10768\rD000003>:\r%\x14");

void countBytes(benchmark::State &state, int programSize)
{
    state.SetBytesProcessed(int64_t(state.iterations()) * programSize);
    state.counters["s_per_byte"] = benchmark::Counter(double(programSize),
                                                      benchmark::Counter::kIsIterationInvariantRate
                                                          | benchmark::Counter::kInvert);
}

void BM_GetGCodeFromSimulator(benchmark::State &state)
{
    const QByteArray text = partProgram(int(state.range(0)));
    hustsim::SimulatorConfig config;
    config.paced = false;
    hustsim::Simulator sim(config);
    sim.setProgram(QStringLiteral("O0001"), text);
    sim.setCurrentProgram(QStringLiteral("O0001"));
    if (!sim.start()) {
        state.SkipWithError(qPrintable(sim.errorString()));
        return;
    }
    SerialPort port(DeviceSetting(DEVICE_SERIAL, sim.devicePath(), 38400, 7, 2, 2),
                    DriverSetting(1000, 0, 0, 0));
    if (!port.open()) {
        state.SkipWithError(qPrintable(port.errorString()));
        return;
    }
    HustGCodeprotocol gcode;
    gcode.setReadInterface(&port);

    for (auto _ : state) {
        const QByteArray code = gcode.getGCode(kRequestCurrent);
        if (code.size() != text.size())
            state.SkipWithError("incomplete program");
        benchmark::DoNotOptimize(code.constData());
    }
    countBytes(state, text.size());
}

void BM_GetGCode(benchmark::State &state)
{
    const QByteArray text = partProgram(int(state.range(0)));
    const QList<QByteArray> chunks = answerChunks(text);
    ScriptedPort port;
    port.setResponder([&chunks](ScriptedPort &p, const QByteArray &) {
        for (const QByteArray &chunk : chunks)
            p.queueRead(chunk);
    });
    HustGCodeprotocol gcode;
    gcode.setReadInterface(&port);

    for (auto _ : state) {
        const QByteArray code = gcode.getGCode(kRequestCurrent);
        if (code.size() != text.size())
            state.SkipWithError("incomplete program");
        benchmark::DoNotOptimize(code.constData());
        state.PauseTiming();
        port.clearRecord();
        state.ResumeTiming();
    }
    state.SetBytesProcessed(int64_t(state.iterations()) * text.size());
    state.counters["s_per_byte"] = benchmark::Counter(double(text.size()),
                                                      benchmark::Counter::kIsIterationInvariantRate
                                                          | benchmark::Counter::kInvert);
}

} // namespace

BENCHMARK(BM_GetGCodeFromSimulator)
    ->Arg(10 * 1024)
    ->Arg(100 * 1024)
    ->Arg(1024 * 1024)
    ->Unit(benchmark::kMicrosecond);
BENCHMARK(BM_GetGCode)
    ->Arg(10 * 1024)
    ->Arg(100 * 1024)
    ->Arg(1024 * 1024)
    ->Unit(benchmark::kMicrosecond);

BENCHMARK_MAIN();

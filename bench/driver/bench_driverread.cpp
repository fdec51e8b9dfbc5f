// Latency of a register read answered from a warm cache, for loop-read lists of 1, 10 and 99
// double words. The worker is kept idle so that only the driver's own work is measured.
#include "driverhushcncreaderthread.h"
#include "drivertestaccess.h"
#include "scriptedport.h"

#include <QCoreApplication>

#include <benchmark/benchmark.h>

namespace {

// A driver whose worker streams `size` double words into a warm cache, and the reads of a screen
// that shows each of them.
struct WarmDriver
{
    ScriptedPort port;
    DriverHushCNC driver;
    QVector<CommunicatorCommand> commands;

    explicit WarmDriver(int size)
    {
        // Starts the worker once, with the port's delay 0.
        driver.write(&port,
                     CommunicatorCommand(CommunicatorCommand::BitType, 1,
                                         QStringLiteral("WriteBitDirectDisable0")),
                     QByteArray(1, 0));
        QStringList list;
        for (int i = 0; i < size; ++i) {
            list << QString::asprintf("d%05d", i);
            commands.append(CommunicatorCommand(CommunicatorCommand::DWordType, 1,
                                                QStringLiteral("DW%1").arg(i)));
        }
        DriverHushCNCTestAccess access(driver);
        access.setStreaming(list, QByteArray(4 * size, '\x5a'));
        // A worker that seems busy is never asked for a cycle.
        access.worker()->m_isLoopReading = true;
    }
};

void BM_ReadFromWarmCache(benchmark::State &state)
{
    WarmDriver warm(int(state.range(0)));
    int next = 0;
    for (auto _ : state) {
        const QByteArray data = warm.driver.read(&warm.port, warm.commands.at(next));
        benchmark::DoNotOptimize(data);
        if (data.size() != 4)
            state.SkipWithError("no data from the cache");
        next = (next + 1) % warm.commands.size();
    }
}

} // namespace

BENCHMARK(BM_ReadFromWarmCache)
    ->Arg(1)
    ->Arg(10)
    ->Arg(99)
    ->Unit(benchmark::kNanosecond)
    ->Repetitions(5)
    ->ReportAggregatesOnly(true);

// With "--calls SIZE COUNT" the program makes COUNT reads from a warm cache of SIZE double words
// and nothing else, for counting instructions per read under callgrind
// (--toggle-collect='DriverHushCNC::read*').
int main(int argc, char **argv)
{
    QCoreApplication app(argc, argv);
    app.setProperty("zel_env", true);
    if (argc == 4 && qstrcmp(argv[1], "--calls") == 0) {
        WarmDriver warm(atoi(argv[2]));
        const int count = atoi(argv[3]);
        int bytes = 0;
        for (int i = 0; i < count; ++i)
            bytes
                += warm.driver.read(&warm.port, warm.commands.at(i % warm.commands.size())).size();
        return bytes == 4 * count ? 0 : 1;
    }
    benchmark::Initialize(&argc, argv);
    benchmark::RunSpecifiedBenchmarks();
    benchmark::Shutdown();
    return 0;
}

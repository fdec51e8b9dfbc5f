// Latency of a register read answered from a warm cache, for loop-read lists of 1, 10 and 99
// double words. The worker is kept idle so that only the driver's own work is measured.
#include "driverhushcncreaderthread.h"
#include "hush_cnc.h"
#include "scriptedport.h"

#include <QCoreApplication>
#include <QMutexLocker>

#include <benchmark/benchmark.h>

class DriverHushCNCTestAccess
{
public:
    static void warmCache(DriverHushCNC &driver, int size)
    {
        QStringList list;
        for (int i = 0; i < size; ++i)
            list << QString::asprintf("d%05d", i);
        {
            QMutexLocker lock(&driver.m_addrListMutex);
            driver.m_currentAddrList = list;
        }
        {
            QMutexLocker lock(&driver.m_blockDataMutex);
            driver.m_currentBlockData = QByteArray(4 * size, '\x5a');
        }
        driver.isStartLoopRead = true;
        driver.m_readerWriter->m_isLoopReading = true;
    }
};

static void BM_ReadFromWarmCache(benchmark::State &state)
{
    const int size = int(state.range(0));
    ScriptedPort port;
    DriverHushCNC driver;
    // Starts the worker once, with the port's delay 0.
    driver.write(&port,
                 CommunicatorCommand(CommunicatorCommand::BitType, 1,
                                     QStringLiteral("WriteBitDirectDisable0")),
                 QByteArray(1, 0));
    DriverHushCNCTestAccess::warmCache(driver, size);
    QVector<CommunicatorCommand> commands;
    for (int i = 0; i < size; ++i)
        commands.append(
            CommunicatorCommand(CommunicatorCommand::DWordType, 1, QStringLiteral("DW%1").arg(i)));
    int next = 0;
    for (auto _ : state) {
        const QByteArray data = driver.read(&port, commands.at(next));
        benchmark::DoNotOptimize(data);
        if (data.size() != 4)
            state.SkipWithError("no data from the cache");
        next = (next + 1) % size;
    }
}
BENCHMARK(BM_ReadFromWarmCache)
    ->Arg(1)
    ->Arg(10)
    ->Arg(99)
    ->Unit(benchmark::kNanosecond)
    ->Repetitions(5)
    ->ReportAggregatesOnly(true);

int main(int argc, char **argv)
{
    QCoreApplication app(argc, argv);
    app.setProperty("zel_env", true);
    benchmark::Initialize(&argc, argv);
    benchmark::RunSpecifiedBenchmarks();
    benchmark::Shutdown();
    return 0;
}

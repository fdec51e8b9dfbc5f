#include "options.h"
#include "simulator.h"

#include <QFile>

#include <cerrno>
#include <cstdio>
#include <ctime>

#include <signal.h>

using namespace hustsim;

namespace {

int usageError(const QString &reason)
{
    fprintf(stderr, "hust-sim: %s\n", qPrintable(cli::oneLine(reason)));
    return 2;
}

void announce(const char *what, const QString &path)
{
    printf("%s %s\n", what, qPrintable(path));
    fflush(stdout);
}

// A timed link fault still to come, relative to the start.
struct Pending
{
    TimedFault fault;
    bool hangup;
};

} // namespace

int main(int argc, char **argv)
{
    QStringList args;
    for (int i = 1; i < argc; ++i)
        args.append(QString::fromLocal8Bit(argv[i]));
    CommandLine commandLine;
    QString reason;
    if (!parseCommandLine(args, &commandLine, &reason))
        return usageError(reason);
    if (commandLine.version) {
        printf("hust-sim %s\n", qPrintable(hustSimTool().version));
        return 0;
    }
    if (commandLine.help) {
        printf("%s", qPrintable(cli::helpText(hustSimTool())));
        return 0;
    }
    QList<QPair<int, quint32>> seeds;
    if (!commandLine.registersFile.isEmpty()
        && !loadRegisterFile(commandLine.registersFile, &seeds, &reason))
        return usageError(reason);
    seeds.append(commandLine.registers);

    Simulator simulator(commandLine.config);
    for (const auto &seed : seeds)
        simulator.setRegister(seed.first, seed.second);
    if (!commandLine.programsDir.isEmpty()
        && !simulator.loadPrograms(commandLine.programsDir, &reason))
        return usageError(reason);
    if (!commandLine.currentProgram.isEmpty()
        && !simulator.setCurrentProgram(commandLine.currentProgram))
        return usageError(QStringLiteral("no program named %1").arg(commandLine.currentProgram));

    QFile log;
    if (!commandLine.logFile.isEmpty()) {
        log.setFileName(commandLine.logFile);
        if (!log.open(QIODevice::WriteOnly | QIODevice::Truncate))
            return usageError(
                QStringLiteral("cannot write %1: %2").arg(commandLine.logFile, log.errorString()));
        simulator.setFrameHandler([&log](const RecordedFrame &frame) {
            log.write(frameToJsonLine(frame) + '\n');
            log.flush();
        });
    }
    const bool pty = commandLine.config.device.isEmpty();
    simulator.setDevicePathChangedHandler([](const QString &path) { announce("PTY", path); });

    // Block the stop signals before the I/O thread starts, so that only sigtimedwait sees them.
    sigset_t stopSignals;
    sigemptyset(&stopSignals);
    sigaddset(&stopSignals, SIGINT);
    sigaddset(&stopSignals, SIGTERM);
    pthread_sigmask(SIG_BLOCK, &stopSignals, nullptr);

    if (!simulator.start()) {
        fprintf(stderr, "hust-sim: %s\n", qPrintable(simulator.errorString()));
        return 1;
    }
    announce(pty ? "PTY" : "DEVICE", simulator.devicePath());

    QList<Pending> pending;
    if (commandLine.cablePull.afterMs >= 0)
        pending.append({commandLine.cablePull, false});
    if (commandLine.hangup.afterMs >= 0)
        pending.append({commandLine.hangup, true});
    timespec started {};
    clock_gettime(CLOCK_MONOTONIC, &started);
    for (;;) {
        timespec now {};
        clock_gettime(CLOCK_MONOTONIC, &now);
        const qint64 elapsedMs
            = (now.tv_sec - started.tv_sec) * 1000 + (now.tv_nsec - started.tv_nsec) / 1'000'000;
        qint64 waitMs = 1000;
        for (int i = pending.size() - 1; i >= 0; --i) {
            const Pending &p = pending.at(i);
            if (elapsedMs >= p.fault.afterMs) {
                if (p.hangup)
                    simulator.hangup(p.fault.forMs);
                else
                    simulator.pullCable(p.fault.forMs);
                pending.removeAt(i);
            } else {
                waitMs = std::min(waitMs, p.fault.afterMs - elapsedMs);
            }
        }
        const timespec timeout {time_t(waitMs / 1000), long(waitMs % 1000) * 1'000'000};
        const int signal = sigtimedwait(&stopSignals, nullptr, &timeout);
        if (signal == SIGINT || signal == SIGTERM)
            break;
    }
    simulator.stop();
    return 0;
}

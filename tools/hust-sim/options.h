#ifndef HUSTSIM_OPTIONS_H
#define HUSTSIM_OPTIONS_H

#include "commandline.h"
#include "simulator.h"

#include <QList>
#include <QPair>
#include <QString>
#include <QStringList>

namespace hustsim {

// A timed link fault of the command line: after `afterMs`, down for `forMs`.
struct TimedFault
{
    int afterMs = -1; // -1: not requested
    int forMs = 0;
};

struct CommandLine
{
    SimulatorConfig config;
    QList<QPair<int, quint32>> registers;
    QString registersFile;
    QString programsDir;
    QString currentProgram;
    QString logFile;
    TimedFault cablePull;
    TimedFault hangup;
    bool help = false;
    bool version = false;
};

// Parses the arguments (without the program name). False with a one-line reason on a usage error.
bool parseCommandLine(const QStringList &args, CommandLine *out, QString *reason);

// Reads a JSON object {"index": value, ...}; values are numbers or decimal/0x texts.
bool loadRegisterFile(const QString &path, QList<QPair<int, quint32>> *seeds, QString *reason);

// hust-sim's options, for its help.
const cli::Tool &hustSimTool();

} // namespace hustsim

#endif // HUSTSIM_OPTIONS_H

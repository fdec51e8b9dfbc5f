#ifndef HUSTSIM_OPTIONS_H
#define HUSTSIM_OPTIONS_H

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
};

// Parses the arguments (without the program name). False with a one-line reason on a usage error.
bool parseCommandLine(const QStringList &args, CommandLine *out, QString *reason);

// Parses "N=V": a double-word index 0..99999 and a 32-bit value in decimal or 0x hexadecimal.
bool parseRegisterSeed(const QString &text, QPair<int, quint32> *seed, QString *reason);

// Reads a JSON object {"index": value, ...}; values are numbers or decimal/0x texts.
bool loadRegisterFile(const QString &path, QList<QPair<int, quint32>> *seeds, QString *reason);

QString usageText();

} // namespace hustsim

#endif // HUSTSIM_OPTIONS_H

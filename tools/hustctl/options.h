#ifndef HUSTCTL_OPTIONS_H
#define HUSTCTL_OPTIONS_H

#include "addressing.h"
#include "commandline.h"

#include <QList>
#include <QPair>
#include <QString>
#include <QStringList>

// Serial line and simulator settings. Unset numbers (-1) take the driver's defaults.
struct LinkOptions
{
    QString device; // empty: the built-in simulator
    int baud = 38400;
    int dataBits = 7;
    int stopBits = 2;
    QString parity = QStringLiteral("even");
    int delayMs = -1;
    int retry = -1;
    bool pace = true;
    bool trace = false; // every frame on standard error
    QList<QPair<int, quint32>> simRegisters;
    QString simPrograms; // program directory for the simulator; empty: one sample program
    int simClock = -1; // double word where the simulator keeps its clock; -1: none
};

// Everything on the command line, checked: options, the command and what it works on.
struct CtlOptions
{
    QString pluginPath;
    LinkOptions link;
    int timeoutMs = 5000;
    bool timeoutGiven = false;
    bool json = false;
    bool help = false;
    bool version = false;

    QString command;
    QStringList arguments;

    // read, write and watch: the addresses with their types and counts; watch: the keys as given.
    QList<Target> targets;
    QStringList keys;
    QList<quint32> values; // write
    bool noVerify = false; // write
    int intervalMs = 500; // watch
    int refreshes = -1; // watch; -1: until Ctrl-C
    bool put = false; // gcode put (otherwise get)
    QString programFile; // gcode put
    bool allPrograms = false; // gcode get --all
    QString outputPath; // gcode get -o
    bool burn = false; // gcode put --burn
};

// hustctl's commands and options.
const cli::Tool &hustctlTool();

// Parses argv (without the program name) and checks every address and value, without touching a
// file or the line. False with a one-line reason on a usage error.
bool parseOptions(const QStringList &args, CtlOptions *options, QString *reason);

#endif // HUSTCTL_OPTIONS_H

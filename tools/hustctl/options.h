#ifndef HUSTCTL_OPTIONS_H
#define HUSTCTL_OPTIONS_H

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
    QList<QPair<int, quint32>> simRegisters;
    QString simPrograms; // program directory for the simulator; empty: one sample program
};

// Everything on the command line, options taken wherever they stand around the command word.
struct CtlOptions
{
    QString pluginPath;
    LinkOptions link;
    int timeoutMs = 5000;
    bool timeoutGiven = false;
    bool json = false;
    bool help = false;

    QString command;
    QStringList arguments;

    // Command options; empty or -1 when not given.
    QString type;
    int count = -1;
    int intervalMs = -1;
    int refreshes = -1;
    bool allPrograms = false; // gcode get --all
    QString outputPath; // gcode get -o
    bool burn = false; // gcode put --burn
};

// Parses argv (without the program name). Returns false with a one-line reason on a usage error.
bool parseOptions(const QStringList &args, CtlOptions *options, QString *reason);

// Parses "N=V" of --sim-set: N a double-word index, V a 32-bit value (decimal or 0x hex).
bool parseRegisterSeed(const QString &text, QPair<int, quint32> *seed, QString *reason);

QString usageText();

#endif // HUSTCTL_OPTIONS_H

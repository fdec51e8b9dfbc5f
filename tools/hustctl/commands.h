#ifndef HUSTCTL_COMMANDS_H
#define HUSTCTL_COMMANDS_H

#include "addressing.h"
#include "command.h"

#include <QList>
#include <QStringList>

// Identity and default settings of the plug-in.
class InfoCommand : public Command
{
public:
    bool needsLink() const override { return false; }
    bool prepare(CtlOptions &, QString *) override { return true; }
    int run(CommandEnv &env) override;
};

// The serial devices of the machine with their stable names.
class PortsCommand : public Command
{
public:
    bool needsLink() const override { return false; }
    bool needsDriver() const override { return false; }
    bool prepare(CtlOptions &, QString *) override { return true; }
    int run(CommandEnv &env) override;
};

// read ADDRESS[:TYPE]... [-t TYPE] [-c COUNT]
class ReadCommand : public Command
{
public:
    bool prepare(CtlOptions &, QString *) override { return true; }
    int run(CommandEnv &env) override;
};

// write ADDRESS VALUE... [-t TYPE] [--no-verify], confirmed by reading the values back.
class WriteCommand : public Command
{
public:
    bool prepare(CtlOptions &options, QString *reason) override;
    int run(CommandEnv &env) override;

private:
    Target m_target;
    QList<quint32> m_values;
    DriverRequest m_request;
};

// watch ADDRESS[:TYPE]... [-l MS] [-n REFRESHES]: a live table like a panel screen.
class WatchCommand : public Command
{
public:
    bool mayShowNotices() const override { return m_doubleWords > kMaxDoubleWordsPerRequest; }
    bool prepare(CtlOptions &options, QString *reason) override;
    int run(CommandEnv &env) override;

private:
    // A screen beyond one request: the driver refuses its reads and reports the count.
    int reportOverflow(CommandEnv &env);

    QStringList m_keys;
    QList<Target> m_targets;
    int m_doubleWords = 0;
};

// A screen of registers and bits on the built-in simulator, written to and read again, then
// measured as a panel polls it.
class DemoCommand : public Command
{
public:
    bool prepare(CtlOptions &options, QString *reason) override;
    int run(CommandEnv &env) override;

private:
    QList<Target> m_screen;
    Target m_clock; // the simulator's clock, read with the screen to tell the data's age
};

// gcode get [--all] [-o FILE] | gcode put FILE [--burn]: part programs moved through the driver's
// G-code keys, as a panel screen moves them.
class GCodeCommand : public Command
{
public:
    // How long a transfer may take when --timeout is not given.
    static constexpr int kDefaultTransferTimeoutMs = 300000;

    bool prepare(CtlOptions &options, QString *reason) override;
    int run(CommandEnv &env) override;

private:
    int get(CommandEnv &env);
    int put(CommandEnv &env);

    bool m_put = false;
    QByteArray m_program; // put: the checked program text
    int m_timeoutMs = kDefaultTransferTimeoutMs;
};

#endif // HUSTCTL_COMMANDS_H

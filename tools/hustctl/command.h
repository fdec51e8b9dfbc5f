#ifndef HUSTCTL_COMMAND_H
#define HUSTCTL_COMMAND_H

#include "options.h"

#include <QString>
#include <QTextStream>

#include <memory>

class DriverHost;
class DriverInterface;

// What a command runs with: the loaded driver, the host that calls it over the open link (null
// for commands that need no link) and the console.
struct CommandEnv
{
    const CtlOptions &options;
    DriverInterface *driver;
    DriverHost *host;
    QTextStream &out;
    QTextStream &err;
    QString pluginFile; // the driver plug-in's path
};

// One command word of hustctl. prepare() checks the arguments before anything is opened or sent;
// run() does the work and returns the exit status.
class Command
{
public:
    virtual ~Command() = default;

    // Null for an unknown name.
    static std::unique_ptr<Command> create(const QString &name);

    // Whether run() talks to the controller (opens the link and starts the driver's worker).
    virtual bool needsLink() const { return true; }
    // Whether run() needs the driver plug-in at all.
    virtual bool needsDriver() const { return true; }
    // Whether run() may put the driver's notices on a panel (hustctl then runs as a widget
    // application when a display is available).
    virtual bool mayShowNotices() const { return false; }
    // May add simulator seeds to the link options. False with a one-line reason on a usage error.
    virtual bool prepare(CtlOptions &options, QString *reason) = 0;
    virtual int run(CommandEnv &env) = 0;
};

// Prints "hustctl: <message>" on the error stream and returns 1; with --json, the object
// {"error": "<message>"} on standard output instead.
int fail(QTextStream &err, const QString &message);
// The same with exit status 2, for a usage error.
int usage(QTextStream &err, const QString &message);
// From now on errors go to out as JSON objects.
void reportErrorsAsJson(QTextStream *out);

#endif // HUSTCTL_COMMAND_H

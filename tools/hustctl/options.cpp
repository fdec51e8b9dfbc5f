#include "options.h"

#include "sharedoptions.h"

namespace {

using cli::Command;
using cli::Option;
using cli::Parsed;

const Option kType {QStringLiteral("type"),
                    QLatin1Char('t'),
                    QStringLiteral("TYPE"),
                    QStringLiteral("bit, word, dword, int (signed), hex or float (the IEEE 754\n"
                                   "single in a double word); ADDRESS:TYPE sets one address's"),
                    {}};

// Each command's checks of its own options and arguments, beside its entry in the table below.
using Check = bool (*)(const Parsed &, CtlOptions *, QString *);

// ADDRESS[:TYPE] with -t as the default type.
bool parseTargets(const Parsed &p, int count, CtlOptions *o, QString *reason)
{
    for (const QString &argument : p.arguments) {
        const int colon = argument.indexOf(QLatin1Char(':'));
        const QString type = colon < 0 ? p.value(kType.name) : argument.mid(colon + 1);
        if (colon >= 0 && type.isEmpty()) {
            *reason = QStringLiteral("%1: no type after the colon").arg(argument);
            return false;
        }
        Target target;
        if (!Target::parse(colon < 0 ? argument : argument.left(colon), type, count, &target,
                           reason))
            return false;
        o->targets << target;
        o->keys << argument;
    }
    return true;
}

bool noCheck(const Parsed &, CtlOptions *, QString *)
{
    return true;
}

bool checkRead(const Parsed &p, CtlOptions *o, QString *reason)
{
    int count = 1;
    return cli::readInt(p, QStringLiteral("count"), 1, kLastDoubleWord + 1, &count, reason)
        && parseTargets(p, count, o, reason);
}

bool checkWrite(const Parsed &p, CtlOptions *o, QString *reason)
{
    const QStringList valueTexts = p.arguments.mid(1);
    Target target;
    if (!Target::parse(p.arguments.first(), p.value(kType.name), valueTexts.size(), &target,
                       reason))
        return false;
    for (const QString &text : valueTexts) {
        quint32 value = 0;
        if (!parseValue(text, target, &value, reason))
            return false;
        o->values << value;
    }
    DriverRequest request;
    if (!target.writeRequest(o->values, &request, reason))
        return false;
    o->targets << target;
    o->keys << target.text();
    o->noVerify = p.isSet(QStringLiteral("no-verify"));
    return true;
}

bool checkWatch(const Parsed &p, CtlOptions *o, QString *reason)
{
    return cli::readInt(p, QStringLiteral("interval"), 10, 3600000, &o->intervalMs, reason)
        && cli::readInt(p, QStringLiteral("refreshes"), 1, 1000000000, &o->refreshes, reason)
        && parseTargets(p, 1, o, reason);
}

bool checkGCode(const Parsed &p, CtlOptions *o, QString *reason)
{
    const QString action = p.arguments.first();
    o->allPrograms = p.isSet(QStringLiteral("all"));
    o->outputPath = p.value(QStringLiteral("output"));
    o->burn = p.isSet(QStringLiteral("burn"));
    if (p.isSet(QStringLiteral("output")) && o->outputPath.isEmpty()) {
        *reason = QStringLiteral("--output needs a file name");
        return false;
    }
    if (action == QLatin1String("get")) {
        if (p.arguments.size() > 1) {
            *reason = QStringLiteral("gcode get takes no file (\"%1\"); use -o FILE")
                          .arg(p.arguments.at(1));
            return false;
        }
        if (o->burn) {
            *reason = QStringLiteral("--burn applies to gcode put");
            return false;
        }
        return true;
    }
    if (action != QLatin1String("put")) {
        *reason = QStringLiteral("gcode: \"%1\" is neither get nor put").arg(action);
        return false;
    }
    if (p.arguments.size() != 2) {
        *reason = QStringLiteral("gcode put takes one program file");
        return false;
    }
    if (o->allPrograms || p.isSet(QStringLiteral("output"))) {
        *reason = QStringLiteral("%1 applies to gcode get")
                      .arg(o->allPrograms ? QStringLiteral("--all") : QStringLiteral("--output"));
        return false;
    }
    o->put = true;
    o->programFile = p.arguments.at(1);
    return true;
}

struct Entry
{
    Command command;
    Check check;
};

const QList<Entry> &entries()
{
    static const QList<Entry> table {
        {{QStringLiteral("info"),
          QString(),
          QStringLiteral("the driver's identity and the line settings this command line gives"),
          0,
          0,
          {},
          {QStringLiteral("info"), QStringLiteral("--json -p /dev/ttyUSB0 -b 9600 info")}},
         noCheck},
        {{QStringLiteral("ports"),
          QString(),
          QStringLiteral("the serial devices of this machine, with their stable names"),
          0,
          0,
          {},
          {QStringLiteral("ports")}},
         noCheck},
        {{QStringLiteral("demo"),
          QString(),
          QStringLiteral("a screen on the built-in simulator: read, write, read again, measure"),
          0,
          0,
          {},
          {QStringLiteral("demo")}},
         noCheck},
        {{QStringLiteral("read"),
          QStringLiteral("ADDRESS[:TYPE]..."),
          QStringLiteral("read registers and bits once"),
          1,
          -1,
          {kType,
           {QStringLiteral("count"),
            QLatin1Char('c'),
            QStringLiteral("N"),
            QStringLiteral("consecutive values from each address (1)"),
            {}}},
          {QStringLiteral("read DW100 -c2"), QStringLiteral("read DW101:int B10.3 I5"),
           QStringLiteral("-p /dev/ttyUSB0 --json read DW200 -t float")}},
         checkRead},
        {{QStringLiteral("write"),
          QStringLiteral("ADDRESS VALUE..."),
          QStringLiteral("write a B bit or double words (several values fill consecutive ones),\n"
                         "then read them back"),
          2,
          -1,
          {kType,
           {QStringLiteral("no-verify"),
            QChar(),
            QString(),
            QStringLiteral("do not wait for the values to read back (for registers the\n"
                           "controller changes by itself)"),
            {}}},
          {QStringLiteral("write B10.3 1"), QStringLiteral("write DW101 -t int -- -8"),
           QStringLiteral("write DW200 -t float 1.5"), QStringLiteral("write DW0 0 --no-verify")}},
         checkWrite},
        {{QStringLiteral("watch"),
          QStringLiteral("ADDRESS[:TYPE]..."),
          QStringLiteral("a live screen of values; stale ones are marked with the driver's error"),
          1,
          -1,
          {kType,
           {QStringLiteral("interval"),
            QLatin1Char('l'),
            QStringLiteral("MS"),
            QStringLiteral("time between refreshes (500)"),
            {}},
           {QStringLiteral("refreshes"),
            QLatin1Char('n'),
            QStringLiteral("N"),
            QStringLiteral("stop after N refreshes (default: at Ctrl-C)"),
            {}}},
          {QStringLiteral("watch DW100 I5 B10.3 -l 200"),
           QStringLiteral("-p /dev/ttyUSB0 --json watch DW0 DW100:int -n 20")}},
         checkWatch},
        {{QStringLiteral("gcode"),
          QStringLiteral("get|put [FILE]"),
          QStringLiteral("move part programs: get the current (or every) one, put FILE"),
          1,
          2,
          {{QStringLiteral("all"), QChar(), QString(), QStringLiteral("get: every program"), {}},
           {QStringLiteral("output"),
            QLatin1Char('o'),
            QStringLiteral("FILE"),
            QStringLiteral("get: write the program to FILE (standard output)"),
            {}},
           {QStringLiteral("burn"),
            QChar(),
            QString(),
            QStringLiteral("put: have the controller store the program"),
            {}}},
          {QStringLiteral("gcode get -o current.nc"), QStringLiteral("gcode get --all"),
           QStringLiteral("-p /dev/ttyUSB0 gcode put part.nc --burn")}},
         checkGCode},
    };
    return table;
}

bool parseGlobal(const Parsed &p, CtlOptions *o, QString *reason)
{
    if (!cli::readLineOptions(p, &o->link.device, &o->link.baud, &o->link.dataBits,
                              &o->link.stopBits, &o->link.parity, reason)
        || !cli::readSimulatorOptions(p, &o->link.simRegisters, &o->link.simPrograms, &o->link.pace,
                                      reason))
        return false;
    if (!cli::readInt(p, QStringLiteral("delay"), 0, 60000, &o->link.delayMs, reason)
        || !cli::readInt(p, QStringLiteral("retry"), 0, 100, &o->link.retry, reason)
        || !cli::readInt(p, QStringLiteral("timeout"), 1, 3600000, &o->timeoutMs, reason))
        return false;
    o->timeoutGiven = p.isSet(QStringLiteral("timeout"));
    o->json = p.isSet(QStringLiteral("json"));
    o->link.trace = p.isSet(QStringLiteral("trace"));
    o->pluginPath = p.value(QStringLiteral("plugin"));
    if (!o->link.device.isEmpty()
        && (!o->link.simRegisters.isEmpty() || !o->link.simPrograms.isEmpty() || !o->link.pace)) {
        *reason = QStringLiteral("--sim-set, --sim-programs and --no-pace apply to the built-in "
                                 "simulator, not to --port");
        return false;
    }
    return true;
}

} // namespace

const cli::Tool &hustctlTool()
{
    static const cli::Tool tool = [] {
        cli::Tool t;
        t.name = QStringLiteral("hustctl");
        t.version = QStringLiteral(HUST_VERSION);
        t.summary = QStringLiteral(
            "Reads, writes and watches a Hust CNC controller's registers and moves its part\n"
            "programs through the panel driver plug-in, on a serial device or, without --port,\n"
            "on a built-in controller simulator.");
        t.options = cli::lineOptions(
                        QStringLiteral("the serial device (default: the built-in simulator)"))
            + cli::simulatorOptions();
        t.options += {
            {QStringLiteral("delay"),
             QChar(),
             QStringLiteral("MS"),
             QStringLiteral("pause before each request (driver default)"),
             {}},
            {QStringLiteral("retry"),
             QChar(),
             QStringLiteral("N"),
             QStringLiteral("the driver's read retries (driver default)"),
             {}},
            {QStringLiteral("timeout"),
             QChar(),
             QStringLiteral("MS"),
             QStringLiteral("the whole wait for data, retries included (5000;\n"
                            "gcode: for the transfer, 300000)"),
             {}},
            {QStringLiteral("json"),
             QChar(),
             QString(),
             QStringLiteral("one JSON object per line, errors included"),
             {}},
            {QStringLiteral("trace"),
             QChar(),
             QString(),
             QStringLiteral("every frame sent (>) and received (<) on standard error"),
             {}},
            {QStringLiteral("plugin"),
             QChar(),
             QStringLiteral("PATH"),
             QStringLiteral("the driver plug-in (default: $HUSTCTL_PLUGIN, else the one\n"
                            "installed beside this program)"),
             {}},
        };
        for (const Entry &e : entries())
            t.commands << e.command;
        t.epilogue = QStringLiteral(
            "addresses: DW<n> and B<n> double words (n 0-99999), B<n>.<bit> (bit 0-31),\n"
            "  I<n> O<n> C<n> S<n> A<n> controller bits (n 0-255)\n"
            "diagnostics: QT_LOGGING_RULES=\"hust.*=true\" hustctl ...\n"
            "exit status: 0 success, 1 driver or line error or no data in time, 2 usage error\n");
        return t;
    }();
    return tool;
}

bool parseOptions(const QStringList &args, CtlOptions *o, QString *reason)
{
    Parsed p;
    if (!cli::parse(hustctlTool(), args, &p, reason))
        return false;
    o->help = p.help;
    o->version = p.version;
    o->command = p.command;
    o->arguments = p.arguments;
    if (o->help || o->version)
        return true;
    if (!parseGlobal(p, o, reason))
        return false;
    for (const Entry &e : entries()) {
        if (e.command.name == o->command)
            return e.check(p, o, reason);
    }
    return false;
}

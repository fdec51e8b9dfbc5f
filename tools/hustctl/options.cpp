#include "options.h"

#include "addressing.h"

#include <QSet>

namespace {

const QStringList kCommands
    = {QStringLiteral("info"),  QStringLiteral("demo"),  QStringLiteral("read"),
       QStringLiteral("write"), QStringLiteral("watch"), QStringLiteral("gcode")};

// A leading minus followed by a digit is a negative value, not an option.
bool looksLikeOption(const QString &arg)
{
    return arg.size() > 1 && arg.at(0) == QLatin1Char('-') && !arg.at(1).isDigit();
}

bool toInt(const QString &name, const QString &text, int low, int high, int *value, QString *reason)
{
    bool ok = false;
    const int v = text.toInt(&ok, 10);
    if (!ok || v < low || v > high) {
        *reason = QStringLiteral("%1: \"%2\" is not a number from %3 to %4")
                      .arg(name, text)
                      .arg(low)
                      .arg(high);
        return false;
    }
    *value = v;
    return true;
}

// Which command accepts which command option.
bool optionFits(const QString &option, const QString &command)
{
    if (option == QLatin1String("-t"))
        return command == QLatin1String("read") || command == QLatin1String("write");
    if (option == QLatin1String("-c"))
        return command == QLatin1String("read");
    if (option == QLatin1String("--all") || option == QLatin1String("-o")
        || option == QLatin1String("--burn"))
        return command == QLatin1String("gcode");
    return command == QLatin1String("watch"); // -l and -n
}

} // namespace

bool parseRegisterSeed(const QString &text, QPair<int, quint32> *seed, QString *reason)
{
    const int eq = text.indexOf(QLatin1Char('='));
    bool ok = false;
    const int index = eq > 0 ? text.left(eq).toInt(&ok, 10) : -1;
    if (!ok || index < 0 || index > kLastDoubleWord) {
        *reason = QStringLiteral("--sim-set: \"%1\" is not N=VALUE with N from 0 to %2")
                      .arg(text)
                      .arg(kLastDoubleWord);
        return false;
    }
    quint32 value = 0;
    if (!parseValue32(text.mid(eq + 1), &value, reason)) {
        *reason = QStringLiteral("--sim-set: ") + *reason;
        return false;
    }
    *seed = qMakePair(index, value);
    return true;
}

bool parseOptions(const QStringList &args, CtlOptions *o, QString *reason)
{
    QStringList positional;
    QStringList commandOptions;
    for (int i = 0; i < args.size(); ++i) {
        QString arg = args.at(i);
        if (!looksLikeOption(arg)) {
            positional << arg;
            continue;
        }
        QString inlineValue;
        bool hasInline = false;
        if (arg.startsWith(QLatin1String("--")) && arg.contains(QLatin1Char('='))) {
            const int eq = arg.indexOf(QLatin1Char('='));
            inlineValue = arg.mid(eq + 1);
            arg = arg.left(eq);
            hasInline = true;
        }
        auto value = [&](QString *out) {
            if (hasInline) {
                *out = inlineValue;
                return true;
            }
            if (i + 1 >= args.size()) {
                *reason = QStringLiteral("%1 needs a value").arg(arg);
                return false;
            }
            *out = args.at(++i);
            return true;
        };
        auto flag = [&] {
            if (hasInline)
                *reason = QStringLiteral("%1 takes no value").arg(arg);
            return !hasInline;
        };

        QString v;
        if (arg == QLatin1String("-h") || arg == QLatin1String("--help")) {
            if (!flag())
                return false;
            o->help = true;
        } else if (arg == QLatin1String("--json")) {
            if (!flag())
                return false;
            o->json = true;
        } else if (arg == QLatin1String("--no-pace")) {
            if (!flag())
                return false;
            o->link.pace = false;
        } else if (arg == QLatin1String("--plugin")) {
            if (!value(&o->pluginPath))
                return false;
        } else if (arg == QLatin1String("-p") || arg == QLatin1String("--port")) {
            if (!value(&o->link.device))
                return false;
            if (o->link.device.isEmpty()) {
                *reason = QStringLiteral("%1 needs a device path").arg(arg);
                return false;
            }
        } else if (arg == QLatin1String("-b") || arg == QLatin1String("--baud")) {
            if (!value(&v) || !toInt(arg, v, 50, 4000000, &o->link.baud, reason))
                return false;
        } else if (arg == QLatin1String("-d") || arg == QLatin1String("--databits")) {
            if (!value(&v) || !toInt(arg, v, 7, 8, &o->link.dataBits, reason))
                return false;
        } else if (arg == QLatin1String("-s") || arg == QLatin1String("--stopbits")) {
            if (!value(&v) || !toInt(arg, v, 1, 2, &o->link.stopBits, reason))
                return false;
        } else if (arg == QLatin1String("-P") || arg == QLatin1String("--parity")) {
            if (!value(&v))
                return false;
            if (v != QLatin1String("even") && v != QLatin1String("odd")
                && v != QLatin1String("none")) {
                *reason = QStringLiteral("%1: \"%2\" is not even, odd or none").arg(arg, v);
                return false;
            }
            o->link.parity = v;
        } else if (arg == QLatin1String("--delay")) {
            if (!value(&v) || !toInt(arg, v, 0, 60000, &o->link.delayMs, reason))
                return false;
        } else if (arg == QLatin1String("--retry")) {
            if (!value(&v) || !toInt(arg, v, 0, 100, &o->link.retry, reason))
                return false;
        } else if (arg == QLatin1String("--timeout")) {
            if (!value(&v) || !toInt(arg, v, 1, 3600000, &o->timeoutMs, reason))
                return false;
            o->timeoutGiven = true;
        } else if (arg == QLatin1String("--sim-set")) {
            QPair<int, quint32> seed;
            if (!value(&v) || !parseRegisterSeed(v, &seed, reason))
                return false;
            o->link.simRegisters << seed;
        } else if (arg == QLatin1String("--sim-programs")) {
            if (!value(&o->link.simPrograms))
                return false;
            if (o->link.simPrograms.isEmpty()) {
                *reason = QStringLiteral("%1 needs a directory").arg(arg);
                return false;
            }
        } else if (arg == QLatin1String("--all")) {
            if (!flag())
                return false;
            o->allPrograms = true;
            commandOptions << arg;
        } else if (arg == QLatin1String("--burn")) {
            if (!flag())
                return false;
            o->burn = true;
            commandOptions << arg;
        } else if (arg == QLatin1String("-o") || arg == QLatin1String("--output")) {
            if (!value(&o->outputPath))
                return false;
            if (o->outputPath.isEmpty()) {
                *reason = QStringLiteral("%1 needs a file name").arg(arg);
                return false;
            }
            commandOptions << QStringLiteral("-o");
        } else if (arg == QLatin1String("-t") || arg == QLatin1String("--type")) {
            if (!value(&o->type))
                return false;
            commandOptions << QStringLiteral("-t");
        } else if (arg == QLatin1String("-c") || arg == QLatin1String("--count")) {
            if (!value(&v) || !toInt(arg, v, 1, kLastDoubleWord + 1, &o->count, reason))
                return false;
            commandOptions << QStringLiteral("-c");
        } else if (arg == QLatin1String("-l") || arg == QLatin1String("--interval")) {
            if (!value(&v) || !toInt(arg, v, 10, 3600000, &o->intervalMs, reason))
                return false;
            commandOptions << QStringLiteral("-l");
        } else if (arg == QLatin1String("-n") || arg == QLatin1String("--refreshes")) {
            if (!value(&v) || !toInt(arg, v, 1, 1000000000, &o->refreshes, reason))
                return false;
            commandOptions << QStringLiteral("-n");
        } else {
            *reason = QStringLiteral("unknown option \"%1\"").arg(args.at(i));
            return false;
        }
    }

    if (o->help)
        return true;
    if (!o->link.device.isEmpty()
        && (!o->link.simRegisters.isEmpty() || !o->link.simPrograms.isEmpty() || !o->link.pace)) {
        *reason = QStringLiteral("--sim-set, --sim-programs and --no-pace apply to the built-in "
                                 "simulator, not to --port");
        return false;
    }
    if (positional.isEmpty()) {
        *reason = QStringLiteral("no command given");
        return false;
    }
    o->command = positional.takeFirst();
    o->arguments = positional;
    if (!kCommands.contains(o->command)) {
        *reason = QStringLiteral("unknown command \"%1\"").arg(o->command);
        return false;
    }
    for (const QString &option : qAsConst(commandOptions)) {
        if (!optionFits(option, o->command)) {
            *reason = QStringLiteral("%1 does not apply to %2").arg(option, o->command);
            return false;
        }
    }
    const bool takesArguments = o->command == QLatin1String("read")
        || o->command == QLatin1String("write") || o->command == QLatin1String("watch")
        || o->command == QLatin1String("gcode");
    if (!takesArguments && !o->arguments.isEmpty()) {
        *reason = QStringLiteral("%1 takes no arguments (\"%2\")")
                      .arg(o->command, o->arguments.first());
        return false;
    }
    if (takesArguments && o->arguments.isEmpty()) {
        *reason = o->command == QLatin1String("gcode")
            ? QStringLiteral("gcode needs get or put")
            : QStringLiteral("%1 needs an address").arg(o->command);
        return false;
    }
    if (o->command == QLatin1String("read") && o->arguments.size() > 1) {
        *reason
            = QStringLiteral("read takes one address (\"%1\" is extra)").arg(o->arguments.at(1));
        return false;
    }
    if (o->command == QLatin1String("write") && o->arguments.size() < 2) {
        *reason = QStringLiteral("write needs an address and at least one value");
        return false;
    }
    return true;
}

QString usageText()
{
    return QStringLiteral(
        "usage: hustctl [options] COMMAND [arguments] [options]\n"
        "commands:\n"
        "  info                                  driver identity and default settings\n"
        "  demo                                  read, write and re-read a screen on the "
        "simulator\n"
        "  read ADDRESS [-t bit|word|dword] [-c COUNT]\n"
        "  write ADDRESS VALUE... [-t bit|dword] several values fill consecutive double words\n"
        "  watch ADDRESS[:TYPE]... [-l MS] [-n REFRESHES]\n"
        "  gcode get [--all] [-o FILE]           the current (or every) program, to FILE or "
        "stdout\n"
        "  gcode put FILE [--burn]               send a program; --burn has the controller "
        "store it\n"
        "addresses: DW<n> and B<n> double words (n 0-99999), B<n>.<bit> (bit 0-31),\n"
        "  I<n> O<n> C<n> S<n> A<n> controller bits (n 0-255)\n"
        "options:\n"
        "  -p, --port DEVICE   serial device (default: the built-in simulator on a pty)\n"
        "  -b BAUD (38400)  -d 7|8 (7)  -s 1|2 (2)  -P even|odd|none (even)\n"
        "  --delay MS  --retry N   pause before each request and read retries (driver defaults)\n"
        "  --timeout MS (5000)     the whole wait for data, the driver's retries included\n"
        "                          (gcode: for the transfer, 300000)\n"
        "  --sim-set N=VALUE       seed a simulator double word (repeatable)\n"
        "  --sim-programs DIR      simulator programs, one per file (default: one sample)\n"
        "  --no-pace               simulator answers without line pacing\n"
        "  --json                  machine-readable output\n"
        "  --plugin PATH           driver plug-in (default: ../plugins beside this program)\n"
        "diagnostics: QT_LOGGING_RULES=\"hust.*=true\" hustctl ...\n"
        "exit status: 0 success, 1 driver or line error or no data in time, 2 usage error\n");
}

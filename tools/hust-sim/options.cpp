#include "options.h"

#include "sharedoptions.h"

#include <QFile>
#include <QJsonDocument>
#include <QJsonObject>

#include <cmath>
#include <functional>

namespace hustsim {

namespace {

bool parseIndex(const QString &text, int *index)
{
    bool ok = false;
    const int v = text.trimmed().toInt(&ok, 10);
    if (!ok || v < 0 || v >= kRegisterCount)
        return false;
    *index = v;
    return true;
}

bool parseProbability(const QString &text, double *value)
{
    bool ok = false;
    const double v = text.toDouble(&ok);
    if (!ok || !(v >= 0.0 && v <= 1.0))
        return false;
    *value = v;
    return true;
}

bool parseCount(const QString &text, int least, int most, int *value)
{
    bool ok = false;
    const int v = text.toInt(&ok, 10);
    if (!ok || v < least || v > most)
        return false;
    *value = v;
    return true;
}

// "AFTER:FOR" in milliseconds.
bool parseTimedFault(const QString &text, TimedFault *fault)
{
    const QStringList parts = text.split(QLatin1Char(':'));
    return parts.size() == 2 && parseCount(parts.at(0), 0, 86'400'000, &fault->afterMs)
        && parseCount(parts.at(1), 0, 86'400'000, &fault->forMs);
}

} // namespace

bool loadRegisterFile(const QString &path, QList<QPair<int, quint32>> *seeds, QString *reason)
{
    QFile file(path);
    if (!file.open(QIODevice::ReadOnly)) {
        *reason = QStringLiteral("cannot read %1: %2").arg(path, file.errorString());
        return false;
    }
    QJsonParseError parseError {};
    const QJsonDocument document = QJsonDocument::fromJson(file.readAll(), &parseError);
    if (!document.isObject()) {
        *reason = QStringLiteral("%1 is not a JSON object: %2").arg(path, parseError.errorString());
        return false;
    }
    const QJsonObject object = document.object();
    for (auto it = object.begin(); it != object.end(); ++it) {
        QPair<int, quint32> seed;
        const QJsonValue v = it.value();
        bool ok = parseIndex(it.key(), &seed.first);
        if (ok && v.isDouble()) {
            const double number = v.toDouble();
            ok = number >= 0 && number <= 4294967295.0 && std::floor(number) == number;
            seed.second = ok ? quint32(number) : 0;
        } else if (ok) {
            ok = v.isString() && cli::parseValue32(v.toString().trimmed(), &seed.second);
        }
        if (!ok) {
            *reason = QStringLiteral("%1: bad register entry \"%2\"").arg(path, it.key());
            return false;
        }
        seeds->append(seed);
    }
    return true;
}

const cli::Tool &hustSimTool()
{
    static const cli::Tool tool = [] {
        using cli::Option;
        const auto option = [](const char *name, const char *value, const char *help) {
            return Option {
                QLatin1String(name), QChar(), QLatin1String(value), QLatin1String(help), {}};
        };
        cli::Command simulator;
        simulator.options = cli::lineOptions(QStringLiteral("serve this serial device instead of a "
                                                            "pseudo-terminal"))
            + cli::simulatorOptions();
        simulator.options += {
            option("link", "PATH", "keep a symlink at PATH pointing at the pty's slave"),
            option("speed", "X", "run the line X times faster, both ways (X > 0)"),
            option("registers", "FILE", "seed from a JSON object {\"N\": V, ...}"),
            option("current", "NAME", "the current program (default: the first by name)"),
            option("no-counter", "", "do not count sent frames in double word 0"),
            option("clock", "N",
                   "double word N holds the monotonic clock in ms (low 32 bits)\n"
                   "as each response frame is formatted"),
            option("log", "FILE", "write every received frame as a JSON line"),
            option("seed", "N", "seed of the random faults"),
            option("silence", "", "answer nothing"),
            option("garbage", "P[:MAX]",
                   "random bytes (1..MAX, default 8) before a frame with chance P"),
            option("repeat-h", "K", "each H code on K consecutive frames"),
            option("short-values", "P", "d records of 5..7 characters with chance P each"),
            option("cut", "P", "frames cut off part way with chance P"),
            option("lose-stop", "P", "ignore a received stop frame with chance P (1: every one)"),
            option("cable-pull", "A:D", "after A ms, drop the line for D ms"),
            option("hangup", "A:D", "after A ms, close the pty for D ms, then open a new one"),
        };
        simulator.examples
            = QStringList {QStringLiteral("--link /tmp/cnc --sim-set 100=7"),
                           QStringLiteral("-p /dev/ttyUSB1 -b 9600 --sim-programs programs/"),
                           QStringLiteral("--link /tmp/cnc --cable-pull 5000:5000")};
        cli::Tool t;
        t.name = QStringLiteral("hust-sim");
        t.version = QStringLiteral(HUST_VERSION);
        t.summary = QStringLiteral(
            "Plays a Hust CNC controller on a pseudo-terminal (prints \"PTY <slave path>\" first)\n"
            "or on a serial device, until SIGINT or SIGTERM.");
        t.commands = {simulator};
        t.epilogue = QStringLiteral("exit status: 0 stopped by a signal, 1 the line could not be "
                                    "opened, 2 usage error\n");
        return t;
    }();
    return tool;
}

bool parseCommandLine(const QStringList &args, CommandLine *out, QString *reason)
{
    cli::Parsed p;
    if (!cli::parse(hustSimTool(), args, &p, reason))
        return false;
    out->help = p.help;
    out->version = p.version;
    if (out->help || out->version)
        return true;
    SimulatorConfig &config = out->config;
    QString parity = QStringLiteral("even");
    if (!cli::readLineOptions(p, &config.device, &config.line.baud, &config.line.dataBits,
                              &config.line.stopBits, &parity, reason)
        || !cli::readSimulatorOptions(p, &out->registers, &out->programsDir, &config.paced, reason))
        return false;
    config.line.parity = parity == QLatin1String("odd") ? Parity::Odd
        : parity == QLatin1String("none")               ? Parity::None
                                                        : Parity::Even;
    config.linkPath = p.value(QStringLiteral("link"));
    out->registersFile = p.value(QStringLiteral("registers"));
    out->currentProgram = p.value(QStringLiteral("current"));
    out->logFile = p.value(QStringLiteral("log"));
    config.frameCounter = !p.isSet(QStringLiteral("no-counter"));
    config.faults.silence = p.isSet(QStringLiteral("silence"));

    // Each valued option with its check; a value it refuses is named in the reason.
    const auto check = [&](const char *name, const std::function<bool(const QString &)> &take) {
        const QString key = QLatin1String(name);
        if (!p.isSet(key) || take(p.value(key)))
            return true;
        *reason = QStringLiteral("bad value for --%1: %2").arg(key, p.value(key));
        return false;
    };
    const bool valid = check("speed",
                             [&](const QString &v) {
                                 bool ok = false;
                                 config.speed = v.toDouble(&ok);
                                 return ok && config.speed > 0.0 && std::isfinite(config.speed);
                             })
        && check("clock", [&](const QString &v) { return parseIndex(v, &config.clockRegister); })
        && check("seed",
                 [&](const QString &v) {
                     bool ok = false;
                     config.seed = v.toULongLong(&ok, 0);
                     return ok;
                 })
        && check("garbage",
                 [&](const QString &v) {
                     const QStringList parts = v.split(QLatin1Char(':'));
                     return parts.size() <= 2
                         && parseProbability(parts.at(0), &config.faults.garbageProbability)
                         && (parts.size() == 1
                             || parseCount(parts.at(1), 1, 4096, &config.faults.garbageMaxBytes));
                 })
        && check("repeat-h",
                 [&](const QString &v) {
                     return parseCount(v, 1, 1'000'000, &config.faults.hCodeRepeat);
                 })
        && check("short-values",
                 [&](const QString &v) {
                     return parseProbability(v, &config.faults.shortValueProbability);
                 })
        && check("cut",
                 [&](const QString &v) {
                     return parseProbability(v, &config.faults.cutProbability);
                 })
        && check("lose-stop",
                 [&](const QString &v) {
                     return parseProbability(v, &config.faults.loseStopProbability);
                 })
        && check("cable-pull",
                 [&](const QString &v) { return parseTimedFault(v, &out->cablePull); })
        && check("hangup", [&](const QString &v) { return parseTimedFault(v, &out->hangup); });
    if (!valid)
        return false;
    if (p.isSet(QStringLiteral("speed")) && !config.paced) {
        *reason = QStringLiteral("--speed and --no-pace exclude each other");
        return false;
    }
    if (!config.device.isEmpty() && !config.linkPath.isEmpty()) {
        *reason = QStringLiteral("--port and --link exclude each other");
        return false;
    }
    if (!config.device.isEmpty() && out->hangup.afterMs >= 0) {
        *reason = QStringLiteral("--hangup needs a pseudo-terminal, not --port");
        return false;
    }
    return true;
}

} // namespace hustsim

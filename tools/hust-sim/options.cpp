#include "options.h"

#include <QFile>
#include <QJsonDocument>
#include <QJsonObject>

#include <cmath>

namespace hustsim {

namespace {

bool parseUnsigned32(const QString &text, quint32 *value)
{
    bool ok = false;
    const QString t = text.trimmed();
    const qulonglong v = t.startsWith(QLatin1String("0x"), Qt::CaseInsensitive)
        ? t.mid(2).toULongLong(&ok, 16)
        : t.toULongLong(&ok, 10);
    if (!ok || v > 0xFFFFFFFFull)
        return false;
    *value = quint32(v);
    return true;
}

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

bool parseRegisterSeed(const QString &text, QPair<int, quint32> *seed, QString *reason)
{
    const int eq = text.indexOf(QLatin1Char('='));
    if (eq < 0 || !parseIndex(text.left(eq), &seed->first)
        || !parseUnsigned32(text.mid(eq + 1), &seed->second)) {
        *reason = QStringLiteral("--set wants N=V with N in 0..99999 and V a 32-bit value: %1")
                      .arg(text);
        return false;
    }
    return true;
}

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
            ok = v.isString() && parseUnsigned32(v.toString(), &seed.second);
        }
        if (!ok) {
            *reason = QStringLiteral("%1: bad register entry \"%2\"").arg(path, it.key());
            return false;
        }
        seeds->append(seed);
    }
    return true;
}

bool parseCommandLine(const QStringList &args, CommandLine *out, QString *reason)
{
    SimulatorConfig &config = out->config;
    bool speedGiven = false;
    bool noPace = false;
    for (int i = 0; i < args.size(); ++i) {
        const QString &option = args.at(i);
        auto value = [&](QString *text) {
            if (i + 1 >= args.size()) {
                *reason = QStringLiteral("%1 needs a value").arg(option);
                return false;
            }
            *text = args.at(++i);
            return true;
        };
        auto bad = [&](const QString &text) {
            *reason = QStringLiteral("bad value for %1: %2").arg(option, text);
            return false;
        };
        QString v;
        if (option == QLatin1String("-h") || option == QLatin1String("--help")) {
            out->help = true;
        } else if (option == QLatin1String("--device")) {
            if (!value(&config.device))
                return false;
        } else if (option == QLatin1String("--link")) {
            if (!value(&config.linkPath))
                return false;
        } else if (option == QLatin1String("--baud")) {
            if (!value(&v))
                return false;
            if (!parseCount(v, 50, 4'000'000, &config.line.baud))
                return bad(v);
        } else if (option == QLatin1String("--databits")) {
            if (!value(&v))
                return false;
            if (v != QLatin1String("7") && v != QLatin1String("8"))
                return bad(v);
            config.line.dataBits = v.toInt();
        } else if (option == QLatin1String("--parity")) {
            if (!value(&v))
                return false;
            if (v == QLatin1String("even"))
                config.line.parity = Parity::Even;
            else if (v == QLatin1String("odd"))
                config.line.parity = Parity::Odd;
            else if (v == QLatin1String("none"))
                config.line.parity = Parity::None;
            else
                return bad(v);
        } else if (option == QLatin1String("--stopbits")) {
            if (!value(&v))
                return false;
            if (v != QLatin1String("1") && v != QLatin1String("2"))
                return bad(v);
            config.line.stopBits = v.toInt();
        } else if (option == QLatin1String("--speed")) {
            if (!value(&v))
                return false;
            bool ok = false;
            config.speed = v.toDouble(&ok);
            if (!ok || !(config.speed > 0.0) || !std::isfinite(config.speed))
                return bad(v);
            speedGiven = true;
        } else if (option == QLatin1String("--no-pace")) {
            noPace = true;
            config.paced = false;
        } else if (option == QLatin1String("--set")) {
            if (!value(&v))
                return false;
            QPair<int, quint32> seed;
            if (!parseRegisterSeed(v, &seed, reason))
                return false;
            out->registers.append(seed);
        } else if (option == QLatin1String("--registers")) {
            if (!value(&out->registersFile))
                return false;
        } else if (option == QLatin1String("--programs")) {
            if (!value(&out->programsDir))
                return false;
        } else if (option == QLatin1String("--current")) {
            if (!value(&out->currentProgram))
                return false;
        } else if (option == QLatin1String("--no-counter")) {
            config.frameCounter = false;
        } else if (option == QLatin1String("--clock")) {
            if (!value(&v))
                return false;
            if (!parseIndex(v, &config.clockRegister))
                return bad(v);
        } else if (option == QLatin1String("--log")) {
            if (!value(&out->logFile))
                return false;
        } else if (option == QLatin1String("--seed")) {
            if (!value(&v))
                return false;
            bool ok = false;
            config.seed = v.toULongLong(&ok, 0);
            if (!ok)
                return bad(v);
        } else if (option == QLatin1String("--silence")) {
            config.faults.silence = true;
        } else if (option == QLatin1String("--garbage")) {
            // P or P:MAX
            if (!value(&v))
                return false;
            const QStringList parts = v.split(QLatin1Char(':'));
            if (parts.size() > 2
                || !parseProbability(parts.at(0), &config.faults.garbageProbability)
                || (parts.size() == 2
                    && !parseCount(parts.at(1), 1, 4096, &config.faults.garbageMaxBytes)))
                return bad(v);
        } else if (option == QLatin1String("--repeat-h")) {
            if (!value(&v))
                return false;
            if (!parseCount(v, 1, 1'000'000, &config.faults.hCodeRepeat))
                return bad(v);
        } else if (option == QLatin1String("--short-values")) {
            if (!value(&v))
                return false;
            if (!parseProbability(v, &config.faults.shortValueProbability))
                return bad(v);
        } else if (option == QLatin1String("--cut")) {
            if (!value(&v))
                return false;
            if (!parseProbability(v, &config.faults.cutProbability))
                return bad(v);
        } else if (option == QLatin1String("--lose-stop")) {
            if (!value(&v))
                return false;
            if (!parseProbability(v, &config.faults.loseStopProbability))
                return bad(v);
        } else if (option == QLatin1String("--cable-pull")) {
            if (!value(&v))
                return false;
            if (!parseTimedFault(v, &out->cablePull))
                return bad(v);
        } else if (option == QLatin1String("--hangup")) {
            if (!value(&v))
                return false;
            if (!parseTimedFault(v, &out->hangup))
                return bad(v);
        } else {
            *reason = QStringLiteral("unknown option %1").arg(option);
            return false;
        }
    }
    if (speedGiven && noPace) {
        *reason = QStringLiteral("--speed and --no-pace exclude each other");
        return false;
    }
    if (!config.device.isEmpty() && !config.linkPath.isEmpty()) {
        *reason = QStringLiteral("--device and --link exclude each other");
        return false;
    }
    if (!config.device.isEmpty() && out->hangup.afterMs >= 0) {
        *reason = QStringLiteral("--hangup needs a pseudo-terminal, not --device");
        return false;
    }
    return true;
}

QString usageText()
{
    return QStringLiteral(
        "Usage: hust-sim [options]\n"
        "Plays a Hust CNC controller on a pseudo-terminal (prints \"PTY <slave path>\" first)\n"
        "or on a serial device, until SIGINT or SIGTERM.\n"
        "\n"
        "Line:\n"
        "  --device PATH        serve this serial device instead of a pseudo-terminal\n"
        "  --link PATH          keep a symlink at PATH pointing at the pty's slave\n"
        "  --baud N             line rate (default 38400)\n"
        "  --databits 7|8       (default 7)\n"
        "  --parity even|odd|none  (default even)\n"
        "  --stopbits 1|2       (default 2)\n"
        "  --speed X            send X times faster than the line (X > 0)\n"
        "  --no-pace            send as fast as the client reads\n"
        "Controller:\n"
        "  --set N=V            seed double word N (0..99999) with V (decimal or 0x hex)\n"
        "  --registers FILE     seed from a JSON object {\"N\": V, ...}\n"
        "  --programs DIR       every regular file in DIR is one program, named after it\n"
        "  --current NAME       the current program (default: the first by name)\n"
        "  --no-counter         do not count sent frames in double word 0\n"
        "  --clock N            double word N holds the monotonic clock in ms (low 32 bits)\n"
        "                       as each response frame is formatted\n"
        "  --log FILE           write every received frame as a JSON line\n"
        "Faults (random ones drawn from --seed N):\n"
        "  --silence            answer nothing\n"
        "  --garbage P[:MAX]    random bytes (1..MAX, default 8) before a frame with chance P\n"
        "  --repeat-h K         each H code on K consecutive frames\n"
        "  --short-values P     d records of 5..7 characters with chance P each\n"
        "  --cut P              frames cut off part way with chance P\n"
        "  --lose-stop P        ignore a received stop frame with chance P (1: every one)\n"
        "  --cable-pull A:D     after A ms, drop the line for D ms\n"
        "  --hangup A:D         after A ms, close the pty for D ms, then open a new one\n");
}

} // namespace hustsim

#include "sharedoptions.h"

namespace cli {

namespace {

constexpr int kLastDoubleWord = 99999;

} // namespace

QList<Option> lineOptions(const QString &portHelp)
{
    return {
        {QStringLiteral("port"),
         QLatin1Char('p'),
         QStringLiteral("DEVICE"),
         portHelp,
         {QStringLiteral("device")}},
        {QStringLiteral("baud"),
         QLatin1Char('b'),
         QStringLiteral("BAUD"),
         QStringLiteral("line rate (38400)"),
         {}},
        {QStringLiteral("databits"),
         QLatin1Char('d'),
         QStringLiteral("7|8"),
         QStringLiteral("data bits (7)"),
         {}},
        {QStringLiteral("stopbits"),
         QLatin1Char('s'),
         QStringLiteral("1|2"),
         QStringLiteral("stop bits (2)"),
         {}},
        {QStringLiteral("parity"),
         QLatin1Char('P'),
         QStringLiteral("even|odd|none"),
         QStringLiteral("parity (even)"),
         {}},
    };
}

QList<Option> simulatorOptions()
{
    return {
        {QStringLiteral("sim-set"),
         QChar(),
         QStringLiteral("N=VALUE"),
         QStringLiteral("seed the simulator's double word N (0-99999) with VALUE\n"
                        "(decimal or 0x hex; repeatable)"),
         {QStringLiteral("set")}},
        {QStringLiteral("sim-programs"),
         QChar(),
         QStringLiteral("DIR"),
         QStringLiteral("simulator programs: every regular file in DIR, named after it"),
         {QStringLiteral("programs")}},
        {QStringLiteral("no-pace"),
         QChar(),
         QString(),
         QStringLiteral("the simulator answers as fast as it is read, not at the line rate"),
         {}},
    };
}

bool readLineOptions(const Parsed &p, QString *device, int *baud, int *dataBits, int *stopBits,
                     QString *parity, QString *reason)
{
    if (p.isSet(QStringLiteral("port"))) {
        *device = p.value(QStringLiteral("port"));
        if (device->isEmpty()) {
            *reason = QStringLiteral("--port needs a device path");
            return false;
        }
    }
    if (!readInt(p, QStringLiteral("baud"), 50, 4000000, baud, reason)
        || !readInt(p, QStringLiteral("databits"), 7, 8, dataBits, reason)
        || !readInt(p, QStringLiteral("stopbits"), 1, 2, stopBits, reason))
        return false;
    if (p.isSet(QStringLiteral("parity"))) {
        const QString v = p.value(QStringLiteral("parity"));
        if (v != QLatin1String("even") && v != QLatin1String("odd") && v != QLatin1String("none")) {
            *reason = QStringLiteral("--parity: \"%1\" is not even, odd or none").arg(v);
            return false;
        }
        *parity = v;
    }
    return true;
}

bool readSimulatorOptions(const Parsed &p, QList<QPair<int, quint32>> *seeds, QString *programs,
                          bool *pace, QString *reason)
{
    for (const QString &text : p.values(QStringLiteral("sim-set"))) {
        QPair<int, quint32> seed;
        if (!parseRegisterSeed(text, &seed, reason))
            return false;
        seeds->append(seed);
    }
    if (p.isSet(QStringLiteral("sim-programs"))) {
        *programs = p.value(QStringLiteral("sim-programs"));
        if (programs->isEmpty()) {
            *reason = QStringLiteral("--sim-programs needs a directory");
            return false;
        }
    }
    if (p.isSet(QStringLiteral("no-pace")))
        *pace = false;
    return true;
}

bool parseValue32(const QString &text, quint32 *value)
{
    bool ok = false;
    const qlonglong v = text.startsWith(QLatin1String("0x"), Qt::CaseInsensitive)
        ? qlonglong(text.mid(2).toUInt(&ok, 16))
        : text.toLongLong(&ok, 10);
    if (!ok || v < -2147483648LL || v > 4294967295LL)
        return false;
    *value = quint32(v);
    return true;
}

bool parseRegisterSeed(const QString &text, QPair<int, quint32> *seed, QString *reason)
{
    const int eq = text.indexOf(QLatin1Char('='));
    bool ok = false;
    const int index = eq > 0 ? text.left(eq).toInt(&ok, 10) : -1;
    if (!ok || index < 0 || index > kLastDoubleWord
        || !parseValue32(text.mid(eq + 1), &seed->second)) {
        *reason = QStringLiteral("--sim-set: \"%1\" is not N=VALUE with N from 0 to %2 and a "
                                 "32-bit VALUE")
                      .arg(text, QString::number(kLastDoubleWord));
        return false;
    }
    seed->first = index;
    return true;
}

} // namespace cli

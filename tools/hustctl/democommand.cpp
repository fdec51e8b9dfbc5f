#include "commands.h"

#include "driverhost.h"
#include "output.h"
#include "targetreader.h"

#include <QElapsedTimer>

namespace {

// The screen: the controller's frame counter, a few registers, some input and output bits and
// one bit of a register, with the values the simulator starts from.
struct DemoRegister
{
    int index;
    quint32 value;
};
const DemoRegister kSeeds[]
    = {{100, 1200}, {101, 350}, {102, 0x12345678}, {103, 7}, {10800, 0x5}, {10808, 0x2}, {10, 0}};
const char *const kScreen[]
    = {"DW0", "DW100", "DW101", "DW102", "DW103", "I0", "I1", "I2", "I3", "O0", "O1", "B10.3"};

const char kWriteRegister[] = "DW101";
constexpr quint32 kWriteRegisterValue = 4321;
const char kWriteBit[] = "B10.3";
constexpr quint32 kWriteBitValue = 1;

int indexOf(const QList<Target> &screen, const char *address)
{
    for (int i = 0; i < screen.size(); ++i) {
        if (screen.at(i).text() == QLatin1String(address))
            return i;
    }
    return -1;
}

// Reads the whole screen once its data is there; false with the reason otherwise.
bool readScreen(DriverHost &host, const QList<Target> &screen, int timeoutMs,
                QList<quint32> *values, QString *error)
{
    values->clear();
    for (const Target &target : screen) {
        QVector<quint32> v;
        if (!readTarget(host, target, timeoutMs, &v, error))
            return false;
        *values << v.first();
    }
    return true;
}

} // namespace

bool DemoCommand::prepare(CtlOptions &options, QString *reason)
{
    if (!options.link.device.isEmpty()) {
        *reason = QStringLiteral("demo writes registers and runs on the built-in simulator only; "
                                 "leave out --port");
        return false;
    }
    for (const DemoRegister &seed : kSeeds)
        options.link.simRegisters.prepend(qMakePair(seed.index, seed.value));
    for (const char *address : kScreen) {
        Target target;
        if (!Target::parse(QLatin1String(address), QString(), 1, &target, reason))
            return false;
        m_screen << target;
    }
    return true;
}

int DemoCommand::run(CommandEnv &env)
{
    DriverHost &host = *env.host;
    QTextStream &out = env.out;
    const int timeout = env.options.timeoutMs;
    const int registerRow = indexOf(m_screen, kWriteRegister);
    const int bitRow = indexOf(m_screen, kWriteBit);

    out << "Screen of " << m_screen.size() << " items on the built-in controller simulator\n";
    out.flush();
    host.setSession(sessionCommands(m_screen));
    QList<quint32> before;
    QString error;
    if (!readScreen(host, m_screen, timeout, &before, &error))
        return fail(env.err, error);

    QList<QStringList> rows {
        {QStringLiteral("address"), QStringLiteral("type"), QStringLiteral("value")}};
    for (int i = 0; i < m_screen.size(); ++i) {
        rows << QStringList {m_screen.at(i).text(), typeName(m_screen.at(i).type()),
                             formatValue(before.at(i), m_screen.at(i).type())};
    }
    for (const QString &line : formatTable(rows))
        out << "  " << line << '\n';

    out << "\nWriting " << kWriteRegister << " = " << kWriteRegisterValue << " and " << kWriteBit
        << " = " << kWriteBitValue << "\n";
    out.flush();
    DriverRequest dword;
    DriverRequest bit;
    if (!m_screen.at(registerRow).writeRequest({kWriteRegisterValue}, &dword, &error)
        || !m_screen.at(bitRow).writeRequest({kWriteBitValue}, &bit, &error))
        return fail(env.err, error);
    if (!host.write(dword.command, dword.data, &error))
        return fail(env.err, QStringLiteral("%1: %2").arg(kWriteRegister, error));
    if (!host.write(bit.command, bit.data, &error))
        return fail(env.err, QStringLiteral("%1: %2").arg(kWriteBit, error));

    // Refresh the screen until both writes show.
    QList<quint32> after;
    QElapsedTimer clock;
    clock.start();
    for (;;) {
        const int left = int(qMax<qint64>(0, timeout - clock.elapsed()));
        if (!readScreen(host, m_screen, left, &after, &error))
            return fail(env.err, error);
        if (after.at(registerRow) == kWriteRegisterValue && after.at(bitRow) == kWriteBitValue)
            break;
        if (clock.elapsed() >= timeout)
            return fail(env.err,
                        QStringLiteral("the writes do not show within %1 ms").arg(timeout));
        DriverHost::pause(100);
    }

    out << '\n';
    rows = {
        {QStringLiteral("address"), QStringLiteral("before"), QStringLiteral("after"), QString()}};
    for (int i = 0; i < m_screen.size(); ++i) {
        const ValueType type = m_screen.at(i).type();
        rows << QStringList {m_screen.at(i).text(), formatValue(before.at(i), type),
                             formatValue(after.at(i), type),
                             before.at(i) != after.at(i) ? QStringLiteral("changed") : QString()};
    }
    for (const QString &line : formatTable(rows))
        out << "  " << line << '\n';
    out << "\nDW0 counts the controller's answers, so it moves on by itself.\n";
    return 0;
}

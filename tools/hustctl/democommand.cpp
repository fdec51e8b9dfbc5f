#include "commands.h"

#include "builtinsimulator.h"
#include "driverhost.h"
#include "lineport.h"
#include "output.h"
#include "targetreader.h"

#include <QElapsedTimer>
#include <QJsonObject>

#include <ctime>

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

// The simulator keeps its monotonic clock in this double word, so that the age of a value can be
// told; it is read with the screen but not shown in its table.
constexpr int kClockRegister = 9000;
// How long the closing measurement polls the screen, and how often, as a panel does.
constexpr int kMeasureMs = 2000;
constexpr int kPanelPollMs = 10;

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

// The low 32 bits of CLOCK_MONOTONIC in milliseconds, as the simulator writes them.
quint32 monotonicMs()
{
    timespec now {};
    clock_gettime(CLOCK_MONOTONIC, &now);
    return quint32(quint64(now.tv_sec) * 1000u + quint64(now.tv_nsec) / 1000000u);
}

struct Measurement
{
    double seconds = 0;
    int reads = 0;
    int errors = 0; // reads after which the driver had an error pending
    double blocksPerSecond = 0;
    double meanAgeMs = 0;
    qint64 maxAgeMs = 0;
};

// Polls the screen and the clock as a panel does and measures what reaches it.
Measurement measure(DriverHost &host, const QList<Target> &screen, const Target &clockTarget)
{
    Measurement m;
    QElapsedTimer clock;
    clock.start();
    const quint64 blocksBefore = host.deliveredBlocks();
    qint64 ageSum = 0;
    int ages = 0;
    while (clock.elapsed() < kMeasureMs) {
        QVector<quint32> values;
        QString error;
        for (const Target &target : screen) {
            readTargetNow(host, target, &values, &error);
            ++m.reads;
            m.errors += error.isEmpty() ? 0 : 1;
        }
        if (readTargetNow(host, clockTarget, &values, &error) && !values.isEmpty()) {
            const qint64 age = qint32(monotonicMs() - values.first());
            ageSum += age;
            ++ages;
            m.maxAgeMs = qMax(m.maxAgeMs, age);
        }
        DriverHost::pause(kPanelPollMs);
    }
    m.seconds = clock.elapsed() / 1000.0;
    m.blocksPerSecond = (host.deliveredBlocks() - blocksBefore) / m.seconds;
    m.meanAgeMs = ages > 0 ? double(ageSum) / ages : 0;
    return m;
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
    options.link.simClock = kClockRegister;
    if (!Target::parse(QStringLiteral("DW%1").arg(kClockRegister), QString(), 1, &m_clock, reason))
        return false;
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
    const bool text = !env.options.json;
    const int timeout = env.options.timeoutMs;
    const int registerRow = indexOf(m_screen, kWriteRegister);
    const int bitRow = indexOf(m_screen, kWriteBit);

    if (text) {
        out << "Screen of " << m_screen.size() << " items on the built-in controller simulator\n";
        out.flush();
    }
    host.setSession(sessionCommands(m_screen + QList<Target> {m_clock}));
    QList<quint32> before;
    QString error;
    if (!readScreen(host, m_screen, timeout, &before, &error))
        return fail(env.err, error);

    if (text) {
        QList<QStringList> rows {
            {QStringLiteral("address"), QStringLiteral("type"), QStringLiteral("value")}};
        for (int i = 0; i < m_screen.size(); ++i) {
            rows << QStringList {m_screen.at(i).text(), typeName(m_screen.at(i).type()),
                                 formatValue(before.at(i), m_screen.at(i).type())};
        }
        for (const QString &line : formatTable(rows))
            out << "  " << line << '\n';
        out << "\nWriting " << kWriteRegister << " = " << kWriteRegisterValue << " and "
            << kWriteBit << " = " << kWriteBitValue << "\n";
        out.flush();
    }
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

    if (text) {
        out << '\n';
        QList<QStringList> rows {{QStringLiteral("address"), QStringLiteral("before"),
                                  QStringLiteral("after"), QString()}};
        for (int i = 0; i < m_screen.size(); ++i) {
            const ValueType type = m_screen.at(i).type();
            rows << QStringList {m_screen.at(i).text(), formatValue(before.at(i), type),
                                 formatValue(after.at(i), type),
                                 before.at(i) != after.at(i) ? QStringLiteral("changed")
                                                             : QString()};
        }
        for (const QString &line : formatTable(rows))
            out << "  " << line << '\n';
        out << "\nDW0 counts the controller's answers, so it moves on by itself.\n\n"
            << "Measuring for " << kMeasureMs / 1000.0 << " s, reading the screen every "
            << kPanelPollMs << " ms as a panel does...\n";
        out.flush();
    }

    // What the panel got in that time, beside what the line can carry for this screen: one
    // answer frame of its double words (the clock's included) at the line's rate.
    const Measurement m = measure(host, m_screen, m_clock);
    const int doubleWords = screenDoubleWords(m_screen + QList<Target> {m_clock});
    const double frameMs = BuiltInSimulator::frameMs(env.options.link, doubleWords);
    const quint64 sent = host.line().bytesSent();
    const quint64 received = host.line().bytesReceived();
    if (!text) {
        QJsonObject screen;
        for (int i = 0; i < m_screen.size(); ++i) {
            screen.insert(m_screen.at(i).text(),
                          QJsonObject {{QStringLiteral("before"), double(before.at(i))},
                                       {QStringLiteral("after"), double(after.at(i))}});
        }
        const QJsonObject summary {
            {QStringLiteral("seconds"), m.seconds},
            {QStringLiteral("freshBlocksPerSecond"), qRound(m.blocksPerSecond * 10) / 10.0},
            {QStringLiteral("lineBlocksPerSecond"), qRound(10000.0 / frameMs) / 10.0},
            {QStringLiteral("frameMs"), qRound(frameMs * 10) / 10.0},
            {QStringLiteral("meanAgeMs"), qRound(m.meanAgeMs)},
            {QStringLiteral("maxAgeMs"), m.maxAgeMs},
            {QStringLiteral("bytesSent"), double(sent)},
            {QStringLiteral("bytesReceived"), double(received)},
            {QStringLiteral("reads"), m.reads},
            {QStringLiteral("errors"), m.errors}};
        out << jsonLine(
            QJsonObject {{QStringLiteral("screen"), screen}, {QStringLiteral("summary"), summary}})
            << '\n';
        return 0;
    }
    const QList<QStringList> summary {
        {QStringLiteral("fresh blocks"), QStringLiteral("%1/s").arg(m.blocksPerSecond, 0, 'f', 1),
         QStringLiteral("the line carries at most %1/s for this screen (%2 double words, %3 ms "
                        "per answer at %4 baud)")
             .arg(1000.0 / frameMs, 0, 'f', 1)
             .arg(doubleWords)
             .arg(frameMs, 0, 'f', 1)
             .arg(env.options.link.baud)},
        {QStringLiteral("data age"), QStringLiteral("mean %1 ms").arg(qRound(m.meanAgeMs)),
         QStringLiteral("max %1 ms; a value is at least one answer (%2 ms) old")
             .arg(m.maxAgeMs)
             .arg(frameMs, 0, 'f', 1)},
        {QStringLiteral("bytes moved"), QStringLiteral("%1 sent").arg(sent),
         QStringLiteral("%1 received").arg(received)},
        {QStringLiteral("errors"), QString::number(m.errors),
         QStringLiteral("of %1 reads").arg(m.reads)},
    };
    for (const QString &line : formatTable(summary))
        out << "  " << line << '\n';
    return 0;
}

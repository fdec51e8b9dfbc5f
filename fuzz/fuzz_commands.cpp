// Command records of any address text, type, length and data through the driver's read and write,
// on a driver with its worker and a scripted port, the cache holding a known value for every
// double word the command names: a read delivers only values the cache holds for the addresses
// it names (a bit read the very bit), and the worker frames only well-formed writes (and stop
// frames) whose values came from accepted write data.
//
// The driver and its worker thread live through the whole run, so memory that one input frees in
// the next is normal here: leaks are looked for at exit, not after every input.
// libFuzzer options: -detect_leaks=0
#include "drivertestaccess.h"
#include "hustframes.h"
#include "scriptedport.h"

#include <QCoreApplication>
#include <QRegularExpression>
#include <QSet>
#include <QThread>

#include <algorithm>
#include <cstdlib>

namespace {

using Type = CommunicatorCommand::DataType;

void check(bool condition)
{
    if (!condition)
        std::abort();
}

// What the cache holds for double word n: distinct for every n and in every byte position.
quint32 valueOf(int n)
{
    return quint32(n) * 2654435761u ^ 0xA5A5A5A5u;
}

QByteArray cacheFor(const QStringList &names)
{
    QByteArray block;
    for (const QString &name : names)
        block += dwords({valueOf(name.mid(1).toInt())});
    return block;
}

bool isFreshReadName(const QString &name)
{
    const int n = name.mid(1).toInt();
    return (n >= 12001 && n <= 12006) || (n >= 12021 && n <= 12026);
}

// The value a one-bit read must deliver, or -1 when the address is not a plain bit address.
int expectedBit(const QString &address)
{
    static const QRegularExpression registerBit(QStringLiteral("^B(\\d{1,5})\\.(\\d{1,2})$"));
    static const QRegularExpression controllerBit(QStringLiteral("^([IOCSA])(\\d{1,3})$"));
    QRegularExpressionMatch m = registerBit.match(address);
    if (m.hasMatch() && m.captured(2).toInt() < 32)
        return int((valueOf(m.captured(1).toInt()) >> m.captured(2).toInt()) & 1u);
    m = controllerBit.match(address);
    if (m.hasMatch() && m.captured(2).toInt() <= 255) {
        const int n = m.captured(2).toInt();
        const int base = 10800 + 8 * int(QStringLiteral("IOCSA").indexOf(m.captured(1)));
        return int((valueOf(base + n / 32) >> (n % 32)) & 1u);
    }
    return -1;
}

void checkRead(DriverHushCNC &driver, ScriptedPort &port, const CommunicatorCommand &cmd,
               const QStringList &neighbours)
{
    // More names than a request carries raise the panel's notice, and fresh-read registers wait
    // for a new block: both are left to the driver tests. A length above 200 names more than 99
    // double words whatever the address.
    if (cmd.length > 200)
        return;
    DriverHushCNCTestAccess access(driver);
    const QStringList names = access.addr2DWAddrList(cmd);
    CommunicatorCommand whole(cmd);
    whole.address = cmd.address.section(QLatin1Char('.'), 0, 0);
    whole.dataType = CommunicatorCommand::DWordType;
    QStringList list = names + access.addr2DWAddrList(whole) + neighbours;
    list.sort();
    list.removeDuplicates();
    if (list.size() > 99 || std::any_of(list.cbegin(), list.cend(), isFreshReadName))
        return;
    access.setStreaming(list, cacheFor(list));

    const QByteArray result = driver.read(&port, cmd);
    if (result.isEmpty())
        return;
    const QByteArray held = cacheFor(names);
    if (cmd.dataType == CommunicatorCommand::BitType) {
        check(result.size() == 1 && quint8(result.at(0)) <= 1);
        const int bit = cmd.length == 1 ? expectedBit(cmd.address) : -1;
        check(bit < 0 || result.at(0) == bit);
    } else if (cmd.dataType == CommunicatorCommand::WordType) {
        check(result == held.mid(0, result.size()) || result == held.mid(2, result.size()));
    } else {
        check(result == held);
    }
}

// The double words a write may put on the line: the data's words, the last one padded.
void allowValues(const QByteArray &data, QSet<quint32> &allowed)
{
    QByteArray padded = data;
    padded.append(QByteArray((4 - data.size() % 4) % 4, '\0'));
    for (int i = 0; i + 4 <= padded.size(); i += 4)
        allowed.insert(qFromLittleEndian<quint32>(padded.constData() + i));
}

void checkFrames(const QList<QByteArray> &frames, const QSet<quint32> &allowed, qint64 dwordLimit)
{
    static const QRegularExpression dwordWrite(
        QStringLiteral("^\\x12%\\rO9012\\rN\\d{5}\\rd([0-?]{8})\\r%\\x14$"));
    static const QRegularExpression bitWrite(
        QStringLiteral("^\\x12%\\rO901[34]\\rN\\d{5}\\rd\\d{2}\\r%\\x14$"));
    qint64 dwordFrames = 0;
    for (const QByteArray &frame : frames) {
        const QString text = QString::fromLatin1(frame);
        const QRegularExpressionMatch m = dwordWrite.match(text);
        if (m.hasMatch()) {
            quint32 value = 0;
            for (const QChar c : m.captured(1))
                value = (value << 4) | quint32(c.unicode() - '0');
            check(allowed.contains(value));
            ++dwordFrames;
        } else {
            check(bitWrite.match(text).hasMatch() || frame == HustFrames::stopFrame());
        }
    }
    check(dwordFrames <= dwordLimit);
}

// Waits until the worker's thread has run everything queued to it so far.
void drainWorker(DriverHushCNC &driver)
{
    QThread *thread = DriverHushCNCTestAccess(driver).workerThread();
    if (!thread || !thread->isRunning())
        return;
    // Queued behind everything else; it moves itself back, so it dies in this thread.
    QObject marker;
    marker.moveToThread(thread);
    QThread *here = QThread::currentThread();
    QMetaObject::invokeMethod(
        &marker, [&marker, here] { marker.moveToThread(here); }, Qt::BlockingQueuedConnection);
}

// One driver for the whole run: handing it a port drains the line, which takes a noticeable
// time. What a command leaves behind does not matter: every read sets up the cache afresh.
DriverHushCNC *driver;
ScriptedPort *port;

} // namespace

extern "C" int LLVMFuzzerInitialize(int *argc, char ***argv)
{
    static QCoreApplication app(*argc, *argv);
    app.setProperty("zel_env", true);
    port = new ScriptedPort;
    driver = new DriverHushCNC;
    driver->write(port, CommunicatorCommand(CommunicatorCommand::DWordType, 0, "DW0"), {});
    drainWorker(*driver);
    return 0;
}

// One command per line: "r TYPE LENGTH ADDRESS [FIRST COUNT]" reads, with COUNT double words
// from FIRST on put into the cache beside the command's, and "w TYPE LENGTH ADDRESS [HEX]"
// writes the data given in hexadecimal. Numbers are decimal (a negative length wraps as the
// run-time's unsigned lengths do); other lines are skipped.
extern "C" int LLVMFuzzerTestOneInput(const uint8_t *input, size_t size)
{
    if (size > 4096)
        return 0;
    port->clearRecord();
    QSet<quint32> allowed;
    qint64 dwordLimit = 0;
    const QList<QByteArray> lines
        = QByteArray::fromRawData(reinterpret_cast<const char *>(input), int(size)).split('\n');
    for (const QByteArray &line : lines.mid(0, 16)) {
        const QList<QByteArray> f = line.split(' ');
        if (f.size() < 4 || (f.at(0) != "r" && f.at(0) != "w"))
            continue;
        const CommunicatorCommand cmd(Type(f.at(1).toInt()), quint32(f.at(2).toLongLong()),
                                      QString::fromLatin1(f.at(3)));
        if (f.at(0) == "r") {
            const int first = qBound(0, f.value(4).toInt(), 99999);
            QStringList neighbours;
            for (int n = first; n < qMin(first + qBound(0, f.value(5).toInt(), 8), 100000); ++n)
                neighbours.append(QString::asprintf("d%05d", n));
            checkRead(*driver, *port, cmd, neighbours);
            continue;
        }
        // Program transfers have their own target; their requests would hold the worker.
        if (cmd.address == QLatin1String("ReadAllCode0")
            || cmd.address == QLatin1String("ReadCurrentCode0")
            || cmd.address == QLatin1String("Code2CtrlCmd"))
            continue;
        const QByteArray data = QByteArray::fromHex(f.value(4));
        if (driver->write(port, cmd, data)
            && (cmd.dataType == CommunicatorCommand::DWordType
                || cmd.dataType == CommunicatorCommand::BlockType)) {
            allowValues(data, allowed);
            dwordLimit += cmd.dataType == CommunicatorCommand::BlockType
                ? (qint64(cmd.length) + 3) / 4
                : qint64(cmd.length);
        }
    }
    drainWorker(*driver);
    QCoreApplication::processEvents();
    checkFrames(port->writes(), allowed, dwordLimit);
    return 0;
}

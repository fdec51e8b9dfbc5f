// The worker's read cycle fed any byte stream: loop cycles (from the start of loop reading, so
// that later cycles use the lenient grammar and the frame carried from the cycle before) or an
// immediate read, for 0 to 99 addresses. Every value delivered is one that a response in the
// stream carried in full for that address (an immediate read's all from one response); each
// cycle ends within a bounded number of port reads, also on a line that babbles for ever; the
// worker sends nothing but stop frames and requests for its list.
#include "hustframes.h"
#include "portscript.h"
#include "workertestsupport.h"

#include <QCoreApplication>
#include <QThread>
#include <QVariant>
#include <QtEndian>

#include <cstdlib>
#include <cstring>

// The worker's pauses (after a restart, during a drain, before a loop cycle) take no time here:
// the driver's code is linked into this program, so its calls bind to this definition, and a
// silent line's restarts cost nothing.
void QThread::msleep(unsigned long) { }

namespace {

void check(bool condition)
{
    if (!condition)
        std::abort();
}

// A port that answers each read request with the next group of reads of the script; once the
// script is spent it stays silent, or babbles the last read for ever. It keeps the stream as the
// worker received it, with a NUL wherever bytes were lost in between (the rest of a read after a
// NUL, bytes discarded unread), since no frame can span such a loss.
class FuzzPort : public AbstractDeviceInterface
{
public:
    FuzzPort(const QList<QList<QByteArray>> &groups, bool babble)
        : m_groups(groups)
        , m_setting(DEVICE_SERIAL, QStringLiteral("fuzz"), 38400, 7, 2, 2)
    {
        for (const QList<QByteArray> &group : groups) {
            for (const QByteArray &chunk : group) {
                if (babble && !chunk.isEmpty())
                    m_babble = chunk;
            }
        }
    }

    QByteArray stream;
    QByteArray written;
    qint64 reads = 0;

    int readData(char *data, int maxSize) override
    {
        ++reads;
        QByteArray piece;
        if (!m_pending.isEmpty()) {
            QByteArray &head = m_pending.first();
            piece = head.left(maxSize);
            if (piece.size() == head.size())
                m_pending.removeFirst();
            else
                head.remove(0, piece.size());
        } else if (m_groups.isEmpty()) {
            piece = m_babble.left(maxSize);
        }
        std::memcpy(data, piece.constData(), size_t(piece.size()));
        const int nul = piece.indexOf('\0');
        stream += nul < 0 ? piece : piece.left(nul) + '\0';
        return piece.size();
    }
    int receiveData(char *data, int maxSize) override { return readData(data, maxSize); }
    int writeData(const char *data, int size) override
    {
        const QByteArray bytes(data, size);
        written += bytes;
        // A request's first piece: the controller answers with the next group.
        if (bytes.startsWith(QByteArray("\x12%\rO9000\rN0\r", 12)) && !m_groups.isEmpty())
            m_pending += m_groups.takeFirst();
        return size;
    }
    DeviceSetting *getDeviceSetting() override { return &m_setting; }
    void getOption(int option, QVariant &value) override
    {
        if (option != BytesAvailableOption)
            return;
        // Of what the controller sends, one read's worth has arrived at a time.
        value = !m_pending.isEmpty() ? m_pending.first().size()
            : m_groups.isEmpty()     ? m_babble.size()
                                     : 0;
    }
    void setOption(int option, const QVariant &value) override
    {
        if (option != DiscardReceivedOption || value.toInt() != 0)
            return;
        if (!m_pending.isEmpty() || (m_groups.isEmpty() && !m_babble.isEmpty()))
            stream += '\0';
        m_pending.clear();
    }
    int getRetry() override { return 0; }
    int getDelay() override { return 0; }

private:
    QList<QList<QByteArray>> m_groups;
    QList<QByteArray> m_pending;
    QByteArray m_babble;
    DeviceSetting m_setting;
};

bool isValueChar(char c)
{
    return (c >= '0' && c <= '?') || c == ',';
}

// A record at `at`: the letter, 5 to 8 value characters and CR. Its length, or 0.
int record(const QByteArray &s, int at, char letter, QByteArray *value)
{
    if (at >= s.size() || s.at(at) != letter)
        return 0;
    int run = 0;
    while (run < 9 && at + 1 + run < s.size() && isValueChar(s.at(at + 1 + run)))
        ++run;
    if (run < 5 || run > 8 || at + 1 + run >= s.size() || s.at(at + 1 + run) != '\r')
        return 0;
    *value = s.mid(at + 1, run);
    return run + 2;
}

// The double word of eight value characters; 0 when one of them is no digit (',').
quint32 valueOf(const QByteArray &text)
{
    quint32 value = 0;
    for (char c : text) {
        if (c == ',')
            return 0;
        value = (value << 4) | quint32(c - '0');
    }
    return value;
}

// The d records of every response for n addresses in the stream, from its H and count records
// on, as far as they go (at most n): a frame the stream ends in, or a loss cuts, has fewer.
// With `tails`, a run of more than n records that ends a frame ("%" DC4) also counts its last n
// records as a response: only a frame whose head was lost between two frames makes such a run,
// and counted from the frame's end its records are those of the second frame's addresses.
QList<QList<QByteArray>> responses(const QByteArray &s, int n, bool tails)
{
    QList<QList<QByteArray>> found;
    const QByteArray count = QByteArray::number(n).rightJustified(2, '0');
    for (int at = s.indexOf('H'); at >= 0; at = s.indexOf('H', at + 1)) {
        QByteArray value;
        int pos = at + record(s, at, 'H', &value);
        if (pos == at || s.mid(pos, 4) != 'v' + count + '\r')
            continue;
        pos += 4;
        QList<QByteArray> texts;
        for (int size; (size = record(s, pos, 'd', &value)) > 0; pos += size)
            texts << value;
        found << texts.mid(0, n);
        if (tails && texts.size() > n && s.mid(pos, 2) == "%\x14")
            found << texts.mid(texts.size() - n);
    }
    return found;
}

// An immediate read takes one whole response of full values. A loop cycle may take the records
// of a newer frame's head and an older frame's tail, or a short value's double word from the
// last full block: each value then is one that some response carried in full for that address.
void checkBlock(const QByteArray &block, const QByteArray &stream, int n, bool immediate)
{
    check(block.size() == 4 * n);
    const auto valueAt
        = [&block](int i) { return qFromLittleEndian<quint32>(block.constData() + 4 * i); };
    const QList<QList<QByteArray>> found = responses(stream, n, !immediate);
    if (immediate) {
        for (const QList<QByteArray> &texts : found) {
            bool same = texts.size() == n;
            for (int i = 0; i < n && same; ++i)
                same = texts.at(i).size() == 8 && valueAt(i) == valueOf(texts.at(i));
            if (same)
                return;
        }
        std::abort();
    }
    for (int i = 0; i < n; ++i) {
        bool carried = false;
        for (const QList<QByteArray> &texts : found) {
            carried = carried
                || (i < texts.size() && texts.at(i).size() == 8
                    && valueAt(i) == valueOf(texts.at(i)));
        }
        check(carried);
    }
}

// Nothing but stop frames and read requests for the list goes out.
void checkWritten(QByteArray written, const QStringList &list)
{
    const QByteArray stop = HustFrames::stopFrame();
    const QByteArray request = HustFrames::readRequest(list);
    while (!written.isEmpty()) {
        const QByteArray &frame = written.startsWith(stop) ? stop : request;
        check(written.startsWith(frame));
        written.remove(0, frame.size());
    }
}

} // namespace

extern "C" int LLVMFuzzerInitialize(int *argc, char ***argv)
{
    static QCoreApplication app(*argc, *argv);
    return 0;
}

// The first byte gives the count of addresses (its value modulo 100), the second the mode: bit 0
// an immediate read, bit 1 a babbling line once the script is spent, bits 2 and 3 the number of
// loop cycles after the first. The rest is the port script, one group per request.
extern "C" int LLVMFuzzerTestOneInput(const uint8_t *input, size_t size)
{
    if (size < 2 || size > 8192)
        return 0;
    const int n = input[0] % 100;
    const bool immediate = input[1] & 1;
    const bool babble = input[1] & 2;
    const int cycles = 1 + ((input[1] >> 2) & 3);
    QStringList list;
    for (int i = 0; i < n; ++i)
        list << QString::asprintf("d%05d", 100 + 7 * i);

    FuzzPort port(portScript(input + 2, size - 2), babble);
    DriverHushCNC driver;
    DriverHushCNCReaderWriter worker;
    DriverHushCNCReaderWriterTestAccess(worker).setPort(&port);
    worker.setDriverInterface(&driver);

    // Reads a cycle may take: every restart's empty reads, and every failed attempt's refill of a
    // response's worth, one byte a read at worst.
    const int rxBufSize = HustFrames::responseSize(n);
    const qint64 bound = 4 * (32 + (std::max(2 * n, 10) + 2) * qint64(rxBufSize + 200));
    if (immediate) {
        QByteArray block;
        worker.getAddrValRightaway(list, quintptr(&block));
        check(port.reads <= bound);
        if (!block.isEmpty())
            checkBlock(block, port.stream, n, true);
    } else {
        for (int cycle = 0; cycle < cycles; ++cycle) {
            const quint64 delivered = driver.property("deliveredBlocks").toULongLong();
            const qint64 readsBefore = port.reads;
            if (cycle == 0)
                worker.startLoopRead(list);
            else
                worker.loopRead();
            check(port.reads - readsBefore <= bound);
            if (driver.property("deliveredBlocks").toULongLong() != delivered)
                checkBlock(DriverHushCNCTestAccess::blockData(driver), port.stream, n, false);
        }
    }
    checkWritten(port.written, list);
    return 0;
}

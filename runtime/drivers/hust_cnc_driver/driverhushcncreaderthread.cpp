#include "driverhushcncreaderthread.h"

#include "abstractdeviceinterface.h"
#include "hush_cnc.h"
#include "hustframes.h"
#include "hustlog.h"
#include "tools.h"
#include "uartregister.h"

#include <QApplication>
#include <QDialog>
#include <QFont>
#include <QFrame>
#include <QHBoxLayout>
#include <QLabel>
#include <QPushButton>
#include <QThread>
#include <QTimer>
#include <QVBoxLayout>

#include <algorithm>
#include <cstring>

namespace {

// The worker's pauses, in milliseconds.
namespace Pause {
// stopLoopRead(): lets a cycle under way see the stop flag before the stop frame goes out.
constexpr int StopSettle = 20;
// An immediate read: between its request and the stop frame that ends the answer early.
constexpr int ImmediateStop = 10;
// After a restart's new request, before reading again.
constexpr int AfterRestart = 100;
// A drain: before its first query, and after each discard.
constexpr int DrainStart = 5;
constexpr int DrainPass = 20;
// A loop cycle begins with one millisecond per address, within these bounds.
constexpr int LoopLeast = 5;
constexpr int LoopMost = 30;
} // namespace Pause

// The worker's counts.
namespace Count {
// Port reads ask for at most this many bytes; m_rxChunk has room behind them.
constexpr int MaxReadSize = 200;
// A read that may be followed by a match attempt asks for at least this many bytes, unless the
// rest of a frame in hand is shorter.
constexpr int MinReadSize = 30;
// Empty reads tolerated before the exchange is restarted: the 32nd empty read restarts it.
constexpr int MaxEmptyReads = 30;
// After a restart for a silent line, the time-out is raised again at this empty read.
constexpr int EmptyReadsToRepeatTimeout = 16;
// A cycle ends, without a result, at the exhaustion that follows this many restarts (silent line
// or stale responses): an immediate read has a caller waiting on it, and a loop cycle must not
// hold the worker's thread, where queued writes wait behind it, for ever.
constexpr int MaxRestarts = 3;
// Failed match attempts before a cycle gives up: twice the addresses, at least this many.
constexpr int LeastGiveUpLimit = 10;
// A drain ends at the query after this many found nothing waiting.
constexpr int DrainQuietQueries = 5;
// From the pass after this one, every pass of a drain re-sends the stop frame.
constexpr int DrainPassesBeforeStop = 25;
// A drain gives up after this many passes (about two seconds) on a line that never goes quiet,
// so that a babbling controller cannot hold the calling thread.
constexpr int MaxDrainPasses = 100;
// Bit writes waiting to be seen in a block that are kept track of; an older one is let go.
constexpr int MaxBitWritesWaiting = 256;
} // namespace Count

// DC2 bytes, each the start of a frame.
int frameStartsIn(const char *bytes, int size)
{
    int count = 0;
    for (const char *end = bytes + size;; ++bytes, ++count) {
        bytes = static_cast<const char *>(std::memchr(bytes, HustFrames::DC2, size_t(end - bytes)));
        if (!bytes)
            return count;
    }
}

// Received bytes count up to the first NUL.
int bytesBeforeNul(const char *bytes, int size)
{
    const void *nul = std::memchr(bytes, 0, size_t(size));
    return nul ? int(static_cast<const char *>(nul) - bytes) : size;
}

int waitingBytes(AbstractDeviceInterface *port)
{
    QVariant value;
    port->getOption(AbstractDeviceInterface::BytesAvailableOption, value);
    return value.toInt();
}

void discardReceived(AbstractDeviceInterface *port)
{
    port->setOption(AbstractDeviceInterface::DiscardReceivedOption, 0);
}

// The overflow notice's fixed size.
constexpr int NoticeWidth = 500;
constexpr int NoticeHeight = 150;
// While the notice is open the main thread sleeps until an event comes; "isExit" may be set from
// any thread without one, so a timer wakes the wait this often to look at it.
constexpr int NoticeWakeMs = 100;

// The run-time's screen controller, published on the application object as its address (an
// unsigned integer) or as an object pointer; null when there is none.
QObject *screenController(const QCoreApplication *app)
{
    const QVariant value = app->property("ScreenController");
    if (value.userType() == QMetaType::QObjectStar)
        return value.value<QObject *>();
    return reinterpret_cast<QObject *>(quintptr(value.toULongLong()));
}

} // namespace

DriverHushCNCReaderWriter::DriverHushCNCReaderWriter(QObject *parent)
    : QObject(parent)
    , m_readInterface(nullptr)
    , m_stopSendCmdLength(0)
    , m_rxChunk()
    , m_driver(nullptr)
    , m_cmdJustSent(false)
    , m_overflowWorker(nullptr)
    , m_isLoopCycle(false)
    , m_isStopLoopRead(true)
    , m_isLoopReading(false)
{
    // Built here rather than on first use: stopLoopRead() sends it from the driver's thread
    // while a cycle may send it from the worker's thread.
    m_stopSendCmd = HustFrames::stopFrame();
    m_stopSendCmdLength = m_stopSendCmd.size();
}

DriverHushCNCReaderWriter::~DriverHushCNCReaderWriter() = default;

void DriverHushCNCReaderWriter::setReadInterface(AbstractDeviceInterface *interface)
{
    m_readInterface = interface;
    sendStopSendCommand(0);
    checkRxBufAndExit();
}

void DriverHushCNCReaderWriter::setDriverInterface(DriverInterface *driver)
{
    m_driver = dynamic_cast<DriverHushCNC *>(driver);
}

int DriverHushCNCReaderWriter::offsetAddressForWordType(const QString &prefix, int index)
{
    if (prefix == QLatin1String("I"))
        return index + 10800;
    if (prefix == QLatin1String("O"))
        return index + 10808;
    if (prefix == QLatin1String("C"))
        return index + 10816;
    if (prefix == QLatin1String("S"))
        return index + 10824;
    if (prefix == QLatin1String("A"))
        return index + 10832;
    return index;
}

void DriverHushCNCReaderWriter::reCalculateAddrAndLengthForWordType(const QString &prefix,
                                                                    int &address, int &length)
{
    if (prefix == QLatin1String("DW") || prefix == QLatin1String("B"))
        return;
    address /= 32;
    length = length / 2 + (length % 2 == 1 ? 1 : 0);
    if (length == 0)
        length = 1;
    address = offsetAddressForWordType(prefix, address);
}

int DriverHushCNCReaderWriter::getBitLoc(const QString &address)
{
    if (ExtractPrefixSymbol(address) == "B") {
        const int point = address.indexOf(QLatin1Char('.'));
        return point < 0 ? 0 : address.mid(point + 1).toInt(nullptr, 10);
    }
    return ExtractPLCDeviceAddress(address, 10) % 32;
}

void DriverHushCNCReaderWriter::getAddrValRightaway(QStringList addrList,
                                                    quintptr responseByteArrayPointer)
{
    m_addrList = addrList;
    m_carried.clear();
    sendStopSendCommand(0);
    checkRxBufAndExit();
    fenceOldStream();
    sendTxBufForRead(packReadBytesCmd());
    QThread::msleep(Pause::ImmediateStop);
    sendStopSendCommand(0);
    readFromCNCController(true, reinterpret_cast<QByteArray *>(responseByteArrayPointer));
    checkRxBufAndExit();
}

void DriverHushCNCReaderWriter::stopLoopRead()
{
    m_isStopLoopRead = true;
    QThread::msleep(Pause::StopSettle);
    sendStopSendCommand(0);
    checkRxBufAndExit();
}

void DriverHushCNCReaderWriter::startLoopRead(QStringList addrList)
{
    m_lastFullBlock.clear();
    m_isStopLoopRead = false;
    m_addrList = addrList;
    // A fence on a line that has gone silent takes as long as a cycle: the driver is to see a
    // cycle under way meanwhile, not queue further ones behind it.
    m_isLoopReading = true;
    fenceOldStream();
    sendTxBufForRead(packReadBytesCmd());
    loopRead();
}

// Responses carry no list identity but their count record, which a cycle checks against the
// list it asked for. After a drain that gave up, the controller may still be streaming the list
// of the last request, and a frame of it that starts before the controller has taken the next
// request is on the line after that request; when the new list has the same count, such a frame
// would pass for the new list's response and put another screen's values on this one. So the
// old stream is fenced off first: a request for a short list of another count, and an immediate
// cycle that waits for a response of that count. Once one has arrived the controller has taken a
// request after the old list, and from then on a response of the new count can only answer the
// new list's request. This adds a request and its answer to the exchange, only on a line whose
// drain gave up. A fence that is not confirmed raises the time-out, as any silent line does, and
// the new request goes out anyway.
void DriverHushCNCReaderWriter::fenceOldStream()
{
    const bool drainGaveUp = m_drainGaveUp.exchange(false);
    const int n = m_addrList.size();
    // An empty list has no values that could be wrong.
    if (!drainGaveUp || n == 0 || n != m_lastRequestCount)
        return;
    const QStringList list = m_addrList;
    // The first name once, or twice for a list of one: a count the new list does not have.
    m_addrList = QStringList(list.first());
    if (n == 1)
        m_addrList << list.first();
    qCDebug(lcHustDriver) << "the old list may still stream: fencing it off with a request for"
                          << m_addrList.size() << "addresses";
    sendTxBufForRead(packReadBytesCmd());
    // The rest of an old frame comes first: the cycle's failed attempts are sized to its length.
    QByteArray fence;
    readCycle(true, &fence, n);
    if (fence.isEmpty())
        qCDebug(lcHustDriver) << "fence not confirmed; sending the request anyway";
    m_addrList = list;
}

void DriverHushCNCReaderWriter::writeDWord(QString address, int dwordLength, QByteArray writeData)
{
    if (dwordLength <= 0)
        return;
    const QString prefix = QString::fromLatin1(ExtractPrefixSymbol(address));
    int number = ExtractPLCDeviceAddress(address, 10);
    int unusedLength = 0;
    reCalculateAddrAndLengthForWordType(prefix, number, unusedLength);
    if (!m_readInterface || number < 0 || dwordLength - 1 > HustFrames::MaxDWordNumber - number) {
        qCDebug(lcHustDriver) << "double-word write refused:" << address << dwordLength
                              << (m_readInterface ? "does not fit the frame" : "no port");
        emit setWriteDWordError();
        return;
    }
    // Each frame goes out behind a discard of the input, which breaks the stream in hand.
    m_carried.clear();
    QVector<DWORD> dwords;
    packDWordList(writeData, dwords, dwordLength);
    for (int i = 0; i < dwordLength; ++i) {
        const QByteArray frame = packWriteDWordCmd(number + i, dwords.at(i));
        discardReceived(m_readInterface);
        if (m_readInterface->writeData(frame.constData(), frame.size()) != frame.size())
            emit setWriteDWordError();
    }
}

void DriverHushCNCReaderWriter::writeBit(QString address, bool val)
{
    // Counted before anything can refuse it, in step with the driver's count of the bit writes
    // it hands over (see noteBitWrite()).
    noteBitWrite();
    if (ExtractPrefixSymbol(address) != "B")
        return;
    const int bit = getBitLoc(address);
    const int number = ExtractPLCDeviceAddress(address.section(QLatin1Char('.'), 0, 0), 10);
    const QByteArray frame = packWriteBtypeBitCmd(number, bit, val);
    if (frame.isEmpty() || !m_readInterface) {
        qCDebug(lcHustDriver) << "bit write refused:" << address;
        emit setWriteBitError();
        return;
    }
    m_carried.clear();
    discardReceived(m_readInterface);
    if (m_readInterface->writeData(frame.constData(), frame.size()) != frame.size())
        emit setWriteBitError();
}

void DriverHushCNCReaderWriter::loopRead()
{
    m_isLoopReading = true;
    if (m_isStopLoopRead)
        return;
    takeBacklog();
    QThread::msleep(qBound(Pause::LoopLeast, int(m_addrList.size()), Pause::LoopMost));
    readFromCNCController(false, nullptr);
    m_isLoopReading = false;
}

void DriverHushCNCReaderWriter::showOverflowMsg(int num)
{
    QCoreApplication *app = QCoreApplication::instance();
    if (!app) {
        qCDebug(lcHustDriver) << "There are" << num
                              << "registers to read; no application to show it";
        return;
    }
    if (!m_overflowWorker) {
        Worker *worker = new Worker();
        worker->moveToThread(app->thread());
        // Adopted by the application object in its own thread, so it is deleted with it.
        QMetaObject::invokeMethod(worker, [worker, app] { worker->setParent(app); });
        m_overflowWorker = worker;
    }
    // Further reports are dropped while a notice is pending or on screen.
    if (m_overflowWorker->m_isShowing.exchange(true))
        return;
    // Always queued: the notice waits for its dialog, which must not hold up the caller.
    QMetaObject::invokeMethod(m_overflowWorker, "showOverflowMsg", Qt::QueuedConnection,
                              Q_ARG(int, num));
}

void DriverHushCNCReaderWriter::toggleUartInterrupt(int port, bool enable)
{
    const int bit = UartRegister::interruptBit(port);
    if (bit < 0)
        return;
    if (!m_uartRegister)
        m_uartRegister.reset(new DevMemUartRegister());
    if (!m_uartRegister->open())
        return;
    // Enabling the receive interrupt clears the port's mask bit, disabling sets it.
    const unsigned int value = m_uartRegister->read();
    m_uartRegister->write(enable ? clearBit(value, ushort(bit)) : setBit(value, ushort(bit)));
    m_uartRegister->close();
}

int DriverHushCNCReaderWriter::calculateRxBufSize()
{
    return HustFrames::responseSize(m_addrList.size());
}

void DriverHushCNCReaderWriter::checkRxBufAndExit()
{
    AbstractDeviceInterface *port = m_readInterface;
    if (!port)
        return;
    QThread::msleep(Pause::DrainStart);
    int passes = 0;
    int empties = 0;
    bool quiet = false;
    for (;;) {
        if (waitingBytes(port) <= 0) {
            quiet = empties > Count::DrainQuietQueries;
            if (quiet)
                break;
            ++empties;
        }
        discardReceived(port);
        QThread::msleep(Pause::DrainPass);
        if (passes > Count::DrainPassesBeforeStop)
            sendStopSendCommand(0);
        ++passes;
        if (passes >= Count::MaxDrainPasses) {
            qCDebug(lcHustDriver) << "drain gave up: the line did not go quiet after" << passes
                                  << "passes";
            break;
        }
    }
    discardReceived(port);
    m_drainGaveUp = !quiet;
}

void DriverHushCNCReaderWriter::packDWordList(const QByteArray &baData, QVector<DWORD> &dwords,
                                              int dwordLength)
{
    for (int i = 0; i < dwordLength; ++i) {
        DWORD value = 0;
        for (int b = 0; b < 4; ++b) {
            const int at = 4 * i + b;
            if (at < baData.size())
                value |= DWORD(quint8(baData.at(at))) << (8 * b);
        }
        dwords.append(value);
    }
}

QByteArray DriverHushCNCReaderWriter::packWriteBtypeBitCmd(int addr_val, int bitLoc, bool val)
{
    return HustFrames::writeBitFrame(addr_val, bitLoc, val);
}

QByteArray DriverHushCNCReaderWriter::packWriteDWordCmd(int addr_val, DWORD val)
{
    return HustFrames::writeDWordFrame(addr_val, val);
}

void DriverHushCNCReaderWriter::sendTxBufForRead(const QByteArray &tx_buf)
{
    AbstractDeviceInterface *port = m_readInterface;
    if (!port || tx_buf.isEmpty())
        return;
    discardReceived(port);
    m_requestUnsent = !HustFrames::writeInPieces(port, tx_buf);
    m_cmdJustSent = true;
    // Every request sent is the one for m_addrList.
    m_lastRequestCount = m_addrList.size();
    // Whatever was carried belongs to the stream this request replaces.
    m_carried.clear();
}

QByteArray DriverHushCNCReaderWriter::extractDataFromRespBuf(const QStringList &data,
                                                             const int &data_length,
                                                             bool &isFullData)
{
    const int count = qBound(0, data_length, int(data.size()));
    QByteArray block(4 * count, Qt::Uninitialized);
    int size = 0;
    isFullData = true;
    for (int i = 0; i < count; ++i) {
        const QByteArray text = data.at(i).toLatin1();
        size += putValue(block.data() + size, i, text.constData(), text.size(), data_length,
                         isFullData);
    }
    block.truncate(size);
    return block;
}

int DriverHushCNCReaderWriter::putValue(char *out, int i, const char *text, int size,
                                        int dataLength, bool &isFullData) const
{
    if (size < 8) {
        isFullData = false;
        if (m_lastFullBlock.size() / 4 != dataLength)
            return 0;
        std::memcpy(out, m_lastFullBlock.constData() + 4 * i, 4);
        return 4;
    }
    const quint32 value = HustFrames::valueOf(text, size);
    out[0] = char(value & 0xFF);
    out[1] = char((value >> 8) & 0xFF);
    out[2] = char((value >> 16) & 0xFF);
    out[3] = char(value >> 24);
    return 4;
}

void DriverHushCNCReaderWriter::sendStopSendCommand(int)
{
    AbstractDeviceInterface *port = m_readInterface;
    if (!port)
        return;
    port->writeData(m_stopSendCmd.constData(), m_stopSendCmdLength);
}

QByteArray DriverHushCNCReaderWriter::packReadBytesCmd()
{
    return HustFrames::readRequest(m_addrList);
}

// One read cycle, as a sequence of named steps over the cycle's state:
//   receive               one port read (the empty-read rule lives here);
//   dropBeforeFirstFrame  right after a request, bytes before the first frame are old;
//   search                a match attempt, once a response's worth of bytes is in hand;
//   attemptFailed         keep the newest frame's start, give up after too many attempts;
//   checkHCode            right after a request, a repeated H code means a stale response;
//   finish                decode, deliver, and carry what follows the match.
// A loop cycle starts from the bytes carried from the cycle before (takeBacklog()).
void DriverHushCNCReaderWriter::readFromCNCController(bool isResponse, QByteArray *response)
{
    readCycle(isResponse, response, m_addrList.size());
}

void DriverHushCNCReaderWriter::readCycle(bool isResponse, QByteArray *response, int ahead)
{
    const int n = m_addrList.size();
    if (!m_readInterface || n > HustFrames::MaxAddressCount) {
        qCDebug(lcHustDriver) << "read cycle refused:" << n << "addresses"
                              << (m_readInterface ? "" : "and no port");
        emit setReadLoopTimeoutError();
        return;
    }
    m_isLoopCycle = !isResponse;
    ReadCycle c;
    c.isResponse = isResponse;
    c.count = n;
    c.rxBufSize = calculateRxBufSize();
    c.attemptLimit = std::max(2 * std::max(n, ahead), Count::LeastGiveUpLimit);
    c.matcher = &matcherFor(n, !isResponse && m_lastFullBlock.size() / 4 == n);
    if (!isResponse)
        c.rxBuf.swap(m_carried);
    // Room for a response, a read's worth behind it and what a failed attempt keeps: appending
    // then never reallocates, and the buffer handed on as the carry keeps its room.
    c.rxBuf.reserve(2 * c.rxBufSize + Count::MaxReadSize);
    // A carried frame start needs only the rest of its frame.
    const bool atFrame = c.rxBuf.startsWith(HustFrames::DC2);
    c.tmpSize = atFrame ? c.rxBufSize - c.rxBuf.size() : c.rxBufSize;
    // A whole frame carried in is tried before anything is read.
    bool read = c.rxBuf.size() < c.rxBufSize;

    for (;;) {
        if (m_isStopLoopRead && !isResponse)
            return;
        if (read) {
            const Step step = receive(c);
            if (step == Step::End)
                return;
            if (step == Step::Again)
                continue;
        }
        read = true;
        if (m_cmdJustSent)
            dropBeforeFirstFrame(c);
        if (c.rxBuf.size() < c.rxBufSize)
            continue;
        if (search(c) <= 0) {
            if (attemptFailed(c) == Step::End) {
                giveUp(isResponse);
                return;
            }
            continue;
        }
        const Step step = checkHCode(c);
        if (step == Step::End)
            return;
        if (step == Step::Again)
            continue;
        finish(c, response);
        return;
    }
}

// Reads into the cycle's buffer. While more than one read's worth is still expected, bytes are
// only collected (Again); after that every read is followed by a match attempt (Go). When the
// buffer starts at a frame's DC2, only the rest of that frame is asked for: a read reaching
// into the next frame would leave the forward search a window that starts inside it.
DriverHushCNCReaderWriter::Step DriverHushCNCReaderWriter::receive(ReadCycle &c)
{
    const bool collecting = c.tmpSize > Count::MaxReadSize;
    int asked;
    if (collecting) {
        asked = Count::MaxReadSize;
    } else if (c.rxBuf.startsWith(HustFrames::DC2) && c.rxBuf.size() < c.rxBufSize) {
        asked = qMin(c.rxBufSize - int(c.rxBuf.size()), Count::MaxReadSize);
    } else {
        c.tmpSize = qMax(c.tmpSize, Count::MinReadSize);
        asked = c.tmpSize;
    }
    const int got = readChunk(asked);
    // Bytes count up to the first NUL only. A read that appends nothing counts as empty even
    // when it returned bytes: a line held in break reads as NUL bytes, and the cycle must stay
    // bounded on it.
    const int appended = bytesBeforeNul(m_rxChunk, got);
    if (appended == 0) {
        // A request the port failed to write (the link was lost) is written again at every empty
        // read, so that a link that comes back is asked at once rather than at the next restart,
        // up to a count of empty reads later. On a port that takes its writes this never happens.
        if (m_requestUnsent && !(m_isLoopCycle && m_isStopLoopRead))
            sendTxBufForRead(packReadBytesCmd());
        // The empty-read rule: the 32nd empty read since the cycle began or since the last
        // restart raises the time-out and restarts the exchange; the cycle ends instead once it
        // has used up its restarts.
        if (c.emptyReads <= Count::MaxEmptyReads) {
            ++c.emptyReads;
            // A panel learns of the outage from the pending error, which every 52nd
            // clearError() drops whenever it was raised: one raised just before such a call
            // goes unseen until the next. Once a restart has found the line silent, the error
            // is raised again halfway to the next restart, which shortens the longest time an
            // outage can go unseen by half a count of empty reads.
            if (c.silentRestarts > 0 && c.emptyReads == Count::EmptyReadsToRepeatTimeout)
                emit setReadLoopTimeoutError();
        } else {
            emit setReadLoopTimeoutError();
            if (c.restarts++ >= Count::MaxRestarts) {
                qCDebug(lcHustDriver) << "read cycle: the controller stays silent, giving up";
                // A loop cycle still makes the restart this empty read calls for, so that the
                // next cycle starts with a request on the line. Otherwise a link that came back
                // during the cycle would wait out the rest of it and another count of empty
                // reads before the request went out again.
                if (!c.isResponse)
                    restart(c);
                return Step::End;
            }
            restart(c);
            c.emptyReads = 0;
            ++c.silentRestarts;
            return Step::Again;
        }
    }
    c.rxBuf.append(m_rxChunk, appended);
    countFrameStarts(m_rxChunk, appended);
    // What followed the NUL in this read is lost: a NUL stays behind as a barrier, so that no
    // record joins the digits before the loss to those after it into a value never sent.
    if (appended < got)
        c.rxBuf.append('\0');
    if (collecting) {
        c.tmpSize -= got;
        return Step::Again;
    }
    return Step::Go;
}

void DriverHushCNCReaderWriter::dropBeforeFirstFrame(ReadCycle &c)
{
    const int p = c.rxBuf.indexOf(HustFrames::DC2);
    if (p > 0)
        c.rxBuf.remove(0, p);
}

// A match attempt: the match position, or -1 (a match at 0, with no DC2 before it, fails too).
int DriverHushCNCReaderWriter::search(ReadCycle &c)
{
    HustFrames::ResponseMatcher &matcher = *c.matcher;
    int position;
    if (!m_cmdJustSent && !c.backward) {
        // Only the last response's worth counts; when nothing matches, the bytes stay in the
        // order they arrived, so that later attempts never search across the join of two
        // frames.
        if (c.rxBuf.size() > c.rxBufSize)
            c.rxBuf.remove(0, c.rxBuf.size() - c.rxBufSize);
        position = matcher.searchForward(c.rxBuf, c.rxBufSize);
    } else {
        position = matcher.searchBackward(c.rxBuf);
    }
    // The pattern admits any two digits in the v record, so the first N records of a longer
    // frame of the previous list would match; its fresh H code passes the stale check when the
    // stop frame was lost. Only a count equal to N is taken, which well-formed streams never
    // notice.
    if (position > 0 && !matcher.countIs(c.count))
        position = -1;
    return position;
}

DriverHushCNCReaderWriter::Step DriverHushCNCReaderWriter::attemptFailed(ReadCycle &c)
{
    const int p = c.rxBuf.lastIndexOf(HustFrames::DC2);
    if (p > 0) {
        c.tmpSize = c.rxBufSize + 10 - (c.rxBuf.size() - p);
        c.rxBuf.remove(0, p);
    }
    if (c.loop > c.attemptLimit)
        return Step::End;
    ++c.loop;
    c.backward = true;
    return Step::Again;
}

DriverHushCNCReaderWriter::Step DriverHushCNCReaderWriter::checkHCode(ReadCycle &c)
{
    const HustFrames::ResponseMatcher &matcher = *c.matcher;
    if (m_lastHCode.isEmpty()) {
        m_lastHCode = matcher.cap(1);
        return Step::Go;
    }
    if (!m_cmdJustSent)
        return Step::Go;
    if (matcher.hRecordIs(m_lastHCode)) {
        qCDebug(lcHustDriver) << "error0. H code is the same with previous data";
        if (c.restarts++ >= Count::MaxRestarts) {
            qCDebug(lcHustDriver) << "read cycle: only stale responses, giving up";
            emit setReadLoopTimeoutError();
            return Step::End;
        }
        restart(c);
        return Step::Again;
    }
    m_cmdJustSent = false;
    m_lastHCode = matcher.cap(1);
    return Step::Go;
}

// Decodes the match straight from the received bytes and delivers the block. A loop cycle
// carries the bytes that followed the match, from their first DC2, into the next cycle: they
// are the head of the next frame, which a cycle-local buffer would throw away.
void DriverHushCNCReaderWriter::finish(ReadCycle &c, QByteArray *response)
{
    const HustFrames::ResponseMatcher &matcher = *c.matcher;
    QByteArray block(4 * c.count, Qt::Uninitialized);
    int size = 0;
    bool isFullData = true;
    for (int i = 0; i < c.count; ++i) {
        size += putValue(block.data() + size, i, matcher.valueText(i), matcher.valueSize(i),
                         c.count, isFullData);
    }
    block.truncate(size);
    if (!c.isResponse) {
        noteBlockRead(c);
        const int next = c.rxBuf.indexOf(HustFrames::DC2, matcher.endInReceived());
        if (next >= 0) {
            c.rxBuf.remove(0, next);
            m_carried.swap(c.rxBuf);
        }
    }
    deliver(block, isFullData, c.isResponse, response);
}

void DriverHushCNCReaderWriter::restart(ReadCycle &c)
{
    retrySendReadCommand(c.rxBuf, c.tmpSize, c.loop, c.rxBufSize);
}

void DriverHushCNCReaderWriter::retrySendReadCommand(QByteArray &rx_buf, int &tmpSize, int &loop,
                                                     int &rx_buf_size)
{
    rx_buf.clear();
    tmpSize = rx_buf_size;
    qCDebug(lcHustDriver) << "retrySendReadCommand";
    loop = 0;
    sendStopSendCommand(0);
    checkRxBufAndExit();
    // stopLoopRead() may have stopped the stream during the drain; a new request would start it
    // again behind the driver's back.
    if (m_isLoopCycle && m_isStopLoopRead)
        return;
    sendTxBufForRead(packReadBytesCmd());
    QThread::msleep(Pause::AfterRestart);
}

// Instead of discarding what arrived since the last cycle, which throws away the head of the
// frame in progress, the newest frame that has started is kept: the backlog from its last DC2
// on. Older frames are still dropped, so the block delivered is the most recent one. A backlog
// without a DC2 continues the frame carried from the last cycle. No value, error or frame sent
// changes: the cycle only finds the frame in progress whole instead of waiting for the next one.
void DriverHushCNCReaderWriter::takeBacklog()
{
    if (!m_readInterface)
        return;
    for (int waiting = waitingBytes(m_readInterface); waiting > 0;) {
        const int got = readChunk(qMin(waiting, Count::MaxReadSize));
        if (got <= 0)
            break;
        waiting -= got;
        const int appended = bytesBeforeNul(m_rxChunk, got);
        countFrameStarts(m_rxChunk, appended);
        const void *dc2 = memrchr(m_rxChunk, HustFrames::DC2, size_t(appended));
        const char *from = m_rxChunk;
        if (dc2) {
            from = static_cast<const char *>(dc2);
            m_carried.truncate(0);
        }
        m_carried.append(from, int(m_rxChunk + appended - from));
        if (appended < got)
            m_carried.append('\0'); // the barrier of receive()
    }
    // Without a frame start nothing older than two responses can still be of use.
    const int most = 2 * calculateRxBufSize();
    if (m_carried.size() > most)
        m_carried.remove(0, m_carried.size() - most);
}

int DriverHushCNCReaderWriter::readChunk(int maxSize)
{
    const int got = m_readInterface->readData(m_rxChunk, maxSize);
    return qBound(0, got, maxSize);
}

HustFrames::ResponseMatcher &DriverHushCNCReaderWriter::matcherFor(int n, bool lenient)
{
    std::unique_ptr<HustFrames::ResponseMatcher> &matcher
        = lenient ? m_lenientMatcher : m_strictMatcher;
    if (!matcher || matcher->count() != n)
        matcher.reset(new HustFrames::ResponseMatcher(n, lenient));
    return *matcher;
}

void DriverHushCNCReaderWriter::deliver(const QByteArray &block, bool isFullData, bool isResponse,
                                        QByteArray *response)
{
    if (isResponse) {
        if (response)
            *response = block;
        return;
    }
    if (m_isStopLoopRead)
        return;
    if (isFullData)
        m_lastFullBlock = block;
    if (m_isStopLoopRead)
        return;
    if (!m_driver) {
        qCDebug(lcHustDriver) << "loop read: no driver to take the block";
        return;
    }
    m_driver->takeBlock(block, m_bitWritesSeen);
}

// The frame that starts first after a bit write may have left the controller before the write
// reached it; the one after it cannot, for a response takes longer on the line than a bit write
// frame. So a write counts as seen by a block once the block's earliest frame is at least the
// second to start after the write was sent. Frame starts are counted by the DC2 bytes read.
void DriverHushCNCReaderWriter::noteBitWrite()
{
    // A write that never gets a block (the loop stopped meanwhile) is let go once too many
    // follow it, so that the list stays short.
    if (m_bitWritesWaiting.size() >= Count::MaxBitWritesWaiting) {
        m_bitWritesSeen = m_bitWritesWaiting.first().serial;
        m_bitWritesWaiting.removeFirst();
    }
    m_bitWritesWaiting.append({++m_bitWritesSent, m_frameStarts});
}

void DriverHushCNCReaderWriter::countFrameStarts(const char *bytes, int size)
{
    m_frameStarts += quint64(frameStartsIn(bytes, size));
}

void DriverHushCNCReaderWriter::noteBlockRead(const ReadCycle &c)
{
    const HustFrames::ResponseMatcher &matcher = *c.matcher;
    // The frame starts read before the cycle's buffer, plus those in it up to the match's
    // earliest byte, number the frame that byte belongs to.
    const quint64 before
        = m_frameStarts - quint64(frameStartsIn(c.rxBuf.constData(), c.rxBuf.size()));
    const quint64 frame
        = before + quint64(frameStartsIn(c.rxBuf.constData(), matcher.beginInReceived()));
    while (!m_bitWritesWaiting.isEmpty() && frame >= m_bitWritesWaiting.first().frameStarts + 2) {
        m_bitWritesSeen = m_bitWritesWaiting.first().serial;
        m_bitWritesWaiting.removeFirst();
    }
}

void DriverHushCNCReaderWriter::giveUp(bool isResponse)
{
    emit setReadLoopTimeoutError();
    if (!isResponse && !m_isStopLoopRead) {
        sendStopSendCommand(0);
        sendTxBufForRead(packReadBytesCmd());
    }
    qCDebug(lcHustDriver) << "==== error2.";
}

Worker::Worker(QObject *parent)
    : QObject(parent)
    , m_isShowing(false)
{ }

Worker::~Worker() = default;

void Worker::showOverflowMsg(int num)
{
    QCoreApplication *app = QCoreApplication::instance();
    QObject *screen = app ? screenController(app) : nullptr;
    if (!qobject_cast<QApplication *>(app) || !screen) {
        // Without widgets or a panel to put them on, the count goes to the log only.
        qCDebug(lcHustDriver) << "There are" << num << "registers to read. It is overflow";
        m_isShowing = false;
        return;
    }

    // Held by a guard: the host may delete the dialog itself once it is told it goes away.
    QPointer<QDialog> dialog = new QDialog();
    dialog->setWindowFlags(Qt::Tool | Qt::WindowStaysOnTopHint | Qt::CustomizeWindowHint);
    dialog->setFont(QFont(QStringLiteral("unifont")));
    dialog->setWindowTitle(tr("Overflow"));

    auto *layout = new QVBoxLayout(dialog);
    auto *frame = new QFrame(dialog);
    layout->addWidget(frame);
    layout->setSpacing(5);
    auto *frameLayout = new QHBoxLayout(frame);
    frameLayout->setSpacing(5);
    auto *label = new QLabel(
        tr("There are %1 registers to read. It is overflow, Please check it.").arg(num), frame);
    // Wrapped, so that the text fits the notice's fixed width.
    label->setWordWrap(true);
    frameLayout->addWidget(label);
    auto *closeButton = new QPushButton(tr("Close"), frame);
    closeButton->setMinimumSize(75, 41);
    layout->addWidget(closeButton);
    connect(closeButton, SIGNAL(clicked()), dialog, SLOT(close()));

    dialog->resize(NoticeWidth, NoticeHeight);
    dialog->setVisible(true);

    connect(this, SIGNAL(addGlobalsWidget(QWidget *, QPoint, bool)), screen,
            SLOT(addZTDiaolg(QWidget *, QPoint, bool)), Qt::UniqueConnection);
    connect(this, SIGNAL(removeGlobalWidget(QWidget *)), screen, SLOT(removeWidget(QWidget *)),
            Qt::UniqueConnection);

    const int x = (screen->property("panelWidth").toInt() - dialog->width()) / 2;
    const int y = (screen->property("panelHeight").toInt() - dialog->height()) / 2;
    dialog->setGeometry(x, y, NoticeWidth, NoticeHeight);
    emit addGlobalsWidget(dialog, QPoint(x, y), true);

    QTimer wake;
    wake.start(NoticeWakeMs);
    while (dialog && !dialog->isHidden()) {
        QCoreApplication::processEvents(QEventLoop::WaitForMoreEvents | QEventLoop::DialogExec);
        if (app->property("isExit").toBool())
            break;
    }

    // The host lets go of the dialog before it is destroyed.
    if (dialog) {
        emit removeGlobalWidget(dialog);
        delete dialog.data();
    }
    m_isShowing = false;
}

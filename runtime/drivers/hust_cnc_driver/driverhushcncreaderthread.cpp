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

// Port reads ask for at most this many bytes; m_rxChunk stays zero-terminated behind them.
constexpr int MaxReadSize = 200;
// Read requests are written in pieces of at most this many bytes.
constexpr int MaxTxPieceSize = 230;
// Empty reads tolerated before the exchange is restarted: the 32nd empty read restarts it.
constexpr int MaxEmptyReads = 30;
// A cycle ends, without a result, at the exhaustion that follows this many restarts (silent line
// or stale responses): an immediate read has a caller waiting on it, and a loop cycle must not
// hold the worker's thread, where queued writes wait behind it, for ever.
constexpr int MaxRestarts = 3;
// A drain gives up after this many 20 ms passes (about two seconds) on a line that never goes
// quiet, so that a babbling controller cannot hold the calling thread.
constexpr int MaxDrainPasses = 100;

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
    sendStopSendCommand(0);
    checkRxBufAndExit();
    sendTxBufForRead(packReadBytesCmd());
    QThread::msleep(10);
    sendStopSendCommand(0);
    readFromCNCController(true, reinterpret_cast<QByteArray *>(responseByteArrayPointer));
    checkRxBufAndExit();
}

void DriverHushCNCReaderWriter::stopLoopRead()
{
    m_isStopLoopRead = true;
    QThread::msleep(20);
    sendStopSendCommand(0);
    checkRxBufAndExit();
}

void DriverHushCNCReaderWriter::startLoopRead(QStringList addrList)
{
    m_lastFullBlock.clear();
    m_isStopLoopRead = false;
    m_addrList = addrList;
    sendTxBufForRead(packReadBytesCmd());
    loopRead();
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
    discardReceived(m_readInterface);
    if (m_readInterface->writeData(frame.constData(), frame.size()) != frame.size())
        emit setWriteBitError();
}

void DriverHushCNCReaderWriter::loopRead()
{
    m_isLoopReading = true;
    if (m_isStopLoopRead)
        return;
    if (m_readInterface)
        discardReceived(m_readInterface);
    QThread::msleep(qBound(5, int(m_addrList.size()), 30));
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
    QThread::msleep(5);
    int passes = 0;
    int empties = 0;
    for (;;) {
        if (waitingBytes(port) <= 0) {
            if (empties > 5)
                break;
            ++empties;
        }
        discardReceived(port);
        QThread::msleep(20);
        if (passes > 25)
            sendStopSendCommand(0);
        ++passes;
        if (passes >= MaxDrainPasses) {
            qCDebug(lcHustDriver) << "drain gave up: the line did not go quiet after" << passes
                                  << "passes";
            break;
        }
    }
    discardReceived(port);
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
    int offset = 0;
    while (offset + MaxTxPieceSize < tx_buf.size()) {
        port->writeData(tx_buf.constData() + offset, MaxTxPieceSize);
        offset += MaxTxPieceSize;
    }
    port->writeData(tx_buf.constData() + offset, tx_buf.size() - offset);
    m_cmdJustSent = true;
}

QByteArray DriverHushCNCReaderWriter::extractDataFromRespBuf(const QStringList &data,
                                                             const int &data_length,
                                                             bool &isFullData)
{
    const int cached = m_lastFullBlock.size() / 4;
    QByteArray block;
    isFullData = true;
    for (int i = 0; i < data_length && i < data.size(); ++i) {
        const QString &text = data.at(i);
        if (text.size() < 8) {
            isFullData = false;
            if (cached == data_length)
                block.append(m_lastFullBlock.mid(4 * i, 4));
            continue;
        }
        const quint32 value = HustFrames::valueOf(text);
        for (int b = 0; b < 4; ++b)
            block.append(char((value >> (8 * b)) & 0xFF));
    }
    return block;
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

void DriverHushCNCReaderWriter::readFromCNCController(bool isResponse, QByteArray *response)
{
    const int n = m_addrList.size();
    if (!m_readInterface || n > HustFrames::MaxAddressCount) {
        qCDebug(lcHustDriver) << "read cycle refused:" << n << "addresses"
                              << (m_readInterface ? "" : "and no port");
        emit setReadLoopTimeoutError();
        return;
    }
    m_isLoopCycle = !isResponse;
    const int cached = m_lastFullBlock.size() / 4;
    m_responsePattern = HustFrames::responsePattern(n, !isResponse && n == cached);
    HustFrames::ResponseMatcher matcher(m_responsePattern);

    int rxBufSize = calculateRxBufSize();
    QByteArray rxBuf;
    int tmpSize = rxBufSize;
    int loop = 0;
    int emptyReads = 0;
    int restarts = 0;
    bool lastAttemptFailed = false;
    const int giveUpLimit = std::max(2 * n, 10);

    // The empty-read rule: the 32nd empty read since the cycle began or since the last restart
    // raises the time-out and restarts the exchange; the cycle ends instead once it has used up
    // its restarts.
    enum class EmptyRead { CarryOn, Restarted, GiveUp };
    auto countEmptyRead = [&]() {
        if (emptyReads <= MaxEmptyReads) {
            ++emptyReads;
            return EmptyRead::CarryOn;
        }
        emit setReadLoopTimeoutError();
        if (restarts++ >= MaxRestarts) {
            qCDebug(lcHustDriver) << "read cycle: the controller stays silent, giving up";
            return EmptyRead::GiveUp;
        }
        retrySendReadCommand(rxBuf, tmpSize, loop, rxBufSize);
        emptyReads = 0;
        return EmptyRead::Restarted;
    };

    for (;;) {
        if (m_isStopLoopRead && !isResponse)
            return;
        std::memset(m_rxChunk, 0, sizeof(m_rxChunk));
        // While more than one read's worth is still expected, bytes are only collected; after
        // that every read is followed by a match attempt.
        const bool collecting = tmpSize > MaxReadSize;
        if (!collecting)
            tmpSize = std::max(tmpSize, 30);
        const int asked = collecting ? MaxReadSize : tmpSize;
        const int got = readChunk(asked);
        // Bytes count up to the first NUL only. A read that appends nothing counts as empty even
        // when it returned bytes: a line held in break reads as NUL bytes, and the cycle must
        // stay bounded on it.
        const int appended = int(qstrnlen(m_rxChunk, uint(asked)));
        if (appended == 0) {
            const EmptyRead rule = countEmptyRead();
            if (rule == EmptyRead::GiveUp)
                return;
            if (rule == EmptyRead::Restarted)
                continue;
        }
        rxBuf.append(m_rxChunk, appended);
        if (collecting) {
            tmpSize -= got;
            continue;
        }

        if (m_cmdJustSent) {
            const int p = rxBuf.indexOf(HustFrames::DC2);
            if (p > 0)
                rxBuf.remove(0, p);
        }
        if (rxBuf.size() < rxBufSize)
            continue;

        int position;
        if (!m_cmdJustSent && !lastAttemptFailed) {
            // The forward search turns a copy of the window; when nothing matches, the bytes
            // stay in the order they arrived, so that later attempts never search across the
            // join of two frames.
            if (rxBuf.size() > rxBufSize)
                rxBuf = rxBuf.right(rxBufSize);
            position = matcher.searchForward(rxBuf, rxBufSize);
        } else {
            position = matcher.searchBackward(rxBuf);
        }

        // The pattern admits any two digits in the v record, so the first N records of a longer
        // frame of the previous list would match; its fresh H code passes the stale check when
        // the stop frame was lost. Only a count equal to N is taken, which well-formed streams
        // never notice.
        if (position > 0 && !matcher.countIs(n))
            position = -1;
        if (position <= 0) {
            const int p = rxBuf.lastIndexOf(HustFrames::DC2);
            if (p > 0) {
                tmpSize = rxBufSize + 10 - (rxBuf.size() - p);
                rxBuf.remove(0, p);
            }
            if (loop > giveUpLimit) {
                giveUp(isResponse);
                return;
            }
            ++loop;
            lastAttemptFailed = true;
            continue;
        }

        const QString hCode = matcher.hRecord();
        if (m_lastHCode.isEmpty()) {
            m_lastHCode = hCode;
        } else if (m_cmdJustSent) {
            if (hCode == m_lastHCode) {
                qCDebug(lcHustDriver) << "error0. H code is the same with previous data";
                if (restarts++ >= MaxRestarts) {
                    qCDebug(lcHustDriver) << "read cycle: only stale responses, giving up";
                    emit setReadLoopTimeoutError();
                    return;
                }
                retrySendReadCommand(rxBuf, tmpSize, loop, rxBufSize);
                continue;
            }
            m_cmdJustSent = false;
            m_lastHCode = hCode;
        }

        bool isFullData = true;
        const QByteArray block = extractDataFromRespBuf(matcher.valueTexts(), n, isFullData);
        deliver(block, isFullData, isResponse, response);
        return;
    }
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
    QThread::msleep(100);
}

int DriverHushCNCReaderWriter::readChunk(int maxSize)
{
    const int got = m_readInterface->readData(m_rxChunk, maxSize);
    return qBound(0, got, maxSize);
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
    m_driver->updateDWordByteArray(block);
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

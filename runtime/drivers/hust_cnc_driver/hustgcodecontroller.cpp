#include "hustgcodecontroller.h"

#include "abstractdeviceinterface.h"
#include "communicatorcommand.h"
#include "hustframes.h"
#include "hustlog.h"
#include "tools.h"

#include <QList>
#include <QMutexLocker>
#include <QThread>

#include <cstring>

namespace {

using HustFrames::CR;
using HustFrames::DC2;
using HustFrames::DC4;

const char kStartMarker[] = {DC2, '%', CR, '\0'};
const char kEndMarker[] = {'%', DC4, '\0'};
const int kStartMarkerSize = 3;
const int kEndMarkerSize = 2;

const char kReadAllKey[] = "ReadAllCode0";
const char kReadCurrentKey[] = "ReadCurrentCode0";
const char kBurningKey[] = "BurningCodeBit0";
const char kSendKey[] = "Code2CtrlCmd";
const char kStatusKey[] = "PROTOCOL_STATUS0";
const char kCodeKey[] = "ReadCode";

const int kStopPause = 200;
const int kStopRepeats = 3;
const int kExchangePause = 100;
const int kSendPause = 300;
const int kFinishPause = 100;

char firstByte(const QByteArray &data)
{
    return data.isEmpty() ? char(0) : data.at(0);
}

// Records the positions of every occurrence of marker that starts at or after from; the last
// one wins. Callers pass the start of the newly arrived bytes minus the marker's overlap, so an
// answer is searched once however many polls it takes.
void trackLast(const QByteArray &answer, const char *marker, int from, int &last)
{
    for (int i = answer.indexOf(marker, from); i >= 0; i = answer.indexOf(marker, i + 1))
        last = i;
}

} // namespace

HustGCodeprotocol::HustGCodeprotocol(QObject *parent)
    : QObject(parent)
    , m_readInterface(nullptr)
    , m_protocolStatus(0)
    , m_readCurrentCode(false)
    , m_readAllCode(false)
    , m_burningCodeBit(false)
{
    connect(this, SIGNAL(readDataFromControllerSignal(int)), this,
            SLOT(async_processReadDataFromController(int)));
    connect(this, SIGNAL(writeDataToControllerSignal()), this,
            SLOT(async_processWriteDataToController()));
}

HustGCodeprotocol::~HustGCodeprotocol() = default;

void HustGCodeprotocol::setReadInterface(AbstractDeviceInterface *port)
{
    m_readInterface = port;
}

void HustGCodeprotocol::processReadCommand(const CommunicatorCommand &cmd, QByteArray &out)
{
    const QString &key = cmd.address;
    QMutexLocker lock(&m_stateMutex);
    if (key == QLatin1String(kReadCurrentKey)) {
        out.append(char(m_readCurrentCode ? 1 : 0));
    } else if (key == QLatin1String(kReadAllKey)) {
        out.append(char(m_readAllCode ? 1 : 0));
    } else if (key == QLatin1String(kBurningKey)) {
        out.append(char(m_burningCodeBit ? 1 : 0));
    } else if (key == QLatin1String(kStatusKey)) {
        const quint32 size = qMin<quint32>(cmd.getDataSize(), 4u);
        for (quint32 i = 0; i < size; ++i)
            out.append(char((m_protocolStatus >> (8 * i)) & 0xFF));
    } else if (key == QLatin1String(kCodeKey)) {
        out = m_codeData;
        m_codeData.clear();
    }
}

void HustGCodeprotocol::processWriteCommand(const CommunicatorCommand &cmd, const QByteArray &data)
{
    // The request signals may be connected directly (before the object is moved into the
    // worker thread), so they are emitted only after the lock is released.
    const QString &key = cmd.address;
    const bool set = firstByte(data) == 1;
    if (key == QLatin1String(kReadAllKey) || key == QLatin1String(kReadCurrentKey)) {
        const bool all = key == QLatin1String(kReadAllKey);
        {
            QMutexLocker lock(&m_stateMutex);
            (all ? m_readAllCode : m_readCurrentCode) = set;
            if (set)
                m_protocolStatus |= ReadRequestedBit;
        }
        if (set) {
            qCDebug(lcHustDriver) << "G-code read requested:" << (all ? "all programs" : "current");
            emit readDataFromControllerSignal(all ? 1 : 0);
        }
    } else if (key == QLatin1String(kSendKey)) {
        {
            QMutexLocker lock(&m_stateMutex);
            m_codeData = data;
            m_protocolStatus |= SendRequestedBit;
        }
        qCDebug(lcHustDriver) << "G-code send requested," << data.size() << "bytes";
        emit writeDataToControllerSignal();
    } else if (key == QLatin1String(kStatusKey)) {
        QMutexLocker lock(&m_stateMutex);
        m_protocolStatus = quint32(QByteArrayToInt(data));
    } else if (key == QLatin1String(kBurningKey)) {
        QMutexLocker lock(&m_stateMutex);
        m_burningCodeBit = set;
    }
}

void HustGCodeprotocol::async_processReadDataFromController(int read_type)
{
    {
        QMutexLocker lock(&m_stateMutex);
        m_codeData.clear();
    }
    QByteArray code;
    getGCodeFromController(code, read_type);
    QMutexLocker lock(&m_stateMutex);
    m_codeData = code;
    m_protocolStatus |= ReadFinishedBit;
}

void HustGCodeprotocol::async_processWriteDataToController()
{
    bool burning;
    QByteArray code;
    {
        QMutexLocker lock(&m_stateMutex);
        burning = m_burningCodeBit;
        m_codeData = normalizedGCode(m_codeData);
        code = m_codeData;
    }
    sendGCodeToController(code, burning ? 1 : 0);
    QMutexLocker lock(&m_stateMutex);
    m_protocolStatus |= SendFinishedBit;
}

bool HustGCodeprotocol::getGCodeFromController(QByteArray &out, int read_type)
{
    out.clear();
    AbstractDeviceInterface *port = m_readInterface;
    if (!port) {
        qCDebug(lcHustDriver) << "G-code read without a port";
        return false;
    }
    for (int i = 0; i < kStopRepeats; ++i) {
        emit stopLoopReadSignal();
        pause(kStopPause);
    }
    const QByteArray frame = HustFrames::programRequest(read_type != 0);
    port->setOption(AbstractDeviceInterface::DiscardReceivedOption, 0);

    // A program counts only when two successive answers agree byte for byte; every exchange
    // sends the request again. The shorter answer is asked again, both when they merely differ.
    QByteArray first = getGCode(frame);
    pause(kExchangePause);
    QByteArray second = getGCode(frame);
    bool agreed = true;
    for (int round = 0; first != second; ++round) {
        if (round == MaxAgreementRounds) {
            qCDebug(lcHustDriver) << "G-code answers still disagree after" << round
                                  << "rounds; giving up";
            second.clear();
            agreed = false;
            break;
        }
        pause(kExchangePause);
        if (first.size() == second.size()) {
            first = getGCode(frame);
            pause(kExchangePause);
            second = getGCode(frame);
        } else if (second.size() < first.size()) {
            second = getGCode(frame);
        } else {
            first = getGCode(frame);
        }
    }
    out = second;
    pause(kFinishPause);
    emit startLoopReadSignal();
    return agreed;
}

QByteArray HustGCodeprotocol::getGCode(const QByteArray &frame)
{
    AbstractDeviceInterface *port = m_readInterface;
    if (!port)
        return QByteArray();
    port->writeData(frame.constData(), frame.size());

    QByteArray answer;
    int lastStart = -1;
    int lastEnd = -1;
    int idlePolls = 0;
    char buffer[PollSize];
    for (;;) {
        std::memset(buffer, 0, sizeof buffer);
        port->receiveData(buffer, PollSize);
        const int received = int(qstrnlen(buffer, PollSize));
        if (received == 0) {
            if (++idlePolls >= IdlePollLimit)
                return abandonExchange(answer.isEmpty() ? "no answer" : "answer stopped",
                                       answer.size());
            continue;
        }
        idlePolls = 0;
        const int from = qMax(0, answer.size() - (kStartMarkerSize - 1));
        answer.append(buffer, received);
        trackLast(answer, kStartMarker, from, lastStart);
        trackLast(answer, kEndMarker, from, lastEnd);
        if (lastStart >= 0 && lastEnd > lastStart)
            break;
        if (answer.size() > MaxAnswerSize)
            return abandonExchange("answer too long", answer.size());
    }

    const char *in = answer.constData() + lastStart + kStartMarkerSize;
    const char *const end = answer.constData() + lastEnd;
    QByteArray code(int(end - in), Qt::Uninitialized);
    char *out = code.data();
    for (; in != end; ++in) {
        if (*in != DC2 && *in != DC4 && *in != '%')
            *out++ = *in;
    }
    code.truncate(int(out - code.constData()));
    return code;
}

bool HustGCodeprotocol::sendGCodeToController(const QByteArray &code, int burning)
{
    AbstractDeviceInterface *port = m_readInterface;
    if (!port) {
        qCDebug(lcHustDriver) << "G-code send without a port";
        return false;
    }
    emit stopLoopReadSignal();
    pause(kStopPause);
    const QByteArray header = packSendGCodeCmd();
    const QByteArray burn = packBurningGCodeCmd();
    port->setOption(AbstractDeviceInterface::DiscardReceivedOption, 0);

    port->writeData(header.constData(), header.size());
    pause(kSendPause);

    const QByteArray dataFrame = HustFrames::programDataFrame(code);
    port->writeData(dataFrame.constData(), dataFrame.size());

    if (burning == 1) {
        pause(kSendPause);
        port->writeData(burn.constData(), burn.size());
    }
    pause(kFinishPause);
    emit startLoopReadSignal();
    return true;
}

QByteArray HustGCodeprotocol::packGetCurrentGCodeCmd()
{
    QMutexLocker lock(&m_stateMutex);
    if (m_getCodeCmd.isEmpty())
        m_getCodeCmd = HustFrames::programRequestTemplate();
    return m_getCodeCmd;
}

QByteArray HustGCodeprotocol::packSendGCodeCmd()
{
    QMutexLocker lock(&m_stateMutex);
    if (m_sendCodeCmd.isEmpty())
        m_sendCodeCmd = HustFrames::programSendHeader();
    return m_sendCodeCmd;
}

QByteArray HustGCodeprotocol::packBurningGCodeCmd()
{
    QMutexLocker lock(&m_stateMutex);
    if (m_burningCodeCmd.isEmpty())
        m_burningCodeCmd = HustFrames::burnFrame();
    return m_burningCodeCmd;
}

QByteArray HustGCodeprotocol::normalizedGCode(const QByteArray &text)
{
    const int zero = text.indexOf('\0');
    const QByteArray source = zero < 0 ? text : text.left(zero);
    QByteArray result;
    result.reserve(source.size());
    for (const QByteArray &line : source.split('\n')) {
        if (line.isEmpty())
            continue;
        if (!result.isEmpty())
            result.append('\n');
        result.append(line);
    }
    return result;
}

void HustGCodeprotocol::pause(int ms)
{
    QThread::msleep(static_cast<unsigned long>(ms));
}

QByteArray HustGCodeprotocol::abandonExchange(const char *why, int received)
{
    qCDebug(lcHustDriver) << "G-code exchange ended without a program:" << why << "after"
                          << received << "bytes";
    emit startLoopReadSignal();
    return QByteArray();
}

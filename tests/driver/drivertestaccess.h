#ifndef DRIVERTESTACCESS_H
#define DRIVERTESTACCESS_H

#include "driverhushcncreaderthread.h"
#include "hush_cnc.h"
#include "hustgcodecontroller.h"

#include <QMutexLocker>
#include <QThread>

// Reaches the driver's private state and slots.
class DriverHushCNCTestAccess
{
public:
    explicit DriverHushCNCTestAccess(DriverHushCNC &driver)
        : d(driver)
    { }

    QStringList addr2DWAddrList(const CommunicatorCommand &cmd) { return d.addr2DWAddrList(cmd); }
    QByteArray readBlock(const CommunicatorCommand &cmd) { return d.readBlock(cmd); }
    QByteArray readBit(const CommunicatorCommand &cmd) { return d.readBit(cmd); }
    QByteArray extract(CommunicatorCommand::DataType type, const QString &address,
                       const QByteArray &block, int length)
    {
        return d.extractDataFromDWordByteArray(type, address, block, length);
    }
    QByteArray extractZero(CommunicatorCommand::DataType type, int length)
    {
        return d.extractZeroDataFromDWordByteArray(type, length);
    }
    QByteArray extractDataFromRespBuf(const QString &data, int length)
    {
        return d.extractDataFromRespBuf(data, length);
    }
    void sendStopSendCommand(AbstractDeviceInterface *port) { d.sendStopSendCommand(port); }
    void setReadTimeOutError() { d.setReadTimeOutError(); }

    QStringList list()
    {
        QMutexLocker lock(&d.m_addrListMutex);
        return d.m_currentAddrList;
    }
    QByteArray cache()
    {
        QMutexLocker lock(&d.m_blockDataMutex);
        return d.m_currentBlockData;
    }
    // The state of a driver whose worker streams `list` into a cache holding `block`.
    void setStreaming(const QStringList &list, const QByteArray &block)
    {
        {
            QMutexLocker lock(&d.m_addrListMutex);
            d.m_currentAddrList = list;
        }
        QMutexLocker lock(&d.m_blockDataMutex);
        d.m_currentBlockData = block;
        d.isStartLoopRead = true;
    }
    int triggerIndex() const { return d.m_loopTriggerIndex; }
    bool blockUpdated() const { return d.m_isBlockDataUpdated; }
    int clearErrorCountdown() const { return d.m_clearErrorCountdown; }
    bool loopReadStoppedForGCode() const { return d.m_isLoopReadStoppedForGCode; }
    QStringList gcodeKeyList() const { return d.m_gcodeKeyList; }

    DriverHushCNCReaderWriter *worker() const { return d.m_readerWriter; }
    QThread *workerThread() const { return d.m_workerThread; }
    HustGCodeprotocol *gcodeController() const { return d.m_gcodeController; }
    bool workerStarted() const { return d.m_isWorkerStarted; }
    void initGCodeController(AbstractDeviceInterface *port) { d.initGCodeController(port); }
    void stopLoopReadForGCode() { d.stopLoopReadForGCode(); }
    void startLoopReadForGCode() { d.startLoopReadForGCode(); }

private:
    DriverHushCNC &d;
};

inline CommunicatorCommand command(CommunicatorCommand::DataType type, quint32 length,
                                   const QString &address)
{
    return CommunicatorCommand(type, length, address);
}

// Little-endian bytes of double words.
inline QByteArray dwords(std::initializer_list<quint32> values)
{
    QByteArray bytes;
    for (quint32 v : values) {
        for (int b = 0; b < 4; ++b)
            bytes.append(char((v >> (8 * b)) & 0xFF));
    }
    return bytes;
}

#endif // DRIVERTESTACCESS_H

#ifndef DRIVERTESTACCESS_H
#define DRIVERTESTACCESS_H

#include "hush_cnc.h"

#include <QMutexLocker>
#include <QThread>
#include <QtEndian>

// Reaches the driver's private state and slots, for the driver's and the worker's tests.
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
    QByteArray extractDataFromRespBuf(const QString &data, int length)
    {
        return d.extractDataFromRespBuf(data, length);
    }

    QStringList list()
    {
        QMutexLocker lock(&d.m_addrListMutex);
        return d.m_currentAddrList;
    }
    static QByteArray blockData(DriverHushCNC &driver)
    {
        QMutexLocker lock(&driver.m_blockDataMutex);
        return driver.m_currentBlockData;
    }
    static void clearBlockData(DriverHushCNC &driver)
    {
        QMutexLocker lock(&driver.m_blockDataMutex);
        driver.m_currentBlockData.clear();
    }
    // The state of a driver whose worker streams `list` into a cache holding `block`.
    void setStreaming(const QStringList &list, const QByteArray &block)
    {
        d.storeAddrList(list);
        QMutexLocker lock(&d.m_blockDataMutex);
        d.m_currentBlockData = block;
        d.isStartLoopRead = true;
    }
    // A bit write as the run-time hands it over: sent to the worker and patched into the cache.
    bool writeBit(const QString &address, bool value)
    {
        return d.writeBitPath(CommunicatorCommand(CommunicatorCommand::BitType, 1, address),
                              QByteArray(1, value));
    }
    QThread *workerThread() const { return d.m_workerThread; }
    DriverHushCNCReaderWriter *worker() const { return d.m_readerWriter; }

private:
    DriverHushCNC &d;
};

inline CommunicatorCommand dw(int index, quint32 length = 1)
{
    return CommunicatorCommand(CommunicatorCommand::DWordType, length,
                               QStringLiteral("DW%1").arg(index));
}

// Little-endian bytes of double words.
inline QByteArray dwords(std::initializer_list<quint32> values)
{
    QByteArray bytes(4 * int(values.size()), '\0');
    qToLittleEndian<quint32>(values.begin(), qsizetype(values.size()), bytes.data());
    return bytes;
}

#endif // DRIVERTESTACCESS_H

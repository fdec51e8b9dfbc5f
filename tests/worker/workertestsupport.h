#ifndef WORKERTESTSUPPORT_H
#define WORKERTESTSUPPORT_H

#include "driverhushcncreaderthread.h"
#include "drivertestaccess.h"
#include "scriptedport.h"

#include <QByteArray>
#include <QStringList>

// Reaches the worker's private slots and cycle state.
class DriverHushCNCReaderWriterTestAccess
{
public:
    explicit DriverHushCNCReaderWriterTestAccess(DriverHushCNCReaderWriter &worker)
        : w(worker)
    { }

    // Sets the port without the stop frame and drain of setReadInterface().
    void setPort(AbstractDeviceInterface *port) { w.m_readInterface = port; }
    void setAddrList(const QStringList &list) { w.m_addrList = list; }
    bool &cmdJustSent() { return w.m_cmdJustSent; }
    QByteArray &lastHCode() { return w.m_lastHCode; }
    QByteArray &lastFullBlock() { return w.m_lastFullBlock; }
    QByteArray packReadBytesCmd() { return w.packReadBytesCmd(); }
    void sendTxBufForRead(const QByteArray &tx) { w.sendTxBufForRead(tx); }
    void checkRxBufAndExit() { w.checkRxBufAndExit(); }
    std::atomic<bool> &drainGaveUp() { return w.m_drainGaveUp; }
    void readFromCNCController(bool isResponse, QByteArray *out = nullptr)
    {
        w.readFromCNCController(isResponse, out);
    }

private:
    DriverHushCNCReaderWriter &w;
};

namespace WorkerTest {

// Names d00000, d00001, ... of n double words starting at first.
inline QStringList names(int n, int first = 0)
{
    QStringList list;
    for (int i = 0; i < n; ++i)
        list << QString::asprintf("d%05d", first + i);
    return list;
}

// The block the worker builds from values: 4 bytes each, least significant first.
inline QByteArray block(const QList<quint32> &values)
{
    QByteArray b;
    for (quint32 v : values) {
        for (int i = 0; i < 4; ++i)
            b.append(char((v >> (8 * i)) & 0xFF));
    }
    return b;
}

} // namespace WorkerTest

#endif // WORKERTESTSUPPORT_H

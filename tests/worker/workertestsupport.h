#ifndef WORKERTESTSUPPORT_H
#define WORKERTESTSUPPORT_H

#include "driverhushcncreaderthread.h"
#include "hush_cnc.h"
#include "scriptedport.h"

#include <QByteArray>
#include <QMutexLocker>
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
    QString &lastHCode() { return w.m_lastHCode; }
    QByteArray &lastFullBlock() { return w.m_lastFullBlock; }

    QByteArray packReadBytesCmd() { return w.packReadBytesCmd(); }
    void sendTxBufForRead(const QByteArray &tx) { w.sendTxBufForRead(tx); }
    void checkRxBufAndExit() { w.checkRxBufAndExit(); }
    void readFromCNCController(bool isResponse, QByteArray *response = nullptr)
    {
        w.readFromCNCController(isResponse, response);
    }

private:
    DriverHushCNCReaderWriter &w;
};

// Reads the driver's double-word cache.
class DriverHushCNCTestAccess
{
public:
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

// A value as the controller writes it: eight hexadecimal digits with ':' to '?' for A to F.
inline QByteArray valueChars(quint32 v)
{
    QByteArray text = QByteArray::number(v, 16).rightJustified(8, '0');
    for (char &c : text) {
        if (c >= 'a' && c <= 'f')
            c = char(':' + (c - 'a'));
    }
    return text;
}

// A response frame of 10 * n + 25 bytes: DC2, the H record, the v record, one d record per
// value (value texts given as sent, so that short or odd texts can be scripted) and a
// ten-byte end that the worker does not interpret.
inline QByteArray responseFrame(const QByteArray &hCode, const QList<QByteArray> &valueTexts)
{
    QByteArray f;
    f.append('\x12').append('H').append(hCode).append('\r');
    f.append('v').append(QByteArray::number(valueTexts.size()).rightJustified(2, '0')).append('\r');
    for (const QByteArray &v : valueTexts)
        f.append('d').append(v).append('\r');
    f.append("%\x14        ");
    return f;
}

inline QByteArray responseFrame(const QByteArray &hCode, const QList<quint32> &values)
{
    QList<QByteArray> texts;
    for (quint32 v : values)
        texts << valueChars(v);
    return responseFrame(hCode, texts);
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

inline bool isReadRequest(const QByteArray &bytes)
{
    return bytes.startsWith("\x12%\rO9000\rN0\r");
}

inline bool isStopFrame(const QByteArray &bytes)
{
    return bytes == QByteArray("\x12%\rO9000\rN1\r%\x14");
}

} // namespace WorkerTest

#endif // WORKERTESTSUPPORT_H

#include "driverhushcncreaderthread.h"

#include "hush_cnc.h"

DriverHushCNCReaderWriter::DriverHushCNCReaderWriter(QObject *parent)
    : QObject(parent)
    , m_readInterface(nullptr)
    , m_stopSendCmdLength(0)
    , m_rxChunk()
    , m_driver(nullptr)
    , m_cmdJustSent(false)
    , m_overflowWorker(nullptr)
    , m_isStopLoopRead(true)
    , m_isLoopReading(false)
{ }

DriverHushCNCReaderWriter::~DriverHushCNCReaderWriter() = default;

void DriverHushCNCReaderWriter::setReadInterface(AbstractDeviceInterface *interface)
{
    m_readInterface = interface;
}

void DriverHushCNCReaderWriter::setDriverInterface(DriverInterface *driver)
{
    m_driver = dynamic_cast<DriverHushCNC *>(driver);
}

int DriverHushCNCReaderWriter::offsetAddressForWordType(const QString &, int index)
{
    return index;
}

void DriverHushCNCReaderWriter::reCalculateAddrAndLengthForWordType(const QString &, int &, int &)
{ }

int DriverHushCNCReaderWriter::getBitLoc(const QString &)
{
    return 0;
}

void DriverHushCNCReaderWriter::getAddrValRightaway(QStringList addrList, quintptr)
{
    m_addrList = addrList;
}

void DriverHushCNCReaderWriter::stopLoopRead()
{
    m_isStopLoopRead = true;
}

void DriverHushCNCReaderWriter::startLoopRead(QStringList addrList)
{
    m_addrList = addrList;
}

void DriverHushCNCReaderWriter::writeDWord(QString, int, QByteArray) { }

void DriverHushCNCReaderWriter::writeBit(QString, bool) { }

void DriverHushCNCReaderWriter::loopRead() { }

void DriverHushCNCReaderWriter::showOverflowMsg(int) { }

void DriverHushCNCReaderWriter::toggleUartInterrupt(int, bool) { }

int DriverHushCNCReaderWriter::calculateRxBufSize()
{
    return 10 * m_addrList.size() + 25;
}

void DriverHushCNCReaderWriter::checkRxBufAndExit() { }

void DriverHushCNCReaderWriter::packDWordList(const QByteArray &, QVector<DWORD> &, int) { }

QByteArray DriverHushCNCReaderWriter::packWriteBtypeBitCmd(int, int, bool)
{
    return QByteArray();
}

QByteArray DriverHushCNCReaderWriter::packWriteDWordCmd(int, DWORD)
{
    return QByteArray();
}

void DriverHushCNCReaderWriter::sendTxBufForRead(const QByteArray &) { }

QByteArray DriverHushCNCReaderWriter::extractDataFromRespBuf(const QStringList &, const int &,
                                                             bool &isFullData)
{
    isFullData = true;
    return QByteArray();
}

void DriverHushCNCReaderWriter::sendStopSendCommand(int) { }

QByteArray DriverHushCNCReaderWriter::packReadBytesCmd()
{
    return QByteArray();
}

void DriverHushCNCReaderWriter::readFromCNCController(bool, QByteArray *) { }

void DriverHushCNCReaderWriter::retrySendReadCommand(QByteArray &, int &, int &, int &) { }

#ifndef DRIVERHUSHCNCREADERTHREAD_H
#define DRIVERHUSHCNCREADERTHREAD_H

#include <QByteArray>
#include <QObject>
#include <QPoint>
#include <QPointer>
#include <QStringList>
#include <QVector>

#include <atomic>
#include <memory>

class AbstractDeviceInterface;
class DriverHushCNC;
class DriverInterface;
class QWidget;
class UartRegister;

typedef quint32 DWORD;

// Shows the overflow notice. Widgets may only be made in the application's main thread, so the
// link worker moves this object there and queues its slot; the slot returns once the notice is
// closed or the application is exiting.
class Worker : public QObject
{
    Q_OBJECT

public:
    explicit Worker(QObject *parent = nullptr);
    ~Worker() override;

signals:
    void addGlobalsWidget(QWidget *, QPoint, bool);
    void removeGlobalWidget(QWidget *widget);

public slots:
    void showOverflowMsg(int num);

private:
    friend class DriverHushCNCReaderWriter;

    // A notice is pending or on screen: set by the link worker's thread before it queues the
    // slot, cleared in the main thread when the notice has gone.
    std::atomic<bool> m_isShowing;
};

// The link worker: owns the serial exchange with the controller and runs in its own thread.
// It reads the driver's list of double words in a loop and hands each block to the driver's
// cache, and it frames and sends double-word and bit writes.
class DriverHushCNCReaderWriter : public QObject
{
    Q_OBJECT

public:
    explicit DriverHushCNCReaderWriter(QObject *parent = nullptr);
    ~DriverHushCNCReaderWriter() override;

    void setReadInterface(AbstractDeviceInterface *interface);
    void setDriverInterface(DriverInterface *driver);

    static int offsetAddressForWordType(const QString &prefix, int index);
    static void reCalculateAddrAndLengthForWordType(const QString &prefix, int &address,
                                                    int &length);
    static int getBitLoc(const QString &address);

signals:
    void updateDWordByteArray(QByteArray dwordByteArray);
    void setReadLoopTimeoutError();
    void setWriteDWordError();
    void setWriteBitError();

public slots:
    void getAddrValRightaway(QStringList addrList, quintptr responseByteArrayPointer);
    void stopLoopRead();
    void startLoopRead(QStringList addrList);
    void writeDWord(QString address, int dwordLength, QByteArray writeData);
    void writeBit(QString address, bool val);
    void loopRead();
    void showOverflowMsg(int num);

private slots:
    void toggleUartInterrupt(int port, bool enable);
    int calculateRxBufSize();
    void checkRxBufAndExit();
    void packDWordList(const QByteArray &baData, QVector<DWORD> &dwords, int dwordLength);
    QByteArray packWriteBtypeBitCmd(int addr_val, int bitLoc, bool val);
    QByteArray packWriteDWordCmd(int addr_val, DWORD val);
    void sendTxBufForRead(const QByteArray &tx_buf);
    QByteArray extractDataFromRespBuf(const QStringList &data, const int &data_length,
                                      bool &isFullData);
    void sendStopSendCommand(int baseLength = 0);
    QByteArray packReadBytesCmd();
    void readFromCNCController(bool isResponse = false, QByteArray *response = nullptr);
    void retrySendReadCommand(QByteArray &rx_buf, int &tmpSize, int &loop, int &rx_buf_size);

private:
    // Unit tests reach the private slots that take reference arguments through this class,
    // defined only there.
    friend class DriverHushCNCReaderWriterTestAccess;

    // One port read into m_rxChunk; the number of bytes read, 0 to maxSize.
    int readChunk(int maxSize);
    // Hands a decoded block to the immediate caller or, in loop mode, to the driver's cache.
    void deliver(const QByteArray &block, bool isFullData, bool isResponse, QByteArray *response);
    // Ends a cycle whose match attempts kept failing.
    void giveUp(bool isResponse);

    QStringList m_addrList;
    AbstractDeviceInterface *m_readInterface;
    int m_stopSendCmdLength;
    QByteArray m_stopSendCmd;
    char m_rxChunk[250];
    QString m_responsePattern;
    DriverHushCNC *m_driver;
    QByteArray m_lastFullBlock;
    QString m_lastHCode;
    bool m_cmdJustSent;
    // Lives in the application's thread and is deleted with the application object.
    QPointer<Worker> m_overflowWorker;
    // Made on the first toggleUartInterrupt(), so nothing is opened or mapped before it.
    std::unique_ptr<UartRegister> m_uartRegister;
    // The cycle under way is a loop cycle (worker's thread only).
    bool m_isLoopCycle;

public:
    // Shared with the driver's thread: the driver sets the stop flag through stopLoopRead() and
    // reads m_isLoopReading to decide whether to ask for another cycle.
    std::atomic<bool> m_isStopLoopRead;
    std::atomic<bool> m_isLoopReading;
};

#endif // DRIVERHUSHCNCREADERTHREAD_H

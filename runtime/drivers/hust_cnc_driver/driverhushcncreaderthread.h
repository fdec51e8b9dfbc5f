#ifndef DRIVERHUSHCNCREADERTHREAD_H
#define DRIVERHUSHCNCREADERTHREAD_H

#include "hustframes.h"

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

    // One read cycle: what it has received and how far it has got. Worker's thread only.
    struct ReadCycle
    {
        bool isResponse = false; // immediate mode: the block goes to a waiting caller
        int count = 0; // addresses of the request (N)
        int rxBufSize = 0; // size of one response
        QByteArray rxBuf; // bytes received and not yet given up
        int tmpSize = 0; // bytes asked of the next read while more than one read is expected
        int loop = 0; // failed match attempts since the start or the last restart
        int emptyReads = 0; // empty reads since the start or the last restart they caused
        int restarts = 0;
        int silentRestarts = 0; // restarts for a silent line
        int attemptLimit = 0; // failed match attempts after which the cycle gives up
        bool backward = false; // a match attempt has failed: search backward from now on
        HustFrames::ResponseMatcher *matcher = nullptr;
    };
    // What a step of the cycle leaves to do: go on to the next step, start the next pass, or
    // end the cycle.
    enum class Step { Go, Again, End };

    // One read cycle; failed match attempts are allowed for frames of `ahead` addresses, the
    // longer of the list asked for and one whose frames may still arrive before the answer.
    void readCycle(bool isResponse, QByteArray *response, int ahead);
    // Before a request for a new list: see the definition.
    void fenceOldStream();
    // The steps of a cycle, in order.
    Step receive(ReadCycle &c);
    void dropBeforeFirstFrame(ReadCycle &c);
    int search(ReadCycle &c);
    Step attemptFailed(ReadCycle &c);
    Step checkHCode(ReadCycle &c);
    void finish(ReadCycle &c, QByteArray *response);
    void giveUp(bool isResponse);
    // Restarts the exchange: stop frame, drain, new request.
    void restart(ReadCycle &c);
    // Before a loop cycle: takes what arrived since the last one.
    void takeBacklog();
    // One port read into m_rxChunk; the number of bytes read, 0 to maxSize.
    int readChunk(int maxSize);
    // The matcher for n addresses, strict or lenient, made once per n.
    HustFrames::ResponseMatcher &matcherFor(int n, bool lenient);
    // Writes value i of a response (value characters text, size of them) at out, least
    // significant byte first: its double word, or for a short value the one of the last full
    // block of dataLength values. Returns the bytes written: 4, or 0 for a short value without
    // such a block.
    int putValue(char *out, int i, const char *text, int size, int dataLength,
                 bool &isFullData) const;
    // Bit writes and the frames that show them (see the definitions).
    void noteBitWrite();
    void countFrameStarts(const char *bytes, int size);
    void noteBlockRead(const ReadCycle &c);
    // Hands a decoded block to the immediate caller or, in loop mode, to the driver's cache.
    void deliver(const QByteArray &block, bool isFullData, bool isResponse, QByteArray *response);

    QStringList m_addrList;
    AbstractDeviceInterface *m_readInterface;
    int m_stopSendCmdLength;
    QByteArray m_stopSendCmd;
    char m_rxChunk[250];
    DriverHushCNC *m_driver;
    QByteArray m_lastFullBlock;
    QByteArray m_lastHCode;
    bool m_cmdJustSent;
    // Lives in the application's thread and is deleted with the application object.
    QPointer<Worker> m_overflowWorker;
    // Made on the first toggleUartInterrupt(), so nothing is opened or mapped before it.
    std::unique_ptr<UartRegister> m_uartRegister;
    // The cycle under way is a loop cycle (worker's thread only).
    bool m_isLoopCycle;
    // Bytes of the stream carried from one loop cycle to the next (worker's thread only).
    QByteArray m_carried;
    std::unique_ptr<HustFrames::ResponseMatcher> m_strictMatcher;
    std::unique_ptr<HustFrames::ResponseMatcher> m_lenientMatcher;
    // Frame starts (DC2 bytes) read so far, bit writes sent, the newest of them a delivered block
    // is known to show, and those not yet seen with the frame starts read when each was sent.
    // Worker's thread only.
    quint64 m_frameStarts = 0;
    quint64 m_bitWritesSent = 0;
    quint64 m_bitWritesSeen = 0;
    struct BitWrite
    {
        quint64 serial;
        quint64 frameStarts;
    };
    QVector<BitWrite> m_bitWritesWaiting;
    // Addresses of the last read request sent, -1 before the first (worker's thread only).
    int m_lastRequestCount = -1;
    // The port did not take the last read request whole (worker's thread only).
    bool m_requestUnsent = false;
    // The last drain gave up with data still arriving: the controller may still be streaming
    // the list of the last request. Written by drains in the driver's and the worker's thread.
    std::atomic<bool> m_drainGaveUp {false};

public:
    // Shared with the driver's thread: the driver sets the stop flag through stopLoopRead() and
    // reads m_isLoopReading to decide whether to ask for another cycle.
    std::atomic<bool> m_isStopLoopRead;
    std::atomic<bool> m_isLoopReading;
};

#endif // DRIVERHUSHCNCREADERTHREAD_H

#ifndef HUSH_CNC_H
#define HUSH_CNC_H

#include "communicatorcommand.h"
#include "driverinterface.h"

#include <QAtomicInt>
#include <QByteArray>
#include <QHash>
#include <QMutex>
#include <QObject>
#include <QRegExp>
#include <QStringList>
#include <QVector>

#include <atomic>

class AbstractDeviceInterface;
class DriverHushCNCReaderWriter;
class HustGCodeprotocol;
class QThread;
class SerializedPort;

// The Hust CNC driver as the panel run-time sees it. Reads are answered from a cache of
// controller double words that a link worker, running in its own thread, refreshes in a loop;
// writes and G-code transfers are handed to the worker's thread.
class DriverHushCNC : public QObject, public DriverInterface
{
    Q_OBJECT
    Q_PLUGIN_METADATA(IID DriverInterface_iid)
    Q_INTERFACES(DriverInterface)
    // Blocks taken into the cache since the driver was made. A host that must tell fresh values
    // from a cache held through a line outage reads it as the property "deliveredBlocks".
    Q_PROPERTY(quint64 deliveredBlocks READ deliveredBlocks)

public:
    DriverHushCNC();
    ~DriverHushCNC() override;

    // DriverInterface
    int totalSize() override;
    bool write(AbstractDeviceInterface *interface, CommunicatorCommand const &cmd,
               QByteArray const &data) override;
    QByteArray read(AbstractDeviceInterface *interface, CommunicatorCommand const &cmd) override;
    bool initialize(AbstractDeviceInterface *interface) override;
    bool validation(QString const &address) override;
    QString name() override;
    QString vender() override;
    QString getVersionNumber() override;
    DeviceSetting *getDefaultSerialDeviceSetting() override;
    DriverSetting *getDefaultDriverSetting() override;
    QString getStringBasedDefaultDriverSetting() override;
    int supportedCommunicationFlags() override;
    void setDebugMode(bool on) override;
    int getBlockAccessSize() override;
    int getBitBlockAccessSize() override;
    bool hasError() override;
    QString getLastError() override;
    QObject *getThisObject() override;
    bool isSupportSessionCommand() override;
    void setSessionCommand(QList<CommunicatorCommand> commands) override;
    void clearSessionCommand() override;

    void clearError();

    // Diagnostic entry points: they talk to a port directly, outside the worker.
    // testCase sends a read request for d00010 to d00024 and logs, for each later port read, the
    // milliseconds since the previous one. It stops after maxReads reads, or earlier once
    // cancelTestCase() has been called (from any thread); a cancel that comes before the call
    // ends it at once.
    void testCase(AbstractDeviceInterface *interface, int maxReads = DefaultTestCaseReads);
    void cancelTestCase();
    void sendTxBufForReadForTest(const QByteArray &tx_buf, AbstractDeviceInterface *interface);
    QByteArray packReadBytesCmdForTest(QStringList addrList);

signals:
    void changeScreenID(int screenID);
    void getAddrValRightaway(QStringList addrList, quintptr responseByteArrayPointer);
    void startLoopRead(QStringList addrList);
    void showOverflowMsg(int num);
    void writeDWord(QString address, int dwordLength, QByteArray writeData);
    void writeBit(QString address, bool val);
    void loopRead();

public slots:
    void updateDWordByteArray(QByteArray DWordByteArray);

private slots:
    void initGCodeController(AbstractDeviceInterface *interface);
    QByteArray extractZeroDataFromDWordByteArray(CommunicatorCommand::DataType dataType,
                                                 int length);
    QByteArray extractDataFromDWordByteArray(CommunicatorCommand::DataType dataType,
                                             const QString &address,
                                             const QByteArray &dWordByteArray, int length);
    QStringList addr2DWAddrList(const CommunicatorCommand &cmd);
    void sendStopSendCommand(AbstractDeviceInterface *interface);
    void setWriteByteError();
    void setWriteWordError();
    QByteArray extractDataFromRespBuf(const QString &data, const int &data_length);
    bool writeDWord(AbstractDeviceInterface *interface, const CommunicatorCommand &cmd,
                    const QByteArray &data);
    QByteArray readBlock(const CommunicatorCommand &cmd);
    QByteArray readBit(const CommunicatorCommand &cmd);
    void stopLoopReadForGCode();
    void startLoopReadForGCode();
    void setAddressError(QString address = QString());
    void setOutOfRangeError(int range);
    void setReadCommandNotSupportError(CommunicatorCommand::DataType);
    void setReadTimeOutError();
    void setReadError();
    void setWriteDWordError();
    void setWriteASCOIError();
    void setWriteBitError();

private:
    // Unit tests inspect the cache and the loop-read list through this class, defined only there.
    friend class DriverHushCNCTestAccess;
    // The worker hands its blocks to takeBlock().
    friend class DriverHushCNCReaderWriter;

    // Reads of one screen may name at most this many double words: the count of a read request
    // has two digits.
    static constexpr int MaxLoopNames = 99;
    static constexpr int DefaultTestCaseReads = 1000;
    // extractDataFromRespBuf() refuses lengths beyond this (4 MB of double words).
    static constexpr int MaxDiagnosticRecords = 1 << 20;

    void raiseError(const QString &message);
    quint64 deliveredBlocks() const;
    // Hands the worker the driver and the port and starts its thread; once per driver.
    void startWorker(AbstractDeviceInterface *interface);
    // True in the thread that closed the session gate with clearSessionCommand() and has not
    // opened it again: that thread's block reads answer nothing instead of waiting on themselves.
    bool holdsSessionGate() const;
    void openSessionGate();
    // Replaces the loop-read list and counts the change, so that blocks read for an earlier list
    // are not taken into the cache.
    void storeAddrList(const QStringList &list);
    // A command as a read needs it, translated once (see translation()).
    struct Translation
    {
        QStringList names; // the double words read
        CommunicatorCommand::DataType dataType = CommunicatorCommand::DWordType; // of the cut
        int bit = 0; // the bit position that chooses the cut
        int readBit = 0; // a bit read: the bit picked from the double word
        bool fresh1200 = false; // the names hold d12001..d12006
        bool fresh1202 = false; // the names hold d12021..d12026
        bool traced = false;
        // The loop list generation that index belongs to, and where names.first() stands in it
        // (NoNames, NamesMissing).
        int listGeneration = -1;
        int index = -1;
    };
    static constexpr int NoNames = -1;
    static constexpr int NamesMissing = -2;
    static constexpr int MaxTranslations = 4096;
    struct TranslationKey
    {
        QString address;
        int dataType;
        quint32 length;
        bool bitRead;
        bool operator==(const TranslationKey &o) const
        {
            return length == o.length && dataType == o.dataType && bitRead == o.bitRead
                && address == o.address;
        }
        friend uint qHash(const TranslationKey &key, uint seed)
        {
            return qHash(key.address, seed) ^ uint(key.dataType) ^ (key.length << 4)
                ^ (key.bitRead ? 0x80000000u : 0u);
        }
    };

    Translation &translation(const CommunicatorCommand &cmd, bool bitRead);
    QByteArray readDWords(const CommunicatorCommand &cmd, Translation &t);
    static QByteArray cutData(CommunicatorCommand::DataType dataType, int bit,
                              const QByteArray &block, int from, int size, int length);
    bool writeBitPath(const CommunicatorCommand &cmd, const QByteArray &data);
    // The cache's update by the worker: block, with the bits written and not yet shown by a block
    // kept set (bitWritesSeen: the bit writes handed over that the block is known to follow).
    void takeBlock(const QByteArray &block, quint64 bitWritesSeen);
    bool writeBlockPath(AbstractDeviceInterface *interface, const CommunicatorCommand &cmd,
                        const QByteArray &data);

    // Guards the error state: the queued error slots run in the driver's thread while reads may
    // come from another.
    mutable QMutex m_errorMutex;
    bool m_hasError;
    int m_clearErrorCountdown;
    QString m_lastError;
    QByteArray m_stopSendCmd;
    int m_stopSendCmdLength;
    QStringList m_currentAddrList;
    QByteArray m_currentBlockData;
    DriverHushCNCReaderWriter *m_readerWriter;
    std::atomic<bool> m_isWorkerStarted;
    QThread *m_workerThread;
    std::atomic<bool> isStartLoopRead;
    QMutex m_blockDataMutex;
    QMutex m_addrListMutex;
    QRegExp m_d1200RegExp;
    QRegExp m_d1202RegExp;
    std::atomic<bool> m_isBlockDataUpdated;
    QMutex m_sessionMutex;
    HustGCodeprotocol *m_gcodeController;
    std::atomic<bool> m_isLoopReadStoppedForGCode;
    int m_readsSinceTrigger;
    int m_loopTriggerIndex;
    QStringList m_gcodeKeyList;
    std::atomic<bool> m_isWriteBitDirectDisable;

    // The worker's view of the run-time's port: every call serialised, owned by the driver.
    SerializedPort *m_linkPort;
    QMutex m_workerStartMutex;
    // The thread that holds the session gate between clearSessionCommand() and
    // setSessionCommand(), null while the gate is open.
    std::atomic<Qt::HANDLE> m_sessionHolder;
    // Changes of the loop-read list, and the change the worker reads for: a block is taken into
    // the cache only when both agree and loop reading is not stopped.
    std::atomic<int> m_addrListGeneration;
    std::atomic<int> m_workerListGeneration;
    // Which fresh-read registers the loop list of generation m_freshModeGeneration holds: 0 none,
    // 1 d12001..d12006, 2 d12021..d12026.
    int m_freshModeGeneration;
    int m_freshMode;
    // Session gate only.
    QHash<TranslationKey, Translation> m_translations;
    std::atomic<bool> m_testCaseCancelled;
    std::atomic<quint64> m_deliveredBlocks;
    // Bit writes handed to the worker, counted the same way by the worker.
    std::atomic<quint64> m_bitWritesHandedOver;
    // Bits written into the cache that blocks are to keep until one shows the write; guarded by
    // m_blockDataMutex. position is the bit's number in the cache of list generation generation.
    struct HeldBit
    {
        quint64 serial;
        int generation;
        int position;
        bool value;
    };
    static constexpr int MaxHeldBits = 256;
    QVector<HeldBit> m_heldBits;
};

#endif // HUSH_CNC_H

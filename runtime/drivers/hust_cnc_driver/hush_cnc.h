#ifndef HUSH_CNC_H
#define HUSH_CNC_H

#include "communicatorcommand.h"
#include "driverinterface.h"

#include <QAtomicInt>
#include <QByteArray>
#include <QMutex>
#include <QObject>
#include <QRegExp>
#include <QStringList>

#include <atomic>

class AbstractDeviceInterface;
class DriverHushCNCReaderWriter;
class HustGCodeprotocol;
class QThread;

// The Hust CNC driver as the panel run-time sees it. Reads are answered from a cache of
// controller double words that a link worker, running in its own thread, refreshes in a loop;
// writes and G-code transfers are handed to the worker's thread.
class DriverHushCNC : public QObject, public DriverInterface
{
    Q_OBJECT
    Q_PLUGIN_METADATA(IID DriverInterface_iid)
    Q_INTERFACES(DriverInterface)

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
    void testCase(AbstractDeviceInterface *interface);
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

    void raiseError(const QString &message);

    bool m_hasError;
    int m_clearErrorCountdown;
    QString m_lastError;
    QByteArray m_stopSendCmd;
    int m_stopSendCmdLength;
    QStringList m_currentAddrList;
    QByteArray m_currentBlockData;
    DriverHushCNCReaderWriter *m_readerWriter;
    bool m_isWorkerStarted;
    QThread *m_workerThread;
    bool isStartLoopRead;
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
    bool m_isWriteBitDirectDisable;
};

#endif // HUSH_CNC_H

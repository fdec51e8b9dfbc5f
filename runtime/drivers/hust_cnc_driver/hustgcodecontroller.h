#ifndef HUSTGCODECONTROLLER_H
#define HUSTGCODECONTROLLER_H

#include <QByteArray>
#include <QMutex>
#include <QObject>

class AbstractDeviceInterface;
class CommunicatorCommand;

// Transfers G-code part programs to and from the controller over the link worker's serial line.
//
// Screens drive it through six address keys: a write of a request key records the request and
// emits a signal whose slot runs the transfer (queued, in the link worker's thread once the
// object has been moved there); the screen then polls the status word and the request flags.
// Around each transfer the object emits stopLoopReadSignal() and startLoopReadSignal() so that
// the driver keeps register loop reading off the line meanwhile.
//
// The status word, the request flags and the program text are shared between the caller's
// thread and the worker thread; one mutex guards them and is held only for each access, never
// across a sleep or a port call.
class HustGCodeprotocol : public QObject
{
    Q_OBJECT

public:
    // Status word bits.
    static constexpr quint32 ReadFinishedBit = 0x00000001;
    static constexpr quint32 ReadRequestedBit = 0x00000002;
    static constexpr quint32 SendFinishedBit = 0x00010000;
    static constexpr quint32 SendRequestedBit = 0x00020000;

    // An exchange ends with an empty text once this many polls in a row brought no new byte,
    // whether nothing has arrived at all (a silent controller) or an answer stopped midway.
    static constexpr int IdlePollLimit = 22;
    // An answer that grows beyond this many bytes without completing is dropped (empty text).
    static constexpr int MaxAnswerSize = 4 * 1024 * 1024;
    // The read sequence gives up (empty text) after this many rounds of disagreeing answers.
    static constexpr int MaxAgreementRounds = 8;
    // Capacity of one receive call.
    static constexpr int PollSize = 200;

    explicit HustGCodeprotocol(QObject *parent = nullptr);
    ~HustGCodeprotocol() override;

    void setReadInterface(AbstractDeviceInterface *port);

    void processReadCommand(const CommunicatorCommand &cmd, QByteArray &out);
    void processWriteCommand(const CommunicatorCommand &cmd, const QByteArray &data);

    bool getGCodeFromController(QByteArray &out, int read_type);
    QByteArray getGCode(const QByteArray &frame);
    bool sendGCodeToController(const QByteArray &code, int burning);

    QByteArray packGetCurrentGCodeCmd();
    QByteArray packSendGCodeCmd();
    QByteArray packBurningGCodeCmd();

    // Program text as it is sent: cut at the first zero byte, empty lines dropped, lines joined
    // by single line feeds with none at the end; carriage returns stay where they are.
    static QByteArray normalizedGCode(const QByteArray &text);

signals:
    void stopLoopReadSignal();
    void startLoopReadSignal();
    void readDataFromControllerSignal(int read_type);
    void writeDataToControllerSignal();

public slots:
    void async_processReadDataFromController(int read_type);
    void async_processWriteDataToController();

protected:
    // The fixed pauses of the transfer sequences go through here.
    virtual void pause(int ms);

private:
    QByteArray abandonExchange(const char *why, int received);

    QByteArray m_getCodeCmd;
    QByteArray m_sendCodeCmd;
    QByteArray m_burningCodeCmd;
    AbstractDeviceInterface *m_readInterface;
    quint32 m_protocolStatus;
    QByteArray m_codeData;
    bool m_readCurrentCode;
    bool m_readAllCode;
    bool m_burningCodeBit;

    mutable QMutex m_stateMutex;
};

#endif // HUSTGCODECONTROLLER_H

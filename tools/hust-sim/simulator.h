#ifndef HUSTSIM_SIMULATOR_H
#define HUSTSIM_SIMULATOR_H

#include <QByteArray>
#include <QString>
#include <QStringList>
#include <QVector>

#include <functional>
#include <memory>
#include <optional>

// A Hust CNC controller on a serial line, for tests and tools: it answers the panel driver's
// register and program requests on a pseudo-terminal (or a real serial device), paced like the
// real line, and can inject line faults on demand.
namespace hustsim {

constexpr int kRegisterCount = 100000;

enum class FrameKind {
    ReadRequest,
    Stop,
    WriteDWord,
    BitSet,
    BitClear,
    ProgramRequestCurrent,
    ProgramRequestAll,
    SendHeader,
    ProgramData,
    Burn,
    Unknown,
    Malformed
};

// "read_request", "stop", "write_dword", ... as written in the frame log.
QString frameKindName(FrameKind kind);
std::optional<FrameKind> frameKindFromName(const QString &name);

// One frame received from the panel.
struct RecordedFrame
{
    qint64 sequence = 0; // 0 for the first frame received since start()
    qint64 elapsedMs = 0; // since start()
    FrameKind kind = FrameKind::Unknown;
    QByteArray raw; // DC2 up to DC4 inclusive
    QVector<int> addresses; // read list, or the one written double word
    QVector<quint32> values; // written value
    int bit = -1; // bit set/clear
    QByteArray text; // program data
};

// One JSON object on one line (no line feed) describing the frame.
QByteArray frameToJsonLine(const RecordedFrame &frame);

enum class Parity { None, Even, Odd };

struct LineSettings
{
    int baud = 38400;
    int dataBits = 7;
    Parity parity = Parity::Even;
    int stopBits = 2;

    // Start bit, data bits, parity bit and stop bits: 11 for 7E2.
    int bitsPerCharacter() const;
};

// Random and standing faults. Probabilities are 0..1; all off by default.
struct FaultSettings
{
    bool silence = false; // answer nothing; input is still read, recorded and applied
    double garbageProbability = 0.0; // chance of random bytes before a response frame
    int garbageMaxBytes = 8; // 1..this many bytes when it happens
    int hCodeRepeat = 1; // each H code is carried by this many consecutive frames
    double shortValueProbability = 0.0; // chance per d record of 5..7 value characters
    double cutProbability = 0.0; // chance per frame of being cut off at a random byte
    double loseStopProbability = 0.0; // chance that a received stop frame is ignored
};

struct SimulatorConfig
{
    QString device; // serve this serial device; empty: open a pseudo-terminal
    QString linkPath; // pty only: keep a symlink here pointing at the current slave
    LineSettings line;
    bool paced = true;
    double speed = 1.0; // multiplies the line's character rate
    bool frameCounter = true; // double word 0 counts the response frames sent
    // Double word that holds CLOCK_MONOTONIC in milliseconds (low 32 bits) as each response frame
    // is formatted, so that a reader on the same machine can tell how old a value is; -1: none.
    int clockRegister = -1;
    quint64 seed = 1;
    FaultSettings faults;
};

class Simulator
{
public:
    explicit Simulator(const SimulatorConfig &config = SimulatorConfig());
    ~Simulator();
    Simulator(const Simulator &) = delete;
    Simulator &operator=(const Simulator &) = delete;

    // Opens the line and starts the I/O thread. False with errorString() on failure.
    bool start();
    // Ends the I/O thread and closes the line; also done by the destructor.
    void stop();
    bool isRunning() const;
    QString errorString() const;

    // The slave path clients open (pty), or the device path. Changes after a hangup.
    QString devicePath() const;
    // Called on the I/O thread with the new slave path after a hangup reopened the pty.
    // Set before start().
    void setDevicePathChangedHandler(std::function<void(const QString &)> handler);
    // Called on the I/O thread for every frame received. Set before start().
    void setFrameHandler(std::function<void(const RecordedFrame &)> handler);

    // Register memory: double words 0..99999. Out-of-range indices are refused (and read as 0).
    bool setRegister(int index, quint32 value);
    quint32 registerValue(int index) const;

    // Program store.
    void setProgram(const QString &name, const QByteArray &text);
    QByteArray program(const QString &name) const;
    QStringList programNames() const;
    bool setCurrentProgram(const QString &name);
    QString currentProgramName() const;
    // The text of the last program data frame not yet burnt; empty when none.
    QByteArray pendingProgram() const;
    // Every regular, non-hidden file of `dir` becomes one program named after the file; the first
    // by name becomes current unless one is already chosen. False with a reason on failure.
    bool loadPrograms(const QString &dir, QString *error);

    // Faults, changeable at any time.
    FaultSettings faults() const;
    void setFaults(const FaultSettings &faults);
    void setSilence(bool on);
    // Cable pull: for `ms` milliseconds nothing is sent and everything received is discarded.
    void pullCable(int ms);
    // Hangup: closes the pty master (the client's reads and writes fail with EIO) and opens a
    // new pty after `ms` milliseconds, re-pointing the link. Ignored when serving a device.
    void hangup(int ms);
    bool isLinkDown() const;

    // Frames received so far (the most recent 65536 are kept).
    QVector<RecordedFrame> frames() const;
    qint64 frameCount() const;
    // Waits up to `timeoutMs` for a frame of `kind` whose sequence is at least `fromSequence`.
    std::optional<RecordedFrame> waitForFrame(FrameKind kind, int timeoutMs,
                                              qint64 fromSequence = 0) const;

    // True while a register stream is being sent.
    bool isStreaming() const;
    quint64 responseFramesSent() const;
    quint64 bytesSent() const;
    quint64 bytesReceived() const;
    int hangupCount() const;

private:
    struct Private;
    std::unique_ptr<Private> d;
};

} // namespace hustsim

#endif // HUSTSIM_SIMULATOR_H

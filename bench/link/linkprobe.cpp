// Watches registers through the driver plug-in as a panel screen does, against hust-sim on a
// pseudo-terminal paced like the line, and reports what the screen saw.
//
//   hust_linkprobe [--n N] [--seconds S] [--poll MS] [--fault KIND] [--bit-writes MS] [--json]
//   hust_linkprobe --gcode read|send --size BYTES [--speed X] [--json]
//
// The screen is one block read of N double words (DW100 up) every --poll ms (default 10),
// each followed by hasError(), as the run-time does. Double word 100 holds the simulator's
// monotonic clock at the moment each frame was formatted, so every read tells how old its data
// is. Faults, 3 s into the run: cable-pull (5 s), hangup (4 s), restart (the simulator killed and
// started again behind the same link path after 4 s).
//
// Reported: fresh blocks per second against the line's frame rate 1/T (T = (10 N + 25) * 11 /
// 38400 s), data age p50/p95 in T, the process's CPU time per received byte and its peak memory;
// with a fault, how long the error took to show, how long fresh blocks took to return after the
// line came back, and how long the error stayed after that. With --bit-writes, bit 5 of the
// screen's second double word (B101.5) is toggled every MS ms, and the probe counts the writes
// after which a read showed the bit's old value again.
//
// With --gcode the probe reads the current part program (or sends one) of --size bytes through
// the driver's G-code keys instead and reports the share of the line's character rate the
// transfer used and its CPU time per program byte. A pseudo-terminal takes the panel's writes at
// once, so the probe holds each write for as long as the line would take to send it. --speed
// makes line and simulator X times faster.
#include "communicatorcommand.h"
#include "driverinterface.h"
#include "drv_dev_setting.h"
#include "partprogram.h"
#include "serialport.h"

#include <QCommandLineParser>
#include <QCoreApplication>
#include <QDir>
#include <QElapsedTimer>
#include <QFile>
#include <QJsonDocument>
#include <QJsonObject>
#include <QPluginLoader>
#include <QProcess>
#include <QTemporaryDir>
#include <QThread>

#include <algorithm>
#include <atomic>
#include <cstdio>

#include <sys/resource.h>
#include <time.h>

namespace {

constexpr int FirstRegister = 100;
constexpr int FaultAtMs = 3000;
constexpr double CharactersPerSecond = 38400.0 / 11.0;

quint32 monotonicMs()
{
    timespec now {};
    clock_gettime(CLOCK_MONOTONIC, &now);
    return quint32(qint64(now.tv_sec) * 1000 + now.tv_nsec / 1'000'000);
}

double cpuSeconds()
{
    rusage usage {};
    getrusage(RUSAGE_SELF, &usage);
    return usage.ru_utime.tv_sec + usage.ru_stime.tv_sec
        + (usage.ru_utime.tv_usec + usage.ru_stime.tv_usec) / 1e6;
}

long peakMemoryKb()
{
    rusage usage {};
    getrusage(RUSAGE_SELF, &usage);
    return usage.ru_maxrss;
}

double percentile(QVector<double> values, double p)
{
    if (values.isEmpty())
        return -1;
    std::sort(values.begin(), values.end());
    return values.at(std::min(int(values.size() - 1), int(p * values.size())));
}

// hust-sim as a child process behind a fixed link path.
class SimProcess
{
public:
    bool start(const QString &program, const QStringList &arguments)
    {
        m_process.start(program, arguments);
        if (!m_process.waitForStarted(5000))
            return false;
        while (!m_process.canReadLine()) {
            if (!m_process.waitForReadyRead(5000))
                return false;
        }
        return m_process.readLine().startsWith("PTY ");
    }
    void kill()
    {
        m_process.kill();
        m_process.waitForFinished(5000);
    }
    ~SimProcess()
    {
        m_process.terminate();
        if (!m_process.waitForFinished(5000))
            kill();
    }

private:
    QProcess m_process;
};

// The serial port as the driver sees it, counting the bytes read through it.
class CountingPort : public AbstractDeviceInterface
{
public:
    explicit CountingPort(SerialPort &port)
        : m_port(port)
    { }

    qint64 bytesRead() const { return m_bytes; }
    // Holds each write until a line of this many characters a second would have sent it.
    void paceWrites(double charactersPerSecond) { m_writeRate = charactersPerSecond; }

    int readData(char *data, int maxSize) override { return count(m_port.readData(data, maxSize)); }
    int receiveData(char *data, int maxSize) override
    {
        return count(m_port.receiveData(data, maxSize));
    }
    int writeData(const char *data, int size) override
    {
        const int written = m_port.writeData(data, size);
        if (m_writeRate > 0)
            QThread::usleep(quint64(size * 1e6 / m_writeRate));
        return written;
    }
    DeviceSetting *getDeviceSetting() override { return m_port.getDeviceSetting(); }
    void getOption(int option, QVariant &value) override { m_port.getOption(option, value); }
    void setOption(int option, const QVariant &value) override { m_port.setOption(option, value); }
    int getRetry() override { return m_port.getRetry(); }
    int getDelay() override { return m_port.getDelay(); }

private:
    int count(int bytes)
    {
        m_bytes += qMax(bytes, 0);
        return bytes;
    }

    SerialPort &m_port;
    std::atomic<qint64> m_bytes {0};
    double m_writeRate = 0;
};

struct Sample
{
    qint64 t; // ms since the start of the watch
    bool error;
    quint64 blocks;
    double ageMs; // -1 without data
};

// Reads the current program, or sends text, through the driver's G-code keys as a screen does:
// a write of the request key, then the status word polled until the transfer is over.
QJsonObject transfer(DriverInterface *driver, AbstractDeviceInterface *port, bool send,
                     const QByteArray &text, double lineRate)
{
    const CommunicatorCommand status(CommunicatorCommand::DWordType, 1,
                                     QStringLiteral("PROTOCOL_STATUS0"));
    // The worker and the G-code object start here, outside the measured span.
    driver->read(port, status);
    const quint32 done = send ? 0x10000 : 0x1;
    const double cpuBefore = cpuSeconds();
    QElapsedTimer clock;
    clock.start();
    if (send) {
        driver->write(
            port,
            CommunicatorCommand(CommunicatorCommand::DWordType, 1, QStringLiteral("Code2CtrlCmd")),
            text);
    } else {
        driver->write(port,
                      CommunicatorCommand(CommunicatorCommand::BitType, 1,
                                          QStringLiteral("ReadCurrentCode0")),
                      QByteArray(1, 1));
    }
    quint32 word = 0;
    while (!(word & done) && clock.elapsed() < 3'600'000) {
        QCoreApplication::processEvents();
        QThread::msleep(10);
        const QByteArray data = driver->read(port, status);
        if (data.size() == 4)
            word = quint32(quint8(data.at(0))) | quint32(quint8(data.at(2))) << 16;
    }
    const double seconds = clock.elapsed() / 1000.0;
    const double cpu = cpuSeconds() - cpuBefore;
    const QByteArray received = send
        ? text
        : driver->read(
            port,
            CommunicatorCommand(CommunicatorCommand::BlockType, 1, QStringLiteral("ReadCode")));
    return QJsonObject {{"gcode", send ? "send" : "read"},
                        {"size", text.size()},
                        {"transferred", received.size()},
                        {"seconds", seconds},
                        {"line_share", received.size() / (seconds * lineRate)},
                        {"cpu_us_per_byte", cpu * 1e6 / qMax(1, int(received.size()))}};
}

} // namespace

int main(int argc, char **argv)
{
    QCoreApplication app(argc, argv);
    app.setProperty("zel_env", true);

    QCommandLineParser parser;
    parser.addOptions({{"n", "double words on the screen", "N", "10"},
                       {"seconds", "length of the watch", "S", "20"},
                       {"poll", "ms between reads", "MS", "10"},
                       {"fault", "none, cable-pull, hangup or restart", "KIND", "none"},
                       {"bit-writes", "ms between writes of bit B101.5 (0: none)", "MS", "0"},
                       {"gcode", "read or send a part program", "KIND"},
                       {"size", "bytes of the part program", "BYTES", "10240"},
                       {"speed", "line and simulator this many times faster", "X", "1"},
                       {"json", "one JSON object instead of text"}});
    parser.process(app);
    const int n = parser.value("n").toInt();
    const int seconds = parser.value("seconds").toInt();
    const int pollMs = parser.value("poll").toInt();
    const QString fault = parser.value("fault");
    if (n < 1 || n > 99 || seconds < 1 || pollMs < 1) {
        fprintf(stderr, "hust_linkprobe: bad arguments\n");
        return 2;
    }
    const int downMs = fault == QLatin1String("cable-pull") ? 5000 : 4000;

    const QString binDir = QCoreApplication::applicationDirPath();
    const QString simProgram = binDir + QStringLiteral("/hust-sim");
    QTemporaryDir dir;
    const QString link = dir.filePath(QStringLiteral("cnc"));
    const QString gcode = parser.value("gcode");
    const double speed = parser.value("speed").toDouble();
    const QByteArray text = partProgram(parser.value("size").toInt());
    QStringList simArguments {QStringLiteral("--link"), link, QStringLiteral("--clock"),
                              QString::number(FirstRegister)};
    if (speed != 1.0)
        simArguments << QStringLiteral("--speed") << QString::number(speed);
    if (gcode == QLatin1String("read")) {
        QDir(dir.path()).mkdir(QStringLiteral("programs"));
        QFile file(dir.filePath(QStringLiteral("programs/O0001")));
        if (!file.open(QIODevice::WriteOnly) || file.write(text) != text.size())
            return 1;
        file.close();
        simArguments << QStringLiteral("--sim-programs")
                     << dir.filePath(QStringLiteral("programs"));
    }
    if (fault == QLatin1String("cable-pull"))
        simArguments << QStringLiteral("--cable-pull")
                     << QStringLiteral("%1:%2").arg(FaultAtMs).arg(downMs);
    else if (fault == QLatin1String("hangup"))
        simArguments << QStringLiteral("--hangup")
                     << QStringLiteral("%1:%2").arg(FaultAtMs).arg(downMs);
    auto sim = std::make_unique<SimProcess>();
    if (!sim->start(simProgram, simArguments)) {
        fprintf(stderr, "hust_linkprobe: cannot start %s\n", qPrintable(simProgram));
        return 1;
    }
    QElapsedTimer clock;
    clock.start(); // the simulator's fault schedule runs from about here

    SerialPort port(DeviceSetting(DEVICE_SERIAL, link, 38400, 7, 2, 2), DriverSetting(0, 0, 0, 0));
    if (!port.open()) {
        fprintf(stderr, "hust_linkprobe: %s\n", qPrintable(port.errorString()));
        return 1;
    }
    CountingPort counted(port);
    QPluginLoader loader(
        QDir(binDir).absoluteFilePath(QStringLiteral("../plugins/libhust_cnc_driver.so")));
    auto *driver = qobject_cast<DriverInterface *>(loader.instance());
    if (!driver) {
        fprintf(stderr, "hust_linkprobe: %s\n", qPrintable(loader.errorString()));
        return 1;
    }
    if (!gcode.isEmpty()) {
        counted.paceWrites(CharactersPerSecond * speed);
        const QJsonObject report = transfer(driver, &counted, gcode == QLatin1String("send"), text,
                                            CharactersPerSecond * speed);
        printf("%s\n", QJsonDocument(report).toJson(QJsonDocument::Compact).constData());
        return 0;
    }
    const CommunicatorCommand screen(CommunicatorCommand::DWordType, quint32(n),
                                     QStringLiteral("DW%1").arg(FirstRegister));
    driver->setSessionCommand({screen});

    // Wait for the first data, as a screen does when it opens.
    while (driver->read(&counted, screen).isEmpty() && clock.elapsed() < 10000)
        QThread::msleep(quint32(pollMs));
    const double cpuBefore = cpuSeconds();
    const qint64 watchStart = clock.elapsed();
    const quint64 blocksBefore = driver->getThisObject()->property("deliveredBlocks").toULongLong();

    // Bit writes: each toggles B101.5 (bit 5 of the screen's second double word); a read that
    // shows the bit's earlier value after the write has gone back.
    const int bitWriteMs = parser.value("bit-writes").toInt();
    const CommunicatorCommand bit(CommunicatorCommand::BitType, 1, QStringLiteral("B101.5"));
    bool written = false;
    int bitWrites = 0, wentBack = 0, oldReads = 0;
    qint64 nextWrite = bitWriteMs, oldSince = -1, longestOld = 0;
    bool thisWriteWentBack = false;

    QVector<Sample> samples;
    bool restarted = false;
    for (qint64 t = 0; t < seconds * 1000; t = clock.elapsed() - watchStart) {
        if (fault == QLatin1String("restart") && clock.elapsed() >= FaultAtMs && !restarted) {
            if (sim) {
                sim->kill();
                sim.reset();
            }
            if (clock.elapsed() >= FaultAtMs + downMs) {
                sim = std::make_unique<SimProcess>();
                if (!sim->start(simProgram, simArguments.mid(0, 4)))
                    return 1;
                restarted = true;
            }
        }
        if (bitWriteMs > 0 && n >= 2 && t >= nextWrite) {
            written = !written;
            driver->write(&counted, bit, QByteArray(1, written));
            nextWrite += bitWriteMs;
            ++bitWrites;
            thisWriteWentBack = false;
        }
        const QByteArray data = driver->read(&counted, screen);
        QCoreApplication::processEvents();
        if (bitWrites > 0 && data.size() >= 8) {
            if (((quint8(data.at(4)) >> 5) & 1) != int(written)) {
                ++oldReads;
                if (oldSince < 0)
                    oldSince = t;
                if (!thisWriteWentBack)
                    ++wentBack;
                thisWriteWentBack = true;
            } else if (oldSince >= 0) {
                longestOld = qMax(longestOld, t - oldSince);
                oldSince = -1;
            }
        }
        Sample s {t, driver->hasError(),
                  driver->getThisObject()->property("deliveredBlocks").toULongLong(), -1};
        if (data.size() >= 4) {
            const quint32 stamp = quint32(quint8(data.at(0))) | quint32(quint8(data.at(1))) << 8
                | quint32(quint8(data.at(2))) << 16 | quint32(quint8(data.at(3))) << 24;
            s.ageMs = double(qint32(monotonicMs() - stamp));
        }
        samples.append(s);
        QThread::msleep(quint32(pollMs));
    }
    const double cpu = cpuSeconds() - cpuBefore;
    const double elapsed = (clock.elapsed() - watchStart) / 1000.0;
    const quint64 blocks = samples.isEmpty() ? 0 : samples.last().blocks - blocksBefore;

    const double frameSeconds = (10 * n + 25) / CharactersPerSecond;
    QJsonObject report {{"n", n},
                        {"seconds", elapsed},
                        {"poll_ms", pollMs},
                        {"fault", fault},
                        {"T_ms", frameSeconds * 1000},
                        {"cpu_ms_per_s", cpu * 1000 / elapsed},
                        {"bytes_read", double(counted.bytesRead())},
                        {"peak_memory_kb", qint64(peakMemoryKb())}};
    if (bitWrites > 0) {
        report.insert("bit_writes", bitWrites);
        report.insert("bit_writes_gone_back", wentBack);
        report.insert("reads_showing_the_old_bit", oldReads);
        report.insert("longest_old_bit_ms", double(longestOld));
    }
    if (fault == QLatin1String("none")) {
        QVector<double> ages;
        for (const Sample &s : qAsConst(samples)) {
            if (s.ageMs >= 0)
                ages.append(s.ageMs / (frameSeconds * 1000));
        }
        report.insert("fresh_blocks_per_T", blocks / elapsed * frameSeconds);
        report.insert("age_p50_T", percentile(ages, 0.5));
        report.insert("age_p95_T", percentile(ages, 0.95));
        report.insert("cpu_us_per_line_byte", cpu * 1e6 / (blocks * double(10 * n + 25) + 1));
    } else {
        // Times relative to the fault and to the line's return, as the watch saw them.
        const qint64 faultAt = FaultAtMs - watchStart;
        const qint64 backAt = faultAt + downMs;
        qint64 errorShown = -1, fresh = -1, errorGone = -1;
        int outageReads = 0, outageErrors = 0;
        quint64 blocksAtBack = 0;
        for (const Sample &s : qAsConst(samples)) {
            if (s.t >= faultAt && s.t < backAt) {
                ++outageReads;
                outageErrors += s.error;
                if (s.error && errorShown < 0)
                    errorShown = s.t - faultAt;
                blocksAtBack = s.blocks;
            }
            if (s.t >= backAt && fresh < 0 && s.blocks > blocksAtBack)
                fresh = s.t - backAt;
            if (fresh >= 0 && s.error)
                errorGone = s.t - backAt - fresh;
        }
        report.insert("error_shown_after_ms", errorShown);
        report.insert("error_share_during_outage",
                      outageReads ? double(outageErrors) / outageReads : 0);
        report.insert("fresh_after_return_ms", fresh);
        report.insert("error_last_seen_after_fresh_ms", errorGone);
    }
    if (parser.isSet("json")) {
        printf("%s\n", QJsonDocument(report).toJson(QJsonDocument::Compact).constData());
    } else {
        for (auto it = report.begin(); it != report.end(); ++it)
            printf("%-32s %s\n", qPrintable(it.key()),
                   qPrintable(it.value().isString() ? it.value().toString()
                                                    : QString::number(it.value().toDouble())));
    }
    driver->clearSessionCommand();
    return 0;
}

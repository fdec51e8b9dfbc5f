#include "commands.h"

#include "driverhost.h"
#include "targetreader.h"

#include <QElapsedTimer>
#include <QFile>
#include <QSaveFile>

#include <cstdio>

#include <unistd.h>

namespace {

// Status word bits of the driver's G-code transfer.
constexpr quint32 kReadFinished = 0x1;
constexpr quint32 kSendFinished = 0x10000;

// Least time between two redraws of the progress line.
constexpr int kRedrawIntervalMs = 100;
// How long the register read that follows a send may take to show that the controller is there.
constexpr int kProbeTimeoutMs = 5000;

CommunicatorCommand key(CommunicatorCommand::DataType type, const char *name, quint32 length = 1)
{
    return CommunicatorCommand(type, length, QLatin1String(name));
}

CommunicatorCommand statusKey()
{
    return key(CommunicatorCommand::DWordType, "PROTOCOL_STATUS0");
}

// One byte 0 or 1, as a screen's bit button writes it.
QByteArray flag(bool on)
{
    return QByteArray(1, on ? char(1) : char(0));
}

// Elapsed time and, once known, the bytes of a transfer on standard error: one line redrawn in
// place on a terminal, otherwise only the final line.
class Progress
{
public:
    explicit Progress(QTextStream &err)
        : m_err(err)
        , m_tty(isatty(fileno(stderr)) == 1)
    {
        m_clock.start();
        m_lastDraw.start();
    }

    qint64 elapsedMs() const { return m_clock.elapsed(); }

    void tick(const QString &what)
    {
        if (!m_tty || m_lastDraw.elapsed() < kRedrawIntervalMs)
            return;
        m_lastDraw.restart();
        draw(QStringLiteral("%1 %2 s").arg(what, seconds()));
    }

    void finish(const QString &line)
    {
        draw(line);
        m_err << '\n';
        m_err.flush();
        m_drawn = false;
    }

    // Ends a redrawn line so that an error message starts on a line of its own.
    void abandon()
    {
        if (m_drawn)
            m_err << '\n';
        m_drawn = false;
    }

    QString seconds() const { return QString::number(m_clock.elapsed() / 1000.0, 'f', 1); }

private:
    void draw(const QString &line)
    {
        if (m_tty)
            m_err << "\r\x1b[2K";
        m_err << line;
        m_err.flush();
        m_drawn = m_tty;
    }

    QTextStream &m_err;
    const bool m_tty;
    bool m_drawn = false;
    QElapsedTimer m_clock;
    QElapsedTimer m_lastDraw;
};

// Polls the status word until one of `bits` is set. Reads come back empty while the transfer
// holds the line, so the event loop runs between polls for the driver to learn when it ends.
bool waitForStatus(DriverHost &host, quint32 bits, int timeoutMs, Progress &progress,
                   const QString &what)
{
    const CommunicatorCommand status = statusKey();
    for (;;) {
        const DriverHost::ReadResult result = host.readOnce(status);
        if (result.data.size() >= 4) {
            const auto *b = reinterpret_cast<const uchar *>(result.data.constData());
            const quint32 word
                = quint32(b[0]) | quint32(b[1]) << 8 | quint32(b[2]) << 16 | quint32(b[3]) << 24;
            if (word & bits)
                return true;
        }
        if (progress.elapsedMs() >= timeoutMs)
            return false;
        progress.tick(what);
        DriverHost::pause(DriverHost::kPollIntervalMs);
    }
}

bool writeKey(DriverHost &host, const CommunicatorCommand &command, const QByteArray &data,
              QString *error)
{
    if (host.write(command, data, error))
        return true;
    *error = QStringLiteral("%1: %2").arg(command.address, *error);
    return false;
}

bool writeOutput(const QString &path, const QByteArray &text, QTextStream &out, QString *error)
{
    if (path.isEmpty()) {
        out.flush();
        QFile console;
        if (!console.open(stdout, QIODevice::WriteOnly) || console.write(text) != text.size()
            || !console.flush()) {
            *error = QStringLiteral("standard output: %1").arg(console.errorString());
            return false;
        }
        return true;
    }
    QSaveFile file(path);
    if (!file.open(QIODevice::WriteOnly) || file.write(text) != text.size() || !file.commit()) {
        *error = QStringLiteral("%1: %2").arg(path, file.errorString());
        return false;
    }
    return true;
}

} // namespace

bool GCodeCommand::prepare(CtlOptions &options, QString *reason)
{
    const QString action = options.arguments.first();
    if (action == QLatin1String("get")) {
        if (options.arguments.size() > 1) {
            *reason = QStringLiteral("gcode get takes no file (\"%1\"); use -o FILE")
                          .arg(options.arguments.at(1));
            return false;
        }
        if (options.burn) {
            *reason = QStringLiteral("--burn applies to gcode put");
            return false;
        }
    } else if (action == QLatin1String("put")) {
        if (options.arguments.size() != 2) {
            *reason = QStringLiteral("gcode put takes one program file");
            return false;
        }
        if (options.allPrograms || !options.outputPath.isEmpty()) {
            *reason
                = QStringLiteral("%1 applies to gcode get")
                      .arg(options.allPrograms ? QStringLiteral("--all") : QStringLiteral("-o"));
            return false;
        }
        m_put = true;
        m_file = options.arguments.at(1);
    } else {
        *reason = QStringLiteral("gcode: \"%1\" is neither get nor put").arg(action);
        return false;
    }
    if (options.timeoutGiven)
        m_timeoutMs = options.timeoutMs;
    return true;
}

int GCodeCommand::run(CommandEnv &env)
{
    return m_put ? put(env) : get(env);
}

int GCodeCommand::get(CommandEnv &env)
{
    DriverHost &host = *env.host;
    const CommunicatorCommand request
        = key(CommunicatorCommand::BitType,
              env.options.allPrograms ? "ReadAllCode0" : "ReadCurrentCode0");
    QString error;
    if (!writeKey(host, statusKey(), QByteArray(4, 0), &error)
        || !writeKey(host, request, flag(true), &error))
        return fail(env.err, error);

    Progress progress(env.err);
    const bool finished
        = waitForStatus(host, kReadFinished, m_timeoutMs, progress, QStringLiteral("receiving"));
    const QByteArray text = finished
        ? host.readOnce(key(CommunicatorCommand::BlockType, "ReadCode")).data
        : QByteArray();
    // The screen's part of the hand-shake: take the request back and clear the status word.
    if (!writeKey(host, request, flag(false), &error)
        || !writeKey(host, statusKey(), QByteArray(4, 0), &error)) {
        progress.abandon();
        return fail(env.err, error);
    }
    if (!finished) {
        progress.abandon();
        return fail(env.err,
                    QStringLiteral("gcode get: the program read did not end within %1 ms")
                        .arg(m_timeoutMs));
    }
    if (text.isEmpty()) {
        progress.abandon();
        return fail(env.err,
                    QStringLiteral("gcode get: no program came back after %1 s: the "
                                   "controller did not answer (an empty program "
                                   "looks the same)")
                        .arg(progress.seconds()));
    }
    progress.finish(
        QStringLiteral("received %1 bytes in %2 s").arg(text.size()).arg(progress.seconds()));
    if (!writeOutput(env.options.outputPath, text, env.out, &error))
        return fail(env.err, error);
    return 0;
}

int GCodeCommand::put(CommandEnv &env)
{
    QFile file(m_file);
    if (!file.open(QIODevice::ReadOnly))
        return fail(env.err, QStringLiteral("%1: %2").arg(m_file, file.errorString()));
    const QByteArray text = file.readAll();
    // The driver drops empty lines and everything after a zero byte before sending.
    const int zero = text.indexOf('\0');
    if (QByteArray(zero < 0 ? text : text.left(zero)).replace('\n', QByteArray()).isEmpty())
        return fail(env.err, QStringLiteral("%1: no program text to send").arg(m_file));

    DriverHost &host = *env.host;
    QString error;
    if (!writeKey(host, key(CommunicatorCommand::BitType, "BurningCodeBit0"),
                  flag(env.options.burn), &error)
        || !writeKey(host, statusKey(), QByteArray(4, 0), &error)
        || !writeKey(host,
                     key(CommunicatorCommand::BlockType, "Code2CtrlCmd", quint32(text.size())),
                     text, &error))
        return fail(env.err, error);

    Progress progress(env.err);
    const QString sending = QStringLiteral("sending %1 bytes").arg(text.size());
    const bool finished = waitForStatus(host, kSendFinished, m_timeoutMs, progress, sending);
    if (!writeKey(host, statusKey(), QByteArray(4, 0), &error)) {
        progress.abandon();
        return fail(env.err, error);
    }
    if (!finished) {
        progress.abandon();
        return fail(
            env.err,
            QStringLiteral("gcode put: the send did not end within %1 ms").arg(m_timeoutMs));
    }
    const QString seconds = progress.seconds();

    // Nothing comes back while a program is sent; a register read afterwards shows at least that
    // the controller is on the line.
    Target probe;
    QString reason;
    Target::parse(QStringLiteral("DW0"), QString(), 1, &probe, &reason);
    host.setSession(sessionCommands({probe}));
    QVector<quint32> values;
    if (!readTarget(host, probe, kProbeTimeoutMs, &values, &reason)) {
        progress.abandon();
        return fail(env.err,
                    QStringLiteral("gcode put: the controller did not answer after the "
                                   "send, so it may not have the program (%1)")
                        .arg(reason));
    }
    progress.finish(
        QStringLiteral("sent %1 bytes in %2 s%3")
            .arg(text.size())
            .arg(seconds, env.options.burn ? QStringLiteral(", burn requested") : QString()));
    return 0;
}

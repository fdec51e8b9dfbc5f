#include "commands.h"

#include "driverhost.h"
#include "hustgcodecontroller.h"
#include "lineport.h"
#include "output.h"
#include "outputfile.h"
#include "programfile.h"
#include "targetreader.h"

#include <QElapsedTimer>
#include <QJsonObject>

#include <cstdio>

#include <unistd.h>

namespace {

// The frames around a program: the send header and the burn frame.
constexpr int kSendHeaderBytes = 28;
constexpr int kBurnBytes = 31;

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

// The bytes a transfer has moved, with the percentage when the total is known, and the elapsed
// time on standard error: one line redrawn in place on a terminal, otherwise only the final line
// (none with --json, where the result is an object on standard output).
class Progress
{
public:
    // total: the bytes a send puts on the line; 0 for a read, whose size is not known ahead.
    Progress(QTextStream &err, const LinePort &line, qint64 total, bool quiet)
        : m_err(err)
        , m_tty(isatty(fileno(stderr)) == 1)
        , m_quiet(quiet)
        , m_line(line)
        , m_total(total)
        , m_sentBefore(line.bytesSent())
        , m_receivedBefore(line.bytesReceived())
    {
        m_clock.start();
        m_lastDraw.start();
    }

    qint64 elapsedMs() const { return m_clock.elapsed(); }

    void tick(const QString &what)
    {
        if (!m_tty || m_quiet || m_lastDraw.elapsed() < kRedrawIntervalMs)
            return;
        m_lastDraw.restart();
        // The worker's own frames share the line, so a send shows at most its total.
        const qint64 moved = m_total > 0
            ? qMin<qint64>(m_total, qint64(m_line.bytesSent() - m_sentBefore))
            : qint64(m_line.bytesReceived() - m_receivedBefore);
        QString line = QStringLiteral("%1: %2 bytes").arg(what).arg(moved);
        if (m_total > 0)
            line += QStringLiteral(" of %1 (%2 %)").arg(m_total).arg(moved * 100 / m_total);
        draw(line + QStringLiteral(", %1 s").arg(seconds()));
    }

    void finish(const QString &line)
    {
        if (m_quiet) {
            abandon();
            return;
        }
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
    const bool m_quiet;
    const LinePort &m_line;
    const qint64 m_total;
    const quint64 m_sentBefore;
    const quint64 m_receivedBefore;
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

} // namespace

bool GCodeCommand::prepare(CtlOptions &options, QString *reason)
{
    m_put = options.put;
    if (options.timeoutGiven)
        m_timeoutMs = options.timeoutMs;
    if (!m_put)
        return true;
    // The program is read and checked before the line is opened: a file the controller would get
    // only part of is refused before anything is sent.
    if (!readProgramFile(options.programFile, HustGCodeprotocol::MaxAnswerSize, &m_program, reason))
        return false;
    const QString defect = programDefect(m_program);
    if (!defect.isEmpty()) {
        *reason = QStringLiteral("%1: %2").arg(options.programFile, defect);
        return false;
    }
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
    OutputFile output;
    if (!output.open(env.options.outputPath, env.out, &error))
        return fail(env.err, error);
    if (!writeKey(host, statusKey(), QByteArray(4, 0), &error)
        || !writeKey(host, request, flag(true), &error))
        return fail(env.err, error);

    Progress progress(env.err, host.line(), 0, env.options.json);
    const bool finished = waitForStatus(host, HustGCodeprotocol::ReadFinishedBit, m_timeoutMs,
                                        progress, QStringLiteral("receiving"));
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
    if (env.options.json) {
        QJsonObject result {{QStringLiteral("bytes"), text.size()},
                            {QStringLiteral("seconds"), progress.seconds().toDouble()}};
        if (env.options.outputPath.isEmpty())
            result.insert(QStringLiteral("text"), QString::fromLatin1(text));
        else
            result.insert(QStringLiteral("file"), env.options.outputPath);
        if (!env.options.outputPath.isEmpty() && !output.write(text, &error))
            return fail(env.err, error);
        env.out << jsonLine(result) << '\n';
        return 0;
    }
    if (!output.write(text, &error))
        return fail(env.err, error);
    return 0;
}

int GCodeCommand::put(CommandEnv &env)
{
    const QByteArray &text = m_program;
    DriverHost &host = *env.host;
    QString error;
    if (!writeKey(host, key(CommunicatorCommand::BitType, "BurningCodeBit0"),
                  flag(env.options.burn), &error)
        || !writeKey(host, statusKey(), QByteArray(4, 0), &error)
        || !writeKey(host,
                     key(CommunicatorCommand::BlockType, "Code2CtrlCmd", quint32(text.size())),
                     text, &error))
        return fail(env.err, error);

    // What goes on the line: the send header, the program framed by DC2 "%" and "%" DC4 and, when
    // burning, the burn frame.
    const qint64 onLine = kSendHeaderBytes + text.size() + 4 + (env.options.burn ? kBurnBytes : 0);
    Progress progress(env.err, host.line(), onLine, env.options.json);
    const QString sending = QStringLiteral("sending");
    const bool finished
        = waitForStatus(host, HustGCodeprotocol::SendFinishedBit, m_timeoutMs, progress, sending);
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
    if (env.options.json) {
        env.out << jsonLine(QJsonObject {{QStringLiteral("sent"), text.size()},
                                         {QStringLiteral("seconds"), seconds.toDouble()},
                                         {QStringLiteral("burn"), env.options.burn}})
                << '\n';
    }
    return 0;
}

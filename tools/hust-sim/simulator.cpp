#include "simulator.h"

#include "codec.h"
#include "faults.h"
#include "framelog.h"
#include "link.h"
#include "memory.h"
#include "pacer.h"
#include "simlog.h"

#include <atomic>
#include <cerrno>
#include <cstring>
#include <deque>
#include <mutex>
#include <thread>

#include <fcntl.h>
#include <poll.h>
#include <unistd.h>

namespace hustsim {

namespace {
constexpr int kIdleWaitMs = 50;
constexpr int kReadChunk = 4096;
constexpr int kReadsPerPass = 16;
constexpr int kMaxWritePerPass = 64 * 1024;
constexpr qint64 kNanosPerMs = 1'000'000;
} // namespace

int LineSettings::bitsPerCharacter() const
{
    return 1 + dataBits + (parity == Parity::None ? 0 : 1) + stopBits;
}

struct Simulator::Private
{
    explicit Private(const SimulatorConfig &c)
        : config(c)
        , faults(c.seed, c.faults)
    { }

    void run();
    void pass();
    bool handleLinkState(qint64 now);
    void readInput(qint64 now);
    void takeArrived(qint64 now);
    void writeOutput(qint64 now);
    void queueStreamFrame();
    void queue(const QByteArray &bytes, bool responseFrame);
    void dropOutput();
    void handleRequest(Request &&request);
    int waitMs(qint64 now) const;
    void wake();
    void closeWakePipe();

    SimulatorConfig config;
    RegisterMemory memory;
    ProgramStore programs;
    FaultInjector faults;
    FrameLog log;
    Link link;
    RequestParser parser;
    Pacer pacer;
    ArrivalPacer arrivals;

    std::function<void(const QString &)> pathHandler;
    std::function<void(const RecordedFrame &)> frameHandler;

    std::thread thread;
    int wakePipe[2] = {-1, -1};
    std::atomic<bool> stopRequested {false};
    std::atomic<bool> running {false};
    qint64 startNanos = 0;

    mutable std::mutex stateMutex; // guards error and path
    QString error;
    QString path;

    // Register stream, owned by the I/O thread.
    QVector<int> streamList;
    std::atomic<bool> streaming {false};
    quint64 framesBuilt = 0;

    // Output not yet written; frameEnds holds the cumulative byte counts at which response frames
    // end, so that a frame counts as sent when its last byte has gone out.
    QByteArray out;
    qint64 queuedTotal = 0;
    qint64 writtenTotal = 0;
    std::deque<qint64> frameEnds;
    bool writeBlocked = false;

    // Link faults: requested from any thread, carried out by the I/O thread.
    std::atomic<qint64> pullRequestMs {-1};
    std::atomic<qint64> hangupRequestMs {-1};
    std::atomic<bool> linkDown {false};
    qint64 pullUntil = 0;
    qint64 hangupUntil = 0;
    bool hungUp = false;
    qint64 readBackoffUntil = 0;

    std::atomic<quint64> framesSent {0};
    std::atomic<quint64> bytesSent {0};
    std::atomic<quint64> bytesReceived {0};
    std::atomic<int> hangups {0};
};

void Simulator::Private::wake()
{
    if (wakePipe[1] >= 0) {
        const char byte = 1;
        [[maybe_unused]] const ssize_t n = ::write(wakePipe[1], &byte, 1);
    }
}

void Simulator::Private::closeWakePipe()
{
    for (int &fd : wakePipe) {
        if (fd >= 0)
            ::close(fd);
        fd = -1;
    }
}

void Simulator::Private::run()
{
    while (!stopRequested.load())
        pass();
}

void Simulator::Private::pass()
{
    const qint64 now = monotonicNanos();
    if (!handleLinkState(now)) {
        pollfd wakeOnly {wakePipe[0], POLLIN, 0};
        ::poll(&wakeOnly, 1, waitMs(now));
    } else {
        if (!writeBlocked)
            writeOutput(now);
        pollfd fds[2] = {{wakePipe[0], POLLIN, 0}, {-1, 0, 0}};
        if (now >= readBackoffUntil) {
            fds[1].fd = link.fd();
            fds[1].events = short(POLLIN | (writeBlocked ? POLLOUT : 0));
        }
        ::poll(fds, 2, waitMs(monotonicNanos()));
        if (fds[1].revents & POLLOUT)
            writeBlocked = false;
        if (fds[1].revents & (POLLIN | POLLERR | POLLHUP))
            readInput(monotonicNanos());
        takeArrived(monotonicNanos());
    }
    if (wakePipe[0] >= 0) {
        char drain[64];
        while (::read(wakePipe[0], drain, sizeof drain) > 0) { }
    }
}

// Carries out requested cable pulls and hangups. Returns false while the line is closed.
bool Simulator::Private::handleLinkState(qint64 now)
{
    const qint64 pullMs = pullRequestMs.exchange(-1);
    if (pullMs >= 0) {
        qCInfo(lcSim) << "cable pulled for" << pullMs << "ms";
        pullUntil = now + pullMs * kNanosPerMs;
        dropOutput();
        arrivals.clear();
        parser.reset();
    }
    const qint64 hangupMs = hangupRequestMs.exchange(-1);
    if (hangupMs >= 0 && link.isPty() && !hungUp) {
        qCInfo(lcSim) << "hanging up the pseudo-terminal for" << hangupMs << "ms";
        link.hangUp();
        hungUp = true;
        hangupUntil = now + hangupMs * kNanosPerMs;
        dropOutput();
        arrivals.clear();
        parser.reset();
    }
    if (hungUp && now >= hangupUntil) {
        QString reason;
        if (link.reopen(&reason)) {
            hungUp = false;
            ++hangups;
            const QString newPath = link.path();
            {
                std::lock_guard<std::mutex> lock(stateMutex);
                path = newPath;
            }
            qCInfo(lcSim) << "pseudo-terminal reopened at" << newPath;
            if (pathHandler)
                pathHandler(newPath);
        } else {
            qCWarning(lcSim) << "cannot reopen the pseudo-terminal:" << reason;
            hangupUntil = now + kIdleWaitMs * kNanosPerMs;
        }
    }
    const bool down = hungUp || now < pullUntil;
    if (linkDown.exchange(down) && !down)
        qCInfo(lcSim) << "link restored";
    return !hungUp;
}

int Simulator::Private::waitMs(qint64 now) const
{
    qint64 wait = kIdleWaitMs;
    if (hungUp)
        wait = std::min(wait,
                        std::max<qint64>(0, (hangupUntil - now + kNanosPerMs - 1) / kNanosPerMs));
    if (now < pullUntil)
        wait = std::min(wait, (pullUntil - now + kNanosPerMs - 1) / kNanosPerMs);
    if (now < readBackoffUntil)
        wait = std::min(wait, (readBackoffUntil - now + kNanosPerMs - 1) / kNanosPerMs);
    if (!hungUp && !out.isEmpty() && !writeBlocked)
        wait = std::min<qint64>(wait, std::max(1, pacer.msUntilDue(now)));
    if (!arrivals.isEmpty())
        wait = std::min<qint64>(wait, std::max(1, arrivals.msUntilNext(now)));
    if (!hungUp && out.isEmpty() && streaming.load() && !faults.silence() && now >= pullUntil)
        wait = 0;
    return int(wait);
}

void Simulator::Private::readInput(qint64 now)
{
    char buffer[kReadChunk];
    for (int i = 0; i < kReadsPerPass; ++i) {
        const ssize_t n = link.readSome(buffer, sizeof buffer);
        if (n > 0) {
            bytesReceived += quint64(n);
            if (now < pullUntil)
                continue;
            arrivals.received(buffer, int(n), now);
            continue;
        }
        if (n < 0 && (errno == EAGAIN || errno == EINTR))
            return;
        // End of file or a line error: wait a little before polling the line again.
        qCDebug(lcSim) << "line read failed:"
                       << (n == 0 ? QStringLiteral("end of file")
                                  : QString::fromLocal8Bit(strerror(errno)));
        readBackoffUntil = now + kIdleWaitMs * kNanosPerMs;
        return;
    }
}

// Requests take effect as their last character arrives; output goes on meanwhile.
void Simulator::Private::takeArrived(qint64 now)
{
    const QByteArray bytes = arrivals.arrived(now);
    parser.feed(bytes.constData(), bytes.size(),
                [this](Request &&request) { handleRequest(std::move(request)); });
}

void Simulator::Private::writeOutput(qint64 now)
{
    if (now < pullUntil || faults.silence()) {
        dropOutput();
        pacer.idle(now);
        return;
    }
    // Write what has fallen due; when a frame ends inside that, the next one is built at once so
    // that a stream keeps the line busy without losing the schedule at frame boundaries.
    int budget = pacer.due(now, kMaxWritePerPass);
    while (budget > 0) {
        if (out.isEmpty() && streaming.load())
            queueStreamFrame();
        if (out.isEmpty()) {
            pacer.idle(now);
            return;
        }
        const ssize_t n
            = link.writeSome(out.constData(), size_t(std::min(budget, int(out.size()))));
        if (n < 0) {
            if (errno == EAGAIN) {
                writeBlocked = true;
                pacer.idle(now);
            } else if (errno != EINTR) {
                qCDebug(lcSim) << "line write failed:" << strerror(errno);
                dropOutput();
            }
            return;
        }
        pacer.sent(int(n));
        budget -= int(n);
        out.remove(0, int(n));
        writtenTotal += n;
        bytesSent += quint64(n);
        while (!frameEnds.empty() && frameEnds.front() <= writtenTotal) {
            frameEnds.pop_front();
            ++framesSent;
        }
    }
}

void Simulator::Private::queue(const QByteArray &bytes, bool responseFrame)
{
    out.append(bytes);
    queuedTotal += bytes.size();
    if (responseFrame)
        frameEnds.push_back(queuedTotal);
}

void Simulator::Private::dropOutput()
{
    // Frames that never fully went out are not counted as sent.
    frameEnds.clear();
    writtenTotal = queuedTotal;
    out.clear();
    writeBlocked = false;
}

void Simulator::Private::queueStreamFrame()
{
    const quint64 serial = framesBuilt++;
    if (config.frameCounter)
        memory.set(0, quint32(serial + 1));
    if (config.clockRegister >= 0)
        memory.set(config.clockRegister, quint32(monotonicNanos() / kNanosPerMs));
    const quint32 hCode = quint32(serial / quint64(faults.hCodeRepeat()));
    const QVector<quint32> values = memory.values(streamList);
    QByteArray frame = buildRegisterResponse(hCode, values, faults.valueDigits(values.size()));
    const int cut = faults.cutPosition(frame.size());
    if (cut > 0)
        frame.truncate(cut);
    const QByteArray gap = faults.gap();
    if (!gap.isEmpty())
        queue(gap, false);
    queue(frame, true);
}

void Simulator::Private::handleRequest(Request &&request)
{
    const bool silent = faults.silence();
    switch (request.kind) {
    case FrameKind::ReadRequest:
        streamList = request.addresses;
        streaming = true;
        break;
    case FrameKind::Stop:
        if (faults.losesStop())
            qCDebug(lcSim) << "stop frame lost";
        else
            streaming = false;
        break;
    case FrameKind::WriteDWord:
        memory.set(request.addresses.value(0), request.values.value(0));
        break;
    case FrameKind::BitSet:
    case FrameKind::BitClear:
        memory.setBit(request.addresses.value(0), request.bit, request.kind == FrameKind::BitSet);
        break;
    case FrameKind::ProgramRequestCurrent:
    case FrameKind::ProgramRequestAll:
        // A program request ends the register stream: the answer is the last thing on the line
        // until the next read request.
        streaming = false;
        if (!silent) {
            queue(buildProgramAnswer(request.kind == FrameKind::ProgramRequestAll
                                         ? programs.allTexts()
                                         : programs.currentText()),
                  false);
        }
        break;
    case FrameKind::ProgramData:
        programs.setPending(request.text);
        break;
    case FrameKind::Burn:
        if (!programs.burnPending())
            qCDebug(lcSim) << "burn without a program received";
        break;
    case FrameKind::SendHeader:
    case FrameKind::Unknown:
    case FrameKind::Malformed:
        break;
    }

    // Recorded after taking effect, so that whoever waits for the frame sees its effect.
    RecordedFrame frame;
    frame.elapsedMs = (monotonicNanos() - startNanos) / kNanosPerMs;
    frame.kind = request.kind;
    frame.raw = std::move(request.raw);
    frame.addresses = std::move(request.addresses);
    frame.values = std::move(request.values);
    frame.bit = request.bit;
    frame.text = std::move(request.text);
    frame = log.append(std::move(frame));
    qCDebug(lcSim).noquote() << "received" << frameKindName(frame.kind) << frame.raw.toHex();
    if (frameHandler)
        frameHandler(frame);
}

Simulator::Simulator(const SimulatorConfig &config)
    : d(std::make_unique<Private>(config))
{ }

Simulator::~Simulator()
{
    stop();
}

bool Simulator::start()
{
    if (d->running.load()) {
        std::lock_guard<std::mutex> lock(d->stateMutex);
        d->error = QStringLiteral("already running");
        return false;
    }
    const SimulatorConfig &config = d->config;
    QString reason;
    if (config.paced && !(config.speed > 0.0))
        reason = QStringLiteral("the speed factor must be greater than 0");
    else if (config.line.baud <= 0)
        reason = QStringLiteral("the baud rate must be greater than 0");
    else if (::pipe2(d->wakePipe, O_NONBLOCK | O_CLOEXEC) != 0)
        reason = QStringLiteral("cannot create the wake-up pipe");
    else if (!d->link.open(config, &reason))
        d->closeWakePipe();
    if (!reason.isEmpty()) {
        std::lock_guard<std::mutex> lock(d->stateMutex);
        d->error = reason;
        return false;
    }
    {
        std::lock_guard<std::mutex> lock(d->stateMutex);
        d->path = d->link.path();
        d->error.clear();
    }
    const double rate = config.line.baud / double(config.line.bitsPerCharacter()) * config.speed;
    d->pacer = Pacer(config.paced ? rate : 0.0);
    d->arrivals = ArrivalPacer(config.paced && d->link.deliversAtOnce() ? rate : 0.0);
    d->parser.reset();
    d->log.clear();
    d->startNanos = monotonicNanos();
    d->stopRequested = false;
    d->running = true;
    d->thread = std::thread([this] { d->run(); });
    qCInfo(lcSim).noquote() << "controller simulator on" << d->link.path();
    return true;
}

void Simulator::stop()
{
    if (!d->running.load())
        return;
    d->stopRequested = true;
    d->wake();
    if (d->thread.joinable())
        d->thread.join();
    d->link.close();
    d->closeWakePipe();
    d->streaming = false;
    d->running = false;
}

bool Simulator::isRunning() const
{
    return d->running.load();
}

QString Simulator::errorString() const
{
    std::lock_guard<std::mutex> lock(d->stateMutex);
    return d->error;
}

QString Simulator::devicePath() const
{
    std::lock_guard<std::mutex> lock(d->stateMutex);
    return d->path;
}

void Simulator::setDevicePathChangedHandler(std::function<void(const QString &)> handler)
{
    d->pathHandler = std::move(handler);
}

void Simulator::setFrameHandler(std::function<void(const RecordedFrame &)> handler)
{
    d->frameHandler = std::move(handler);
}

bool Simulator::setRegister(int index, quint32 value)
{
    return d->memory.set(index, value);
}

quint32 Simulator::registerValue(int index) const
{
    return d->memory.value(index);
}

void Simulator::setProgram(const QString &name, const QByteArray &text)
{
    d->programs.set(name, text);
}

QByteArray Simulator::program(const QString &name) const
{
    return d->programs.text(name);
}

QStringList Simulator::programNames() const
{
    return d->programs.names();
}

bool Simulator::setCurrentProgram(const QString &name)
{
    return d->programs.setCurrent(name);
}

QString Simulator::currentProgramName() const
{
    return d->programs.currentName();
}

QByteArray Simulator::pendingProgram() const
{
    return d->programs.pending();
}

bool Simulator::loadPrograms(const QString &dir, QString *error)
{
    return d->programs.loadDirectory(dir, error);
}

FaultSettings Simulator::faults() const
{
    return d->faults.settings();
}

void Simulator::setFaults(const FaultSettings &faults)
{
    d->faults.setSettings(faults);
    d->wake();
}

void Simulator::setSilence(bool on)
{
    d->faults.setSilence(on);
    d->wake();
}

void Simulator::pullCable(int ms)
{
    d->pullRequestMs = std::max(0, ms);
    d->linkDown = true;
    d->wake();
}

void Simulator::hangup(int ms)
{
    d->hangupRequestMs = std::max(0, ms);
    d->wake();
}

bool Simulator::isLinkDown() const
{
    return d->linkDown.load();
}

QVector<RecordedFrame> Simulator::frames() const
{
    return d->log.snapshot();
}

qint64 Simulator::frameCount() const
{
    return d->log.count();
}

std::optional<RecordedFrame> Simulator::waitForFrame(FrameKind kind, int timeoutMs,
                                                     qint64 fromSequence) const
{
    return d->log.waitFor(kind, timeoutMs, fromSequence);
}

bool Simulator::isStreaming() const
{
    return d->streaming.load();
}

quint64 Simulator::responseFramesSent() const
{
    return d->framesSent.load();
}

quint64 Simulator::bytesSent() const
{
    return d->bytesSent.load();
}

quint64 Simulator::bytesReceived() const
{
    return d->bytesReceived.load();
}

int Simulator::hangupCount() const
{
    return d->hangups.load();
}

} // namespace hustsim

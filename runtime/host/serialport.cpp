#include "serialport.h"

#include "hostlog.h"

#include <QFileInfo>
#include <QRegularExpression>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <thread>

#include <fcntl.h>
#include <poll.h>
#include <sys/file.h>
#include <sys/ioctl.h>
#include <sys/stat.h>
#include <sys/sysmacros.h>
#include <unistd.h>

namespace {

using Clock = std::chrono::steady_clock;

QString systemReason(int errnum)
{
    return qt_error_string(errnum);
}

// Rounded up, so that a wait never ends before its deadline.
int remainingMs(Clock::time_point deadline)
{
    const auto left = std::chrono::ceil<std::chrono::milliseconds>(deadline - Clock::now()).count();
    return left > 0 ? int(left) : 0;
}

// Waits up to timeoutMs for the events on fd. Returns the events that came (0 when the time ran
// out) or -1 with errno set when poll() failed.
int waitFor(int fd, short events, int timeoutMs)
{
    const Clock::time_point deadline = Clock::now() + std::chrono::milliseconds(timeoutMs);
    for (;;) {
        pollfd entry {fd, events, 0};
        const int ready = ::poll(&entry, 1, remainingMs(deadline));
        if (ready > 0)
            return entry.revents;
        if (ready == 0)
            return 0;
        if (errno != EINTR)
            return -1;
    }
}

// Errors after which the device is gone rather than merely unhappy.
bool meansLinkGone(int errnum)
{
    return errnum == EIO || errnum == ENXIO || errnum == ENODEV || errnum == EPIPE
        || errnum == EBADF;
}

const short HangUpEvents = POLLHUP | POLLERR | POLLNVAL;

bool speedForBaud(int baud, speed_t *speed)
{
    static const struct
    {
        int baud;
        speed_t speed;
    } rates[] = {{50, B50},           {75, B75},           {110, B110},         {134, B134},
                 {150, B150},         {200, B200},         {300, B300},         {600, B600},
                 {1200, B1200},       {1800, B1800},       {2400, B2400},       {4800, B4800},
                 {9600, B9600},       {19200, B19200},     {38400, B38400},     {57600, B57600},
                 {115200, B115200},   {230400, B230400},   {460800, B460800},   {500000, B500000},
                 {576000, B576000},   {921600, B921600},   {1000000, B1000000}, {1152000, B1152000},
                 {1500000, B1500000}, {2000000, B2000000}, {2500000, B2500000}, {3000000, B3000000},
                 {3500000, B3500000}, {4000000, B4000000}};
    for (const auto &rate : rates) {
        if (rate.baud == baud) {
            *speed = rate.speed;
            return true;
        }
    }
    return false;
}

bool setBaudRate(termios *settings, int baud)
{
    speed_t speed;
    if (!speedForBaud(baud, &speed))
        return false;
    return ::cfsetispeed(settings, speed) == 0 && ::cfsetospeed(settings, speed) == 0;
}

bool setDataBits(termios *settings, int dataBits)
{
    tcflag_t size;
    switch (dataBits) {
    case 5:
        size = CS5;
        break;
    case 6:
        size = CS6;
        break;
    case 7:
        size = CS7;
        break;
    case 8:
        size = CS8;
        break;
    default:
        return false;
    }
    settings->c_cflag = (settings->c_cflag & ~CSIZE) | size;
    return true;
}

// Parity codes: 0 none, 1 odd, 2 even. Received characters with errors are dropped (IGNPAR).
bool setParity(termios *settings, int parity)
{
    settings->c_iflag &= ~(PARMRK | ISTRIP);
    switch (parity) {
    case 0:
        settings->c_cflag &= ~(PARENB | PARODD);
        settings->c_iflag &= ~(INPCK | IGNPAR);
        return true;
    case 1:
        settings->c_cflag |= PARENB | PARODD;
        settings->c_iflag |= INPCK | IGNPAR;
        return true;
    case 2:
        settings->c_cflag = (settings->c_cflag | PARENB) & ~PARODD;
        settings->c_iflag |= INPCK | IGNPAR;
        return true;
    default:
        return false;
    }
}

bool setStopBits(termios *settings, int stopBits)
{
    switch (stopBits) {
    case 1:
        settings->c_cflag &= ~CSTOPB;
        return true;
    case 2:
        settings->c_cflag |= CSTOPB;
        return true;
    default:
        return false;
    }
}

// Raw bytes both ways, no flow control, no modem control, reads never block.
void makeRaw(termios *settings)
{
    ::cfmakeraw(settings);
    settings->c_cflag |= CLOCAL | CREAD;
    settings->c_cflag &= ~CRTSCTS;
    settings->c_iflag &= ~(IXON | IXOFF | IXANY);
    settings->c_cc[VMIN] = 0;
    settings->c_cc[VTIME] = 0;
}

// The C library's tcsetattr() reports EINVAL when the terminal changed nothing although it was
// asked for settings it does not take. A pseudo-terminal never takes data bits or parity, so one
// that a killed process left with every other setting of ours already in place fails that way.
// True when the terminal holds everything asked for apart from the character size and parity.
bool tookAllButCharacterFormat(int fd, const termios &asked)
{
    termios taken;
    if (::tcgetattr(fd, &taken) != 0)
        return false;
    const tcflag_t format = CSIZE | PARENB | PARODD;
    return taken.c_iflag == asked.c_iflag && taken.c_oflag == asked.c_oflag
        && taken.c_lflag == asked.c_lflag && (taken.c_cflag & ~format) == (asked.c_cflag & ~format)
        && taken.c_cc[VMIN] == asked.c_cc[VMIN] && taken.c_cc[VTIME] == asked.c_cc[VTIME];
}

// Unix98 pseudo-terminal slaves have the device majors 136 to 143.
bool isPseudoTerminalSlave(const struct stat &device)
{
    return S_ISCHR(device.st_mode) && major(device.st_rdev) >= 136 && major(device.st_rdev) <= 143;
}

SerialPort::Error errorForOpen(int errnum)
{
    switch (errnum) {
    case ENOENT:
    case ENODEV:
    case ENXIO:
        return SerialPort::Error::DeviceNotFound;
    case EACCES:
    case EPERM:
        return SerialPort::Error::PermissionDenied;
    case EBUSY:
        return SerialPort::Error::Busy;
    default:
        return SerialPort::Error::OpenFailed;
    }
}

} // namespace

SerialPort::SerialPort(const DeviceSetting &device, const DriverSetting &driver)
    : m_device(device)
    , m_retry(driver.retry)
    , m_delay(driver.delay)
{ }

SerialPort::~SerialPort()
{
    close();
}

QString SerialPort::devicePath(const QString &name)
{
    if (name.startsWith(QLatin1Char('/')))
        return name;
    static const QRegularExpression comName(QStringLiteral("^COM([1-9][0-9]{0,3})$"),
                                            QRegularExpression::CaseInsensitiveOption);
    const QRegularExpressionMatch match = comName.match(name);
    if (match.hasMatch())
        return QStringLiteral("/dev/ttyS%1").arg(match.captured(1).toInt() - 1);
    return QStringLiteral("/dev/") + name;
}

bool SerialPort::open()
{
    QMutexLocker lock(&m_mutex);
    if (m_state == State::Open) {
        setError(Error::OpenFailed, QStringLiteral("%1 is already open").arg(m_openPath));
        return false;
    }
    m_state = State::Closed;
    m_error = Error::NoError;
    m_errorString.clear();
    Failure failure;
    if (!claimDevice(devicePath(m_device.string), &failure)) {
        setError(failure.error, failure.text);
        return false;
    }
    qCDebug(lcHostSerial) << "opened" << m_openPath;
    return true;
}

bool SerialPort::claimDevice(const QString &path, Failure *failure)
{
    const auto fail = [failure](int fd, Error error, const QString &text) {
        if (fd >= 0)
            ::close(fd);
        *failure = {error, text};
        return false;
    };
    const int fd
        = ::open(path.toLocal8Bit().constData(), O_RDWR | O_NOCTTY | O_NONBLOCK | O_CLOEXEC);
    if (fd < 0) {
        const int errnum = errno;
        return fail(fd, errorForOpen(errnum),
                    QStringLiteral("Cannot open %1: %2").arg(path, systemReason(errnum)));
    }
    struct stat device;
    if (!::isatty(fd) || ::fstat(fd, &device) != 0) {
        const int errnum = errno;
        return fail(fd, Error::NotATerminal,
                    QStringLiteral("Cannot open %1: not a terminal device (%2)")
                        .arg(path, systemReason(errnum)));
    }
    if (::flock(fd, LOCK_EX | LOCK_NB) != 0) {
        const int errnum = errno;
        if (errnum == EWOULDBLOCK)
            return fail(fd, Error::Busy,
                        QStringLiteral("Cannot open %1: the device is in use (%2)")
                            .arg(path, systemReason(EBUSY)));
        return fail(fd, Error::OpenFailed,
                    QStringLiteral("Cannot lock %1: %2").arg(path, systemReason(errnum)));
    }
    // A pseudo-terminal lives as long as its controller end is open, and with it the exclusive
    // mode of a process that was killed before it could drop the mode: every later open by a user
    // without CAP_SYS_ADMIN would be refused. A real device drops the mode on its last close. On
    // pseudo-terminals the advisory lock alone, released with its process, keeps ports apart.
    const bool exclusive = !isPseudoTerminalSlave(device);
    termios found;
    if ((exclusive && ::ioctl(fd, TIOCEXCL) != 0) || ::tcgetattr(fd, &found) != 0) {
        const int errnum = errno;
        return fail(fd, Error::OpenFailed,
                    QStringLiteral("Cannot claim %1: %2").arg(path, systemReason(errnum)));
    }
    if (!configure(fd, m_device, failure)) {
        ::tcsetattr(fd, TCSANOW, &found);
        ::ioctl(fd, TIOCNXCL);
        return fail(fd, failure->error, failure->text);
    }
    // Output that an earlier process suspended (tcflow) would stall every write.
    ::tcflow(fd, TCOON);
    // Bytes that arrived before the port was ours belong to nobody.
    ::tcflush(fd, TCIOFLUSH);
    m_fd = fd;
    m_openPath = path;
    m_openDevice = device.st_rdev;
    m_savedSettings = found;
    m_state = State::Open;
    return true;
}

void SerialPort::close()
{
    QMutexLocker lock(&m_mutex);
    releaseDevice();
    m_state = State::Closed;
}

bool SerialPort::reopen()
{
    close();
    return open();
}

void SerialPort::releaseDevice()
{
    if (m_fd < 0)
        return;
    ::tcsetattr(m_fd, TCSANOW, &m_savedSettings);
    ::ioctl(m_fd, TIOCNXCL);
    ::close(m_fd);
    m_fd = -1;
    ++m_generation;
    qCDebug(lcHostSerial) << "released" << m_openPath;
}

void SerialPort::loseLink(const QString &reason)
{
    setError(Error::LinkLost, QStringLiteral("Lost the link on %1: %2").arg(m_openPath, reason));
    releaseDevice();
    m_state = State::LinkLost;
    // A device that has just gone is often still on its way out: give it a moment.
    m_nextReopen = Clock::now() + std::chrono::milliseconds(ReopenIntervalMs);
}

// Open as it is, or reopened after a lost link; otherwise a closed port reports it.
bool SerialPort::isUsable()
{
    switch (m_state) {
    case State::Open:
        return true;
    case State::LinkLost:
        return reclaimLostLink();
    case State::Closed:
        reportNotOpen();
        return false;
    }
    return false;
}

bool SerialPort::reclaimLostLink()
{
    const Clock::time_point now = Clock::now();
    if (now < m_nextReopen)
        return false;
    m_nextReopen = now + std::chrono::milliseconds(ReopenIntervalMs);
    Failure failure;
    if (!claimDevice(m_openPath, &failure)) {
        qCDebug(lcHostSerial).noquote() << "still lost:" << failure.text;
        return false;
    }
    const QString target = QFileInfo(m_openPath).canonicalFilePath();
    qCWarning(lcHostSerial).noquote()
        << QStringLiteral("Reopened %1%2 after the link was lost")
               .arg(m_openPath,
                    target == m_openPath ? QString() : QStringLiteral(" (%1)").arg(target));
    return true;
}

// False when the path is gone or now names another device than the one held open.
bool SerialPort::pathStillNamesDevice() const
{
    const QByteArray path = m_openPath.toLocal8Bit();
    struct stat named;
    if (::stat(path.constData(), &named) == 0)
        return named.st_rdev == m_openDevice;
    return errno != ENOENT && errno != ENOTDIR;
}

void SerialPort::reportNotOpen()
{
    // A lost link keeps its own error; repeated calls on a closed port report once.
    if (m_state == State::Closed && m_error != Error::NotOpen)
        setError(Error::NotOpen, QStringLiteral("%1 is not open").arg(devicePath(m_device.string)));
}

void SerialPort::setError(Error error, const QString &text)
{
    m_error = error;
    m_errorString = text;
    qCWarning(lcHostSerial).noquote() << text;
}

bool SerialPort::makeLineSettings(const DeviceSetting &device, termios *settings, QString *refusal)
{
    makeRaw(settings);
    if (!setBaudRate(settings, device.baudrate))
        *refusal = QStringLiteral("unsupported baud rate %1").arg(device.baudrate);
    else if (!setDataBits(settings, device.databits))
        *refusal = QStringLiteral("unsupported data bits %1 (5 to 8)").arg(device.databits);
    else if (!setParity(settings, device.parity))
        *refusal = QStringLiteral("unsupported parity code %1 (0 none, 1 odd, 2 even)")
                       .arg(device.parity);
    else if (!setStopBits(settings, device.stopbits))
        *refusal = QStringLiteral("unsupported stop bits %1 (1 or 2)").arg(device.stopbits);
    else
        return true;
    return false;
}

bool SerialPort::configure(int fd, const DeviceSetting &device, Failure *failure)
{
    const QString path = devicePath(device.string);
    termios settings;
    if (::tcgetattr(fd, &settings) != 0) {
        const int errnum = errno;
        *failure = {Error::OpenFailed,
                    QStringLiteral("Cannot configure %1: %2").arg(path, systemReason(errnum))};
        return false;
    }
    QString refused;
    if (!makeLineSettings(device, &settings, &refused)) {
        *failure = {Error::UnsupportedSetting,
                    QStringLiteral("Cannot configure %1: %2").arg(path, refused)};
        return false;
    }
    if (::tcsetattr(fd, TCSANOW, &settings) != 0) {
        const int errnum = errno;
        if (errnum != EINVAL || !tookAllButCharacterFormat(fd, settings)) {
            *failure = {Error::OpenFailed,
                        QStringLiteral("Cannot configure %1: %2").arg(path, systemReason(errnum))};
            return false;
        }
    }
    // tcsetattr succeeds when any part was taken; a driver that cannot do the rest says so only
    // through what it reports back. Pseudo-terminals, for one, always keep 8 bits without parity.
    termios taken;
    const tcflag_t lineBits = CSIZE | PARENB | PARODD | CSTOPB;
    if (::tcgetattr(fd, &taken) == 0
        && ((taken.c_cflag & lineBits) != (settings.c_cflag & lineBits)
            || ::cfgetospeed(&taken) != ::cfgetospeed(&settings)))
        qCDebug(lcHostSerial) << path << "did not take all line settings";
    return true;
}

SerialPort::State SerialPort::state() const
{
    QMutexLocker lock(&m_mutex);
    return m_state;
}

bool SerialPort::isOpen() const
{
    return state() == State::Open;
}

SerialPort::Error SerialPort::error() const
{
    QMutexLocker lock(&m_mutex);
    return m_error;
}

QString SerialPort::errorString() const
{
    QMutexLocker lock(&m_mutex);
    return m_errorString;
}

void SerialPort::clearError()
{
    QMutexLocker lock(&m_mutex);
    m_error = Error::NoError;
    m_errorString.clear();
}

QString SerialPort::portName() const
{
    QMutexLocker lock(&m_mutex);
    return devicePath(m_device.string);
}

int SerialPort::handle() const
{
    QMutexLocker lock(&m_mutex);
    return m_fd;
}

bool SerialPort::setDeviceSetting(const DeviceSetting &device)
{
    QMutexLocker lock(&m_mutex);
    Failure failure;
    if (m_state == State::Open && !configure(m_fd, device, &failure)) {
        setError(failure.error, failure.text);
        configure(m_fd, m_device, &failure);
        return false;
    }
    m_device = device;
    return true;
}

void SerialPort::setDriverSetting(const DriverSetting &driver)
{
    m_retry = driver.retry;
    m_delay = driver.delay;
}

void SerialPort::setReadTimeout(int ms)
{
    m_readTimeout = std::max(ms, 0);
}

int SerialPort::readTimeout() const
{
    return m_readTimeout;
}

void SerialPort::setInterByteTimeout(int ms)
{
    m_interByteTimeout = std::max(ms, 0);
}

int SerialPort::interByteTimeout() const
{
    return m_interByteTimeout;
}

void SerialPort::setWriteTimeout(int ms)
{
    m_writeTimeout = std::max(ms, 0);
}

int SerialPort::writeTimeout() const
{
    return m_writeTimeout;
}

int SerialPort::readData(char *data, int maxSize)
{
    return readBytes(data, maxSize);
}

int SerialPort::receiveData(char *data, int maxSize)
{
    return readBytes(data, maxSize);
}

int SerialPort::readBytes(char *data, int maxSize)
{
    if (!data || maxSize <= 0)
        return 0;
    const Clock::time_point firstByteDeadline
        = Clock::now() + std::chrono::milliseconds(m_readTimeout.load());
    int total = 0;
    quint64 generation = 0;
    for (bool first = true;; first = false) {
        int fd;
        {
            QMutexLocker lock(&m_mutex);
            if (!first && generation != m_generation)
                return total; // closed or lost meanwhile
            if (first && !isUsable()) {
                const bool closed = m_state == State::Closed;
                lock.unlock();
                if (closed)
                    std::this_thread::sleep_until(firstByteDeadline);
                return 0;
            }
            fd = m_fd;
            generation = m_generation;
        }
        const int wait = total == 0 ? remainingMs(firstByteDeadline) : m_interByteTimeout.load();
        const int events = waitFor(fd, POLLIN, wait);
        const int pollError = errno;

        QMutexLocker lock(&m_mutex);
        if (generation != m_generation)
            return total; // closed or lost meanwhile
        if (events < 0) {
            setError(Error::ReadFailed,
                     QStringLiteral("Cannot wait for data on %1: %2")
                         .arg(m_openPath, systemReason(pollError)));
            return total;
        }
        if (events == 0) {
            if (total > 0)
                return total;
            if (remainingMs(firstByteDeadline) > 0)
                continue;
            // A quiet line is normal, but a device that was unplugged, or a link re-pointed at a
            // restarted controller, can also look quiet.
            if (!pathStillNamesDevice())
                loseLink(QStringLiteral("%1 no longer names the device").arg(m_openPath));
            return 0;
        }
        const ssize_t count = ::read(m_fd, data + total, size_t(maxSize - total));
        const int readError = errno;
        if (count > 0) {
            total += int(count);
            if (total == maxSize)
                return total;
            continue;
        }
        if (count == 0) {
            // End of file on a terminal: the other end hung up.
            loseLink(QStringLiteral("hang-up"));
            return total;
        }
        if (readError == EAGAIN || readError == EINTR) {
            if (events & HangUpEvents) {
                loseLink(QStringLiteral("hang-up"));
                return total;
            }
            // Another reader took the bytes; keep waiting for the first one while time is left.
            if (total > 0 || remainingMs(firstByteDeadline) == 0)
                return total;
            continue;
        }
        if (meansLinkGone(readError))
            loseLink(systemReason(readError));
        else
            setError(
                Error::ReadFailed,
                QStringLiteral("Cannot read from %1: %2").arg(m_openPath, systemReason(readError)));
        return total;
    }
}

int SerialPort::writeData(const char *data, int size)
{
    if (!data || size <= 0)
        return 0;
    QMutexLocker writeLock(&m_writeMutex);
    const int stallLimit = m_writeTimeout;
    int written = 0;
    quint64 generation = 0;
    for (bool first = true; written < size; first = false) {
        int fd;
        {
            QMutexLocker lock(&m_mutex);
            // A write goes whole to one device: a reopened one gets none of the rest.
            if (first ? !isUsable() : generation != m_generation)
                return written;
            generation = m_generation;
            const ssize_t count = ::write(m_fd, data + written, size_t(size - written));
            const int writeError = errno;
            if (count > 0) {
                written += int(count);
                continue;
            }
            if (count < 0 && writeError == EINTR)
                continue;
            if (count < 0 && writeError != EAGAIN) {
                if (meansLinkGone(writeError))
                    loseLink(systemReason(writeError));
                else
                    setError(Error::WriteFailed,
                             QStringLiteral("Cannot write to %1: %2")
                                 .arg(m_openPath, systemReason(writeError)));
                return written;
            }
            fd = m_fd;
        }
        // The line's output buffer is full: wait outside the lock for room.
        const int events = waitFor(fd, POLLOUT, stallLimit);
        const int pollError = errno;
        QMutexLocker lock(&m_mutex);
        if (generation != m_generation)
            return written;
        if (events < 0) {
            setError(
                Error::WriteFailed,
                QStringLiteral("Cannot wait for %1: %2").arg(m_openPath, systemReason(pollError)));
            return written;
        }
        if (events == 0) {
            setError(Error::WriteStalled,
                     QStringLiteral("Write to %1 stalled after %2 of %3 bytes: the line took "
                                    "nothing for %4 ms")
                         .arg(m_openPath, QString::number(written), QString::number(size),
                              QString::number(stallLimit)));
            return written;
        }
        if ((events & HangUpEvents) && !(events & POLLOUT)) {
            loseLink(QStringLiteral("hang-up"));
            return written;
        }
    }
    return written;
}

DeviceSetting *SerialPort::getDeviceSetting()
{
    return &m_device;
}

void SerialPort::getOption(int option, QVariant &value)
{
    if (option != BytesAvailableOption) {
        value = QVariant();
        return;
    }
    QMutexLocker lock(&m_mutex);
    int available = -1;
    if (m_state == State::Open && ::ioctl(m_fd, FIONREAD, &available) != 0) {
        const int errnum = errno;
        available = -1;
        if (meansLinkGone(errnum))
            loseLink(systemReason(errnum));
        else
            setError(Error::ReadFailed,
                     QStringLiteral("Cannot count the bytes waiting on %1: %2")
                         .arg(m_openPath, systemReason(errnum)));
    }
    value = available;
}

void SerialPort::setOption(int option, const QVariant &value)
{
    bool isNumber = false;
    if (option != DiscardReceivedOption || value.toInt(&isNumber) != 0 || !isNumber)
        return;
    QMutexLocker lock(&m_mutex);
    if (m_state == State::Open && ::tcflush(m_fd, TCIFLUSH) != 0) {
        const int errnum = errno;
        if (meansLinkGone(errnum))
            loseLink(systemReason(errnum));
        else
            setError(Error::ReadFailed,
                     QStringLiteral("Cannot discard the input of %1: %2")
                         .arg(m_openPath, systemReason(errnum)));
    }
}

int SerialPort::getRetry()
{
    return m_retry;
}

int SerialPort::getDelay()
{
    return m_delay;
}

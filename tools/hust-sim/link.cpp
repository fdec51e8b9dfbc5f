#include "link.h"

#include "simlog.h"

#include <QFile>

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include <fcntl.h>
#include <sys/stat.h>
#include <sys/sysmacros.h>
#include <termios.h>
#include <unistd.h>

namespace hustsim {

namespace {

QString errnoText(const char *what)
{
    return QStringLiteral("%1: %2").arg(QLatin1String(what),
                                        QString::fromLocal8Bit(strerror(errno)));
}

bool speedFor(int baud, speed_t *speed)
{
    switch (baud) {
    case 1200:
        *speed = B1200;
        return true;
    case 2400:
        *speed = B2400;
        return true;
    case 4800:
        *speed = B4800;
        return true;
    case 9600:
        *speed = B9600;
        return true;
    case 19200:
        *speed = B19200;
        return true;
    case 38400:
        *speed = B38400;
        return true;
    case 57600:
        *speed = B57600;
        return true;
    case 115200:
        *speed = B115200;
        return true;
    case 230400:
        *speed = B230400;
        return true;
    default:
        return false;
    }
}

// Unix98 pty slaves have the majors 136..143.
bool isPtySlave(int fd)
{
    struct stat st
    {
    };
    if (fstat(fd, &st) != 0 || !S_ISCHR(st.st_mode))
        return false;
    const unsigned int major = major(st.st_rdev);
    return major >= 136 && major <= 143;
}

void notePtyLineSettings(const LineSettings &line)
{
    static bool noted = false;
    if (noted)
        return;
    noted = true;
    qCInfo(lcSim) << "pseudo-terminal: the kernel does not apply data bits and parity; output is"
                  << "paced at" << line.bitsPerCharacter() << "bits per character";
}

} // namespace

Link::~Link()
{
    close();
}

bool Link::open(const SimulatorConfig &config, QString *error)
{
    close();
    m_device = config.device;
    m_linkPath = config.linkPath;
    m_line = config.line;
    return isPty() ? openPty(error) : openDevice(error);
}

void Link::hangUp()
{
    if (m_slaveFd >= 0)
        ::close(m_slaveFd);
    if (m_fd >= 0)
        ::close(m_fd);
    m_slaveFd = -1;
    m_fd = -1;
}

void Link::close()
{
    hangUp();
    if (m_linkCreated) {
        QFile::remove(m_linkPath);
        m_linkCreated = false;
    }
}

bool Link::reopen(QString *error)
{
    hangUp();
    return openPty(error);
}

bool Link::openPty(QString *error)
{
    const int master = posix_openpt(O_RDWR | O_NOCTTY | O_NONBLOCK);
    if (master < 0) {
        *error = errnoText("posix_openpt");
        return false;
    }
    char name[128] = {};
    if (grantpt(master) != 0 || unlockpt(master) != 0
        || ptsname_r(master, name, sizeof name) != 0) {
        *error = errnoText("pseudo-terminal set-up");
        ::close(master);
        return false;
    }
    const int slave = ::open(name, O_RDWR | O_NOCTTY | O_NONBLOCK);
    if (slave < 0) {
        *error = errnoText("open pty slave");
        ::close(master);
        return false;
    }
    termios tio {};
    if (tcgetattr(slave, &tio) == 0) {
        cfmakeraw(&tio);
        speed_t speed = B38400;
        if (speedFor(m_line.baud, &speed)) {
            cfsetispeed(&tio, speed);
            cfsetospeed(&tio, speed);
        }
        tcsetattr(slave, TCSANOW, &tio);
    }
    m_fd = master;
    m_slaveFd = slave;
    m_path = QString::fromLocal8Bit(name);
    m_atOnce = true;
    notePtyLineSettings(m_line);
    return pointLink(error);
}

bool Link::pointLink(QString *error)
{
    if (m_linkPath.isEmpty())
        return true;
    // Point a fresh link and rename it over the old one, so the path never dangles.
    const QByteArray target = QFile::encodeName(m_path);
    const QByteArray link = QFile::encodeName(m_linkPath);
    const QByteArray temporary = link + ".new" + QByteArray::number(getpid());
    ::unlink(temporary.constData());
    if (symlink(target.constData(), temporary.constData()) != 0
        || rename(temporary.constData(), link.constData()) != 0) {
        *error = errnoText("link path");
        ::unlink(temporary.constData());
        return false;
    }
    m_linkCreated = true;
    return true;
}

bool Link::openDevice(QString *error)
{
    speed_t speed = B38400;
    if (!speedFor(m_line.baud, &speed)) {
        *error = QStringLiteral("unsupported baud rate %1").arg(m_line.baud);
        return false;
    }
    const QByteArray path = QFile::encodeName(m_device);
    const int fd = ::open(path.constData(), O_RDWR | O_NOCTTY | O_NONBLOCK);
    if (fd < 0) {
        *error = errnoText(path.constData());
        return false;
    }
    termios tio {};
    if (tcgetattr(fd, &tio) != 0) {
        *error = errnoText("not a serial device");
        ::close(fd);
        return false;
    }
    cfmakeraw(&tio);
    tio.c_cflag &= ~tcflag_t(CSIZE | PARENB | PARODD | CSTOPB | CRTSCTS);
    tio.c_cflag |= CLOCAL | CREAD;
    switch (m_line.dataBits) {
    case 5:
        tio.c_cflag |= CS5;
        break;
    case 6:
        tio.c_cflag |= CS6;
        break;
    case 7:
        tio.c_cflag |= CS7;
        break;
    default:
        tio.c_cflag |= CS8;
        break;
    }
    if (m_line.parity != Parity::None)
        tio.c_cflag |= PARENB;
    if (m_line.parity == Parity::Odd)
        tio.c_cflag |= PARODD;
    if (m_line.stopBits == 2)
        tio.c_cflag |= CSTOPB;
    cfsetispeed(&tio, speed);
    cfsetospeed(&tio, speed);
    if (tcsetattr(fd, TCSANOW, &tio) != 0) {
        *error = errnoText("line settings");
        ::close(fd);
        return false;
    }
    tcflush(fd, TCIOFLUSH);
    m_atOnce = isPtySlave(fd);
    if (m_atOnce)
        notePtyLineSettings(m_line);
    m_fd = fd;
    m_path = m_device;
    return true;
}

ssize_t Link::readSome(char *buffer, size_t size)
{
    return ::read(m_fd, buffer, size);
}

ssize_t Link::writeSome(const char *data, size_t size)
{
    return ::write(m_fd, data, size);
}

} // namespace hustsim

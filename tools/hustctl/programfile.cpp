#include "programfile.h"

#include <QFile>

#include <cerrno>
#include <cstring>

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

namespace {

constexpr char kDc4 = 0x14;

QString systemReason(int error)
{
    return QString::fromLocal8Bit(std::strerror(error));
}

} // namespace

QString programDefect(const QByteArray &text)
{
    const int zero = text.indexOf('\0');
    if (zero >= 0)
        return QStringLiteral("a NUL byte at offset %1: the line protocol cannot carry it")
            .arg(zero);
    const int end = text.indexOf(QByteArray("%") + kDc4);
    if (end >= 0) {
        return QStringLiteral("\"%\" followed by DC4 at offset %1 would end the frame there")
            .arg(end);
    }
    if (QByteArray(text).replace('\n', QByteArray()).isEmpty())
        return QStringLiteral("no program text to send");
    return QString();
}

bool readProgramFile(const QString &path, qint64 maxBytes, QByteArray *text, QString *reason)
{
    // Opened without waiting for a writer, then checked on the open file, so that a FIFO or a
    // device is refused at once.
    const int fd = ::open(QFile::encodeName(path).constData(), O_RDONLY | O_NONBLOCK | O_NOCTTY);
    if (fd < 0) {
        *reason = QStringLiteral("%1: %2").arg(path, systemReason(errno));
        return false;
    }
    struct stat info
    {
    };
    if (::fstat(fd, &info) != 0 || !S_ISREG(info.st_mode)) {
        *reason = QStringLiteral("%1: not a regular file").arg(path);
        ::close(fd);
        return false;
    }
    if (info.st_size > maxBytes) {
        *reason = QStringLiteral("%1: %2 bytes, more than the %3 a program may have")
                      .arg(path, QString::number(info.st_size), QString::number(maxBytes));
        ::close(fd);
        return false;
    }
    QFile file;
    if (!file.open(fd, QIODevice::ReadOnly, QFileDevice::AutoCloseHandle)) {
        *reason = QStringLiteral("%1: %2").arg(path, file.errorString());
        ::close(fd);
        return false;
    }
    // The file may grow while it is read: never take more than the bound.
    *text = file.read(maxBytes + 1);
    if (file.error() != QFileDevice::NoError) {
        *reason = QStringLiteral("%1: %2").arg(path, file.errorString());
        return false;
    }
    if (text->size() > maxBytes) {
        *reason = QStringLiteral("%1: grew beyond the %2 bytes a program may have")
                      .arg(path, QString::number(maxBytes));
        return false;
    }
    return true;
}

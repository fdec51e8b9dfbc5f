#include "outputfile.h"

#include <QFile>
#include <QSaveFile>
#include <QTextStream>

#include <cerrno>
#include <cstring>

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

OutputFile::OutputFile() = default;
OutputFile::~OutputFile() = default;

bool OutputFile::open(const QString &path, QTextStream &console, QString *error)
{
    if (path.isEmpty()) {
        m_name = QStringLiteral("standard output");
        m_console = &console;
        return true;
    }
    m_name = path;
    const QByteArray native = QFile::encodeName(path);
    struct stat info
    {
    };
    if (::stat(native.constData(), &info) != 0 || S_ISREG(info.st_mode)) {
        // A new or regular file: written beside it and renamed over it when complete. Opening now
        // checks the directory and an existing file's permission.
        auto file = std::make_unique<QSaveFile>(path);
        if (!file->open(QIODevice::WriteOnly)) {
            *error = QStringLiteral("%1: %2").arg(path, file->errorString());
            return false;
        }
        m_file = std::move(file);
        return true;
    }
    // Anything else is opened as it is. A FIFO without a reader is refused instead of waited for.
    const int fd = ::open(native.constData(), O_WRONLY | O_NONBLOCK | O_NOCTTY);
    if (fd < 0) {
        const int reason = errno;
        *error = QStringLiteral("%1: %2").arg(path,
                                              reason == ENXIO
                                                  ? QStringLiteral("nobody reads from it")
                                                  : QString::fromLocal8Bit(std::strerror(reason)));
        return false;
    }
    ::fcntl(fd, F_SETFL, ::fcntl(fd, F_GETFL) & ~O_NONBLOCK);
    auto file = std::make_unique<QFile>();
    if (!file->open(fd, QIODevice::WriteOnly | QIODevice::Unbuffered,
                    QFileDevice::AutoCloseHandle)) {
        *error = QStringLiteral("%1: %2").arg(path, file->errorString());
        ::close(fd);
        return false;
    }
    m_file = std::move(file);
    return true;
}

bool OutputFile::write(const QByteArray &bytes, QString *error)
{
    QIODevice *device = m_file.get();
    if (m_console) {
        m_console->flush();
        device = m_console->device();
    }
    bool written = device->write(bytes) == bytes.size();
    if (auto *file = qobject_cast<QFileDevice *>(device))
        written = written && file->flush();
    if (auto *save = qobject_cast<QSaveFile *>(device))
        written = written && save->commit();
    if (!written)
        *error = QStringLiteral("%1: %2").arg(m_name, device->errorString());
    return written;
}

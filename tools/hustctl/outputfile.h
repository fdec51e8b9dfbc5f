#ifndef HUSTCTL_OUTPUTFILE_H
#define HUSTCTL_OUTPUTFILE_H

#include <QByteArray>
#include <QString>

#include <memory>

class QFileDevice;
class QTextStream;

// Where a command's result goes: standard output, a regular file that is replaced atomically once
// the result is complete, or any other file (a device, a FIFO, /dev/stdout), which is written in
// place and never replaced. open() comes before the work, so that a target that cannot be written
// is reported before anything is sent to the controller.
class OutputFile
{
public:
    OutputFile();
    ~OutputFile();

    // An empty path is standard output, the console's stream. False with the system's reason.
    bool open(const QString &path, QTextStream &console, QString *error);
    // Writes the whole result and, for a regular file, puts it in place.
    bool write(const QByteArray &bytes, QString *error);

private:
    QString m_name;
    QTextStream *m_console = nullptr;
    std::unique_ptr<QFileDevice> m_file;
};

#endif // HUSTCTL_OUTPUTFILE_H

#ifndef HUSTCTL_PROGRAMFILE_H
#define HUSTCTL_PROGRAMFILE_H

#include <QByteArray>
#include <QString>

// Why a part program cannot go to the controller as it is, empty when it can. The line protocol
// has no escape: the driver cuts the text at a NUL byte, and "%" followed by DC4 inside the text
// ends the frame early, so the controller would get part of the program while the send looks
// complete. A text of nothing but line feeds leaves nothing to send.
QString programDefect(const QByteArray &text);

// Reads a part program for sending: only a regular file (a FIFO without a writer or a device could
// block or never end), at most maxBytes. False with a one-line reason, the path first.
bool readProgramFile(const QString &path, qint64 maxBytes, QByteArray *text, QString *reason);

#endif // HUSTCTL_PROGRAMFILE_H

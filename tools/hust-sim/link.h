#ifndef HUSTSIM_LINK_H
#define HUSTSIM_LINK_H

#include "simulator.h"

#include <QString>

#include <sys/types.h>

namespace hustsim {

// The controller's end of the serial line: the master side of a pseudo-terminal, or a real serial
// device set to the configured line settings. All descriptors are non-blocking.
class Link
{
public:
    Link() = default;
    ~Link();
    Link(const Link &) = delete;
    Link &operator=(const Link &) = delete;

    bool open(const SimulatorConfig &config, QString *error);
    void close();
    // Hangup of a pty: closes the master so that the client's side fails with EIO.
    void hangUp();
    // Opens a fresh pty after hangUp() and re-points the link path at its slave.
    bool reopen(QString *error);

    bool isOpen() const { return m_fd >= 0; }
    bool isPty() const { return m_device.isEmpty(); }
    // A pseudo-terminal (ours, or one served as the device) hands over a write at once; a serial
    // device delivers characters as they cross the line.
    bool deliversAtOnce() const { return m_atOnce; }
    int fd() const { return m_fd; }
    // The path a client opens: the pty's slave or the device.
    QString path() const { return m_path; }

    // read(2)/write(2) on the line; -1 with errno on failure (EAGAIN when nothing can move).
    ssize_t readSome(char *buffer, size_t size);
    ssize_t writeSome(const char *data, size_t size);

private:
    bool openPty(QString *error);
    bool openDevice(QString *error);
    bool pointLink(QString *error);

    QString m_device;
    QString m_linkPath;
    LineSettings m_line;
    int m_fd = -1;
    // Our own descriptor of the pty's slave: while it is open the master sees no hangup when a
    // client closes the slave, so clients may close and reopen the path.
    int m_slaveFd = -1;
    QString m_path;
    bool m_linkCreated = false;
    bool m_atOnce = false;
};

} // namespace hustsim

#endif // HUSTSIM_LINK_H

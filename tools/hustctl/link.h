#ifndef HUSTCTL_LINK_H
#define HUSTCTL_LINK_H

#include "options.h"

#include <QString>

#include <memory>

class BuiltInSimulator;
class DriverInterface;
class LinePort;
class SerialPort;

// The line to the controller: a serial device, or the built-in simulator on a pseudo-terminal
// when no device is given. The port object outlives every driver call made through it.
class Link
{
public:
    Link();
    ~Link();

    // Opens the line with the driver's default retry count and delay unless the options set
    // them. False with the system's reason.
    bool open(const LinkOptions &options, DriverInterface *driver, QString *error);
    // The port object handed to the driver.
    LinePort *port() const;

private:
    std::unique_ptr<BuiltInSimulator> m_simulator; // destroyed after the port
    std::unique_ptr<SerialPort> m_serial;
    std::unique_ptr<LinePort> m_port;
};

#endif // HUSTCTL_LINK_H

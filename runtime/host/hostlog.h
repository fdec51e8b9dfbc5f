#ifndef HOSTLOG_H
#define HOSTLOG_H

#include <QLoggingCategory>

// Diagnostics of the host's serial port.
Q_DECLARE_LOGGING_CATEGORY(lcHostSerial)

#endif // HOSTLOG_H

#ifndef SUPPORTLOG_H
#define SUPPORTLOG_H

#include <QLoggingCategory>

// Diagnostics of the driver support library.
Q_DECLARE_LOGGING_CATEGORY(lcDriverSupport)

#endif // SUPPORTLOG_H

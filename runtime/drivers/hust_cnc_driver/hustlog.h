#ifndef HUSTLOG_H
#define HUSTLOG_H

#include <QLoggingCategory>

// Diagnostics of the Hust CNC driver, its link worker and its G-code transfer.
Q_DECLARE_LOGGING_CATEGORY(lcHustDriver)

#endif // HUSTLOG_H

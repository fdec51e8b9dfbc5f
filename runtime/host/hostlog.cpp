#include "hostlog.h"

// Warnings only unless QT_LOGGING_RULES asks for more.
Q_LOGGING_CATEGORY(lcHostSerial, "hust.host", QtWarningMsg)

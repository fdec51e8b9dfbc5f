#include "hustlog.h"

// Warnings only unless QT_LOGGING_RULES asks for more.
Q_LOGGING_CATEGORY(lcHustDriver, "hust.driver", QtWarningMsg)

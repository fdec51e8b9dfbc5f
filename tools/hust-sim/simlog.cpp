#include "simlog.h"

// Debug lines (one per frame received) are off unless QT_LOGGING_RULES enables them.
Q_LOGGING_CATEGORY(lcSim, "hust.sim", QtInfoMsg)

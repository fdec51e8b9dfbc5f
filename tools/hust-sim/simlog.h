#ifndef HUSTSIM_SIMLOG_H
#define HUSTSIM_SIMLOG_H

#include <QLoggingCategory>

// Diagnostics of the controller simulator.
Q_DECLARE_LOGGING_CATEGORY(lcSim)

#endif // HUSTSIM_SIMLOG_H

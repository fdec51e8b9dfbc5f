#ifndef HUSTCTL_TARGETREADER_H
#define HUSTCTL_TARGETREADER_H

#include "addressing.h"

#include <QList>
#include <QVector>

class DriverHost;

// The driver requests of a screen of targets, for setSessionCommand.
QList<CommunicatorCommand> sessionCommands(const QList<Target> &targets);

// The distinct controller double words a screen of targets reads.
int screenDoubleWords(const QList<Target> &targets);

// Reads every value of the target, each request polled until data arrives, the driver reports an
// error or timeoutMs pass. On failure the reason names the address.
bool readTarget(DriverHost &host, const Target &target, int timeoutMs, QVector<quint32> *values,
                QString *error);

// One pass without waiting: false when some value is not available. error is the driver's
// message when one of the calls saw an error pending, whether or not values came.
bool readTargetNow(DriverHost &host, const Target &target, QVector<quint32> *values,
                   QString *error);

#endif // HUSTCTL_TARGETREADER_H

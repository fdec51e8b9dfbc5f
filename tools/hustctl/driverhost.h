#ifndef HUSTCTL_DRIVERHOST_H
#define HUSTCTL_DRIVERHOST_H

#include "communicatorcommand.h"

#include <QByteArray>
#include <QList>
#include <QString>

class DriverInterface;
class LinePort;

// Calls the driver the way the panel run-time does: from the thread that owns it, with that
// thread's event loop running between calls so that the driver's queued error slots are served.
class DriverHost
{
public:
    // Pause between two reads of the same request while the driver's cache fills.
    static constexpr int kPollIntervalMs = 50;

    DriverHost(DriverInterface *driver, LinePort *port);

    struct ReadResult
    {
        enum Outcome { Data, Error, TimedOut } outcome = TimedOut;
        QByteArray data;
        // The driver's message when hasError() was true after the call, with data or without.
        QString error;
        // poll(): the deadline ended the driver's retries before they ran out.
        bool retriesCut = false;
    };

    // One read call. An empty answer without a pending error means "not yet" (Outcome TimedOut).
    ReadResult readOnce(const CommunicatorCommand &command);
    // The number of blocks the driver has taken into its cache: it advances only while fresh
    // data comes from the controller.
    quint64 deliveredBlocks() const;
    // Reads until data arrives, the driver reports an error or timeoutMs pass. The driver's own
    // retries and delays end with the deadline too (see LinePort).
    ReadResult poll(const CommunicatorCommand &command, int timeoutMs);
    // Brackets reads made with readOnce() in a wait bounded like poll(); endWait() tells whether
    // the deadline cut the driver's retries short.
    void beginWait(int timeoutMs);
    bool endWait();
    // The port's retry count, for messages.
    int retry() const;
    // The port handed to the driver, with its byte counts.
    const LinePort &line() const { return *m_port; }
    // Hands a write to the driver; false with the driver's message when it refuses.
    bool write(const CommunicatorCommand &command, const QByteArray &data, QString *error);
    // Tells the driver which requests the screen on show reads.
    void setSession(const QList<CommunicatorCommand> &commands);
    // Ends the screen: the driver stops reading the controller in a loop.
    void closeSession();
    // Runs the event loop for ms milliseconds.
    static void pause(int ms);

private:
    // The driver's message when it has an error pending, as the run-time asks after every call.
    QString pendingError() const;

    DriverInterface *m_driver;
    LinePort *m_port;
};

#endif // HUSTCTL_DRIVERHOST_H

#ifndef HUSTCTL_LINEPORT_H
#define HUSTCTL_LINEPORT_H

#include "abstractdeviceinterface.h"

#include <QDeadlineTimer>
#include <QElapsedTimer>
#include <QMutex>

#include <atomic>

// The port object hustctl hands the driver: every call goes to the serial port underneath, while
// hustctl keeps a deadline over the driver's own waiting.
//
// The driver retries a failed read as often as the port's retry count says, and sleeps the port's
// delay before every attempt, all inside one read call. A silent line with a large --retry would
// hold a single call for minutes. While a wait runs and its deadline has passed, the port reports
// no retries and no delay, so the call under way ends after its current attempt.
class LinePort : public AbstractDeviceInterface
{
public:
    explicit LinePort(AbstractDeviceInterface *port);

    // Prints every chunk sent (>) and received (<) on standard error, time-stamped from now, with
    // control bytes named.
    void setTrace(bool on);
    // Bytes that went out and came in through the port.
    quint64 bytesSent() const { return m_bytesSent; }
    quint64 bytesReceived() const { return m_bytesReceived; }

    // A wait for data: the driver's retries and delays end ms milliseconds from now, until
    // endWait(), which tells whether the deadline cut a driver call's retries short.
    void beginWait(int ms);
    bool endWait();
    // Before each driver call of a wait: its failed attempts are counted from here.
    void startCall();
    // The retry count of the port underneath, whatever the deadline.
    int retry() { return m_port->getRetry(); }

    int readData(char *data, int maxSize) override;
    int receiveData(char *data, int maxSize) override;
    int writeData(const char *data, int size) override;
    DeviceSetting *getDeviceSetting() override;
    void getOption(int option, QVariant &value) override;
    void setOption(int option, const QVariant &value) override;
    int getRetry() override;
    int getDelay() override;

private:
    void trace(char direction, const char *data, int size);

    AbstractDeviceInterface *m_port;
    std::atomic<bool> m_trace {false};
    QElapsedTimer m_clock;
    QMutex m_traceMutex; // lines from the worker's and the caller's thread stay whole
    std::atomic<quint64> m_bytesSent {0};
    std::atomic<quint64> m_bytesReceived {0};
    // The driver asks for the retry count and the delay in the thread that calls it, and the worker
    // may ask in its own.
    QMutex m_mutex;
    QDeadlineTimer m_deadline {QDeadlineTimer::Forever};
    int m_failedAttempts = 0;
    bool m_retriesCut = false;
};

#endif // HUSTCTL_LINEPORT_H

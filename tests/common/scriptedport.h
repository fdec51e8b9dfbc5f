#ifndef SCRIPTEDPORT_H
#define SCRIPTEDPORT_H

#include "abstractdeviceinterface.h"
#include "drv_dev_setting.h"

#include <QByteArray>
#include <QList>
#include <QMutex>

#include <functional>

// An in-memory port for unit tests. Reads hand out scripted chunks, one per call (an empty chunk
// is a read that returns nothing); writes are recorded and may trigger a responder that scripts
// the controller's answer. Every operation is safe to call from two threads.
class ScriptedPort : public AbstractDeviceInterface
{
public:
    ScriptedPort();

    // ---- scripting ----
    void queueRead(const QByteArray &chunk); // one readData/receiveData result
    void queueEmptyReads(int count);
    void setResponder(std::function<void(ScriptedPort &, const QByteArray &)> responder);
    void setWriteResult(int result); // -1: report the full length (default)
    void setAvailable(int bytes); // what getOption(13) reports
    // What a read returns when nothing is queued, as a line held in break reads NUL bytes.
    void setIdleRead(const QByteArray &bytes);
    void setRetry(int retry) { m_retry = retry; }
    void setDelay(int delay) { m_delay = delay; }

    // ---- observation ----
    QList<QByteArray> writes() const; // one entry per writeData call
    QByteArray written() const; // all written bytes
    int readCalls() const;
    int discardCalls() const; // setOption(12, 0) calls
    int availableQueries() const; // getOption(13) calls
    int pendingReads() const;
    void clearRecord();

    // ---- AbstractDeviceInterface ----
    int readData(char *data, int maxSize) override;
    int receiveData(char *data, int maxSize) override;
    int writeData(const char *data, int size) override;
    DeviceSetting *getDeviceSetting() override { return &m_setting; }
    void getOption(int option, QVariant &value) override;
    void setOption(int option, const QVariant &value) override;
    int getRetry() override { return m_retry; }
    int getDelay() override { return m_delay; }

private:
    int takeChunk(char *data, int maxSize);

    mutable QMutex m_mutex;
    QList<QByteArray> m_reads;
    QList<QByteArray> m_writes;
    std::function<void(ScriptedPort &, const QByteArray &)> m_responder;
    int m_writeResult = -1;
    int m_available = 0;
    QByteArray m_idleRead;
    int m_readCalls = 0;
    int m_discardCalls = 0;
    int m_availableQueries = 0;
    int m_retry = 0;
    int m_delay = 0;
    DeviceSetting m_setting;
};

#endif // SCRIPTEDPORT_H

#ifndef FAKECONTROLLER_H
#define FAKECONTROLLER_H

#include "abstractdeviceinterface.h"
#include "drv_dev_setting.h"

#include <QByteArray>
#include <QHash>
#include <QMutex>
#include <QVector>

#include <atomic>

// A port that plays the controller in memory. After a read request it streams register responses
// for the requested double words, each with a new H code, until a stop frame arrives; double-word
// and bit write frames change its memory. Reads never wait: with nothing to send they return 0.
// Every double word that was never written holds index * 1000 + 7, so a value read for one
// address can never be mistaken for another address's.
class FakeController : public AbstractDeviceInterface
{
public:
    FakeController();

    static quint32 seededValue(int index) { return quint32(index) * 1000u + 7u; }

    quint32 value(int index) const;
    bool isStreaming() const;
    int stopFrames() const { return m_stopFrames; }
    void setRetry(int retry) { m_retry = retry; }

    int readData(char *data, int maxSize) override;
    int receiveData(char *data, int maxSize) override;
    int writeData(const char *data, int size) override;
    DeviceSetting *getDeviceSetting() override { return &m_setting; }
    void getOption(int option, QVariant &value) override;
    void setOption(int option, const QVariant &value) override;
    int getRetry() override { return m_retry; }
    int getDelay() override { return 0; }

private:
    void handleFrame(const QByteArray &frame);
    QByteArray responseFrame();
    quint32 valueLocked(int index) const;

    mutable QMutex m_mutex;
    QHash<int, quint32> m_written;
    QVector<int> m_streamList;
    bool m_streaming = false;
    QByteArray m_pendingWrite;
    QByteArray m_pendingRead;
    quint32 m_hCode = 1;
    std::atomic<int> m_stopFrames {0};
    std::atomic<int> m_retry {0};
    DeviceSetting m_setting;
};

#endif // FAKECONTROLLER_H

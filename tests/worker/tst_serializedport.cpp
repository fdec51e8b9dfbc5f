#include "serializedport.h"

#include <QtTest>

#include <atomic>
#include <thread>

namespace {

// A port that is not safe for two threads: it notices when two calls overlap.
class UnsafePort : public AbstractDeviceInterface
{
public:
    std::atomic<int> inside {0};
    std::atomic<int> overlaps {0};
    std::atomic<int> calls {0};

    int readData(char *, int maxSize) override { return enter(maxSize); }
    int receiveData(char *, int maxSize) override { return enter(maxSize); }
    int writeData(const char *, int size) override { return enter(size); }
    DeviceSetting *getDeviceSetting() override { return nullptr; }
    void getOption(int option, QVariant &value) override { value = enter(option); }
    void setOption(int option, const QVariant &) override { enter(option); }
    int getRetry() override { return enter(3); }
    int getDelay() override { return enter(4); }

private:
    int enter(int result)
    {
        if (inside.fetch_add(1) != 0)
            overlaps.fetch_add(1);
        ++calls;
        std::this_thread::yield();
        inside.fetch_sub(1);
        return result;
    }
};

} // namespace

class TestSerializedPort : public QObject
{
    Q_OBJECT

private slots:
    void forwards();
    void twoThreadsNeverOverlap();
    void noPort();
};

void TestSerializedPort::forwards()
{
    UnsafePort port;
    SerializedPort serialized(&port);
    char buffer[8];
    QCOMPARE(serialized.readData(buffer, 7), 7);
    QCOMPARE(serialized.receiveData(buffer, 6), 6);
    QCOMPARE(serialized.writeData(buffer, 5), 5);
    QVariant value;
    serialized.getOption(13, value);
    QCOMPARE(value.toInt(), 13);
    serialized.setOption(12, 0);
    QCOMPARE(serialized.getRetry(), 3);
    QCOMPARE(serialized.getDelay(), 4);
    QCOMPARE(port.calls.load(), 7);
    QCOMPARE(serialized.wrappedPort(), &port);
}

void TestSerializedPort::twoThreadsNeverOverlap()
{
    UnsafePort port;
    SerializedPort serialized(&port);
    auto hammer = [&serialized]() {
        char buffer[4];
        QVariant value;
        for (int i = 0; i < 20000; ++i) {
            serialized.readData(buffer, 4);
            serialized.writeData(buffer, 4);
            serialized.getOption(13, value);
            serialized.setOption(12, 0);
        }
    };
    std::thread other(hammer);
    hammer();
    other.join();
    QCOMPARE(port.calls.load(), 2 * 4 * 20000);
    QCOMPARE(port.overlaps.load(), 0);
}

void TestSerializedPort::noPort()
{
    SerializedPort serialized(nullptr);
    char buffer[4];
    QCOMPARE(serialized.readData(buffer, 4), 0);
    QCOMPARE(serialized.writeData(buffer, 4), 0);
    QCOMPARE(serialized.getDeviceSetting(), nullptr);
    QVariant value;
    serialized.getOption(13, value);
    QVERIFY(!value.isValid());
}

QTEST_GUILESS_MAIN(TestSerializedPort)
#include "tst_serializedport.moc"

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

    int readData(char *, int) override { return enter(); }
    int receiveData(char *, int) override { return enter(); }
    int writeData(const char *, int) override { return enter(); }
    DeviceSetting *getDeviceSetting() override { return nullptr; }
    void getOption(int, QVariant &) override { enter(); }
    void setOption(int, const QVariant &) override { enter(); }
    int getRetry() override { return enter(); }
    int getDelay() override { return enter(); }

private:
    int enter()
    {
        if (inside.fetch_add(1) != 0)
            overlaps.fetch_add(1);
        ++calls;
        std::this_thread::yield();
        inside.fetch_sub(1);
        return 0;
    }
};

} // namespace

class TestSerializedPort : public QObject
{
    Q_OBJECT

private slots:
    void twoThreadsNeverOverlap();
    void noPort();
};

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

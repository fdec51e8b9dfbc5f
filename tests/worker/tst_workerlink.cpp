// The worker over the host serial port on a pseudo-terminal, against the controller simulator.
#include "serializedport.h"
#include "serialport.h"
#include "simulator.h"
#include "workertestsupport.h"

#include <QtTest>

#include <memory>

using namespace WorkerTest;

Q_DECLARE_METATYPE(hustsim::FaultSettings)

class TestWorkerLink : public QObject
{
    Q_OBJECT

private slots:
    void init()
    {
        QVERIFY(startSimulator());
        m_port.reset(
            new SerialPort(DeviceSetting(DEVICE_SERIAL, m_link.filePath("cnc"), 38400, 7, 2, 2),
                           DriverSetting(1000, 2, 0, 0)));
        QVERIFY2(m_port->open(), qPrintable(m_port->errorString()));
        m_serialized.reset(new SerializedPort(m_port.get()));
        m_driver.reset(new DriverHushCNC);
        m_worker.reset(new DriverHushCNCReaderWriter);
        m_worker->moveToThread(&m_thread);
        m_worker->setDriverInterface(m_driver.get());
        m_worker->setReadInterface(m_serialized.get());
        m_thread.start();
        QMetaObject::invokeMethod(m_worker.get(), "startLoopRead",
                                  Q_ARG(QStringList, names(RegisterCount, FirstRegister)));
        QTRY_VERIFY_WITH_TIMEOUT(isSeeded(DriverHushCNCTestAccess::blockData(*m_driver)), 5000);
    }

    // The worker goes before the objects it uses.
    void cleanup()
    {
        if (m_worker)
            m_worker->stopLoopRead();
        m_thread.quit();
        m_thread.wait(20000);
        m_worker.reset();
        m_driver.reset();
        m_serialized.reset();
        m_port.reset();
        m_sim.reset();
    }

    void faultRecovery_data()
    {
        QTest::addColumn<hustsim::FaultSettings>("faults");
        QTest::addColumn<int>("cablePullMs");
        QTest::addColumn<bool>("restart"); // a new controller behind the same path
        hustsim::FaultSettings f;
        f.garbageProbability = 0.3;
        QTest::newRow("random bytes") << f << 0 << false;
        f = hustsim::FaultSettings();
        f.hCodeRepeat = 3;
        QTest::newRow("repeated H codes") << f << 0 << false;
        f = hustsim::FaultSettings();
        f.shortValueProbability = 0.2;
        // Cut frames and short values make frames of another length than the expected response:
        // the forward search must not join them with the next frame's head.
        QTest::newRow("short values") << f << 0 << false;
        f = hustsim::FaultSettings();
        f.cutProbability = 0.3;
        QTest::newRow("cut frames") << f << 0 << false;
        f = hustsim::FaultSettings();
        f.silence = true;
        QTest::newRow("silence") << f << 0 << false;
        // Longer than the worker's empty reads, so that the request it sends again is lost too.
        QTest::newRow("cable pull") << hustsim::FaultSettings() << 2500 << false;
        QTest::newRow("restart behind the same path") << hustsim::FaultSettings() << 0 << true;
    }

    void faultRecovery()
    {
        QFETCH(hustsim::FaultSettings, faults);
        QFETCH(int, cablePullMs);
        QFETCH(bool, restart);
        m_sim->setFaults(faults);
        if (cablePullMs > 0)
            m_sim->pullCable(cablePullMs);
        if (restart)
            m_sim->stop();
        int wrong = 0;
        pump(1500, wrong);
        if (restart)
            QVERIFY(startSimulator());
        m_sim->setFaults(hustsim::FaultSettings());

        // Blocks flow again, with the controller's values.
        int recovered = 0;
        QTRY_VERIFY_WITH_TIMEOUT((recovered += pump(20, wrong)) > 2, 10000);

        QCOMPARE(wrong, 0);
    }

private:
    static constexpr int FirstRegister = 10;
    static constexpr int RegisterCount = 20;

    // A controller holding known values, its pseudo-terminal named by the link path.
    bool startSimulator()
    {
        hustsim::SimulatorConfig config;
        config.linkPath = m_link.filePath("cnc");
        config.paced = false;
        config.frameCounter = false;
        config.seed = 7;
        m_sim.reset(new hustsim::Simulator(config));
        for (int i = 0; i < RegisterCount; ++i)
            m_sim->setRegister(FirstRegister + i, quint32(FirstRegister + i) * 1000 + 7);
        return m_sim->start();
    }

    bool isSeeded(const QByteArray &data) const
    {
        QList<quint32> values;
        for (int i = 0; i < RegisterCount; ++i)
            values << m_sim->registerValue(FirstRegister + i);
        return data == block(values);
    }

    // Asks for cycles while none runs and samples what each one delivers. Returns the number of
    // blocks taken; wrongBlocks counts those holding a value the controller never held.
    int pump(int ms, int &wrongBlocks)
    {
        QElapsedTimer timer;
        timer.start();
        int blocks = 0;
        while (timer.elapsed() < ms) {
            if (!m_worker->m_isLoopReading) {
                const QByteArray block = DriverHushCNCTestAccess::blockData(*m_driver);
                if (!block.isEmpty()) {
                    ++blocks;
                    wrongBlocks += !isSeeded(block);
                    DriverHushCNCTestAccess::clearBlockData(*m_driver);
                }
                QMetaObject::invokeMethod(m_worker.get(), "loopRead");
            }
            QTest::qWait(2);
        }
        return blocks;
    }

    QTemporaryDir m_link;
    std::unique_ptr<hustsim::Simulator> m_sim;
    std::unique_ptr<SerialPort> m_port;
    std::unique_ptr<SerializedPort> m_serialized;
    std::unique_ptr<DriverHushCNC> m_driver;
    QThread m_thread;
    std::unique_ptr<DriverHushCNCReaderWriter> m_worker;
};

QTEST_GUILESS_MAIN(TestWorkerLink)
#include "tst_workerlink.moc"

#include "driverinterface.h"
#include "drv_dev_setting.h"

#include <QPluginLoader>
#include <QtTest>

#include <dlfcn.h>

namespace {

using CreateDriverFn = DriverInterface *(*)();
using InstanceFn = QObject *(*)();
using VerificationFn = const char *(*)();

} // namespace

// Loads the built plug-in file as the run-time does, by path, with nothing of it linked in.
class TestPlugin : public QObject
{
    Q_OBJECT

private slots:
    void qtLoader()
    {
        QPluginLoader loader(QStringLiteral(HUST_PLUGIN_PATH));
        QVERIFY2(loader.load(), qPrintable(loader.errorString()));
        QCOMPARE(loader.metaData().value(QStringLiteral("IID")).toString(),
                 QStringLiteral("com.tarnwick.drivers.DriverInterface/1.1"));
        QCOMPARE(loader.metaData().value(QStringLiteral("className")).toString(),
                 QStringLiteral("DriverHushCNC"));
        QObject *object = loader.instance();
        QVERIFY(object);
        QCOMPARE(loader.instance(), object);
        auto *driver = qobject_cast<DriverInterface *>(object);
        QVERIFY(driver);
        QCOMPARE(driver->getThisObject(), object);
        QCOMPARE(driver->name(), QStringLiteral("Hust CNC Controller"));
        QCOMPARE(driver->vender(), QStringLiteral("Hust"));
        QCOMPARE(driver->getStringBasedDefaultDriverSetting(), QStringLiteral("RS232,38400,EVEN,7,2"));
        QScopedPointer<DeviceSetting> setting(driver->getDefaultSerialDeviceSetting());
        QCOMPARE(setting->baudrate, 38400);
        CommunicatorCommand cmd(CommunicatorCommand::DWordType, 1, QStringLiteral("DW100"));
        QVERIFY(driver->read(nullptr, cmd).isEmpty());
        QVERIFY(!driver->write(nullptr, cmd, QByteArray(4, 0)));
    }

    void plainEntryPoints()
    {
        void *handle = dlopen(HUST_PLUGIN_PATH, RTLD_NOW | RTLD_LOCAL);
        QVERIFY2(handle, dlerror());
        auto create = reinterpret_cast<CreateDriverFn>(dlsym(handle, "CreateDriver"));
        auto instance = reinterpret_cast<InstanceFn>(dlsym(handle, "qt_plugin_instance"));
        auto verification = reinterpret_cast<VerificationFn>(dlsym(handle, "qt_plugin_query_verification_data"));
        QVERIFY(create && instance && verification);

        QCOMPARE(QByteArray(verification()),
                 QByteArray("pattern=QT_PLUGIN_VERIFICATION_DATA\nversion=4.8.6\ndebug=false\n"
                            "buildkey=arm linux g++-4 no-pkg-config"));

        DriverInterface *first = create();
        DriverInterface *second = create();
        QVERIFY(first && second && first != second);
        QObject *asObject = first->getThisObject();
        QCOMPARE(asObject->qt_metacast(DriverInterface_iid), static_cast<void *>(first));
        QCOMPARE(asObject->qt_metacast("DriverHushCNC"), static_cast<void *>(asObject));
        delete first;
        delete second;

        // One guarded instance per process, replaced once deleted.
        QObject *shared = instance();
        QVERIFY(shared);
        QCOMPARE(instance(), shared);
        QPointer<QObject> guard(shared);
        delete shared;
        QVERIFY(guard.isNull());
        QObject *replacement = instance();
        QVERIFY(replacement);
        QCOMPARE(instance(), replacement);
        // The handle stays open: the process-wide instance lives until exit.
    }
};

QTEST_GUILESS_MAIN(TestPlugin)
#include "tst_plugin.moc"

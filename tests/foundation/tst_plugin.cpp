#include "driverinterface.h"

#include <QtTest>

#include <dlfcn.h>

namespace {

using CreateDriverFn = DriverInterface *(*)();
using InstanceFn = QObject *(*)();
using VerificationFn = const char *(*)();

} // namespace

// Opens the built plug-in file by path, with nothing of it linked in, and calls its entry points.
class TestPlugin : public QObject
{
    Q_OBJECT

private slots:
    void plainEntryPoints()
    {
        void *handle = dlopen(HUST_PLUGIN_PATH, RTLD_NOW | RTLD_LOCAL);
        QVERIFY2(handle, dlerror());
        auto create = reinterpret_cast<CreateDriverFn>(dlsym(handle, "CreateDriver"));
        auto instance = reinterpret_cast<InstanceFn>(dlsym(handle, "qt_plugin_instance"));
        auto verification
            = reinterpret_cast<VerificationFn>(dlsym(handle, "qt_plugin_query_verification_data"));
        QVERIFY(create && instance && verification);

        QCOMPARE(QByteArray(verification()),
                 QByteArray("pattern=QT_PLUGIN_VERIFICATION_DATA\nversion=4.8.6\ndebug=false\n"
                            "buildkey=arm linux g++-4 no-pkg-config"));

        DriverInterface *first = create();
        DriverInterface *second = create();
        QVERIFY(first && second && first != second);
        QObject *asObject = first->getThisObject();
        // The run-time casts by this interface name.
        QCOMPARE(asObject->qt_metacast("com.tarnwick.drivers.DriverInterface/1.1"),
                 static_cast<void *>(first));
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

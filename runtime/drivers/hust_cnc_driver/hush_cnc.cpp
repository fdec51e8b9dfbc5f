#include "hush_cnc.h"

#include "abstractdeviceinterface.h"
#include "drv_dev_setting.h"
#include "hustlog.h"

#include <QCoreApplication>
#include <QThread>
#include <QVariant>

namespace {

const char VERSION_STRING[] = "1.0.0";

// Identity of the property the run-time sets on the application object in its environment.
const char RUNTIME_ENV_PROPERTY[] = "zel_env";

// Calls of clearError() that only count down before a pending error is dropped.
const int CLEAR_ERROR_COUNTDOWN = 50;

QString typeName(CommunicatorCommand::DataType type)
{
    switch (type) {
    case CommunicatorCommand::BitType:
        return QStringLiteral("Bit Type");
    case CommunicatorCommand::ByteType:
        return QStringLiteral("Byte Type");
    case CommunicatorCommand::DWordType:
        return QStringLiteral("Double Word Type");
    case CommunicatorCommand::QWordType:
        return QStringLiteral("Quad Word Type");
    default:
        return QString();
    }
}

} // namespace

// ---- Plug-in entry points ------------------------------------------------------------------

extern "C" Q_DECL_EXPORT DriverInterface *CreateDriver()
{
    return new DriverHushCNC();
}

// The Qt 4 plug-in verification record, kept in its own section where the loader looks for it.
extern "C" {
__attribute__((used, section(".qtplugin"))) static const char qt_plugin_verification_data[]
    = "pattern=QT_PLUGIN_VERIFICATION_DATA\n"
      "version=4.8.6\n"
      "debug=false\n"
      "buildkey=arm linux g++-4 no-pkg-config";

Q_DECL_EXPORT const char *qt_plugin_query_verification_data()
{
    return qt_plugin_verification_data;
}
}

// ---- Construction --------------------------------------------------------------------------

DriverHushCNC::DriverHushCNC()
    : QObject(nullptr)
    , m_hasError(false)
    , m_clearErrorCountdown(CLEAR_ERROR_COUNTDOWN)
    , m_stopSendCmdLength(0)
    , m_readerWriter(nullptr)
    , m_isWorkerStarted(false)
    , m_workerThread(nullptr)
    , isStartLoopRead(false)
    , m_d1200RegExp(QStringLiteral("(d1200)([1-6]{1})"), Qt::CaseSensitive, QRegExp::RegExp)
    , m_d1202RegExp(QStringLiteral("(d1202)([1-6]{1})"), Qt::CaseSensitive, QRegExp::RegExp)
    , m_isBlockDataUpdated(true)
    , m_gcodeController(nullptr)
    , m_isLoopReadStoppedForGCode(false)
    , m_readsSinceTrigger(0)
    , m_loopTriggerIndex(0)
    , m_isWriteBitDirectDisable(false)
{
    const QCoreApplication *app = QCoreApplication::instance();
    if (!app || !app->property(RUNTIME_ENV_PROPERTY).isValid())
        return; // configuration-only: identity and default settings, no worker
}

DriverHushCNC::~DriverHushCNC() = default;

// ---- Constant answers ----------------------------------------------------------------------

int DriverHushCNC::totalSize()
{
    return 1024;
}
bool DriverHushCNC::initialize(AbstractDeviceInterface *)
{
    return true;
}
bool DriverHushCNC::validation(QString const &)
{
    return true;
}
QString DriverHushCNC::name()
{
    return QStringLiteral("Hust CNC Controller");
}
QString DriverHushCNC::vender()
{
    return QStringLiteral("Hust");
}
QString DriverHushCNC::getVersionNumber()
{
    return QString::fromLatin1(VERSION_STRING);
}
int DriverHushCNC::supportedCommunicationFlags()
{
    return DEVICE_SERIAL;
}
void DriverHushCNC::setDebugMode(bool) { }
int DriverHushCNC::getBlockAccessSize()
{
    return 0;
}
int DriverHushCNC::getBitBlockAccessSize()
{
    return 0;
}
QObject *DriverHushCNC::getThisObject()
{
    return this;
}
bool DriverHushCNC::isSupportSessionCommand()
{
    return true;
}

DeviceSetting *DriverHushCNC::getDefaultSerialDeviceSetting()
{
    return new DeviceSetting(DEVICE_SERIAL, QStringLiteral("COM1"), 38400, 7, 2, 2);
}

DriverSetting *DriverHushCNC::getDefaultDriverSetting()
{
    return new DriverSetting(0, 0, 0, 0);
}

QString DriverHushCNC::getStringBasedDefaultDriverSetting()
{
    return QStringLiteral("RS232,38400,EVEN,7,2");
}

// ---- Error reporting -----------------------------------------------------------------------

bool DriverHushCNC::hasError()
{
    return m_hasError;
}
QString DriverHushCNC::getLastError()
{
    return m_lastError;
}

// A pending error outlives several requests: only every 52nd call drops it.
void DriverHushCNC::clearError()
{
    if (m_clearErrorCountdown >= 0) {
        --m_clearErrorCountdown;
        return;
    }
    m_clearErrorCountdown = CLEAR_ERROR_COUNTDOWN;
    m_hasError = false;
}

void DriverHushCNC::raiseError(const QString &message)
{
    m_lastError = message;
    m_hasError = true;
}

void DriverHushCNC::setWriteByteError()
{
    raiseError(QStringLiteral("Not support the byte write command."));
}
void DriverHushCNC::setWriteWordError()
{
    raiseError(QStringLiteral("Not support the word write command."));
}
void DriverHushCNC::setAddressError(QString address)
{
    raiseError(QStringLiteral("Get address (%1) error.").arg(address));
}
void DriverHushCNC::setOutOfRangeError(int range)
{
    raiseError(QStringLiteral("Out of range. (%1)").arg(range));
}
void DriverHushCNC::setReadTimeOutError()
{
    raiseError(QStringLiteral("Read Time Out"));
}
void DriverHushCNC::setReadError()
{
    raiseError(QStringLiteral("Read command error. "));
}
void DriverHushCNC::setWriteDWordError()
{
    raiseError(QStringLiteral("Write Double Word Fail. "));
}
void DriverHushCNC::setWriteASCOIError()
{
    raiseError(QStringLiteral("Not support for writing ASCOI address. "));
}
void DriverHushCNC::setWriteBitError()
{
    raiseError(QStringLiteral("Write Bit Fail. "));
}

void DriverHushCNC::setReadCommandNotSupportError(CommunicatorCommand::DataType type)
{
    raiseError(QStringLiteral("Not support the read command for %1.").arg(typeName(type)));
}

// ---- Working operations (configuration-only answers until the worker is wired) -------------

QByteArray DriverHushCNC::read(AbstractDeviceInterface *, CommunicatorCommand const &)
{
    return QByteArray();
}

bool DriverHushCNC::write(AbstractDeviceInterface *, CommunicatorCommand const &,
                          QByteArray const &)
{
    return false;
}

void DriverHushCNC::setSessionCommand(QList<CommunicatorCommand>) { }
void DriverHushCNC::clearSessionCommand() { }
void DriverHushCNC::updateDWordByteArray(QByteArray) { }
void DriverHushCNC::initGCodeController(AbstractDeviceInterface *) { }
QByteArray DriverHushCNC::extractZeroDataFromDWordByteArray(CommunicatorCommand::DataType, int)
{
    return QByteArray();
}
QByteArray DriverHushCNC::extractDataFromDWordByteArray(CommunicatorCommand::DataType,
                                                        const QString &, const QByteArray &, int)
{
    return QByteArray();
}
QStringList DriverHushCNC::addr2DWAddrList(const CommunicatorCommand &)
{
    return QStringList();
}
void DriverHushCNC::sendStopSendCommand(AbstractDeviceInterface *) { }
QByteArray DriverHushCNC::extractDataFromRespBuf(const QString &, const int &)
{
    return QByteArray();
}
bool DriverHushCNC::writeDWord(AbstractDeviceInterface *, const CommunicatorCommand &,
                               const QByteArray &)
{
    return false;
}
QByteArray DriverHushCNC::readBlock(const CommunicatorCommand &)
{
    return QByteArray();
}
QByteArray DriverHushCNC::readBit(const CommunicatorCommand &)
{
    return QByteArray();
}
void DriverHushCNC::stopLoopReadForGCode() { }
void DriverHushCNC::startLoopReadForGCode() { }
void DriverHushCNC::testCase(AbstractDeviceInterface *) { }
void DriverHushCNC::sendTxBufForReadForTest(const QByteArray &, AbstractDeviceInterface *) { }
QByteArray DriverHushCNC::packReadBytesCmdForTest(QStringList)
{
    return QByteArray();
}

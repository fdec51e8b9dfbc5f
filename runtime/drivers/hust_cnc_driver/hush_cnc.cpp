#include "hush_cnc.h"

#include "abstractdeviceinterface.h"
#include "driverhushcncreaderthread.h"
#include "drv_dev_setting.h"
#include "hustframes.h"
#include "hustgcodecontroller.h"
#include "hustlog.h"
#include "serializedport.h"
#include "tools.h"

#include <QCoreApplication>
#include <QElapsedTimer>
#include <QMutexLocker>
#include <QThread>
#include <QVariant>

#include <algorithm>
#include <climits>
#include <limits>

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

// Application property that is true while the application shuts down.
const char EXIT_PROPERTY[] = "isExit";

// Address prefixes whose numbers count bits of the I/O double words (d10800 and up).
const char *const ASCOI_PREFIXES[] = {"A", "S", "C", "O", "I"};

// Prefixes that name no double words of the controller's memory.
const char *const NON_MEMORY_PREFIXES[]
    = {"GB",         "GR", "PROTOCOL_STATUS", "IOStatusBit", "BurningCodeBit", "ReadCurrentCode",
       "ReadAllCode"};

const char *const GCODE_KEYS[] = {"ReadAllCode0", "ReadCurrentCode0", "BurningCodeBit0",
                                  "Code2CtrlCmd", "PROTOCOL_STATUS0", "ReadCode"};

const char WRITE_BIT_DIRECT_DISABLE_KEY[] = "WriteBitDirectDisable0";

// Block reads of this address write a trace line when they bring anything but zero.
const char TRACED_ADDRESS[] = "C160";

// The wait of a block read for a usable cache: passes of checks, 10 ms apart, 20 ms between
// passes, about 1.2 s in all.
const int WAIT_PASSES = 5;
const int CHECKS_PER_PASS = 22;
const int CHECK_PAUSE_MS = 10;
const int PASS_PAUSE_MS = 20;

// How long the destructor lets the worker's thread finish its slot before forcing it down.
const unsigned long WORKER_STOP_WAIT_MS = 10000;

QString prefixOf(const QString &address)
{
    return QString::fromLatin1(ExtractPrefixSymbol(address).constData());
}

bool isAscoiPrefix(const QString &prefix)
{
    for (const char *p : ASCOI_PREFIXES) {
        if (prefix == QLatin1String(p))
            return true;
    }
    return false;
}

// The address up to its first point: the double word of a register bit such as B10800.3.
QString baseAddress(const QString &address)
{
    const int point = address.indexOf(QLatin1Char('.'));
    return point < 0 ? address : address.left(point);
}

bool containsAll(const QStringList &sortedList, const QStringList &names)
{
    for (const QString &name : names) {
        if (!std::binary_search(sortedList.cbegin(), sortedList.cend(), name))
            return false;
    }
    return true;
}

int sortedIndexOf(const QStringList &sortedList, const QString &name)
{
    const auto it = std::lower_bound(sortedList.cbegin(), sortedList.cend(), name);
    if (it == sortedList.cend() || *it != name)
        return -1;
    return int(it - sortedList.cbegin());
}

// The names of both lists, each once, sorted as text.
QStringList mergedNames(const QStringList &a, const QStringList &b)
{
    QStringList merged = a + b;
    std::sort(merged.begin(), merged.end());
    merged.erase(std::unique(merged.begin(), merged.end()), merged.end());
    return merged;
}

bool anyExactMatch(const QStringList &names, QRegExp &regExp)
{
    for (const QString &name : names) {
        if (regExp.exactMatch(name))
            return true;
    }
    return false;
}

bool applicationIsExiting()
{
    const QCoreApplication *app = QCoreApplication::instance();
    return app && app->property(EXIT_PROPERTY).toBool();
}

void pauseMs(int ms)
{
    if (ms > 0)
        QThread::msleep(static_cast<unsigned long>(ms));
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
    , m_linkPort(nullptr)
    , m_sessionHolder(nullptr)
    , m_addrListGeneration(0)
    , m_workerListGeneration(0)
    , m_freshModeGeneration(-1)
    , m_freshMode(0)
    , m_testCaseCancelled(false)
    , m_deliveredBlocks(0)
    , m_bitWritesHandedOver(0)
{
    const QCoreApplication *app = QCoreApplication::instance();
    if (!app || !app->property(RUNTIME_ENV_PROPERTY).isValid())
        return; // configuration-only: identity and default settings, no worker

    qRegisterMetaType<quintptr>("quintptr");

    m_readerWriter = new DriverHushCNCReaderWriter();
    m_workerThread = new QThread();
    m_readerWriter->moveToThread(m_workerThread);

    connect(this, SIGNAL(getAddrValRightaway(QStringList, quintptr)), m_readerWriter,
            SLOT(getAddrValRightaway(QStringList, quintptr)), Qt::BlockingQueuedConnection);
    connect(this, SIGNAL(startLoopRead(QStringList)), m_readerWriter,
            SLOT(startLoopRead(QStringList)));
    connect(this, SIGNAL(showOverflowMsg(int)), m_readerWriter, SLOT(showOverflowMsg(int)));
    connect(m_readerWriter, SIGNAL(setReadLoopTimeoutError()), this, SLOT(setReadTimeOutError()));
    connect(this, SIGNAL(writeBit(QString, bool)), m_readerWriter, SLOT(writeBit(QString, bool)));
    connect(this, SIGNAL(writeDWord(QString, int, QByteArray)), m_readerWriter,
            SLOT(writeDWord(QString, int, QByteArray)));
    connect(m_readerWriter, SIGNAL(setWriteBitError()), this, SLOT(setWriteBitError()));
    connect(m_readerWriter, SIGNAL(setWriteDWordError()), this, SLOT(setWriteDWordError()));
    connect(this, SIGNAL(loopRead()), m_readerWriter, SLOT(loopRead()));
}

// The worker runs slots in its thread that may still use the port and call back into the
// cache, so the thread is brought to an end before anything it uses goes away: loop reading is
// stopped (a cycle under way ends at its next pass, later cycles do not start), the event loop
// is asked to quit after the running slot, and only a thread that does not finish in time is
// terminated. The worker and the G-code object are deleted once their thread has finished.
DriverHushCNC::~DriverHushCNC()
{
    if (m_readerWriter)
        m_readerWriter->m_isStopLoopRead = true;
    if (m_workerThread) {
        m_workerThread->quit();
        if (!m_workerThread->wait(WORKER_STOP_WAIT_MS)) {
            qCDebug(lcHustDriver) << "worker thread did not finish; terminating it";
            m_workerThread->terminate();
            m_workerThread->wait(WORKER_STOP_WAIT_MS);
        }
    }
    delete m_readerWriter;
    delete m_workerThread;
    delete m_gcodeController;
    delete m_linkPort;
    if (m_sessionHolder.load())
        m_sessionMutex.unlock();
}

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
    QMutexLocker lock(&m_errorMutex);
    return m_hasError;
}
QString DriverHushCNC::getLastError()
{
    QMutexLocker lock(&m_errorMutex);
    return m_lastError;
}

// A pending error outlives several requests: only every 52nd call drops it.
void DriverHushCNC::clearError()
{
    QMutexLocker lock(&m_errorMutex);
    if (m_clearErrorCountdown >= 0) {
        --m_clearErrorCountdown;
        return;
    }
    m_clearErrorCountdown = CLEAR_ERROR_COUNTDOWN;
    m_hasError = false;
}

void DriverHushCNC::raiseError(const QString &message)
{
    QMutexLocker lock(&m_errorMutex);
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

// ---- Worker start and the session gate -----------------------------------------------------

// The worker keeps the port of the first read or write for good. It and the G-code object see
// the port through one serialising wrapper, so that the stop frame and drain sent from the
// run-time's thread never interleave with a read cycle in the worker's thread.
void DriverHushCNC::startWorker(AbstractDeviceInterface *interface)
{
    if (m_isWorkerStarted)
        return;
    QMutexLocker lock(&m_workerStartMutex);
    if (m_isWorkerStarted)
        return;
    m_linkPort = new SerializedPort(interface);
    m_readerWriter->setDriverInterface(this);
    m_readerWriter->setReadInterface(m_linkPort);
    for (const char *key : GCODE_KEYS)
        m_gcodeKeyList.append(QLatin1String(key));
    m_isWorkerStarted = true;
    m_workerThread->start(QThread::InheritPriority);
}

bool DriverHushCNC::holdsSessionGate() const
{
    return m_sessionHolder.load() == QThread::currentThreadId();
}

void DriverHushCNC::openSessionGate()
{
    if (m_sessionHolder.exchange(nullptr))
        m_sessionMutex.unlock();
}

void DriverHushCNC::storeAddrList(const QStringList &list)
{
    QMutexLocker lock(&m_addrListMutex);
    m_currentAddrList = list;
    ++m_addrListGeneration;
}

// ---- Read and write dispatch ---------------------------------------------------------------

QByteArray DriverHushCNC::read(AbstractDeviceInterface *interface, CommunicatorCommand const &cmd)
{
    if (m_isLoopReadStoppedForGCode)
        return QByteArray();
    if (!m_readerWriter || !interface)
        return QByteArray(); // configuration-only driver, or no port to read through
    startWorker(interface);

    if (m_gcodeKeyList.contains(cmd.address)) {
        initGCodeController(interface);
        QByteArray result;
        m_gcodeController->processReadCommand(cmd, result);
        return result;
    }

    clearError();
    QByteArray result;
    for (int attempt = 0;; ++attempt) {
        pauseMs(interface->getDelay());
        clearError();
        if (cmd.length == 1) {
            switch (cmd.dataType) {
            case CommunicatorCommand::BitType:
                result = readBit(cmd);
                break;
            case CommunicatorCommand::WordType:
            case CommunicatorCommand::DWordType:
                result = readBlock(cmd);
                break;
            default:
                setReadCommandNotSupportError(cmd.dataType);
                return QByteArray();
            }
        } else {
            result = readBlock(cmd);
        }
        if (!hasError() || attempt >= interface->getRetry())
            return result;
    }
}

bool DriverHushCNC::write(AbstractDeviceInterface *interface, CommunicatorCommand const &cmd,
                          QByteArray const &data)
{
    if (!m_readerWriter || !interface)
        return false; // configuration-only driver, or no port to write through
    startWorker(interface);

    if (m_gcodeKeyList.contains(cmd.address)) {
        initGCodeController(interface);
        m_gcodeController->processWriteCommand(cmd, data);
        return true;
    }

    clearError();
    pauseMs(interface->getDelay());
    switch (cmd.dataType) {
    case CommunicatorCommand::BitType:
        return writeBitPath(cmd, data);
    case CommunicatorCommand::BlockType:
        return writeBlockPath(interface, cmd, data);
    default:
        return writeDWord(interface, cmd, data);
    }
}

// Reads of the thread that holds the gate (between its clearSessionCommand() and
// setSessionCommand()) answer nothing at once; reads of other threads wait at the gate.
void DriverHushCNC::clearSessionCommand()
{
    if (!holdsSessionGate()) {
        m_sessionMutex.lock();
        m_sessionHolder = QThread::currentThreadId();
    }
    // Loop reading stops before the cache is emptied, so that a cycle still under way cannot
    // refill it with the old list's values (see updateDWordByteArray).
    if (m_readerWriter)
        m_readerWriter->stopLoopRead();
    storeAddrList(QStringList());
    {
        QMutexLocker lock(&m_blockDataMutex);
        m_currentBlockData.clear();
    }
    isStartLoopRead = false;
    if (applicationIsExiting())
        openSessionGate();
}

void DriverHushCNC::setSessionCommand(QList<CommunicatorCommand> commands)
{
    int listSize = 0;
    {
        QMutexLocker lock(&m_addrListMutex);
        listSize = m_currentAddrList.size();
    }
    if (listSize != 0 && !m_sessionHolder.load()) {
        m_sessionMutex.lock();
        m_sessionHolder = QThread::currentThreadId();
        if (m_readerWriter)
            m_readerWriter->stopLoopRead();
        {
            QMutexLocker lock(&m_blockDataMutex);
            m_currentBlockData.clear();
        }
        isStartLoopRead = false;
    }

    QStringList names;
    for (const CommunicatorCommand &command : commands)
        names += addr2DWAddrList(command);
    {
        QMutexLocker lock(&m_addrListMutex);
        m_currentAddrList = mergedNames(m_currentAddrList, names);
        ++m_addrListGeneration;
    }
    openSessionGate();
}

// ---- G-code keys ---------------------------------------------------------------------------

// The G-code object talks through the port of the call that creates it. When that is the
// worker's port it goes through the same serialising wrapper, so that its exchanges never
// interleave with the stop frames and drains sent from the run-time's thread. Made under the
// lock of the worker's start, as the run-time may call from more than one thread.
void DriverHushCNC::initGCodeController(AbstractDeviceInterface *interface)
{
    QMutexLocker lock(&m_workerStartMutex);
    if (m_gcodeController)
        return;
    m_gcodeController = new HustGCodeprotocol();
    m_gcodeController->setReadInterface(
        m_linkPort && m_linkPort->wrappedPort() == interface ? m_linkPort : interface);
    if (m_workerThread)
        m_gcodeController->moveToThread(m_workerThread);
    connect(m_gcodeController, SIGNAL(stopLoopReadSignal()), this, SLOT(stopLoopReadForGCode()));
    connect(m_gcodeController, SIGNAL(startLoopReadSignal()), this, SLOT(startLoopReadForGCode()));
}

void DriverHushCNC::stopLoopReadForGCode()
{
    m_isLoopReadStoppedForGCode = true;
    if (m_readerWriter)
        m_readerWriter->stopLoopRead();
    isStartLoopRead = false;
}

void DriverHushCNC::startLoopReadForGCode()
{
    m_isLoopReadStoppedForGCode = false;
}

// ---- Address translation -------------------------------------------------------------------

QStringList DriverHushCNC::addr2DWAddrList(const CommunicatorCommand &cmd)
{
    const QString prefix = prefixOf(cmd.address);
    for (const char *special : NON_MEMORY_PREFIXES) {
        if (prefix == QLatin1String(special))
            return QStringList();
    }
    // The run-time's lengths are unsigned; one that does not fit an int (a negative length
    // handed in as unsigned) translates to nothing, as does a length that could not name
    // five-digit double words anyway.
    if (cmd.length > quint32(2 * HustFrames::MaxDWordNumber + 4))
        return QStringList();

    int number = ExtractPLCDeviceAddress(cmd.address, 10);
    int count = int(cmd.length);
    if (cmd.dataType == CommunicatorCommand::WordType && isAscoiPrefix(prefix) && number % 32 >= 16)
        count += 2;
    DriverHushCNCReaderWriter::reCalculateAddrAndLengthForWordType(prefix, number, count);
    if (count <= 0 || number < 0 || number > HustFrames::MaxDWordNumber - (count - 1))
        return QStringList();

    QStringList names;
    names.reserve(count);
    for (int i = 0; i < count; ++i)
        names.append(QString::asprintf("d%05d", number + i));
    return names;
}

// ---- The double-word cache -----------------------------------------------------------------

// Takes a block as the whole cache, without regard to bits written meanwhile.
void DriverHushCNC::updateDWordByteArray(QByteArray DWordByteArray)
{
    takeBlock(DWordByteArray, std::numeric_limits<quint64>::max());
}

// Called by the worker from its thread with each block it has read. A block is kept only while
// loop reading runs for the present list: a cycle that was under way when a screen change
// stopped the loop, or one that still reads an earlier list, would otherwise put values of other
// addresses into a cache of the same size.
//
// A bit write sets its bit in the cache at once. A block read before the controller took the
// write would set it back for a refresh, so the written bit is kept in every block taken until
// one that shows the write arrives: bitWritesSeen counts the bit writes handed to the worker
// that the block is known to follow. This departs from the plain replacement of the cache by each
// block; a controller that refuses a write still has its value shown from that block on.
void DriverHushCNC::takeBlock(const QByteArray &block, quint64 bitWritesSeen)
{
    QMutexLocker lock(&m_blockDataMutex);
    if (m_readerWriter
        && (m_readerWriter->m_isStopLoopRead || m_workerListGeneration != m_addrListGeneration)) {
        qCDebug(lcHustDriver) << "block of an earlier address list dropped";
        return;
    }
    const int generation = m_addrListGeneration;
    m_heldBits.erase(std::remove_if(m_heldBits.begin(), m_heldBits.end(),
                                    [&](const HeldBit &held) {
                                        return held.serial <= bitWritesSeen
                                            || held.generation != generation;
                                    }),
                     m_heldBits.end());
    m_currentBlockData = block;
    for (const HeldBit &held : qAsConst(m_heldBits)) {
        if (held.position / 8 < m_currentBlockData.size())
            setBit(m_currentBlockData, held.position, held.value);
    }
    m_isBlockDataUpdated = true;
    ++m_deliveredBlocks;
}

quint64 DriverHushCNC::deliveredBlocks() const
{
    return m_deliveredBlocks;
}

// ---- Block and bit reads -------------------------------------------------------------------

// A screen reads the same commands over and over; each is translated once. The translation
// records where the command's first double word stands in the loop list of one generation of
// the list, so that a read from a warm cache parses and formats nothing.
DriverHushCNC::Translation &DriverHushCNC::translation(const CommunicatorCommand &cmd, bool bitRead)
{
    const TranslationKey key {cmd.address, cmd.dataType, cmd.length, bitRead};
    auto it = m_translations.find(key);
    if (it != m_translations.end())
        return *it;
    // A run-time that makes up new commands without end cannot grow the table without end.
    if (m_translations.size() >= MaxTranslations)
        m_translations.clear();
    Translation t;
    if (bitRead) {
        // A bit is read through its double word: the base address as one double-word read.
        CommunicatorCommand dwordCmd(cmd);
        dwordCmd.address = baseAddress(cmd.address);
        dwordCmd.dataType = CommunicatorCommand::DWordType;
        t.names = addr2DWAddrList(dwordCmd);
        t.dataType = CommunicatorCommand::DWordType;
        t.bit = DriverHushCNCReaderWriter::getBitLoc(dwordCmd.address);
        t.readBit = DriverHushCNCReaderWriter::getBitLoc(cmd.address);
        t.traced = dwordCmd.address == QLatin1String(TRACED_ADDRESS);
    } else {
        t.names = addr2DWAddrList(cmd);
        t.dataType = cmd.dataType;
        t.bit = DriverHushCNCReaderWriter::getBitLoc(cmd.address);
        t.traced = cmd.address == QLatin1String(TRACED_ADDRESS);
    }
    t.fresh1200 = anyExactMatch(t.names, m_d1200RegExp);
    t.fresh1202 = anyExactMatch(t.names, m_d1202RegExp);
    return *m_translations.insert(key, t);
}

QByteArray DriverHushCNC::readBlock(const CommunicatorCommand &cmd)
{
    if (holdsSessionGate())
        return QByteArray();
    QMutexLocker gate(&m_sessionMutex);
    return readDWords(cmd, translation(cmd, false));
}

// The steps of a block read, under the session gate. The list and its generation are taken
// together once; copying the list only shares it.
QByteArray DriverHushCNC::readDWords(const CommunicatorCommand &cmd, Translation &t)
{
    int generation;
    QStringList list;
    {
        QMutexLocker lock(&m_addrListMutex);
        generation = m_addrListGeneration;
        list = m_currentAddrList;
    }
    const int listSize = list.size();
    if (t.listGeneration != generation) {
        t.listGeneration = generation;
        t.index = !containsAll(list, t.names) ? NamesMissing
            : t.names.isEmpty()               ? NoNames
                                              : sortedIndexOf(list, t.names.first());
        if (m_freshModeGeneration != generation) {
            m_freshModeGeneration = generation;
            m_freshMode = anyExactMatch(list, m_d1200RegExp) ? 1
                : anyExactMatch(list, m_d1202RegExp)         ? 2
                                                             : 0;
        }
    }
    if (t.index == NamesMissing) {
        const QStringList merged = mergedNames(list, t.names);
        if (merged.size() > MaxLoopNames) {
            emit showOverflowMsg(merged.size());
            return QByteArray();
        }
        isStartLoopRead = false;
        storeAddrList(merged);
        m_readsSinceTrigger = 0;
        m_loopTriggerIndex = 0;
        return QByteArray();
    }
    if (listSize > MaxLoopNames) {
        emit showOverflowMsg(listSize);
        return QByteArray();
    }
    if (!isStartLoopRead) {
        m_readsSinceTrigger = 0;
        m_loopTriggerIndex = 0;
        isStartLoopRead = true;
        // Tell the worker's thread, ahead of the start, which list its blocks will belong to.
        if (m_readerWriter) {
            QMetaObject::invokeMethod(
                m_readerWriter, [this, generation] { m_workerListGeneration = generation; },
                Qt::QueuedConnection);
        } else {
            m_workerListGeneration = generation;
        }
        emit startLoopRead(list);
        return QByteArray();
    }

    const int mode = m_freshMode;
    const bool freshRead = (mode == 1 && t.fresh1200) || (mode == 2 && t.fresh1202);
    if (t.index < 0)
        return QByteArray();

    const auto workerIsReading
        = [this] { return m_readerWriter && m_readerWriter->m_isLoopReading; };
    QByteArray block;
    bool ready = false;
    for (int pass = 0; pass < WAIT_PASSES && !ready; ++pass) {
        for (int check = 0; check < CHECKS_PER_PASS; ++check) {
            {
                QMutexLocker lock(&m_blockDataMutex);
                block = m_currentBlockData;
            }
            if (block.size() <= 0 || block.size() / 4 != listSize) {
                if (!isStartLoopRead) {
                    qCDebug(lcHustDriver)
                        << " m_currentBlockData'dataLength is 0 and  isStartLoopRead==false ";
                    return QByteArray();
                }
            } else if (!freshRead || m_isBlockDataUpdated) {
                ready = true;
                break;
            }
            QThread::msleep(CHECK_PAUSE_MS);
        }
        if (!ready) {
            if (!workerIsReading())
                emit loopRead();
            QThread::msleep(PASS_PAUSE_MS);
        }
    }
    if (!ready) {
        setReadTimeOutError();
        qCDebug(lcHustDriver) << " m_currentBlockData'dataLength is 0 and try time is over ";
        return QByteArray();
    }

    const QByteArray result
        = cutData(t.dataType, t.bit, block, 4 * t.index, 4 * int(t.names.size()), int(cmd.length));
    if (t.traced && lcHustDriver().isDebugEnabled()) {
        const QByteArray hex = result.toHex();
        if (hex != "00000000")
            qCDebug(lcHustDriver) << "3 page: error B10800:  " << hex;
    }

    if (mode != 0) {
        if (freshRead) {
            m_isBlockDataUpdated = false;
            if (!workerIsReading())
                emit loopRead();
        }
    } else if (t.index == m_loopTriggerIndex) {
        if (!workerIsReading())
            emit loopRead();
        m_readsSinceTrigger = 0;
    } else {
        const int reads = m_readsSinceTrigger++;
        if (reads > 3 * listSize) {
            m_loopTriggerIndex = m_loopTriggerIndex < listSize ? m_loopTriggerIndex + 1 : 0;
            m_readsSinceTrigger = 0;
        }
    }
    return result;
}

// A command's data out of the size bytes of double words at from in block: one byte for a bit
// of the first double word (0 beyond it), words from the half the bit position names, or the
// double words themselves.
QByteArray DriverHushCNC::cutData(CommunicatorCommand::DataType dataType, int bit,
                                  const QByteArray &block, int from, int size, int length)
{
    size = qBound(0, size, qMax(0, int(block.size()) - from));
    switch (dataType) {
    case CommunicatorCommand::BitType: {
        const bool set = bit >= 0 && bit < 32 && bit < 8 * size
            && (quint8(block.at(from + bit / 8)) >> (bit % 8) & 1) != 0;
        return QByteArray(1, set ? 1 : 0);
    }
    case CommunicatorCommand::WordType: {
        if (length < 1)
            return QByteArray();
        const int half = bit < 16 ? 0 : 2;
        return block.mid(from + half, qBound(0, size - half, 2 * length));
    }
    default:
        return block.mid(from, size);
    }
}

QByteArray DriverHushCNC::extractDataFromDWordByteArray(CommunicatorCommand::DataType dataType,
                                                        const QString &address,
                                                        const QByteArray &dWordByteArray,
                                                        int length)
{
    return cutData(dataType, DriverHushCNCReaderWriter::getBitLoc(address), dWordByteArray, 0,
                   dWordByteArray.size(), length);
}

QByteArray DriverHushCNC::extractZeroDataFromDWordByteArray(CommunicatorCommand::DataType dataType,
                                                            int length)
{
    const int unit = dataType == CommunicatorCommand::BitType ? 1
        : dataType == CommunicatorCommand::WordType           ? 2
                                                              : 4;
    if (length < 1 || length > INT_MAX / unit)
        return QByteArray();
    return QByteArray(unit * length, '\0');
}

// A register bit such as B10.40 lies beyond the double word that a one-item read returns; it is
// refused as an address error with an empty result rather than read from outside the data. A
// negative bit position (B10.-1) names no bit and reads as 0.
QByteArray DriverHushCNC::readBit(const CommunicatorCommand &cmd)
{
    if (cmd.address == QLatin1String(WRITE_BIT_DIRECT_DISABLE_KEY))
        return QByteArray(1, m_isWriteBitDirectDisable ? 1 : 0);
    if (holdsSessionGate())
        return QByteArray();
    QByteArray data;
    int bit;
    {
        QMutexLocker gate(&m_sessionMutex);
        Translation &t = translation(cmd, true);
        bit = t.readBit;
        data = readDWords(cmd, t);
    }
    if (data.isEmpty())
        return QByteArray();
    if (bit >= 8 * data.size()) {
        setAddressError(cmd.address);
        return QByteArray();
    }
    return QByteArray(1, getBit(data, bit) ? 1 : 0);
}

// ---- Writes --------------------------------------------------------------------------------

bool DriverHushCNC::writeDWord(AbstractDeviceInterface *, const CommunicatorCommand &cmd,
                               const QByteArray &data)
{
    switch (cmd.dataType) {
    case CommunicatorCommand::WordType:
        setWriteWordError();
        return false;
    case CommunicatorCommand::ByteType:
        setWriteByteError();
        return false;
    case CommunicatorCommand::DWordType:
        break;
    default:
        return false;
    }
    if (qint64(data.size()) != 4 * qint64(cmd.length)) {
        setWriteDWordError();
        return false;
    }
    if (isAscoiPrefix(prefixOf(cmd.address))) {
        setWriteASCOIError();
        return false;
    }
    emit writeDWord(cmd.address, int(cmd.length), data);
    return true;
}

bool DriverHushCNC::writeBlockPath(AbstractDeviceInterface *interface,
                                   const CommunicatorCommand &cmd, const QByteArray &data)
{
    CommunicatorCommand dwordCmd(cmd);
    dwordCmd.dataType = CommunicatorCommand::DWordType;
    dwordCmd.length = cmd.length / 4;
    QByteArray padded(data);
    if (cmd.length % 4 != 0) {
        dwordCmd.length += 1;
        padded.append(QByteArray(int(4 - cmd.length % 4), '\0'));
    }
    return writeDWord(interface, dwordCmd, padded);
}

// The written bit is also set in the cache at once, so that reads show it before the next block
// arrives, and held there until a block shows the write (see takeBlock()). Bit b of the double
// word at position i of the list is bit b + 32 i of the cache, also for b of 32 and up, which
// reach into the double words that follow.
bool DriverHushCNC::writeBitPath(const CommunicatorCommand &cmd, const QByteArray &data)
{
    const bool value = getBitData(data);
    const QString prefix = prefixOf(cmd.address);
    if (prefix == QLatin1String("B")) {
        emit writeBit(cmd.address, value);
        const quint64 serial = ++m_bitWritesHandedOver;
        if (m_isWriteBitDirectDisable)
            return true;
        int cacheSize = 0;
        {
            QMutexLocker lock(&m_blockDataMutex);
            cacheSize = m_currentBlockData.size();
        }
        QStringList list;
        int generation;
        {
            QMutexLocker lock(&m_addrListMutex);
            list = m_currentAddrList;
            generation = m_addrListGeneration;
        }
        if (cacheSize <= 0 || list.isEmpty())
            return true;
        const int bit = DriverHushCNCReaderWriter::getBitLoc(cmd.address);
        CommunicatorCommand dwordCmd(cmd);
        dwordCmd.address = baseAddress(cmd.address);
        dwordCmd.dataType = CommunicatorCommand::DWordType;
        const QStringList names = addr2DWAddrList(dwordCmd);
        if (names.isEmpty() || bit < 0)
            return true;
        const int index = list.indexOf(names.first());
        if (index < 0 || bit > INT_MAX - 32 * index)
            return true;
        const int position = bit + 32 * index;
        QMutexLocker lock(&m_blockDataMutex);
        if (position / 8 < m_currentBlockData.size()) {
            setBit(m_currentBlockData, position, value);
            if (m_heldBits.size() >= MaxHeldBits)
                m_heldBits.removeFirst();
            m_heldBits.append({serial, generation, position, value});
        }
        return true;
    }
    if (prefix == QLatin1String("WriteBitDirectDisable")) {
        m_isWriteBitDirectDisable = value;
        return true;
    }
    setWriteASCOIError();
    return false;
}

// ---- Diagnostic entry points ---------------------------------------------------------------

// Unlike the worker's requests, this one is built for lists of any length: its count is written
// with as many digits as it needs.
QByteArray DriverHushCNC::packReadBytesCmdForTest(QStringList addrList)
{
    return HustFrames::readRequestOfAnyLength(addrList);
}

void DriverHushCNC::sendTxBufForReadForTest(const QByteArray &tx_buf,
                                            AbstractDeviceInterface *interface)
{
    if (!interface)
        return;
    interface->setOption(AbstractDeviceInterface::DiscardReceivedOption, 0);
    HustFrames::writeInPieces(interface, tx_buf);
}

void DriverHushCNC::sendStopSendCommand(AbstractDeviceInterface *interface)
{
    if (!interface)
        return;
    if (m_stopSendCmdLength == 0) {
        m_stopSendCmd = HustFrames::stopFrame();
        m_stopSendCmdLength = m_stopSendCmd.size();
    }
    interface->writeData(m_stopSendCmd.constData(), m_stopSendCmdLength);
    interface->setOption(AbstractDeviceInterface::DiscardReceivedOption, 0);
}

// Records are a letter, eight value characters and CR: each value is read from the eight
// characters after a record's letter as a hexadecimal number, shorter texts at the end of data
// included; records missing from the text decode as 0. A length no text could hold is refused.
QByteArray DriverHushCNC::extractDataFromRespBuf(const QString &data, const int &data_length)
{
    if (data_length < 1 || data_length > MaxDiagnosticRecords)
        return QByteArray();
    const QByteArray text = data.toLatin1();
    QByteArray block(4 * data_length, '\0');
    for (int i = 0; i < data_length && 1 + 10 * i < text.size(); ++i) {
        const int at = 1 + 10 * i;
        const quint32 dword
            = HustFrames::hexValue(text.constData() + at, qMin(8, int(text.size()) - at));
        for (int byte = 0; byte < 4; ++byte)
            block[4 * i + byte] = char((dword >> (8 * byte)) & 0xFF);
    }
    return block;
}

void DriverHushCNC::testCase(AbstractDeviceInterface *interface, int maxReads)
{
    if (!interface)
        return;
    // A cancel ends the call under way, or the next one when it comes first; the call that ends
    // on it takes it back.
    if (!m_testCaseCancelled.exchange(false)) {
        QStringList names;
        for (int i = 10; i <= 24; ++i)
            names.append(QStringLiteral("d000%1").arg(i));
        sendTxBufForReadForTest(packReadBytesCmdForTest(names), interface);

        QElapsedTimer timer;
        timer.start();
        char buffer[256];
        for (int reads = 0; reads < maxReads && !m_testCaseCancelled; ++reads) {
            std::fill(std::begin(buffer), std::end(buffer), '\0');
            interface->readData(buffer, 255);
            qCDebug(lcHustDriver) << timer.restart();
        }
    }
    m_testCaseCancelled = false;
}

void DriverHushCNC::cancelTestCase()
{
    m_testCaseCancelled = true;
}

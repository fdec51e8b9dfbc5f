// hustctl's command line of any arguments: a refusal is one non-empty line as printed, and an
// accepted command names only what the controller has. Every target's read requests translate,
// by the driver's own rules, to exactly the double words the target says it touches, and a write
// packs as many bytes as the driver takes for its request.
#include "drivertestaccess.h"
#include "options.h"

#include <QSet>

#include <cstdlib>

namespace {

void check(bool condition)
{
    if (!condition)
        std::abort();
}

// The double words the driver reads for a request: a one-bit read reads its whole double word.
QSet<int> driverDoubleWords(DriverHushCNCTestAccess &driver, const CommunicatorCommand &request)
{
    CommunicatorCommand command(request);
    if (command.dataType == CommunicatorCommand::BitType && command.length == 1) {
        command.dataType = CommunicatorCommand::DWordType;
        command.address = command.address.section(QLatin1Char('.'), 0, 0);
    }
    QSet<int> indices;
    for (const QString &name : driver.addr2DWAddrList(command))
        indices.insert(name.mid(1).toInt());
    return indices;
}

void checkTargets(const CtlOptions &options)
{
    // Without zel_env the driver only translates; nothing is started.
    static DriverHushCNC driver;
    DriverHushCNCTestAccess access(driver);
    for (const Target &target : options.targets) {
        const QList<int> claimed = target.doubleWords();
        for (int index : claimed)
            check(index >= 0 && index <= kLastDoubleWord);
        const QList<DriverRequest> requests = target.readRequests();
        if (requests.size() > 256)
            continue;
        QSet<int> read;
        for (const DriverRequest &request : requests)
            read += driverDoubleWords(access, request.command);
        check(read == QSet<int>(claimed.cbegin(), claimed.cend()));
    }
    if (options.command == QLatin1String("write") && !options.targets.isEmpty()) {
        DriverRequest request;
        QString reason;
        check(options.targets.first().writeRequest(options.values, &request, &reason));
        if (request.command.dataType == CommunicatorCommand::DWordType)
            check(qint64(request.data.size()) == 4 * qint64(request.command.length));
        else
            check(request.data.size() == 1);
    }
}

} // namespace

// The arguments, separated by zero bytes as in argv.
extern "C" int LLVMFuzzerTestOneInput(const uint8_t *input, size_t size)
{
    if (size > 1024)
        return 0;
    QStringList args;
    for (const QByteArray &arg :
         QByteArray(reinterpret_cast<const char *>(input), int(size)).split('\0'))
        args << QString::fromLocal8Bit(arg);
    CtlOptions options;
    QString reason;
    if (!parseOptions(args, &options, &reason)) {
        check(!reason.isEmpty() && !cli::oneLine(reason).contains(QLatin1Char('\n')));
        return 0;
    }
    checkTargets(options);
    return 0;
}

#include "targetreader.h"

#include "driverhost.h"
#include "output.h"

#include <QElapsedTimer>
#include <QSet>

namespace {

// Adds one request's values; false when the driver's answer is too short for them.
bool takeValues(const DriverRequest &request, ValueType type, const QByteArray &data,
                QVector<quint32> *values, QString *error)
{
    const QVector<quint32> decoded = decodeValues(data, type);
    if (decoded.size() < request.values) {
        *error = QStringLiteral("%1: the driver answered %2 bytes for %3 %4 values")
                     .arg(request.command.address)
                     .arg(data.size())
                     .arg(request.values)
                     .arg(typeName(type));
        return false;
    }
    *values += decoded.mid(0, request.values);
    return true;
}

} // namespace

QList<CommunicatorCommand> sessionCommands(const QList<Target> &targets)
{
    QList<CommunicatorCommand> commands;
    for (const Target &target : targets) {
        for (const DriverRequest &request : target.readRequests())
            commands << request.command;
    }
    return commands;
}

int screenDoubleWords(const QList<Target> &targets)
{
    QSet<int> indices;
    for (const Target &target : targets) {
        for (int index : target.doubleWords())
            indices.insert(index);
    }
    return indices.size();
}

bool readTarget(DriverHost &host, const Target &target, int timeoutMs, QVector<quint32> *values,
                QString *error)
{
    QElapsedTimer clock;
    clock.start();
    values->clear();
    for (const DriverRequest &request : target.readRequests()) {
        const int left = int(qMax<qint64>(0, timeoutMs - clock.elapsed()));
        const DriverHost::ReadResult result = host.poll(request.command, left);
        // Say which bound ended the wait: the driver's attempts, or --timeout.
        if (result.outcome == DriverHost::ReadResult::Error) {
            *error = result.retriesCut
                ? QStringLiteral("%1: %2 (--timeout ended the driver's retries after %3 ms)")
                      .arg(request.command.address, result.error)
                      .arg(clock.elapsed())
                : QStringLiteral("%1: %2 (the driver gave up after %3 attempts, --retry %4)")
                      .arg(request.command.address, result.error)
                      .arg(qMax(0, host.retry()) + 1)
                      .arg(host.retry());
            return false;
        }
        if (result.outcome == DriverHost::ReadResult::TimedOut) {
            *error = QStringLiteral("%1: no data within %2 ms (--timeout)")
                         .arg(request.command.address)
                         .arg(timeoutMs);
            return false;
        }
        if (!takeValues(request, target.type(), result.data, values, error))
            return false;
    }
    return true;
}

bool readTargetNow(DriverHost &host, const Target &target, QVector<quint32> *values, QString *error)
{
    values->clear();
    error->clear();
    bool complete = true;
    for (const DriverRequest &request : target.readRequests()) {
        const DriverHost::ReadResult result = host.readOnce(request.command);
        if (!result.error.isEmpty())
            *error = result.error;
        QString shortAnswer;
        if (result.outcome != DriverHost::ReadResult::Data
            || !takeValues(request, target.type(), result.data, values, &shortAnswer))
            complete = false;
    }
    return complete;
}

#include "command.h"

#include "commandline.h"
#include "commands.h"
#include "output.h"

#include <QJsonObject>

std::unique_ptr<Command> Command::create(const QString &name)
{
    if (name == QLatin1String("info"))
        return std::make_unique<InfoCommand>();
    if (name == QLatin1String("ports"))
        return std::make_unique<PortsCommand>();
    if (name == QLatin1String("read"))
        return std::make_unique<ReadCommand>();
    if (name == QLatin1String("write"))
        return std::make_unique<WriteCommand>();
    if (name == QLatin1String("watch"))
        return std::make_unique<WatchCommand>();
    if (name == QLatin1String("demo"))
        return std::make_unique<DemoCommand>();
    if (name == QLatin1String("gcode"))
        return std::make_unique<GCodeCommand>();
    return nullptr;
}

namespace {

QTextStream *jsonErrors = nullptr;

int report(QTextStream &err, const QString &message, int status)
{
    if (jsonErrors) {
        *jsonErrors << jsonLine(QJsonObject {{QStringLiteral("error"), message}}) << '\n';
        jsonErrors->flush();
    } else {
        err << "hustctl: " << cli::oneLine(message) << '\n';
        err.flush();
    }
    return status;
}

} // namespace

void reportErrorsAsJson(QTextStream *out)
{
    jsonErrors = out;
}

int fail(QTextStream &err, const QString &message)
{
    return report(err, message, 1);
}

int usage(QTextStream &err, const QString &message)
{
    return report(err, message, 2);
}

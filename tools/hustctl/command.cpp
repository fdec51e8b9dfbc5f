#include "command.h"

#include "commands.h"

std::unique_ptr<Command> Command::create(const QString &name)
{
    if (name == QLatin1String("info"))
        return std::make_unique<InfoCommand>();
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

int fail(QTextStream &err, const QString &message)
{
    err << "hustctl: " << message << '\n';
    err.flush();
    return 1;
}

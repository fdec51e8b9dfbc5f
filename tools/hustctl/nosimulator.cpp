#include "builtinsimulator.h"

// Builds without the simulator library talk to serial devices only.
std::unique_ptr<BuiltInSimulator> BuiltInSimulator::start(const LinkOptions &, QString *error)
{
    *error = QStringLiteral("this build has no built-in controller simulator: give --port DEVICE");
    return nullptr;
}

double BuiltInSimulator::frameMs(const LinkOptions &, int)
{
    return 0.0;
}

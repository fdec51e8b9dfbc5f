#ifndef HUSTCTL_BUILTINSIMULATOR_H
#define HUSTCTL_BUILTINSIMULATOR_H

#include "options.h"

#include <QString>

#include <memory>

// The controller simulator that hustctl runs in-process when no serial device is given. It
// plays the controller on a pseudo-terminal, whose slave side hustctl opens like a serial device.
class BuiltInSimulator
{
public:
    virtual ~BuiltInSimulator() = default;

    // Starts a simulator with the options' seeds and pacing; null with a reason on failure.
    static std::unique_ptr<BuiltInSimulator> start(const LinkOptions &options, QString *error);

    virtual QString devicePath() const = 0;

    // How long the simulator takes to send one answer of doubleWords values at the options' line
    // settings: the line's limit for a screen of that size.
    static double frameMs(const LinkOptions &options, int doubleWords);
};

#endif // HUSTCTL_BUILTINSIMULATOR_H

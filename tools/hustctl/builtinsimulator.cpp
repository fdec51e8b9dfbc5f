#include "builtinsimulator.h"

#include "simulator.h"

namespace {

class PtySimulator : public BuiltInSimulator
{
public:
    explicit PtySimulator(const hustsim::SimulatorConfig &config)
        : m_simulator(config)
    { }

    hustsim::Simulator &simulator() { return m_simulator; }
    QString devicePath() const override { return m_simulator.devicePath(); }

private:
    hustsim::Simulator m_simulator;
};

hustsim::Parity simulatorParity(const QString &parity)
{
    if (parity == QLatin1String("odd"))
        return hustsim::Parity::Odd;
    if (parity == QLatin1String("even"))
        return hustsim::Parity::Even;
    return hustsim::Parity::None;
}

} // namespace

std::unique_ptr<BuiltInSimulator> BuiltInSimulator::start(const LinkOptions &options,
                                                          QString *error)
{
    // The simulator paces its answers like the line hustctl is told to use.
    hustsim::SimulatorConfig config;
    config.line.baud = options.baud;
    config.line.dataBits = options.dataBits;
    config.line.parity = simulatorParity(options.parity);
    config.line.stopBits = options.stopBits;
    config.paced = options.pace;

    auto sim = std::make_unique<PtySimulator>(config);
    for (const auto &seed : options.simRegisters)
        sim->simulator().setRegister(seed.first, seed.second);
    if (!sim->simulator().start()) {
        *error = QStringLiteral("built-in simulator: %1").arg(sim->simulator().errorString());
        return nullptr;
    }
    return sim;
}

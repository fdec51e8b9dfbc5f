#include "builtinsimulator.h"

#include "codec.h"
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

hustsim::LineSettings lineSettings(const LinkOptions &options)
{
    hustsim::LineSettings line;
    line.baud = options.baud;
    line.dataBits = options.dataBits;
    line.parity = simulatorParity(options.parity);
    line.stopBits = options.stopBits;
    return line;
}

// The controller's current program when no program directory is given, so that a program read
// has something to show on a fresh machine.
const char kSampleProgramName[] = "O0001";
const char kSampleProgram[] = "O0001\n"
                              "(SAMPLE: FACE A 40 MM SQUARE)\n"
                              "G21 G90 G17\n"
                              "T01 M06\n"
                              "S1200 M03\n"
                              "G00 X-22. Y-22. Z5.\n"
                              "G01 Z-0.5 F100\n"
                              "G01 X22. F300\n"
                              "G01 Y22.\n"
                              "G01 X-22.\n"
                              "G01 Y-22.\n"
                              "G00 Z5.\n"
                              "M05\n"
                              "M30\n";

} // namespace

std::unique_ptr<BuiltInSimulator> BuiltInSimulator::start(const LinkOptions &options,
                                                          QString *error)
{
    // The simulator paces its answers like the line hustctl is told to use.
    hustsim::SimulatorConfig config;
    config.line = lineSettings(options);
    config.paced = options.pace;
    config.clockRegister = options.simClock;

    auto sim = std::make_unique<PtySimulator>(config);
    for (const auto &seed : options.simRegisters)
        sim->simulator().setRegister(seed.first, seed.second);
    if (!options.simPrograms.isEmpty()) {
        QString reason;
        if (!sim->simulator().loadPrograms(options.simPrograms, &reason)) {
            *error = QStringLiteral("built-in simulator: %1").arg(reason);
            return nullptr;
        }
    }
    if (sim->simulator().currentProgramName().isEmpty())
        sim->simulator().setProgram(QLatin1String(kSampleProgramName), kSampleProgram);
    if (!sim->simulator().start()) {
        *error = QStringLiteral("built-in simulator: %1").arg(sim->simulator().errorString());
        return nullptr;
    }
    return sim;
}

double BuiltInSimulator::frameMs(const LinkOptions &options, int doubleWords)
{
    const QByteArray frame = hustsim::buildRegisterResponse(0, QVector<quint32>(doubleWords));
    return frame.size() * lineSettings(options).bitsPerCharacter() * 1000.0 / options.baud;
}

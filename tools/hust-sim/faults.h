#ifndef HUSTSIM_FAULTS_H
#define HUSTSIM_FAULTS_H

#include "simulator.h"

#include <QByteArray>
#include <QVector>

#include <mutex>
#include <random>

namespace hustsim {

// Decides, frame by frame, which of the configured faults strike. Settings may change from any
// thread; the decisions are drawn on the I/O thread from one seeded generator, so a run with the
// same seed and the same input is repeatable.
class FaultInjector
{
public:
    explicit FaultInjector(quint64 seed, const FaultSettings &settings = FaultSettings());

    FaultSettings settings() const;
    void setSettings(const FaultSettings &settings);
    void setSilence(bool on);
    bool silence() const;

    // Random bytes to send before the next frame; empty when the fault does not strike. The bytes
    // never include DC2, so they cannot open a frame of their own.
    QByteArray gap();
    // How many consecutive frames carry the same H code (at least 1).
    int hCodeRepeat() const;
    // Number of value characters of each of `count` d records: 8, or 5..7 when shortened.
    QVector<int> valueDigits(int count);
    // Where to cut a frame of `size` bytes (1..size-1), or -1 to send it whole.
    int cutPosition(int size);
    // Whether the stop frame just received is to be ignored.
    bool losesStop();

private:
    bool strikes(double probability);

    mutable std::mutex m_mutex;
    FaultSettings m_settings;
    std::mt19937_64 m_random;
};

} // namespace hustsim

#endif // HUSTSIM_FAULTS_H

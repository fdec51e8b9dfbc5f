#include "faults.h"

#include <algorithm>

namespace hustsim {

FaultInjector::FaultInjector(quint64 seed, const FaultSettings &settings)
    : m_settings(settings)
    , m_random(seed)
{ }

FaultSettings FaultInjector::settings() const
{
    std::lock_guard<std::mutex> lock(m_mutex);
    return m_settings;
}

void FaultInjector::setSettings(const FaultSettings &settings)
{
    std::lock_guard<std::mutex> lock(m_mutex);
    m_settings = settings;
}

void FaultInjector::setSilence(bool on)
{
    std::lock_guard<std::mutex> lock(m_mutex);
    m_settings.silence = on;
}

bool FaultInjector::silence() const
{
    std::lock_guard<std::mutex> lock(m_mutex);
    return m_settings.silence;
}

bool FaultInjector::strikes(double probability)
{
    if (probability <= 0.0)
        return false;
    if (probability >= 1.0)
        return true;
    return std::uniform_real_distribution<double>(0.0, 1.0)(m_random) < probability;
}

QByteArray FaultInjector::gap()
{
    std::lock_guard<std::mutex> lock(m_mutex);
    if (!strikes(m_settings.garbageProbability))
        return QByteArray();
    const int most = std::max(1, m_settings.garbageMaxBytes);
    const int count = std::uniform_int_distribution<int>(1, most)(m_random);
    QByteArray bytes(count, '\0');
    std::uniform_int_distribution<int> byte(0, 254);
    for (int i = 0; i < count; ++i) {
        const int value = byte(m_random);
        // Skip DC2 (0x12) by shifting everything from it up by one.
        bytes[i] = char(value >= 0x12 ? value + 1 : value);
    }
    return bytes;
}

int FaultInjector::hCodeRepeat() const
{
    std::lock_guard<std::mutex> lock(m_mutex);
    return std::max(1, m_settings.hCodeRepeat);
}

QVector<int> FaultInjector::valueDigits(int count)
{
    std::lock_guard<std::mutex> lock(m_mutex);
    QVector<int> digits(count, 8);
    if (m_settings.shortValueProbability <= 0.0)
        return digits;
    std::uniform_int_distribution<int> width(5, 7);
    for (int &d : digits) {
        if (strikes(m_settings.shortValueProbability))
            d = width(m_random);
    }
    return digits;
}

int FaultInjector::cutPosition(int size)
{
    std::lock_guard<std::mutex> lock(m_mutex);
    if (size < 2 || !strikes(m_settings.cutProbability))
        return -1;
    return std::uniform_int_distribution<int>(1, size - 1)(m_random);
}

bool FaultInjector::losesStop()
{
    std::lock_guard<std::mutex> lock(m_mutex);
    return strikes(m_settings.loseStopProbability);
}

} // namespace hustsim

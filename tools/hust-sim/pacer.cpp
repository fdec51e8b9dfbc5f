#include "pacer.h"

#include <time.h>

#include <algorithm>

namespace hustsim {

namespace {
// A late wake-up may release at most this much line time in one go.
constexpr qint64 kMaxCatchUpNanos = 100'000'000;
} // namespace

qint64 monotonicNanos()
{
    timespec ts {};
    clock_gettime(CLOCK_MONOTONIC, &ts);
    return qint64(ts.tv_sec) * 1'000'000'000 + ts.tv_nsec;
}

Pacer::Pacer(double charactersPerSecond)
    : m_byteNanos(charactersPerSecond > 0 ? std::max<qint64>(1, qint64(1e9 / charactersPerSecond))
                                          : 0)
{ }

int Pacer::due(qint64 now, int limit)
{
    if (!isPaced())
        return limit;
    m_next = std::max(m_next, now - kMaxCatchUpNanos);
    if (now < m_next)
        return 0;
    const qint64 count = 1 + (now - m_next) / m_byteNanos;
    return int(std::min<qint64>(count, limit));
}

void Pacer::sent(int count)
{
    if (isPaced())
        m_next += qint64(count) * m_byteNanos;
}

void Pacer::idle(qint64 now)
{
    m_next = std::max(m_next, now);
}

int Pacer::msUntilDue(qint64 now) const
{
    if (!isPaced() || now >= m_next)
        return 0;
    return int((m_next - now + 999'999) / 1'000'000);
}

} // namespace hustsim

#include "pacer.h"

#include <time.h>

#include <algorithm>

namespace hustsim {

namespace {
// A late wake-up may release at most this much line time in one go.
constexpr qint64 kMaxCatchUpNanos = 100'000'000;

// One character's time on the line; 0 when unpaced.
qint64 characterNanos(double charactersPerSecond)
{
    return charactersPerSecond > 0 ? std::max<qint64>(1, qint64(1e9 / charactersPerSecond)) : 0;
}
} // namespace

qint64 monotonicNanos()
{
    timespec ts {};
    clock_gettime(CLOCK_MONOTONIC, &ts);
    return qint64(ts.tv_sec) * 1'000'000'000 + ts.tv_nsec;
}

Pacer::Pacer(double charactersPerSecond)
    : m_byteNanos(characterNanos(charactersPerSecond))
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

ArrivalPacer::ArrivalPacer(double charactersPerSecond)
    : m_byteNanos(characterNanos(charactersPerSecond))
{ }

void ArrivalPacer::received(const char *data, int size, qint64 now)
{
    if (size <= 0)
        return;
    qint64 start = now;
    if (!m_held.empty()) {
        // The line is still carrying what came before: these characters queue behind it.
        const Burst &last = m_held.back();
        start = std::max(start, last.start + (last.bytes.size() - last.taken) * m_byteNanos);
    }
    m_held.push_back({QByteArray(data, size), 0, start});
}

QByteArray ArrivalPacer::arrived(qint64 now)
{
    QByteArray out;
    while (!m_held.empty()) {
        Burst &burst = m_held.front();
        const int left = burst.bytes.size() - burst.taken;
        qint64 whole = left;
        if (m_byteNanos > 0)
            whole = now > burst.start ? (now - burst.start) / m_byteNanos : 0;
        const int count = int(std::min<qint64>(whole, left));
        out.append(burst.bytes.constData() + burst.taken, count);
        if (count < left) {
            // Kept as an offset: a long program would otherwise be moved for every few bytes.
            burst.taken += count;
            burst.start += count * m_byteNanos;
            break;
        }
        m_held.pop_front();
    }
    return out;
}

void ArrivalPacer::clear()
{
    m_held.clear();
}

int ArrivalPacer::msUntilNext(qint64 now) const
{
    if (m_held.empty())
        return 0;
    const qint64 due = m_held.front().start + m_byteNanos;
    return now >= due ? 0 : int((due - now + 999'999) / 1'000'000);
}

} // namespace hustsim

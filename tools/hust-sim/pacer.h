#ifndef HUSTSIM_PACER_H
#define HUSTSIM_PACER_H

#include <QtGlobal>

namespace hustsim {

// Monotonic clock in nanoseconds.
qint64 monotonicNanos();

// Releases output at a line's character rate. Every byte has a due time one character time after
// the previous one, so the rate does not drift with how late the caller wakes up; a caller that
// wakes late may send the bytes that have fallen due at once.
class Pacer
{
public:
    // charactersPerSecond <= 0: unpaced, everything is due at once.
    explicit Pacer(double charactersPerSecond = 0.0);

    bool isPaced() const { return m_byteNanos > 0; }
    // How many bytes are due at `now`, at most `limit`. A caller that woke very late gets at
    // most a short burst, not the whole time it overslept.
    int due(qint64 now, int limit);
    // `count` bytes went out.
    void sent(int count);
    // Nothing to send at `now`, or the line could not take more: the next byte may go at once,
    // but no credit builds up.
    void idle(qint64 now);
    // Milliseconds until the next byte falls due (0 when due now), rounded up.
    int msUntilDue(qint64 now) const;

private:
    qint64 m_byteNanos = 0;
    qint64 m_next = 0;
};

} // namespace hustsim

#endif // HUSTSIM_PACER_H

#ifndef HUSTSIM_PACER_H
#define HUSTSIM_PACER_H

#include <QByteArray>
#include <QtGlobal>

#include <deque>

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

// Holds the bytes read from the line until a real line would have delivered them. A
// pseudo-terminal hands over a whole write the moment it is made, but at the line's rate a
// character is there only one character time after the one before it has arrived, so a request
// of a hundred characters takes that long to reach the controller, and the frames it is sending
// meanwhile go out before it can act. Taking requests sooner would close that window, in which a
// panel sees frames of the old list after it sent a new one.
class ArrivalPacer
{
public:
    // charactersPerSecond <= 0: unpaced, every byte has arrived as soon as it is read.
    explicit ArrivalPacer(double charactersPerSecond = 0.0);

    // `size` bytes were read from the line at `now`; they arrive after those still held.
    void received(const char *data, int size, qint64 now);
    // The held bytes whose last bit has arrived by `now`, in order; they are no longer held.
    QByteArray arrived(qint64 now);
    // Drops what is held: it was on a line that went away.
    void clear();
    bool isEmpty() const { return m_held.empty(); }
    // Milliseconds until the next held byte has arrived, rounded up (0 when it has).
    int msUntilNext(qint64 now) const;

private:
    // What one read returned, and when its first character not yet taken began on the line.
    struct Burst
    {
        QByteArray bytes;
        int taken = 0;
        qint64 start = 0;
    };

    qint64 m_byteNanos = 0;
    std::deque<Burst> m_held;
};

} // namespace hustsim

#endif // HUSTSIM_PACER_H

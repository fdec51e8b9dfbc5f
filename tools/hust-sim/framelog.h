#ifndef HUSTSIM_FRAMELOG_H
#define HUSTSIM_FRAMELOG_H

#include "simulator.h"

#include <condition_variable>
#include <deque>
#include <mutex>

namespace hustsim {

// The frames received from the panel, newest last, for tests to inspect and wait on. Keeps the
// most recent kCapacity frames; sequence numbers keep counting past the ones dropped.
class FrameLog
{
public:
    static constexpr int kCapacity = 65536;

    void clear();
    // Stamps the frame with its sequence number and stores it; returns the stored copy.
    RecordedFrame append(RecordedFrame frame);
    QVector<RecordedFrame> snapshot() const;
    qint64 count() const;
    std::optional<RecordedFrame> waitFor(FrameKind kind, int timeoutMs, qint64 fromSequence) const;

private:
    mutable std::mutex m_mutex;
    mutable std::condition_variable m_added;
    std::deque<RecordedFrame> m_frames;
    qint64 m_next = 0;
};

} // namespace hustsim

#endif // HUSTSIM_FRAMELOG_H

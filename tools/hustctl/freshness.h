#ifndef HUSTCTL_FRESHNESS_H
#define HUSTCTL_FRESHNESS_H

#include <QString>
#include <QtGlobal>

// Tells fresh values from a cache that the driver keeps serving through a line outage, and keeps
// the statistics of a watch.
//
// The driver's pending error shows on few reads during an outage (most clearError() calls leave
// it, every 52nd drops it), so the error alone flickers. Its count of blocks taken into the cache
// says when data flows again. A refresh is stale when the newest refresh that saw an error is
// newer than the newest refresh that saw the count advance; one that sees both is fresh.
class Freshness
{
public:
    // Starts at the first refresh of the screen, with the driver's count at that moment.
    Freshness(qint64 startMs, quint64 blocks);

    // The count seen between refreshes, so that the longest gap is measured finer than a refresh.
    void observe(qint64 ms, quint64 blocks);
    // One refresh: the count and the driver's message when one of its calls saw hasError()
    // (empty otherwise). Returns whether the refresh is stale.
    bool refresh(qint64 ms, quint64 blocks, const QString &error);

    // The driver's message to show while stale.
    QString error() const { return m_error; }
    int refreshes() const { return m_refreshes; }
    int staleRefreshes() const { return m_staleRefreshes; }
    double blocksPerSecond(qint64 nowMs) const;
    // The longest time without a fresh block, the span up to nowMs included.
    qint64 longestGapMs(qint64 nowMs) const;

private:
    qint64 m_startMs;
    quint64 m_startBlocks;
    quint64 m_blocks;
    quint64 m_blocksAtRefresh;
    qint64 m_lastAdvanceMs;
    qint64 m_longestGapMs = 0;
    int m_refreshes = 0;
    int m_staleRefreshes = 0;
    int m_lastErrorRefresh = 0; // refresh numbers start at 1; 0: none yet
    int m_lastAdvanceRefresh = 0;
    QString m_error;
};

#endif // HUSTCTL_FRESHNESS_H

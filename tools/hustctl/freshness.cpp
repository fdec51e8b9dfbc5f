#include "freshness.h"

#include <algorithm>

Freshness::Freshness(qint64 startMs, quint64 blocks)
    : m_startMs(startMs)
    , m_startBlocks(blocks)
    , m_blocks(blocks)
    , m_blocksAtRefresh(blocks)
    , m_lastAdvanceMs(startMs)
{ }

void Freshness::observe(qint64 ms, quint64 blocks)
{
    if (blocks == m_blocks)
        return;
    m_longestGapMs = std::max(m_longestGapMs, ms - m_lastAdvanceMs);
    m_lastAdvanceMs = ms;
    m_blocks = blocks;
}

bool Freshness::refresh(qint64 ms, quint64 blocks, const QString &error)
{
    observe(ms, blocks);
    ++m_refreshes;
    if (blocks != m_blocksAtRefresh)
        m_lastAdvanceRefresh = m_refreshes;
    m_blocksAtRefresh = blocks;
    if (!error.isEmpty()) {
        m_lastErrorRefresh = m_refreshes;
        m_error = error;
    }
    const bool stale = m_lastErrorRefresh > m_lastAdvanceRefresh;
    if (stale)
        ++m_staleRefreshes;
    return stale;
}

double Freshness::blocksPerSecond(qint64 nowMs) const
{
    const qint64 span = nowMs - m_startMs;
    return span > 0 ? double(m_blocks - m_startBlocks) * 1000.0 / double(span) : 0.0;
}

qint64 Freshness::longestGapMs(qint64 nowMs) const
{
    return std::max(m_longestGapMs, nowMs - m_lastAdvanceMs);
}

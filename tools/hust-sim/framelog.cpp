#include "framelog.h"

#include <QJsonArray>
#include <QJsonDocument>
#include <QJsonObject>

#include <chrono>

namespace hustsim {

namespace {
const char *const kKindNames[] = {"read_request",
                                  "stop",
                                  "write_dword",
                                  "bit_set",
                                  "bit_clear",
                                  "program_request_current",
                                  "program_request_all",
                                  "send_header",
                                  "program_data",
                                  "burn",
                                  "unknown",
                                  "malformed"};
constexpr int kKindCount = int(sizeof kKindNames / sizeof kKindNames[0]);
} // namespace

QString frameKindName(FrameKind kind)
{
    const int index = int(kind);
    return index >= 0 && index < kKindCount ? QLatin1String(kKindNames[index]) : QString();
}

std::optional<FrameKind> frameKindFromName(const QString &name)
{
    for (int i = 0; i < kKindCount; ++i) {
        if (name == QLatin1String(kKindNames[i]))
            return FrameKind(i);
    }
    return std::nullopt;
}

QByteArray frameToJsonLine(const RecordedFrame &frame)
{
    QJsonObject object;
    object.insert(QStringLiteral("seq"), frame.sequence);
    object.insert(QStringLiteral("ms"), frame.elapsedMs);
    object.insert(QStringLiteral("kind"), frameKindName(frame.kind));
    object.insert(QStringLiteral("raw"), QString::fromLatin1(frame.raw.toHex()));
    if (!frame.addresses.isEmpty()) {
        QJsonArray addresses;
        for (int address : frame.addresses)
            addresses.append(address);
        object.insert(QStringLiteral("addresses"), addresses);
    }
    if (!frame.values.isEmpty()) {
        QJsonArray values;
        for (quint32 value : frame.values)
            values.append(qint64(value));
        object.insert(QStringLiteral("values"), values);
    }
    if (frame.bit >= 0)
        object.insert(QStringLiteral("bit"), frame.bit);
    if (frame.kind == FrameKind::ProgramData)
        object.insert(QStringLiteral("text"), QString::fromLatin1(frame.text));
    return QJsonDocument(object).toJson(QJsonDocument::Compact);
}

void FrameLog::clear()
{
    std::lock_guard<std::mutex> lock(m_mutex);
    m_frames.clear();
    m_next = 0;
}

RecordedFrame FrameLog::append(RecordedFrame frame)
{
    {
        std::lock_guard<std::mutex> lock(m_mutex);
        frame.sequence = m_next++;
        m_frames.push_back(frame);
        if (m_frames.size() > size_t(kCapacity))
            m_frames.pop_front();
    }
    m_added.notify_all();
    return frame;
}

QVector<RecordedFrame> FrameLog::snapshot() const
{
    std::lock_guard<std::mutex> lock(m_mutex);
    return QVector<RecordedFrame>(m_frames.begin(), m_frames.end());
}

qint64 FrameLog::count() const
{
    std::lock_guard<std::mutex> lock(m_mutex);
    return m_next;
}

std::optional<RecordedFrame> FrameLog::waitFor(FrameKind kind, int timeoutMs,
                                               qint64 fromSequence) const
{
    const auto deadline
        = std::chrono::steady_clock::now() + std::chrono::milliseconds(std::max(0, timeoutMs));
    std::unique_lock<std::mutex> lock(m_mutex);
    std::optional<RecordedFrame> found;
    m_added.wait_until(lock, deadline, [&] {
        for (auto it = m_frames.rbegin(); it != m_frames.rend() && it->sequence >= fromSequence;
             ++it) {
            if (it->kind == kind)
                found = *it;
        }
        return found.has_value();
    });
    return found;
}

} // namespace hustsim

#include "memory.h"

#include "simulator.h"

#include <QDir>
#include <QFile>

namespace hustsim {

namespace {
bool inRange(int index)
{
    return index >= 0 && index < kRegisterCount;
}
} // namespace

RegisterMemory::RegisterMemory()
    : m_words(kRegisterCount, 0)
{ }

bool RegisterMemory::set(int index, quint32 value)
{
    if (!inRange(index))
        return false;
    std::lock_guard<std::mutex> lock(m_mutex);
    m_words[size_t(index)] = value;
    return true;
}

quint32 RegisterMemory::value(int index) const
{
    if (!inRange(index))
        return 0;
    std::lock_guard<std::mutex> lock(m_mutex);
    return m_words[size_t(index)];
}

bool RegisterMemory::setBit(int index, int bit, bool on)
{
    if (!inRange(index) || bit < 0 || bit > 31)
        return false;
    std::lock_guard<std::mutex> lock(m_mutex);
    const quint32 mask = quint32(1) << bit;
    quint32 &word = m_words[size_t(index)];
    word = on ? (word | mask) : (word & ~mask);
    return true;
}

QVector<quint32> RegisterMemory::values(const QVector<int> &indices) const
{
    QVector<quint32> out;
    out.reserve(indices.size());
    std::lock_guard<std::mutex> lock(m_mutex);
    for (int index : indices)
        out.append(inRange(index) ? m_words[size_t(index)] : 0);
    return out;
}

void ProgramStore::set(const QString &name, const QByteArray &text)
{
    std::lock_guard<std::mutex> lock(m_mutex);
    m_programs.insert(name, text);
    if (m_current.isEmpty())
        m_current = name;
}

QByteArray ProgramStore::text(const QString &name) const
{
    std::lock_guard<std::mutex> lock(m_mutex);
    return m_programs.value(name);
}

QStringList ProgramStore::names() const
{
    std::lock_guard<std::mutex> lock(m_mutex);
    return m_programs.keys();
}

bool ProgramStore::setCurrent(const QString &name)
{
    std::lock_guard<std::mutex> lock(m_mutex);
    if (!m_programs.contains(name))
        return false;
    m_current = name;
    return true;
}

QString ProgramStore::currentName() const
{
    std::lock_guard<std::mutex> lock(m_mutex);
    return m_current;
}

QByteArray ProgramStore::currentText() const
{
    std::lock_guard<std::mutex> lock(m_mutex);
    return m_programs.value(m_current);
}

QByteArray ProgramStore::allTexts() const
{
    std::lock_guard<std::mutex> lock(m_mutex);
    QByteArray out;
    for (const QByteArray &text : m_programs) {
        out.append(text);
        if (!text.endsWith('\n'))
            out.append('\n');
    }
    return out;
}

void ProgramStore::setPending(const QByteArray &text)
{
    std::lock_guard<std::mutex> lock(m_mutex);
    m_pending = text;
    m_hasPending = true;
}

QByteArray ProgramStore::pending() const
{
    std::lock_guard<std::mutex> lock(m_mutex);
    return m_pending;
}

bool ProgramStore::burnPending()
{
    std::lock_guard<std::mutex> lock(m_mutex);
    if (!m_hasPending)
        return false;
    if (m_current.isEmpty())
        m_current = QStringLiteral("O0001");
    m_programs.insert(m_current, m_pending);
    m_pending.clear();
    m_hasPending = false;
    return true;
}

bool ProgramStore::loadDirectory(const QString &dir, QString *error)
{
    const QDir directory(dir);
    if (!directory.exists()) {
        *error = QStringLiteral("no such program directory: %1").arg(dir);
        return false;
    }
    const QStringList files = directory.entryList(QDir::Files, QDir::Name);
    for (const QString &name : files) {
        QFile file(directory.filePath(name));
        if (!file.open(QIODevice::ReadOnly)) {
            *error = QStringLiteral("cannot read program %1: %2")
                         .arg(file.fileName(), file.errorString());
            return false;
        }
        set(name, file.readAll());
    }
    return true;
}

} // namespace hustsim

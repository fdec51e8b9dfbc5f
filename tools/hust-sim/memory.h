#ifndef HUSTSIM_MEMORY_H
#define HUSTSIM_MEMORY_H

#include <QByteArray>
#include <QMap>
#include <QString>
#include <QStringList>
#include <QVector>

#include <mutex>
#include <vector>

namespace hustsim {

// The controller's double words. Thread-safe; each call holds the lock only for its own access.
class RegisterMemory
{
public:
    RegisterMemory();

    bool set(int index, quint32 value);
    quint32 value(int index) const;
    bool setBit(int index, int bit, bool on);
    // Values of `indices` in one locked pass, so that a frame shows one moment of memory.
    QVector<quint32> values(const QVector<int> &indices) const;

private:
    mutable std::mutex m_mutex;
    std::vector<quint32> m_words;
};

// Part programs by name, the current one, and the one received but not yet burnt. Thread-safe.
class ProgramStore
{
public:
    void set(const QString &name, const QByteArray &text);
    QByteArray text(const QString &name) const;
    QStringList names() const;
    bool setCurrent(const QString &name);
    QString currentName() const;
    QByteArray currentText() const;
    // All programs in name order, each ending in a line feed.
    QByteArray allTexts() const;

    void setPending(const QByteArray &text);
    QByteArray pending() const;
    // Makes the pending program the current one's text (a new program "O0001" when there is no
    // current one). False when nothing is pending.
    bool burnPending();

    bool loadDirectory(const QString &dir, QString *error);

private:
    mutable std::mutex m_mutex;
    QMap<QString, QByteArray> m_programs;
    QString m_current;
    QByteArray m_pending;
    bool m_hasPending = false;
};

} // namespace hustsim

#endif // HUSTSIM_MEMORY_H

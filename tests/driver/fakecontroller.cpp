#include "fakecontroller.h"

#include <QList>
#include <QMutexLocker>

#include <cstring>

namespace {

const char DC2 = 0x12;
const char DC4 = 0x14;
const char CR = 0x0D;

QByteArray valueCharacters(quint32 value)
{
    QByteArray text = QByteArray::number(value, 16).rightJustified(8, '0');
    for (char &c : text) {
        if (c >= 'a' && c <= 'f')
            c = char(':' + (c - 'a'));
    }
    return text;
}

quint32 parseValueCharacters(const QByteArray &text)
{
    quint32 value = 0;
    for (char c : text)
        value = value * 16 + quint32(c - '0');
    return value;
}

} // namespace

FakeController::FakeController()
    : m_setting(DEVICE_SERIAL, QStringLiteral("fake"), 38400, 7, 2, 2)
{ }

quint32 FakeController::valueLocked(int index) const
{
    return m_written.value(index, seededValue(index));
}

quint32 FakeController::value(int index) const
{
    QMutexLocker lock(&m_mutex);
    return valueLocked(index);
}

bool FakeController::isStreaming() const
{
    QMutexLocker lock(&m_mutex);
    return m_streaming;
}

QByteArray FakeController::responseFrame()
{
    QByteArray frame;
    frame.append(DC2).append('%').append(CR).append("O9000").append(CR);
    frame.append('H').append(valueCharacters(m_hCode++)).append(CR);
    frame.append(QByteArray("v") + QByteArray::number(m_streamList.size()).rightJustified(2, '0'))
        .append(CR);
    for (int index : m_streamList)
        frame.append('d').append(valueCharacters(valueLocked(index))).append(CR);
    frame.append('%').append(DC4);
    return frame;
}

int FakeController::readData(char *data, int maxSize)
{
    QMutexLocker lock(&m_mutex);
    if (maxSize <= 0)
        return 0;
    if (m_pendingRead.isEmpty() && m_streaming)
        m_pendingRead = responseFrame();
    const int n = qMin(maxSize, m_pendingRead.size());
    std::memcpy(data, m_pendingRead.constData(), size_t(n));
    m_pendingRead.remove(0, n);
    return n;
}

int FakeController::receiveData(char *data, int maxSize)
{
    return readData(data, maxSize);
}

int FakeController::writeData(const char *data, int size)
{
    if (size <= 0)
        return 0;
    QMutexLocker lock(&m_mutex);
    m_pendingWrite.append(data, size);
    for (;;) {
        const int start = m_pendingWrite.indexOf(DC2);
        const int end = m_pendingWrite.indexOf(DC4, qMax(start, 0));
        if (start < 0 || end < 0)
            break;
        handleFrame(m_pendingWrite.mid(start, end - start + 1));
        m_pendingWrite.remove(0, end + 1);
    }
    return size;
}

// A frame is DC2 "%" CR, CR-ended lines, "%" DC4.
void FakeController::handleFrame(const QByteArray &frame)
{
    const QList<QByteArray> lines = frame.mid(3, frame.size() - 5).split(CR);
    if (lines.size() < 2)
        return;
    const QByteArray &command = lines.at(0);
    if (command == "O9000" && lines.at(1) == "N1") {
        m_streaming = false;
        m_pendingRead.clear();
        ++m_stopFrames;
    } else if (command == "O9000" && lines.at(1) == "N0" && lines.size() >= 3) {
        m_streamList.clear();
        for (int i = 3; i < lines.size(); ++i) {
            if (lines.at(i).startsWith('d'))
                m_streamList.append(lines.at(i).mid(1).toInt());
        }
        m_streaming = true;
        m_pendingRead.clear();
    } else if (command == "O9012" && lines.size() >= 3) {
        m_written.insert(lines.at(1).mid(1).toInt(), parseValueCharacters(lines.at(2).mid(1)));
    } else if ((command == "O9013" || command == "O9014") && lines.size() >= 3) {
        const int index = lines.at(1).mid(1).toInt();
        const int bit = lines.at(2).mid(1).toInt();
        if (bit < 0 || bit > 31)
            return;
        quint32 word = valueLocked(index);
        if (command == "O9013")
            word |= 1u << bit;
        else
            word &= ~(1u << bit);
        m_written.insert(index, word);
    }
}

void FakeController::getOption(int option, QVariant &value)
{
    QMutexLocker lock(&m_mutex);
    if (option == BytesAvailableOption)
        value = m_streaming ? 10 * m_streamList.size() + 25 : m_pendingRead.size();
}

void FakeController::setOption(int option, const QVariant &value)
{
    QMutexLocker lock(&m_mutex);
    if (option == DiscardReceivedOption && value.toInt() == 0)
        m_pendingRead.clear();
}

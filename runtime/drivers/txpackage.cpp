#include "txpackage.h"

#include "tools.h"

#include <climits>

TxPackage::TxPackage()
    : m_data(new QByteArray)
{ }

TxPackage::TxPackage(const TxPackage &other)
    : m_data(new QByteArray(*other.m_data))
    , m_sectionSizes(other.m_sectionSizes)
{ }

TxPackage &TxPackage::operator=(const TxPackage &other)
{
    *m_data = *other.m_data;
    m_sectionSizes = other.m_sectionSizes;
    return *this;
}

TxPackage::~TxPackage() = default;

bool TxPackage::appendNewSection(const QByteArray &bytes)
{
    m_data->append(bytes);
    m_sectionSizes.append(bytes.size());
    return true;
}

bool TxPackage::appendByte(unsigned char b)
{
    return appendNewSection(QByteArray(1, char(b)));
}

bool TxPackage::appendWord(unsigned short w)
{
    return appendNewSection(wordToByteArray(w));
}

bool TxPackage::appendDWord(unsigned int d)
{
    return appendNewSection(intToByteArray(int(d)));
}

bool TxPackage::appendString(const QString &s)
{
    return appendNewSection(s.toLatin1());
}

bool TxPackage::appendSection(const QByteArray &bytes)
{
    return appendNewSection(bytes);
}

bool TxPackage::appendHexByte(unsigned char b)
{
    return appendNewSection(QByteArray::number(b, 16).rightJustified(2, '0').toUpper());
}

bool TxPackage::appendByte2Ascii(unsigned char b)
{
    return appendHexByte(b);
}

bool TxPackage::appendLRCByte()
{
    return appendByte(UInt8CheckSum(reinterpret_cast<const unsigned char *>(m_data->constData()),
                                    m_data->size()));
}

bool TxPackage::appendLRCAscii()
{
    return appendHexByte(UInt8CheckSum(reinterpret_cast<const unsigned char *>(m_data->constData()),
                                       m_data->size()));
}

bool TxPackage::appendFCSAscii(int)
{
    return appendHexByte(calculateFCS(this, 0));
}

unsigned char TxPackage::calculateFCS(TxPackage *package, int excluded)
{
    if (!package)
        return 0;
    const int size = package->m_data->size() - qMax(excluded, 0);
    return XorUInt8CheckSum(reinterpret_cast<const unsigned char *>(package->m_data->constData()),
                            size);
}

bool TxPackage::setData(const QByteArray &bytes)
{
    *m_data = bytes;
    return true;
}

bool TxPackage::setData(char *bytes, int length)
{
    if (!bytes || length < 0)
        m_data->clear();
    else
        *m_data = QByteArray(bytes, length);
    return true;
}

void TxPackage::setSectionSize(const QList<int> &sizes)
{
    // A reference entry counts the length its field holds in the current bytes, as
    // sectionStartIndex() and sectionSize() read it, so that a section list imposed on received
    // bytes keeps them whole. The length comes from outside, though: a reference counts no more
    // than the bytes present from its start, so a damaged length field never makes the package
    // grow.
    m_sectionSizes = sizes;
    QList<qint64> starts;
    QList<int> resolved;
    if (!sizes.isEmpty())
        layout(sizes.size() - 1, starts, resolved);
    qint64 total = 0;
    for (int i = 0; i < sizes.size(); ++i) {
        const qint64 present = qMax<qint64>(m_data->size() - starts.at(i), 0);
        total += sizes.at(i) >= 0 ? sizes.at(i) : qMin<qint64>(resolved.at(i), present);
    }
    // Bytes the sections add are zeros, never what the allocator left behind.
    const int size = int(qMin<qint64>(total, INT_MAX));
    if (size < m_data->size())
        m_data->truncate(size);
    else
        m_data->append(size - m_data->size(), '\0');
}

void TxPackage::clearAll()
{
    m_data->clear();
    m_sectionSizes.clear();
}

int TxPackage::numberOfSections() const
{
    return m_sectionSizes.size();
}

int TxPackage::totalSize() const
{
    return m_data->size();
}

bool TxPackage::validSectionNumber(int i) const
{
    return i >= 0 && i < m_sectionSizes.size();
}

void TxPackage::layout(int last, QList<qint64> &starts, QList<int> &sizes) const
{
    qint64 start = 0;
    for (int j = 0; j <= last; ++j) {
        int size = m_sectionSizes.at(j);
        if (size < 0) {
            // Only a reference to an earlier section has a length; testing that before negating
            // keeps INT_MIN, which has no positive counterpart, from being negated.
            const bool earlier = size > -j;
            const int k = earlier ? -size : 0;
            size = 0;
            if (earlier && m_sectionSizes.at(k) >= 0 && starts.at(k) < m_data->size()) {
                const QByteArray field
                    = m_data->mid(int(starts.at(k)), qMin(m_sectionSizes.at(k), 4));
                size = qMax(QByteArrayToInt(field), 0);
            }
        }
        starts.append(start);
        sizes.append(size);
        start += size;
    }
}

int TxPackage::sectionStartIndex(int i) const
{
    if (!validSectionNumber(i))
        return -1;
    QList<qint64> starts;
    QList<int> sizes;
    layout(i, starts, sizes);
    return int(qMin<qint64>(starts.at(i), INT_MAX));
}

int TxPackage::sectionSize(int i) const
{
    if (!validSectionNumber(i))
        return 0;
    QList<qint64> starts;
    QList<int> sizes;
    layout(i, starts, sizes);
    return sizes.at(i);
}

QByteArray TxPackage::dataAt(int i) const
{
    if (!validSectionNumber(i))
        return QByteArray();
    QList<qint64> starts;
    QList<int> sizes;
    layout(i, starts, sizes);
    if (starts.at(i) >= m_data->size())
        return QByteArray();
    return m_data->mid(int(starts.at(i)), sizes.at(i));
}

char *TxPackage::data()
{
    return m_data->data();
}

QByteArray TxPackage::byteArrayData() const
{
    return *m_data;
}

int TxPackage::arrayToInt(const QByteArray &bytes) const
{
    return bytes.isEmpty() ? 0 : int(quint8(bytes.at(0)));
}

QString TxPackage::toString()
{
    return dumpByteArray(*m_data);
}

QList<int> EmptyPackageSizeList()
{
    return QList<int>();
}

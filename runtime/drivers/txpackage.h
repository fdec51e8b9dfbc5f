#ifndef TXPACKAGE_H
#define TXPACKAGE_H

#include <QByteArray>
#include <QList>
#include <QString>

#include <memory>

// Builder of transmit frames made of consecutive sections (header fields, address, data, check
// characters). Every append adds bytes and records their number as a new section. A size entry
// -k (k >= 1) marks a section whose length is held in the first four bytes (little-endian) of an
// earlier plain section k; such a section can be read field by field after setData().
class TxPackage
{
public:
    TxPackage();
    TxPackage(const TxPackage &other);
    TxPackage &operator=(const TxPackage &other);
    ~TxPackage();

    bool appendByte(unsigned char b);
    bool appendWord(unsigned short w);
    bool appendDWord(unsigned int d);
    bool appendString(const QString &s);
    bool appendSection(const QByteArray &bytes);
    // b as two uppercase hexadecimal characters.
    bool appendByte2Ascii(unsigned char b);
    // Sum of all bytes so far modulo 256, as one byte or as two hexadecimal characters.
    bool appendLRCByte();
    bool appendLRCAscii();
    // Exclusive or of all bytes so far as two hexadecimal characters; the argument is not used.
    bool appendFCSAscii(int);
    // Exclusive or of the package's bytes, leaving out its last `excluded` bytes.
    static unsigned char calculateFCS(TxPackage *package, int excluded);

    // Replace the bytes; the section list stays as it is.
    bool setData(const QByteArray &bytes);
    bool setData(char *bytes, int length);
    // The section list becomes `sizes`; the bytes are resized to the sum of the section sizes,
    // a reference counting the length its field holds but at most the bytes present from its
    // start (0 until the data that holds their length is in place).
    void setSectionSize(const QList<int> &sizes);
    void clearAll();

    int numberOfSections() const;
    int totalSize() const;
    bool validSectionNumber(int i) const;
    // Byte offset of section i (sizes of the sections before it, references resolved), -1 for
    // an invalid i.
    int sectionStartIndex(int i) const;
    // Size of section i; a reference gives the length held in its section (0 when that section
    // is not an earlier plain one, or the length is negative), an invalid i gives 0.
    int sectionSize(int i) const;
    // The bytes of section i, cut to the package's end.
    QByteArray dataAt(int i) const;

    char *data();
    QByteArray byteArrayData() const;
    // The first byte as an unsigned number, 0 for an empty array.
    int arrayToInt(const QByteArray &bytes) const;
    QString toString();

private:
    bool appendHexByte(unsigned char b);
    bool appendNewSection(const QByteArray &bytes);
    // Offsets and sizes of sections 0..last with references resolved.
    void layout(int last, QList<qint64> &starts, QList<int> &sizes) const;

    std::unique_ptr<QByteArray> m_data;
    QList<int> m_sectionSizes;
};

// An empty section list.
QList<int> EmptyPackageSizeList();

#endif // TXPACKAGE_H

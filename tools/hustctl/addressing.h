#ifndef HUSTCTL_ADDRESSING_H
#define HUSTCTL_ADDRESSING_H

#include "communicatorcommand.h"

#include <QByteArray>
#include <QList>
#include <QString>

// The controller's double words are d00000 to d99999; its bit devices I, O, C, S and A each span
// eight double words (256 bits); one read request carries at most 99 double words.
constexpr int kLastDoubleWord = 99999;
constexpr int kLastDeviceBit = 255;
constexpr int kMaxDoubleWordsPerRequest = 99;

enum class ValueType { Bit, Word, DWord };
// How a double word is shown and written: unsigned, signed (int), hexadecimal (hex) or as the
// IEEE 754 single it holds (float).
enum class ValueFormat { Plain, Signed, Hex, Float };

QString typeName(ValueType type);

// One request handed to the driver and the number of values its answer holds.
struct DriverRequest
{
    CommunicatorCommand command;
    int values = 1;
    QByteArray data; // written bytes, for writes
};

// A checked address with its type and count, ready to be turned into driver requests.
class Target
{
public:
    // Checks ADDRESS against the controller's address space. typeText may be empty (the address
    // kind's natural type), bit, word, dword, int, hex or float (the last three are double words);
    // count is the number of consecutive values.
    static bool parse(const QString &address, const QString &typeText, int count, Target *target,
                      QString *reason);

    QString text() const { return m_text; }
    ValueType type() const { return m_type; }
    ValueFormat format() const { return m_format; }
    // The type as the command line names it (int, hex and float for formatted double words).
    QString typeText() const;
    int count() const { return m_count; }

    // The requests that read the target, in value order.
    QList<DriverRequest> readRequests() const;
    // The controller double words those requests touch, and their number.
    QList<int> doubleWords() const;
    int doubleWordCount() const { return doubleWords().size(); }
    // Address text of the i-th value, for tables.
    QString itemLabel(int i) const;
    // Bytes of one value in the driver's answer.
    int valueBytes() const;

    // Checks that the target can be written (B bits and double words only) and packs the values
    // as the driver takes them: one byte per bit, four bytes little-endian per double word.
    bool writeRequest(const QList<quint32> &values, DriverRequest *request, QString *reason) const;

private:
    QString m_text;
    QString m_prefix;
    int m_number = 0;
    int m_bit = -1; // B<n>.<bit> only
    ValueType m_type = ValueType::DWord;
    ValueFormat m_format = ValueFormat::Plain;
    int m_count = 1;
};

// A 32-bit value: decimal (negative ones as two's complement) or 0x hexadecimal.
bool parseValue32(const QString &text, quint32 *value, QString *reason);
// A value for the target: 0 or 1 for bits, a number in the target's format for double words
// (hex digits with or without 0x, a decimal fraction for float).
bool parseValue(const QString &text, const Target &target, quint32 *value, QString *reason);

#endif // HUSTCTL_ADDRESSING_H

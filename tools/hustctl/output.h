#ifndef HUSTCTL_OUTPUT_H
#define HUSTCTL_OUTPUT_H

#include "addressing.h"

#include <QByteArray>
#include <QJsonObject>
#include <QList>
#include <QString>
#include <QVector>

#include <optional>

// Decodes the driver's little-endian answer: one byte per bit (0 or 1), two per word, four per
// double word. Trailing bytes that do not fill a value are ignored.
QVector<quint32> decodeValues(const QByteArray &data, ValueType type);

// A value in JSON: a number (signed for int, the single's value for float, null for a NaN or an
// infinity, which JSON cannot hold), or the text "0x..." for hex.
QJsonValue jsonValue(quint32 value, ValueType type, ValueFormat format);

// {"address":"DW100","type":"dword","values":[1,2]}
QJsonObject readJson(const Target &target, const QVector<quint32> &values);

// One watched value of a refresh; no value when the driver had no data for it.
struct WatchValue
{
    QString key;
    std::optional<quint32> value;
    ValueType type = ValueType::DWord;
    ValueFormat format = ValueFormat::Plain;
};

// {"t":1.234,"values":{"DW100":1,"I5":0}}, with "error": the driver's message while stale.
QJsonObject watchJson(double seconds, const QList<WatchValue> &values, const QString &error);

// The object as one compact line of text, without the line feed.
QString jsonLine(const QJsonObject &object);

// A human-readable value: decimal with the hexadecimal form for words and plain double words, or
// the double word's format alone.
QString formatValue(quint32 value, ValueType type, ValueFormat format = ValueFormat::Plain);

// Left-aligned columns, two blanks apart.
QStringList formatTable(const QList<QStringList> &rows);

#endif // HUSTCTL_OUTPUT_H

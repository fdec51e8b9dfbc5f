#include "output.h"

#include <QJsonArray>
#include <QJsonDocument>

#include <algorithm>
#include <charconv>
#include <cmath>
#include <cstring>

QVector<quint32> decodeValues(const QByteArray &data, ValueType type)
{
    const int size = type == ValueType::Bit ? 1 : type == ValueType::Word ? 2 : 4;
    QVector<quint32> values;
    for (int at = 0; at + size <= data.size(); at += size) {
        quint32 v = 0;
        for (int i = 0; i < size; ++i)
            v |= quint32(quint8(data.at(at + i))) << (8 * i);
        values.append(type == ValueType::Bit ? (v & 1u) : v);
    }
    return values;
}

namespace {

float asFloat(quint32 value)
{
    float f;
    std::memcpy(&f, &value, sizeof f);
    return f;
}

// The shortest decimal text that reads back as the same single, so 0.1 shows as 0.1 and not as
// the double nearest to the single.
QString floatText(float f)
{
    char text[32];
    const auto end = std::to_chars(text, text + sizeof text, f).ptr;
    return QString::fromLatin1(text, int(end - text));
}

QString hexText(quint32 value, ValueType type)
{
    return QStringLiteral("0x%1").arg(value, type == ValueType::Word ? 4 : 8, 16, QLatin1Char('0'));
}

} // namespace

QJsonValue jsonValue(quint32 value, ValueType type, ValueFormat format)
{
    switch (format) {
    case ValueFormat::Signed:
        return double(qint32(value));
    case ValueFormat::Hex:
        return hexText(value, type);
    case ValueFormat::Float: {
        const float f = asFloat(value);
        return std::isfinite(f) ? QJsonValue(floatText(f).toDouble()) : QJsonValue();
    }
    case ValueFormat::Plain:
        break;
    }
    return double(value);
}

QJsonObject readJson(const Target &target, const QVector<quint32> &values)
{
    QJsonArray items;
    for (quint32 v : values)
        items.append(jsonValue(v, target.type(), target.format()));
    return QJsonObject {{QStringLiteral("address"), target.text()},
                        {QStringLiteral("type"), target.typeText()},
                        {QStringLiteral("values"), items}};
}

QJsonObject watchJson(double seconds, const QList<WatchValue> &values, const QString &error)
{
    QJsonObject members;
    for (const WatchValue &v : values)
        members.insert(v.key, v.value ? jsonValue(*v.value, v.type, v.format) : QJsonValue());
    // Milliseconds are the clock's resolution.
    QJsonObject line {{QStringLiteral("t"), qRound64(seconds * 1000.0) / 1000.0},
                      {QStringLiteral("values"), members}};
    if (!error.isEmpty())
        line.insert(QStringLiteral("error"), error);
    return line;
}

QString jsonLine(const QJsonObject &object)
{
    return QString::fromUtf8(QJsonDocument(object).toJson(QJsonDocument::Compact));
}

QString formatValue(quint32 value, ValueType type, ValueFormat format)
{
    switch (format) {
    case ValueFormat::Signed:
        return QString::number(qint32(value));
    case ValueFormat::Hex:
        return hexText(value, type);
    case ValueFormat::Float:
        return floatText(asFloat(value));
    case ValueFormat::Plain:
        break;
    }
    if (type == ValueType::Bit)
        return QString::number(value);
    return QStringLiteral("%1 (%2)").arg(value).arg(hexText(value, type));
}

QStringList formatTable(const QList<QStringList> &rows)
{
    QVector<int> widths;
    for (const QStringList &row : rows) {
        widths.resize(std::max(widths.size(), row.size()));
        for (int i = 0; i < row.size(); ++i)
            widths[i] = std::max(widths[i], row.at(i).size());
    }
    QStringList lines;
    for (const QStringList &row : rows) {
        QString line;
        for (int i = 0; i < row.size(); ++i)
            line += i + 1 < row.size() ? row.at(i).leftJustified(widths[i] + 2) : row.at(i);
        while (line.endsWith(QLatin1Char(' ')))
            line.chop(1);
        lines << line;
    }
    return lines;
}

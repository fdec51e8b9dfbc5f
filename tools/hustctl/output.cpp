#include "output.h"

#include <QJsonArray>
#include <QJsonDocument>

#include <algorithm>

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

QJsonObject readJson(const QString &address, ValueType type, const QVector<quint32> &values)
{
    QJsonArray numbers;
    for (quint32 v : values)
        numbers.append(double(v));
    return QJsonObject {{QStringLiteral("address"), address},
                        {QStringLiteral("type"), typeName(type)},
                        {QStringLiteral("values"), numbers}};
}

QJsonObject watchJson(double seconds, const QList<WatchValue> &values, const QString &error)
{
    QJsonObject members;
    for (const WatchValue &v : values)
        members.insert(v.key, v.value ? QJsonValue(double(*v.value)) : QJsonValue());
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

QString formatValue(quint32 value, ValueType type)
{
    if (type == ValueType::Bit)
        return QString::number(value);
    const int digits = type == ValueType::Word ? 4 : 8;
    return QStringLiteral("%1 (0x%2)").arg(value).arg(value, digits, 16, QLatin1Char('0'));
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

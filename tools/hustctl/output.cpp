#include "output.h"

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

QString jsonString(const QString &text)
{
    QString out = QStringLiteral("\"");
    for (const QChar c : text) {
        if (c == QLatin1Char('"') || c == QLatin1Char('\\'))
            out += QLatin1Char('\\') + c;
        else if (c.unicode() < 0x20)
            out += QStringLiteral("\\u%1").arg(c.unicode(), 4, 16, QLatin1Char('0'));
        else
            out += c;
    }
    return out + QLatin1Char('"');
}

QString readJson(const QString &address, ValueType type, const QVector<quint32> &values)
{
    QStringList numbers;
    for (quint32 v : values)
        numbers << QString::number(v);
    return QStringLiteral("{\"address\": %1, \"type\": %2, \"values\": [%3]}")
        .arg(jsonString(address), jsonString(typeName(type)), numbers.join(QStringLiteral(", ")));
}

QString watchJson(double seconds, const QList<WatchValue> &values)
{
    QStringList members;
    for (const WatchValue &v : values) {
        members << jsonString(v.key) + QStringLiteral(": ")
                + (v.value ? QString::number(*v.value) : QStringLiteral("null"));
    }
    return QStringLiteral("{\"t\": %1, \"values\": {%2}}")
        .arg(seconds, 0, 'f', 3)
        .arg(members.join(QStringLiteral(", ")));
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

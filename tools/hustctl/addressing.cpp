#include "addressing.h"

#include "sharedoptions.h"

#include <QRegularExpression>

#include <cstring>

namespace {

bool isRegisterPrefix(const QString &prefix)
{
    return prefix == QLatin1String("DW") || prefix == QLatin1String("B");
}

// First double word of the controller's bit devices.
int deviceBase(const QString &prefix)
{
    if (prefix == QLatin1String("I"))
        return 10800;
    if (prefix == QLatin1String("O"))
        return 10808;
    if (prefix == QLatin1String("C"))
        return 10816;
    if (prefix == QLatin1String("S"))
        return 10824;
    return 10832; // A
}

bool parseType(const QString &text, ValueType *type, ValueFormat *format)
{
    *format = ValueFormat::Plain;
    if (text == QLatin1String("bit"))
        *type = ValueType::Bit;
    else if (text == QLatin1String("word"))
        *type = ValueType::Word;
    else if (text == QLatin1String("dword"))
        *type = ValueType::DWord;
    else if (text == QLatin1String("int"))
        *format = ValueFormat::Signed;
    else if (text == QLatin1String("hex"))
        *format = ValueFormat::Hex;
    else if (text == QLatin1String("float"))
        *format = ValueFormat::Float;
    else
        return false;
    if (*format != ValueFormat::Plain)
        *type = ValueType::DWord;
    return true;
}

// Bits one value spans on a bit device, where words and double words are read as bit groups.
int deviceStride(ValueType type)
{
    switch (type) {
    case ValueType::Bit:
        return 1;
    case ValueType::Word:
        return 16;
    case ValueType::DWord:
        break;
    }
    return 32;
}

} // namespace

QString typeName(ValueType type)
{
    switch (type) {
    case ValueType::Bit:
        return QStringLiteral("bit");
    case ValueType::Word:
        return QStringLiteral("word");
    case ValueType::DWord:
        break;
    }
    return QStringLiteral("dword");
}

bool Target::parse(const QString &address, const QString &typeText, int count, Target *target,
                   QString *reason)
{
    static const QRegularExpression pattern(
        QStringLiteral("^([A-Za-z_]*)([0-9]*)(?:\\.([0-9]*))?$"));
    const QRegularExpressionMatch m = pattern.match(address);
    if (!m.hasMatch()) {
        *reason
            = QStringLiteral("%1: not an address (letters, a number and for B an optional .bit)")
                  .arg(address);
        return false;
    }
    Target t;
    t.m_text = address;
    t.m_prefix = m.captured(1);
    t.m_count = count;
    static const QStringList prefixes
        = {QStringLiteral("DW"), QStringLiteral("B"), QStringLiteral("I"), QStringLiteral("O"),
           QStringLiteral("C"),  QStringLiteral("S"), QStringLiteral("A")};
    if (!prefixes.contains(t.m_prefix)) {
        *reason = QStringLiteral("%1: unknown address kind \"%2\" (DW, B, I, O, C, S or A)")
                      .arg(address, t.m_prefix);
        return false;
    }
    const QString digits = m.captured(2);
    if (digits.isEmpty()) {
        *reason = QStringLiteral("%1: the address has no number").arg(address);
        return false;
    }
    const bool registerKind = isRegisterPrefix(t.m_prefix);
    const int last = registerKind ? kLastDoubleWord : kLastDeviceBit;
    bool ok = false;
    t.m_number = digits.size() <= 9 ? digits.toInt(&ok) : 0;
    if (!ok || t.m_number > last) {
        *reason = QStringLiteral("%1: number beyond the controller's range (%2 0 to %3)")
                      .arg(address, t.m_prefix)
                      .arg(last);
        return false;
    }
    if (m.capturedStart(3) >= 0) {
        const QString bitText = m.captured(3);
        if (t.m_prefix != QLatin1String("B")) {
            *reason = QStringLiteral("%1: only B addresses take a .bit").arg(address);
            return false;
        }
        t.m_bit = bitText.size() <= 2 ? bitText.toInt(&ok) : -1;
        if (bitText.isEmpty() || !ok || t.m_bit > 31) {
            *reason = QStringLiteral("%1: the bit after the point must be 0 to 31").arg(address);
            return false;
        }
    }

    const bool bitAddress = t.m_bit >= 0;
    t.m_type = (bitAddress || !registerKind) ? ValueType::Bit : ValueType::DWord;
    if (!typeText.isEmpty() && !parseType(typeText, &t.m_type, &t.m_format)) {
        *reason = QStringLiteral("\"%1\" is not a type (bit, word, dword, int, hex or float)")
                      .arg(typeText);
        return false;
    }
    if (bitAddress && t.m_type != ValueType::Bit) {
        *reason = QStringLiteral("%1 is a bit: it has no %2 type").arg(address, t.typeText());
        return false;
    }
    if (registerKind && !bitAddress && t.m_type == ValueType::Bit) {
        *reason = QStringLiteral("%1: a bit of a double word is addressed as B%2.<bit>")
                      .arg(address)
                      .arg(t.m_number);
        return false;
    }
    if (!registerKind && t.m_number % deviceStride(t.m_type) != 0) {
        *reason = QStringLiteral("%1: a %2 of %3 bits starts at a multiple of %4")
                      .arg(address, typeName(t.m_type), t.m_prefix)
                      .arg(deviceStride(t.m_type));
        return false;
    }

    // The last value must still lie in the address space.
    qint64 lastUnit;
    if (bitAddress)
        lastUnit = t.m_number + (qint64(t.m_bit) + count - 1) / 32;
    else if (registerKind)
        lastUnit = qint64(t.m_number) + count - 1;
    else
        lastUnit = t.m_number + qint64(deviceStride(t.m_type)) * count - 1;
    if (lastUnit > last) {
        *reason = QStringLiteral("%1: %2 values run beyond the controller's range (%3 0 to %4)")
                      .arg(address)
                      .arg(count)
                      .arg(t.m_prefix)
                      .arg(last);
        return false;
    }
    if (t.doubleWordCount() > kMaxDoubleWordsPerRequest) {
        *reason = QStringLiteral("%1: %2 values need %3 double words, more than the %4 of one "
                                 "request")
                      .arg(address)
                      .arg(count)
                      .arg(t.doubleWordCount())
                      .arg(kMaxDoubleWordsPerRequest);
        return false;
    }
    *target = t;
    return true;
}

QString Target::typeText() const
{
    switch (m_format) {
    case ValueFormat::Signed:
        return QStringLiteral("int");
    case ValueFormat::Hex:
        return QStringLiteral("hex");
    case ValueFormat::Float:
        return QStringLiteral("float");
    case ValueFormat::Plain:
        break;
    }
    return typeName(m_type);
}

QList<int> Target::doubleWords() const
{
    int first;
    int last;
    if (m_bit >= 0) {
        first = m_number;
        last = m_number + (m_bit + m_count - 1) / 32;
    } else if (isRegisterPrefix(m_prefix)) {
        // Word reads of a register fetch one double word per word as well.
        first = m_number;
        last = m_number + m_count - 1;
    } else if (m_type == ValueType::Word) {
        // The driver counts a word read of a bit device in words from the start of its first
        // double word, so one that starts in the upper half reads a double word beyond its last
        // word when it spans an odd number of words.
        first = deviceBase(m_prefix) + m_number / 32;
        last = first + (m_count + (m_number % 32 >= 16 ? 2 : 0) + 1) / 2 - 1;
    } else {
        first = deviceBase(m_prefix) + m_number / 32;
        last = deviceBase(m_prefix) + (m_number + deviceStride(m_type) * m_count - 1) / 32;
    }
    QList<int> indices;
    for (int i = first; i <= last; ++i)
        indices << i;
    return indices;
}

int Target::valueBytes() const
{
    switch (m_type) {
    case ValueType::Bit:
        return 1;
    case ValueType::Word:
        return 2;
    case ValueType::DWord:
        break;
    }
    return 4;
}

QString Target::itemLabel(int i) const
{
    if (m_bit >= 0) {
        const int bit = m_bit + i;
        return QStringLiteral("B%1.%2").arg(m_number + bit / 32).arg(bit % 32);
    }
    if (!isRegisterPrefix(m_prefix))
        return m_prefix + QString::number(m_number + deviceStride(m_type) * i);
    if (m_type == ValueType::DWord)
        return m_prefix + QString::number(m_number + i);
    // Words of a register are the halves of its double words; the address number picks the
    // half the first word comes from (bits 16 to 31 when the number modulo 32 is 16 or more).
    const int half = (m_number % 32 >= 16 ? 1 : 0) + i;
    return QStringLiteral("%1%2(%3)")
        .arg(m_prefix)
        .arg(m_number + half / 2)
        .arg(half % 2 ? QStringLiteral("hi") : QStringLiteral("lo"));
}

QList<DriverRequest> Target::readRequests() const
{
    QList<DriverRequest> requests;
    const bool oneRequest = (isRegisterPrefix(m_prefix) && m_bit < 0) || m_type == ValueType::Word;
    if (oneRequest) {
        const auto dataType = m_type == ValueType::Word ? CommunicatorCommand::WordType
                                                        : CommunicatorCommand::DWordType;
        requests.append(
            {CommunicatorCommand(dataType, quint32(m_count), m_prefix + QString::number(m_number)),
             m_count, QByteArray()});
        return requests;
    }
    // Bits, and double words of bit devices, are read one request per value.
    const auto dataType
        = m_type == ValueType::Bit ? CommunicatorCommand::BitType : CommunicatorCommand::DWordType;
    for (int i = 0; i < m_count; ++i)
        requests.append({CommunicatorCommand(dataType, 1, itemLabel(i)), 1, QByteArray()});
    return requests;
}

bool Target::writeRequest(const QList<quint32> &values, DriverRequest *request,
                          QString *reason) const
{
    if (!isRegisterPrefix(m_prefix)) {
        *reason = QStringLiteral("%1: the controller's %2 bits cannot be written")
                      .arg(m_text, m_prefix);
        return false;
    }
    if (m_type == ValueType::Word) {
        *reason = QStringLiteral("%1: words cannot be written, only double words and B bits")
                      .arg(m_text);
        return false;
    }
    if (m_type == ValueType::Bit) {
        if (values.size() != 1) {
            *reason = QStringLiteral("%1: a bit takes one value").arg(m_text);
            return false;
        }
        request->command = CommunicatorCommand(CommunicatorCommand::BitType, 1, itemLabel(0));
        request->values = 1;
        request->data = QByteArray(1, char(values.first()));
        return true;
    }
    request->command = CommunicatorCommand(CommunicatorCommand::DWordType, quint32(values.size()),
                                           m_prefix + QString::number(m_number));
    request->values = values.size();
    request->data.clear();
    for (quint32 v : values) {
        for (int i = 0; i < 4; ++i)
            request->data.append(char((v >> (8 * i)) & 0xff));
    }
    return true;
}

bool parseValue32(const QString &text, quint32 *value, QString *reason)
{
    if (cli::parseValue32(text, value))
        return true;
    *reason = QStringLiteral("\"%1\" is not a 32-bit number").arg(text);
    return false;
}

bool parseValue(const QString &text, const Target &target, quint32 *value, QString *reason)
{
    if (target.format() == ValueFormat::Float) {
        bool ok = false;
        const float f = text.toFloat(&ok);
        if (!ok) {
            *reason = QStringLiteral("\"%1\" is not a float").arg(text);
            return false;
        }
        std::memcpy(value, &f, sizeof f);
        return true;
    }
    const bool bareHex = target.format() == ValueFormat::Hex
        && !text.startsWith(QLatin1String("0x")) && !text.startsWith(QLatin1String("0X"));
    if (!parseValue32(bareHex ? QStringLiteral("0x") + text : text, value, reason))
        return false;
    if (target.type() == ValueType::Bit && *value > 1) {
        *reason = QStringLiteral("%1: a bit is 0 or 1").arg(text);
        return false;
    }
    return true;
}

#ifndef COMMUNICATORCOMMAND_H
#define COMMUNICATORCOMMAND_H

#include <QMetaType>
#include <QString>

// One read or write request of the run-time: an address text, a data type and a count.
// The run-time passes these by value and by const reference; its binary layout (a virtual table
// holding getDataSize and stringKey, then the seven fields in this order) is shared with it.
class CommunicatorCommand
{
public:
    // A 32-bit enumeration with a fixed underlying type: the run-time may hand in any value, and
    // every int is then a valid one.
    enum DataType : qint32 {
        BitType = 0,
        ByteType = 1,
        WordType = 2,
        DWordType = 3,
        QWordType = 4,
        BlockType = 5
    };

    CommunicatorCommand() = default;
    CommunicatorCommand(DataType type, quint32 count, const QString &addr)
        : dataType(type)
        , length(count)
        , address(addr)
    { }
    CommunicatorCommand(const CommunicatorCommand &) = default;
    CommunicatorCommand &operator=(const CommunicatorCommand &) = default;

    // Byte size of the requested data, in unsigned 32-bit arithmetic.
    virtual quint32 getDataSize() const
    {
        switch (static_cast<quint32>(dataType)) {
        case BitType:
            return length == 0 ? 1u : (length / 8u) + ((length % 8u) ? 1u : 0u);
        case ByteType:
        case BlockType:
            return length;
        case WordType:
            return 2u * length;
        case DWordType:
            return 4u * length;
        case QWordType:
            return 8u * length;
        default:
            return 1u;
        }
    }

    // "<address>_<dataType>_<length>", e.g. "d100_3_2". One multi-argument arg(), so that a "%n"
    // inside the address is kept as text instead of being filled in by the later fields.
    virtual QString stringKey() const
    {
        return QStringLiteral("%1_%2_%3")
            .arg(address, QString::number(static_cast<int>(dataType)), QString::number(length));
    }

    qint32 id = 0; // run-time's own field, copied unchanged
    DataType dataType = BitType;
    quint32 length = 0;
    QString address;
    qint32 option = 0; // run-time's own field, copied unchanged
    QString tag; // run-time's own field, copied unchanged
    bool flag = false; // run-time's own field, copied unchanged
};

Q_DECLARE_METATYPE(CommunicatorCommand)
Q_DECLARE_METATYPE(CommunicatorCommand::DataType)

#endif // COMMUNICATORCOMMAND_H

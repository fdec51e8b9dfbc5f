#include "commands.h"

#include "driverhost.h"
#include "output.h"
#include "targetreader.h"

#include <QElapsedTimer>

bool WriteCommand::prepare(CtlOptions &options, QString *reason)
{
    const QStringList valueTexts = options.arguments.mid(1);
    if (!Target::parse(options.arguments.first(), options.type, valueTexts.size(), &m_target,
                       reason))
        return false;
    for (const QString &text : valueTexts) {
        quint32 value = 0;
        if (!parseValue(text, m_target.type(), &value, reason))
            return false;
        m_values << value;
    }
    return m_target.writeRequest(m_values, &m_request, reason);
}

int WriteCommand::run(CommandEnv &env)
{
    QString error;
    if (!env.host->write(m_request.command, m_request.data, &error))
        return fail(env.err, QStringLiteral("%1: %2").arg(m_request.command.address, error));

    // The worker sends the write before it serves the read that follows, so a read-back that
    // shows the values proves that the frames went out; it also catches a write the controller
    // did not take.
    const QVector<quint32> wanted = m_values.toVector();
    QVector<quint32> values;
    QElapsedTimer clock;
    clock.start();
    for (;;) {
        const int left = int(qMax<qint64>(0, env.options.timeoutMs - clock.elapsed()));
        if (!readTarget(*env.host, m_target, left, &values, &error))
            return fail(env.err, error);
        if (values == wanted || clock.elapsed() >= env.options.timeoutMs)
            break;
        DriverHost::pause(DriverHost::kPollIntervalMs);
    }

    if (env.options.json) {
        env.out << jsonLine(readJson(m_target.text(), m_target.type(), values)) << '\n';
    } else {
        QList<QStringList> rows;
        for (int i = 0; i < values.size(); ++i) {
            rows << QStringList {m_target.itemLabel(i), QStringLiteral("<-"),
                                 formatValue(m_values.at(i), m_target.type()),
                                 QStringLiteral("reads back"),
                                 formatValue(values.at(i), m_target.type())};
        }
        for (const QString &line : formatTable(rows))
            env.out << line << '\n';
    }
    if (values != wanted) {
        return fail(env.err,
                    QStringLiteral("%1: the controller does not show the written value")
                        .arg(m_target.text()));
    }
    return 0;
}

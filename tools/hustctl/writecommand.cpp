#include "commands.h"

#include "driverhost.h"
#include "output.h"
#include "targetreader.h"

#include <QElapsedTimer>
#include <QJsonObject>

bool WriteCommand::prepare(CtlOptions &options, QString *reason)
{
    m_target = options.targets.first();
    m_values = options.values;
    return m_target.writeRequest(m_values, &m_request, reason);
}

int WriteCommand::run(CommandEnv &env)
{
    QString error;
    if (!env.host->write(m_request.command, m_request.data, &error))
        return fail(env.err, QStringLiteral("%1: %2").arg(m_request.command.address, error));

    const QVector<quint32> wanted = m_values.toVector();
    if (env.options.noVerify) {
        // The driver has taken the write; its worker sends it on its own.
        if (env.options.json) {
            QJsonObject line = readJson(m_target, wanted);
            line.insert(QStringLiteral("verified"), false);
            env.out << jsonLine(line) << '\n';
            return 0;
        }
        QList<QStringList> rows;
        for (int i = 0; i < wanted.size(); ++i) {
            rows << QStringList {m_target.itemLabel(i), QStringLiteral("<-"),
                                 formatValue(wanted.at(i), m_target.type(), m_target.format()),
                                 QStringLiteral("(not read back)")};
        }
        for (const QString &line : formatTable(rows))
            env.out << line << '\n';
        return 0;
    }

    // The worker sends the write before it serves the read that follows, so a read-back that
    // shows the values proves that the frames went out; it also catches a write the controller
    // did not take.
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
        env.out << jsonLine(readJson(m_target, values)) << '\n';
    } else {
        QList<QStringList> rows;
        for (int i = 0; i < values.size(); ++i) {
            rows << QStringList {m_target.itemLabel(i), QStringLiteral("<-"),
                                 formatValue(m_values.at(i), m_target.type(), m_target.format()),
                                 QStringLiteral("reads back"),
                                 formatValue(values.at(i), m_target.type(), m_target.format())};
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

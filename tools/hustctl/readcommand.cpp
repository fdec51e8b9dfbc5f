#include "commands.h"

#include "driverhost.h"
#include "output.h"
#include "targetreader.h"

bool ReadCommand::prepare(CtlOptions &options, QString *reason)
{
    return Target::parse(options.arguments.first(), options.type, qMax(1, options.count), &m_target,
                         reason);
}

int ReadCommand::run(CommandEnv &env)
{
    env.host->setSession(sessionCommands({m_target}));
    QVector<quint32> values;
    QString error;
    if (!readTarget(*env.host, m_target, env.options.timeoutMs, &values, &error))
        return fail(env.err, error);

    if (env.options.json) {
        env.out << jsonLine(readJson(m_target.text(), m_target.type(), values)) << '\n';
        return 0;
    }
    QList<QStringList> rows;
    for (int i = 0; i < values.size(); ++i)
        rows << QStringList {m_target.itemLabel(i), formatValue(values.at(i), m_target.type())};
    for (const QString &line : formatTable(rows))
        env.out << line << '\n';
    return 0;
}

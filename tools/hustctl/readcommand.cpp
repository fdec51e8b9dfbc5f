#include "commands.h"

#include "driverhost.h"
#include "output.h"
#include "targetreader.h"

int ReadCommand::run(CommandEnv &env)
{
    const QList<Target> &targets = env.options.targets;
    env.host->setSession(sessionCommands(targets));
    QList<QVector<quint32>> results;
    for (const Target &target : targets) {
        QVector<quint32> values;
        QString error;
        if (!readTarget(*env.host, target, env.options.timeoutMs, &values, &error))
            return fail(env.err, error);
        results << values;
    }

    if (env.options.json) {
        for (int t = 0; t < targets.size(); ++t)
            env.out << jsonLine(readJson(targets.at(t), results.at(t))) << '\n';
        return 0;
    }
    QList<QStringList> rows;
    for (int t = 0; t < targets.size(); ++t) {
        const Target &target = targets.at(t);
        for (int i = 0; i < results.at(t).size(); ++i)
            rows << QStringList {target.itemLabel(i),
                                 formatValue(results.at(t).at(i), target.type(), target.format())};
    }
    for (const QString &line : formatTable(rows))
        env.out << line << '\n';
    return 0;
}

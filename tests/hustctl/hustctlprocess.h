#ifndef HUSTCTLPROCESS_H
#define HUSTCTLPROCESS_H

#include <QProcess>
#include <QString>
#include <QStringList>

// The outcome of one hustctl process.
struct Run
{
    int status = -1;
    QByteArray out;
    QByteArray err;
};

// Runs hustctl to its end; every run is bounded.
inline Run hustctl(const QStringList &args, int timeoutMs = 30000,
                   const QProcessEnvironment &env = QProcessEnvironment::systemEnvironment())
{
    QProcess process;
    process.setProcessEnvironment(env);
    process.start(QStringLiteral(HUSTCTL_PATH), args);
    Run run;
    if (!process.waitForFinished(timeoutMs)) {
        process.kill();
        process.waitForFinished();
        run.err = "did not finish";
        return run;
    }
    run.status = process.exitStatus() == QProcess::NormalExit ? process.exitCode() : -2;
    run.out = process.readAllStandardOutput();
    run.err = process.readAllStandardError();
    return run;
}

inline QString describe(const Run &run)
{
    return QStringLiteral("status %1, stdout \"%2\", stderr \"%3\"")
        .arg(run.status)
        .arg(QString::fromUtf8(run.out), QString::fromUtf8(run.err));
}

#endif // HUSTCTLPROCESS_H

#include "command.h"
#include "driverhost.h"
#include "driverplugin.h"
#include "link.h"
#include "options.h"
#include "overflowwatch.h"
#include "screencontroller.h"

#include "driverinterface.h"

#include <QApplication>
#include <QFile>
#include <QLoggingCategory>
#include <QTextStream>

#include <unistd.h>

namespace {

QtMessageHandler defaultHandler = nullptr;

// Qt's own messages (platform plug-ins, the plug-in loader) never reach a command's output, which
// is one line on a failure; the driver's and host's categories pass, filtered by the logging
// rules. Setting QT_LOGGING_RULES or QT_DEBUG_PLUGINS lets everything through.
void filterMessages(QtMsgType type, const QMessageLogContext &context, const QString &message)
{
    static const bool everything = qEnvironmentVariableIsSet("QT_LOGGING_RULES")
        || qEnvironmentVariableIsSet("QT_DEBUG_PLUGINS");
    const bool ours = context.category && qstrncmp(context.category, "hust.", 5) == 0;
    if (ours || everything || type == QtFatalMsg)
        defaultHandler(type, context, message);
}

// Whether errors are to be JSON: --json before any "--".
bool jsonRequested(const QStringList &args)
{
    for (const QString &arg : args) {
        if (arg == QLatin1String("--"))
            return false;
        if (arg == QLatin1String("--json"))
            return true;
    }
    return false;
}

// Loads the plug-in, opens the line when the command needs it and runs the command.
int run(Command &command, const CtlOptions &options, QCoreApplication &app, QTextStream &out,
        QTextStream &err)
{
    if (!command.needsDriver()) {
        CommandEnv env {options, nullptr, nullptr, out, err, QString()};
        return command.run(env);
    }
    Link link; // declared first, so that the driver is gone before its port
    DriverPlugin plugin;
    const QString pluginFile
        = options.pluginPath.isEmpty() ? DriverPlugin::defaultPath() : options.pluginPath;
    if (!plugin.load(pluginFile))
        return fail(err, plugin.errorString());

    if (!command.needsLink()) {
        CommandEnv env {options, plugin.driver(), nullptr, out, err, pluginFile};
        return command.run(env);
    }

    QString reason;
    if (!link.open(options.link, plugin.driver(), &reason))
        return fail(err, reason);
    DriverHost host(plugin.driver(), link.port());
    CommandEnv env {options, plugin.driver(), &host, out, err, pluginFile};
    const int status = command.run(env);
    out.flush();

    // Leave the screen as the run-time does when it shuts down: the driver stops its loop
    // reading (and tells the controller) without waiting for another screen.
    app.setProperty("isExit", true);
    host.closeSession();
    return status;
}

} // namespace

int main(int argc, char *argv[])
{
    defaultHandler = qInstallMessageHandler(filterMessages);
    // Standard output without a C library buffer in between, so that a failed write shows here
    // with the system's reason.
    QFile console;
    console.open(STDOUT_FILENO, QIODevice::WriteOnly | QIODevice::Unbuffered);
    QTextStream out(&console);
    QTextStream err(stderr);

    QStringList args;
    for (int i = 1; i < argc; ++i)
        args << QString::fromLocal8Bit(argv[i]);
    if (jsonRequested(args))
        reportErrorsAsJson(&out);
    CtlOptions options;
    QString reason;
    if (!parseOptions(args, &options, &reason))
        return usage(err, reason);
    if (options.version) {
        out << hustctlTool().name << ' ' << hustctlTool().version << '\n';
        return 0;
    }
    if (options.help) {
        out << cli::helpText(hustctlTool(), options.command);
        return 0;
    }
    std::unique_ptr<Command> command = Command::create(options.command);
    if (!command->prepare(options, &reason))
        return usage(err, reason);

    // A command that may put the driver's notices on a panel runs as a widget application with
    // a screen controller, as the run-time does, when there is a display to show them on.
    std::unique_ptr<QCoreApplication> app;
    std::unique_ptr<ScreenController> screen;
    if (command->mayShowNotices() && panelAvailable()) {
        app.reset(new QApplication(argc, argv));
        screen.reset(new ScreenController);
        screen->publish(app.get());
    } else {
        app.reset(new QCoreApplication(argc, argv));
    }
    // hustctl reports failures itself in one line; the libraries' diagnostics stay available
    // through QT_LOGGING_RULES.
    QLoggingCategory::setFilterRules(
        QStringLiteral("hust.*.debug=false\nhust.*.info=false\nhust.host.warning=false"));

    // The driver decides when it is created whether it runs a link worker.
    if (command->needsLink())
        app->setProperty("zel_env", true);

    const int status = run(*command, options, *app, out, err);
    out.flush();
    if (out.status() != QTextStream::Ok)
        return fail(err, QStringLiteral("standard output: %1").arg(console.errorString()));
    return status;
}

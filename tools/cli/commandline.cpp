#include "commandline.h"

namespace cli {

namespace {

const Option kHelp {QStringLiteral("help"),
                    QLatin1Char('h'),
                    QString(),
                    QStringLiteral("this help (with a command: its options and examples)"),
                    {}};
const Option kVersion {
    QStringLiteral("version"), QChar(), QString(), QStringLiteral("the version"), {}};

// Where the help puts the descriptions.
constexpr int kHelpColumn = 30;

// Every option a command line of the tool may carry, with the command that declares it (null for
// the tool's own options).
struct Known
{
    const Option *option;
    const Command *command;
};

QList<Known> knownOptions(const Tool &tool)
{
    QList<Known> known {{&kHelp, nullptr}, {&kVersion, nullptr}};
    for (const Option &o : tool.options)
        known.append({&o, nullptr});
    for (const Command &c : tool.commands) {
        for (const Option &o : c.options)
            known.append({&o, &c});
    }
    return known;
}

// The option a name stands for. Command options of the same name are one option to the scan (a
// name takes a value in every command that declares it, or in none).
const Known *findLong(const QList<Known> &known, const QString &name)
{
    for (const Known &k : known) {
        if (k.option->name == name || k.option->aliases.contains(name))
            return &k;
    }
    return nullptr;
}

const Known *findLetter(const QList<Known> &known, QChar letter)
{
    for (const Known &k : known) {
        if (!k.option->letter.isNull() && k.option->letter == letter)
            return &k;
    }
    return nullptr;
}

// Whether the command (or the tool itself) accepts an option of that name.
bool accepts(const Tool &tool, const Command *command, const QString &name)
{
    const auto declares = [&name](const QList<Option> &options) {
        for (const Option &o : options) {
            if (o.name == name)
                return true;
        }
        return false;
    };
    return name == kHelp.name || name == kVersion.name || declares(tool.options)
        || (command && declares(command->options));
}

bool isArgument(const QString &arg)
{
    return arg.size() < 2 || arg.at(0) != QLatin1Char('-') || arg.at(1).isDigit();
}

struct Given
{
    const Known *known;
    QString spelled; // as written, for messages
    QString value;
};

// Reads one option word (and its value, from the next word when it is not attached).
bool takeOption(const QList<Known> &known, const QStringList &args, int *i, QList<Given> *given,
                QString *reason)
{
    const QString arg = args.at(*i);
    const auto needValue = [&](const Known *k, const QString &spelled, QString *value) {
        if (*i + 1 >= args.size()) {
            *reason = QStringLiteral("%1 needs a value (%2)").arg(spelled, k->option->valueName);
            return false;
        }
        *value = args.at(++*i);
        return true;
    };
    if (arg.startsWith(QLatin1String("--"))) {
        const int eq = arg.indexOf(QLatin1Char('='));
        const QString name = arg.mid(2, eq < 0 ? -1 : eq - 2);
        const Known *k = findLong(known, name);
        if (!k) {
            *reason = QStringLiteral("unknown option \"%1\"").arg(arg);
            return false;
        }
        const QString spelled = QStringLiteral("--") + name;
        QString value;
        if (k->option->valueName.isEmpty()) {
            if (eq >= 0) {
                *reason = QStringLiteral("%1 takes no value").arg(spelled);
                return false;
            }
        } else if (eq >= 0) {
            value = arg.mid(eq + 1);
        } else if (!needValue(k, spelled, &value)) {
            return false;
        }
        given->append({k, spelled, value});
        return true;
    }
    for (int at = 1; at < arg.size(); ++at) {
        const QString spelled = QStringLiteral("-") + arg.at(at);
        const Known *k = findLetter(known, arg.at(at));
        if (!k) {
            *reason = QStringLiteral("unknown option \"%1\"").arg(spelled);
            return false;
        }
        if (k->option->valueName.isEmpty()) {
            given->append({k, spelled, QString()});
            continue;
        }
        QString value = arg.mid(at + 1);
        if (value.isEmpty() && !needValue(k, spelled, &value))
            return false;
        given->append({k, spelled, value});
        return true;
    }
    return true;
}

QString optionLabel(const Option &o)
{
    QString label
        = o.letter.isNull() ? QStringLiteral("    ") : QStringLiteral("-%1, ").arg(o.letter);
    label += QStringLiteral("--") + o.name;
    if (!o.valueName.isEmpty())
        label += QLatin1Char(' ') + o.valueName;
    return label;
}

// "  label    text", the text's further lines under its first.
QString helpLine(const QString &label, const QString &text)
{
    QString line = QStringLiteral("  ") + label;
    if (line.size() >= kHelpColumn)
        line += QLatin1Char('\n') + QString(kHelpColumn, QLatin1Char(' '));
    else
        line = line.leftJustified(kHelpColumn);
    line += QString(text).replace(QLatin1Char('\n'),
                                  QLatin1Char('\n') + QString(kHelpColumn, QLatin1Char(' ')));
    return line + QLatin1Char('\n');
}

QString optionsHelp(const QList<Option> &options)
{
    QString text;
    for (const Option &o : options)
        text += helpLine(optionLabel(o), o.help);
    return text;
}

QString examplesHelp(const Tool &tool, const QStringList &examples)
{
    QString text;
    if (!examples.isEmpty()) {
        text = QStringLiteral("\nexamples:\n");
        for (const QString &example : examples)
            text += QStringLiteral("  %1 %2\n").arg(tool.name, example);
    }
    return text;
}

bool namedCommands(const Tool &tool)
{
    return !(tool.commands.size() == 1 && tool.commands.first().name.isEmpty());
}

} // namespace

QString Parsed::value(const QString &name) const
{
    const QStringList v = m_values.value(name);
    return v.isEmpty() ? QString() : v.last();
}

const Command *findCommand(const Tool &tool, const QString &name)
{
    for (const Command &c : tool.commands) {
        if (c.name == name)
            return &c;
    }
    return nullptr;
}

bool parse(const Tool &tool, const QStringList &args, Parsed *parsed, QString *reason)
{
    const QList<Known> known = knownOptions(tool);
    QList<Given> given;
    QStringList positional;
    for (int i = 0; i < args.size(); ++i) {
        if (args.at(i) == QLatin1String("--")) {
            positional += args.mid(i + 1);
            break;
        }
        if (isArgument(args.at(i)))
            positional << args.at(i);
        else if (!takeOption(known, args, &i, &given, reason))
            return false;
    }
    for (const Given &g : qAsConst(given)) {
        if (g.known->option == &kHelp)
            parsed->help = true;
        else if (g.known->option == &kVersion)
            parsed->version = true;
        else
            parsed->add(g.known->option->name, g.value);
    }

    const Command *command = tool.commands.isEmpty() ? nullptr : &tool.commands.first();
    if (namedCommands(tool)) {
        if (!positional.isEmpty() && positional.first() == QLatin1String("help")) {
            parsed->help = true;
            positional.removeFirst();
        }
        if (positional.isEmpty()) {
            if (parsed->help || parsed->version)
                return true;
            *reason = QStringLiteral("no command given (%1 --help lists them)").arg(tool.name);
            return false;
        }
        command = findCommand(tool, positional.first());
        if (!command) {
            *reason = QStringLiteral("unknown command \"%1\"").arg(positional.first());
            return false;
        }
        parsed->command = positional.takeFirst();
    }
    parsed->arguments = positional;
    for (const Given &g : qAsConst(given)) {
        if (!accepts(tool, command, g.known->option->name)) {
            *reason = QStringLiteral("%1 does not apply to %2").arg(g.spelled, parsed->command);
            return false;
        }
    }
    if (parsed->help || parsed->version || !command)
        return true;

    const QString who = command->name.isEmpty() ? tool.name : command->name;
    if (positional.size() < command->minArguments) {
        *reason = QStringLiteral("%1 needs %2").arg(who, command->arguments);
        return false;
    }
    if (command->maxArguments >= 0 && positional.size() > command->maxArguments) {
        *reason = command->maxArguments == 0
            ? QStringLiteral("%1 takes no arguments (\"%2\")").arg(who, positional.first())
            : QStringLiteral("%1: \"%2\" is one argument too many")
                  .arg(who, positional.at(command->maxArguments));
        return false;
    }
    return true;
}

QString helpText(const Tool &tool, const QString &commandName)
{
    const Command *command = findCommand(tool, commandName);
    if (command && !command->name.isEmpty()) {
        QString text = QStringLiteral("usage: %1 %2 %3 [options]\n%4\n")
                           .arg(tool.name, command->name, command->arguments, command->summary);
        if (!command->options.isEmpty())
            text += QStringLiteral("\noptions:\n") + optionsHelp(command->options);
        text += QStringLiteral("\nThe options of every command: %1 --help\n").arg(tool.name);
        return text + examplesHelp(tool, command->examples);
    }
    QString text;
    if (namedCommands(tool)) {
        text
            = QStringLiteral("usage: %1 [options] COMMAND [arguments] [options]\n%2\n\ncommands:\n")
                  .arg(tool.name, tool.summary);
        for (const Command &c : tool.commands)
            text += helpLine(c.name + QLatin1Char(' ') + c.arguments, c.summary);
        text += helpLine(QStringLiteral("help COMMAND"),
                         QStringLiteral("a command's options and examples"));
    } else {
        text = QStringLiteral("usage: %1 [options]\n%2\n").arg(tool.name, tool.summary);
    }
    QList<Option> options = tool.options;
    if (!namedCommands(tool) && !tool.commands.isEmpty())
        options += tool.commands.first().options;
    text += QStringLiteral("\noptions:\n") + optionsHelp(options + QList<Option> {kHelp, kVersion});
    if (!namedCommands(tool))
        text += examplesHelp(tool, tool.commands.first().examples);
    if (!tool.epilogue.isEmpty())
        text += QLatin1Char('\n') + tool.epilogue;
    return text;
}

QString oneLine(const QString &text)
{
    QString line;
    line.reserve(text.size());
    for (const QChar c : text) {
        if (c.unicode() < 0x20 || c.unicode() == 0x7F)
            line += QStringLiteral("\\x%1").arg(c.unicode(), 2, 16, QLatin1Char('0'));
        else
            line += c;
    }
    return line;
}

bool toInt(const QString &option, const QString &text, int low, int high, int *value,
           QString *reason)
{
    bool ok = false;
    const int v = text.toInt(&ok, 10);
    if (!ok || v < low || v > high) {
        *reason = QStringLiteral("%1: \"%2\" is not a number from %3 to %4")
                      .arg(option, text, QString::number(low), QString::number(high));
        return false;
    }
    *value = v;
    return true;
}

bool readInt(const Parsed &parsed, const QString &name, int low, int high, int *value,
             QString *reason)
{
    return !parsed.isSet(name)
        || toInt(QStringLiteral("--") + name, parsed.value(name), low, high, value, reason);
}

} // namespace cli

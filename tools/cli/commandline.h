#ifndef HUST_COMMANDLINE_H
#define HUST_COMMANDLINE_H

#include <QList>
#include <QMap>
#include <QString>
#include <QStringList>

// The command-line model of hustctl and hust-sim: each tool declares its options and command words
// in tables, and one parser reads every command line the same way.
//
//   tool [options] COMMAND [arguments] [options]
//
// Options may stand anywhere around the command word. "--" ends the options. Values follow as
// "--name VALUE", "--name=VALUE", "-x VALUE" or attached, "-xVALUE" (-c3); one-letter flags may be
// grouped (-hv). A "-" followed by a digit is an argument, a negative value. "help COMMAND" and
// "COMMAND --help" give a command's help, "--version" the version.
namespace cli {

struct Option
{
    QString name; // the long name (--name), the key of its values
    QChar letter; // the one-letter name (-x), or none
    QString valueName; // empty for a flag
    QString help;
    QStringList aliases; // further long names that mean the same
};

// A command word with the options and arguments it accepts, declared in one place.
struct Command
{
    QString name; // empty for a tool without command words
    QString arguments; // synopsis, e.g. "ADDRESS[:TYPE]..."
    QString summary; // one line
    int minArguments = 0;
    int maxArguments = 0; // -1: no limit
    QList<Option> options;
    QStringList examples; // command lines without the tool's name
};

struct Tool
{
    QString name;
    QString version;
    QString summary;
    QList<Option> options; // valid with every command
    QList<Command> commands; // one nameless command for a tool without command words
    QString epilogue; // closing help text (exit status, environment)
};

// What a command line says.
class Parsed
{
public:
    QString command;
    QStringList arguments;
    bool help = false; // help of the tool, or of `command` when it is set
    bool version = false;

    bool isSet(const QString &name) const { return m_values.contains(name); }
    // The last value given, or an empty text.
    QString value(const QString &name) const;
    QStringList values(const QString &name) const { return m_values.value(name); }
    void add(const QString &name, const QString &value) { m_values[name] << value; }

private:
    QMap<QString, QStringList> m_values; // a flag has one empty value per use
};

// Parses the arguments (without the program name). False with a one-line reason.
bool parse(const Tool &tool, const QStringList &args, Parsed *parsed, QString *reason);

// The tool's help, or the help of one command with its options and examples.
QString helpText(const Tool &tool, const QString &command = QString());

// The command of that name, or null.
const Command *findCommand(const Tool &tool, const QString &name);

// The text with its control characters written as \xNN, so that a message that names what was
// typed (an argument holding a line feed) stays on one line.
QString oneLine(const QString &text);

// A whole decimal number from low to high. False with a reason naming the option.
bool toInt(const QString &option, const QString &text, int low, int high, int *value,
           QString *reason);
// The number given with --name, read as toInt() does; value keeps its default when the option is
// not given.
bool readInt(const Parsed &parsed, const QString &name, int low, int high, int *value,
             QString *reason);

} // namespace cli

#endif // HUST_COMMANDLINE_H

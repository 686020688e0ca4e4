#pragma once

#include <QCommandLineOption>
#include <QJsonValue>
#include <QList>
#include <QString>
#include <QStringList>

#include <functional>

class QCommandLineParser;

namespace hvtool {

/// The documented exit codes.
enum ExitCode {
    Success = 0,
    Failed = 1,     ///< the operation failed
    Usage = 2,      ///< the command line is wrong
    NotFound = 3,   ///< the named device, image, profile or snapshot does not exist
    Conflict = 4,   ///< the request conflicts with the current state
};

enum class Format { Text, Json };

/// What a command handler gets: its arguments and options, and the ways to
/// answer (data to stdout, diagnostics to stderr).
class Context
{
public:
    Context(const QStringList &args, const QCommandLineParser &parser, Format format, bool verbose);

    const QStringList &args() const { return m_args; }
    QString arg(int i) const { return m_args.value(i); }
    bool isSet(const QString &option) const;
    QString value(const QString &option) const;
    Format format() const { return m_format; }
    bool json() const { return m_format == Format::Json; }
    bool verbose() const { return m_verbose; }
    /// The command as the user named it: "hvtool device start".
    QString command() const { return m_command; }
    void setCommand(const QStringList &path);

    /// Writes a line of data to stdout.
    void print(const QString &line) const;
    /// Writes a JSON document to stdout.
    void printJson(const QJsonValue &value) const;
    /// Writes rows as aligned columns under a header.
    void printTable(const QStringList &header, const QList<QStringList> &rows) const;
    /// Writes a progress or status line to stderr.
    void note(const QString &line) const;
    /// Reports a failure on stderr, with the library's recent warnings as the
    /// cause, and returns the exit code.
    int fail(int code, const QString &message) const;

    /// Whether destructive verbs may go ahead: --yes, or a "y" typed on a
    /// terminal. Never prompts when stdin is not a terminal.
    bool confirm(const QString &question) const;

private:
    QStringList m_args;
    const QCommandLineParser &m_parser;
    Format m_format;
    bool m_verbose;
    QString m_command;
};

/// One verb of a noun: an option table and a handler.
struct Command {
    QStringList path;       ///< e.g. {"device", "snapshot", "save"}
    QString arguments;      ///< e.g. "NAME SNAPSHOT"
    QString summary;
    QList<QCommandLineOption> options;
    int minArgs = 0;
    int maxArgs = 0;        ///< -1: any number
    std::function<int(Context &)> run;
};

/// Every command of the tool; each noun's file adds its own.
QList<Command> &commands();
void addSettingsCommands();
void addProfileCommands();
void addImageCommands();
void addDeviceCommands();
void addDoctorCommand();

/// Parses the command line, runs the command and returns the exit code.
int runCommandLine(const QStringList &arguments);

/// Recent warning and critical lines of the library, oldest first.
QStringList recentLibraryProblems();
/// Routes the library's log lines: all of them to stderr with --verbose,
/// otherwise only kept for failure reports.
void installLogHandler(bool verbose);

} // namespace hvtool

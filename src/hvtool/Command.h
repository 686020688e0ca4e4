#pragma once

#include "LockFiles.h"
#include "VMToolsEngine.h"
#include "VMToolsMachine.h"

#include <QCommandLineOption>
#include <QJsonValue>
#include <QList>
#include <QPair>
#include <QMap>
#include <QString>
#include <QStringList>

#include <functional>
#include <memory>

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

/// What a command shows when it succeeds: the JSON value with --format json;
/// otherwise the table (when it has a header), then the lines.
struct Output {
    QJsonValue json;
    QStringList header;
    QList<QStringList> rows;
    QStringList lines;
};

/// The name help and the manual give an option: its longest ("yes", not "y").
QString longName(const QCommandLineOption &option);
/// A size as every command shows it: "512.0 KiB", "12.7 MiB", "1.5 GiB".
QString sizeText(qint64 bytes);
/// Rows as aligned columns under a header, one line each.
QStringList tableLines(const QStringList &header, const QList<QStringList> &rows);

/// What a command does with the device its first argument names.
enum class DeviceUse {
    None,   ///< it names no device, or looks it up itself
    Read,   ///< it reads the device
    Change, ///< it changes the device: the device is locked until it ends
};

/// The state the named device must be in for the command.
enum class DeviceState { Any, Running, Stopped, Paused };

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

    /// Writes a progress or status line to stderr.
    void note(const QString &line) const;
    /// Reports a failure on stderr, with the library's recent warnings as the
    /// cause, and returns the exit code. In JSON mode the command's one
    /// document becomes {"error": {"message": ..., "exit_code": ...}}, with
    /// the first failure's message.
    int fail(int code, const QString &message) const;

    /// Success when a destructive verb may go ahead: --yes, or a "y" typed on
    /// a terminal. Otherwise the refusal, reported: exit 2 naming --yes when
    /// stdin is not a terminal, exit 1 and declined ("device 'x' not
    /// deleted") when the user answers anything else.
    int confirm(const QString &question, const QString &declined) const;
    /// Shows a command's result, as text or as JSON; returns Success.
    int show(const Output &output) const;
    /// Shows what a verb that changed something did: json in JSON mode, the
    /// one confirmation line in text mode; returns Success.
    int done(const QJsonValue &json, const QString &line) const;
    /// Ends the command: in JSON mode writes its one document, the result or
    /// the error object; returns code.
    int finish(int code) const;

    /// The engine and the device the command names, when its table entry
    /// names one; the device is locked until the command ends when the
    /// command changes it.
    VMToolsEngine *engine() const { return m_engine; }
    VMToolsMachine *device() const { return m_device.get(); }
    void setTarget(VMToolsEngine *engine, std::unique_ptr<VMToolsMachine> device,
                   std::unique_ptr<LockFiles::CommandLock> lock);
    /// Lets other commands at the device before this one ends (a start
    /// whose device runs, waiting for its guest).
    void releaseDevice();

private:
    /// Writes a line of data to stdout.
    void print(const QString &line) const;
    /// Writes a JSON document to stdout.
    void printJson(const QJsonValue &value) const;
    /// Writes rows as aligned columns under a header.
    void printTable(const QStringList &header, const QList<QStringList> &rows) const;

    QStringList m_args;
    const QCommandLineParser &m_parser;
    Format m_format;
    bool m_verbose;
    QString m_command;
    /// In JSON mode the document waits for the end of the command, so that
    /// a failure after a result still leaves one document on stdout.
    mutable QJsonValue m_document;
    mutable QString m_failure;
    VMToolsEngine *m_engine = nullptr;
    std::unique_ptr<LockFiles::CommandLock> m_lock;
    std::unique_ptr<VMToolsMachine> m_device;
};

/// One verb of a noun: an option table and a handler, and what the handler
/// needs of the device the command names.
struct Command {
    Command(QStringList path, QString arguments, QString summary, QList<QCommandLineOption> options, int minArgs,
            int maxArgs, std::function<int(Context &)> run, DeviceUse device = DeviceUse::None,
            DeviceState state = DeviceState::Any, QString refusal = QString(),
            std::function<int(Context &)> checkArguments = {})
        : path(std::move(path))
        , arguments(std::move(arguments))
        , summary(std::move(summary))
        , options(std::move(options))
        , minArgs(minArgs)
        , maxArgs(maxArgs)
        , run(std::move(run))
        , device(device)
        , state(state)
        , refusal(std::move(refusal))
        , checkArguments(std::move(checkArguments))
    {
    }

    QStringList path;       ///< e.g. {"device", "snapshot", "save"}
    QString arguments;      ///< e.g. "NAME SNAPSHOT"
    QString summary;
    QList<QCommandLineOption> options;
    int minArgs;
    int maxArgs;            ///< -1: any number
    std::function<int(Context &)> run;
    /// Found (exit 3 when it does not exist, 4 when it is broken) and, when
    /// the command changes it, locked before run.
    DeviceUse device;
    /// Refused with exit 4 when the device is not in it.
    DeviceState state;
    /// The refusal, when not the state's own ("device '%1' is running; stop
    /// it first"): %1 the device, %2 the command's second argument.
    QString refusal;
    /// Refuses arguments the command cannot take (exit 2) before the device
    /// is looked at; none when empty.
    std::function<int(Context &)> checkArguments;
    /// One command line that uses it, shown by --help.
    QString example;
    /// What --help adds to the summary (the keys a command takes, ...).
    QString details;
    /// The options the command cannot run without (by long name): the usage
    /// line shows them without brackets and a command line without them is
    /// refused with exit 2.
    QStringList required;
    /// Options whose value may be left out (by long name), with the value
    /// they then take: "--wait" followed by no whole number is "--wait 300".
    QMap<QString, QString> optionalValues;

    Command &withExample(const QString &line)
    {
        example = line;
        return *this;
    }
    Command &withDetails(const QString &text)
    {
        details = text;
        return *this;
    }
    Command &withRequired(const QStringList &options)
    {
        required = options;
        return *this;
    }
    Command &withOptionalValue(const QString &option, const QString &value)
    {
        optionalValues.insert(option, value);
        return *this;
    }
};

/// What each exit code means, as help and the manual page say it.
const QList<QPair<int, QString>> &exitCodeMeanings();
/// The options every command takes ("--format text|json") and what they do.
const QList<QPair<QString, QString>> &globalOptions();
/// A setting that 'hvtool settings' lists and lets the user change.
struct SettingKey {
    QString key;
    /// One line: what it changes and the values it takes.
    QString description;
    /// Why text cannot be its value (exit 2), in words; empty when it can.
    /// None: the engine's own choices, if any, are the only check.
    std::function<QString(const QString &text)> refuse = {};
};

/// The settings users may change; each noun's file adds its own.
QList<SettingKey> &settingKeys();

/// Every command of the tool; each noun's file adds its own.
QList<Command> &commands();
void addSettingsCommands();
void addProfileCommands();
void addImageCommands();
void addPullCommands();
void addDeviceCommands();
/// 'device wait'.
void addWaitCommand();
void addDoctorCommand();
void addAdbCommands();
void addShellCommands();
void addViewCommands();

/// Parses the command line, runs the command and returns the exit code.
int runCommandLine(const QStringList &arguments);

/// Recent warning and critical lines of the library, oldest first.
QStringList recentLibraryProblems();
/// Routes the library's log lines: all of them to stderr with --verbose,
/// otherwise only kept for failure reports.
void installLogHandler(bool verbose);

} // namespace hvtool

#include "Command.h"

#include "Engine.h"
#include "FileUtils.h"
#include "RecordDirectory.h"

#include <QCommandLineParser>
#include <QJsonArray>
#include <QJsonDocument>
#include <QJsonObject>
#include <QLoggingCategory>
#include <QMap>
#include <QMutex>
#include <QMutexLocker>
#include <QTextStream>

#include <cerrno>
#include <cstdio>
#include <unistd.h>

namespace hvtool {
namespace {

QTextStream &out()
{
    static QTextStream stream(stdout);
    return stream;
}

QTextStream &err()
{
    static QTextStream stream(stderr);
    return stream;
}

struct LogState {
    QMutex mutex;
    bool verbose = false;
    QStringList problems;
};

LogState &logState()
{
    static LogState state;
    return state;
}

void logHandler(QtMsgType type, const QMessageLogContext &, const QString &text)
{
    LogState &state = logState();
    QMutexLocker lock(&state.mutex);
    if (state.verbose) {
        static const char *const levels[] = {"debug", "warning", "critical", "fatal", "info"};
        std::fprintf(stderr, "[%s] %s\n", levels[qBound(0, int(type), 4)], qPrintable(text));
        std::fflush(stderr);
    } else if (type == QtWarningMsg || type == QtCriticalMsg || type == QtFatalMsg) {
        state.problems.append(text);
        // Only the last few lines are worth showing as the cause of a failure.
        while (state.problems.size() > 20)
            state.problems.removeFirst();
    }
    if (type == QtFatalMsg) {
        std::fprintf(stderr, "hvtool: %s\n", qPrintable(text));
        std::fflush(stderr);
    }
}

/// The exit codes and the options every command takes, as help shows them.
QString exitCodesText()
{
    QString text = QStringLiteral("Exit codes:\n");
    for (const auto &[code, meaning] : exitCodeMeanings())
        text += QStringLiteral("  %1  %2\n").arg(code).arg(meaning);
    return text;
}

QString globalOptionsText()
{
    QString text = QStringLiteral("Options accepted everywhere:\n");
    for (const auto &[option, meaning] : globalOptions())
        text += QStringLiteral("  %1%2\n").arg(option, -20).arg(meaning);
    return text;
}

QString usageLine(const Command &command)
{
    QString line = QStringLiteral("hvtool ") + command.path.join(QLatin1Char(' '));
    if (!command.arguments.isEmpty())
        line += QLatin1Char(' ') + command.arguments;
    for (const QCommandLineOption &option : command.options) {
        QString text = QStringLiteral("--") + longName(option);
        if (!option.valueName().isEmpty())
            text += QLatin1Char(' ') + option.valueName();
        line += command.required.contains(longName(option)) ? QLatin1Char(' ') + text
                                                             : QStringLiteral(" [%1]").arg(text);
    }
    return line;
}

bool startsWith(const QStringList &path, const QStringList &prefix)
{
    if (prefix.size() > path.size())
        return false;
    for (int i = 0; i < prefix.size(); ++i) {
        if (path.at(i) != prefix.at(i))
            return false;
    }
    return true;
}

QString levelHelp(const QStringList &prefix)
{
    QString text;
    QTextStream s(&text);
    s << "Usage: hvtool " << (prefix.isEmpty() ? QStringLiteral("NOUN VERB") : prefix.join(QLatin1Char(' ')) + " VERB")
      << " [ARGUMENTS] [OPTIONS]\n\n";
    if (prefix.isEmpty())
        s << "Manages Android virtual devices: OS images, hardware profiles, devices and settings.\n\n"
          << "  hvtool --version    hvtool's, the library's and QEMU's versions\n";
    s << "Commands:\n";
    for (const Command &command : commands()) {
        if (startsWith(command.path, prefix))
            s << "  " << usageLine(command) << "\n      " << command.summary << "\n";
    }
    s << "\n" << globalOptionsText() << "\n" << exitCodesText();
    return text;
}

QString commandHelp(const Command &command)
{
    QString text;
    QTextStream s(&text);
    s << "Usage: " << usageLine(command) << "\n\n" << command.summary << "\n";
    if (!command.details.isEmpty())
        s << "\n" << command.details << "\n";
    if (!command.options.isEmpty()) {
        s << "\nOptions:\n";
        for (const QCommandLineOption &option : command.options) {
            QStringList names;
            for (const QString &name : option.names())
                names << (name.size() == 1 ? "-" : "--") + name;
            QString head = names.join(QStringLiteral(", "));
            if (!option.valueName().isEmpty())
                head += QLatin1Char(' ') + option.valueName();
            s << "  " << head.leftJustified(26) << ' ' << option.description()
              << (command.required.contains(longName(option)) ? " Required." : "") << "\n";
        }
    }
    if (!command.example.isEmpty())
        s << "\nExample:\n  " << command.example << "\n";
    s << "\n" << globalOptionsText() << "\n" << exitCodesText();
    return text;
}

/// The value with every uuid bare: a key "uuid" or ending in "_uuid"
/// holds "0b0e...", never "{0b0e...}", in every command's output.
QJsonValue bareUuids(const QJsonValue &value, bool isUuid)
{
    if (value.isString())
        return isUuid ? QJsonValue(RecordDirectory::bareUuid(value.toString())) : value;
    if (value.isArray()) {
        QJsonArray array;
        for (const QJsonValue &item : value.toArray())
            array.append(bareUuids(item, false));
        return array;
    }
    if (!value.isObject())
        return value;
    QJsonObject object = value.toObject();
    for (auto it = object.begin(); it != object.end(); ++it)
        it.value() = bareUuids(it.value(), it.key() == QLatin1String("uuid") || it.key().endsWith(QLatin1String("_uuid")));
    return object;
}

void printDocument(const QJsonValue &raw)
{
    const QJsonValue value = bareUuids(raw, false);
    const QJsonDocument document =
        value.isArray() ? QJsonDocument(value.toArray()) : QJsonDocument(value.toObject());
    out() << document.toJson(QJsonDocument::Indented);
    out().flush();
}

/// A failure as JSON mode shows it: the one document on stdout.
QJsonObject errorDocument(const QString &message, int code)
{
    return QJsonObject{{"error", QJsonObject{{"message", message}, {"exit_code", code}}}};
}

/// Reports a wrong command line: the message and what helps on stderr,
/// the error object on stdout in JSON mode.
int usageError(Format format, const QString &message, const QString &help)
{
    err() << "hvtool: " << message << '\n' << help;
    err().flush();
    if (format == Format::Json)
        printDocument(errorDocument(message, Usage));
    return Usage;
}

} // namespace

const QList<QPair<int, QString>> &exitCodeMeanings()
{
    static const QList<QPair<int, QString>> meanings = {
        {Success, QStringLiteral("success")},
        {Failed, QStringLiteral("the operation failed")},
        {Usage, QStringLiteral("the command line is wrong")},
        {NotFound, QStringLiteral("the named device, image, profile or snapshot does not exist")},
        {Conflict, QStringLiteral("the request conflicts with the current state (the name exists, the device runs, "
                                  "the device is stopped)")},
    };
    return meanings;
}

const QList<QPair<QString, QString>> &globalOptions()
{
    static const QList<QPair<QString, QString>> options = {
        {QStringLiteral("--format text|json"), QStringLiteral("output format (text by default)")},
        {QStringLiteral("-v, --verbose"), QStringLiteral("show the library's log lines on stderr")},
        {QStringLiteral("-h, --help"), QStringLiteral("show help for the command or level")},
    };
    return options;
}

QString longName(const QCommandLineOption &option)
{
    QString longest;
    for (const QString &name : option.names())
        longest = name.size() > longest.size() ? name : longest;
    return longest;
}

QString sizeText(qint64 bytes)
{
    static const char *const units[] = {"KiB", "MiB", "GiB", "TiB"};
    double value = double(bytes) / 1024;
    int unit = 0;
    while (value >= 1024 && unit < 3) {
        value /= 1024;
        ++unit;
    }
    return QStringLiteral("%1 %2").arg(value, 0, 'f', 1).arg(QLatin1String(units[unit]));
}

QStringList tableLines(const QStringList &header, const QList<QStringList> &rows)
{
    QVector<int> widths(header.size());
    for (int c = 0; c < header.size(); ++c) {
        widths[c] = header.at(c).size();
        for (const QStringList &row : rows)
            widths[c] = qMax(widths[c], row.value(c).size());
    }
    QStringList lines;
    for (const QStringList &cells : QList<QStringList>{header} + rows) {
        QString text;
        for (int c = 0; c < header.size(); ++c)
            text += (c + 1 < header.size() ? cells.value(c).leftJustified(widths[c] + 2) : cells.value(c));
        lines << text.trimmed();
    }
    return lines;
}

QList<Command> &commands()
{
    static QList<Command> all;
    return all;
}

QStringList recentLibraryProblems()
{
    QMutexLocker lock(&logState().mutex);
    return logState().problems;
}

void installLogHandler(bool verbose)
{
    logState().verbose = verbose;
    // The library logs its progress at debug level, off unless asked for.
    if (verbose)
        QLoggingCategory::setFilterRules(QStringLiteral("halvistrom.*.debug=true"));
    qInstallMessageHandler(logHandler);
}

Context::Context(const QStringList &args, const QCommandLineParser &parser, Format format, bool verbose)
    : m_args(args)
    , m_parser(parser)
    , m_format(format)
    , m_verbose(verbose)
{
}

void Context::setCommand(const QStringList &path)
{
    m_command = QStringLiteral("hvtool ") + path.join(QLatin1Char(' '));
}

bool Context::isSet(const QString &option) const
{
    return m_parser.isSet(option);
}

QString Context::value(const QString &option) const
{
    return m_parser.value(option);
}

void Context::print(const QString &line) const
{
    out() << line << '\n';
    out().flush();
}

void Context::printJson(const QJsonValue &value) const
{
    printDocument(value);
}

void Context::printTable(const QStringList &header, const QList<QStringList> &rows) const
{
    for (const QString &line : tableLines(header, rows))
        print(line);
}

void Context::note(const QString &line) const
{
    err() << line << '\n';
    err().flush();
}

int Context::fail(int code, const QString &message) const
{
    if (m_failure.isEmpty())
        m_failure = message;
    err() << "hvtool: " << message << '\n';
    if (!m_verbose) {
        QStringList problems = recentLibraryProblems();
        // Each question the diagnosis answers logs its finding again.
        problems.removeDuplicates();
        // The last few warnings are usually the underlying cause.
        const int first = qMax(0, problems.size() - 3);
        for (int i = first; i < problems.size(); ++i)
            err() << "  cause: " << problems.at(i) << '\n';
    }
    err().flush();
    return code;
}

int Context::confirm(const QString &question, const QString &declined) const
{
    if (isSet(QStringLiteral("yes")))
        return Success;
    if (!::isatty(STDIN_FILENO))
        return fail(Usage, QStringLiteral("'%1' asks for confirmation and stdin is not a terminal: add --yes to "
                                          "confirm")
                               .arg(m_command));
    err() << question << " [y/N] ";
    err().flush();
    QTextStream in(stdin);
    const QString answer = in.readLine().trimmed().toLower();
    if (answer == QLatin1String("y") || answer == QLatin1String("yes"))
        return Success;
    return fail(Failed, declined);
}

void Context::setTarget(VMToolsEngine *engine, std::unique_ptr<VMToolsMachine> device,
                        std::unique_ptr<LockFiles::CommandLock> lock)
{
    m_engine = engine;
    m_device = std::move(device);
    m_lock = std::move(lock);
}

void Context::releaseDevice()
{
    if (m_lock)
        m_lock->release();
}

int Context::show(const Output &output) const
{
    if (json()) {
        m_document = output.json;
        return Success;
    }
    if (!output.header.isEmpty())
        printTable(output.header, output.rows);
    for (const QString &line : output.lines)
        print(line);
    return Success;
}

int Context::done(const QJsonValue &json, const QString &line) const
{
    return show({json, {}, {}, {line}});
}

int Context::finish(int code) const
{
    if (!json())
        return code;
    if (code == Success) {
        printJson(m_document.isArray() ? m_document : QJsonValue(m_document.toObject()));
        return code;
    }
    QJsonObject document =
        errorDocument(m_failure.isEmpty() ? QStringLiteral("'%1' failed").arg(m_command) : m_failure, code);
    // What the command had found before it failed is kept (the checks of
    // a doctor run, what a cleanup reclaimed).
    if (m_document.isArray() || m_document.isObject()) {
        QJsonObject error = document.value("error").toObject();
        error.insert(QStringLiteral("result"), m_document);
        document.insert(QStringLiteral("error"), error);
    }
    printJson(document);
    return code;
}

namespace {

/// The command line without the options every command takes, which may
/// stand anywhere, and what they ask.
struct GlobalOptions {
    QStringList rest;
    Format format = Format::Text;
    bool verbose = false;
    bool help = false;
    bool version = false;
};

/// Takes the global options out of arguments; Success, or the usage error.
int readGlobalOptions(const QStringList &arguments, GlobalOptions *options)
{
    for (int i = 1; i < arguments.size(); ++i) {
        const QString &a = arguments.at(i);
        if (a == QLatin1String("--")) {
            // What follows is the command's, options of the tool's own names too.
            options->rest << arguments.mid(i);
            break;
        }
        if (a == QLatin1String("-v") || a == QLatin1String("--verbose")) {
            options->verbose = true;
        } else if (a == QLatin1String("-h") || a == QLatin1String("--help")) {
            options->help = true;
        } else if (a == QLatin1String("--version")) {
            options->version = true;
        } else if (a == QLatin1String("--format") || a.startsWith(QLatin1String("--format="))) {
            if (a == QLatin1String("--format") && i + 1 >= arguments.size())
                return usageError(options->format, QStringLiteral("--format needs a value: text or json"), QString());
            const QString value = a == QLatin1String("--format") ? arguments.at(++i) : a.mid(9);
            if (value != QLatin1String("json") && value != QLatin1String("text"))
                return usageError(options->format, QStringLiteral("unknown format '%1': use text or json").arg(value),
                                  QString());
            options->format = value == QLatin1String("json") ? Format::Json : Format::Text;
        } else {
            options->rest << a;
        }
    }
    return Success;
}

/// Whether some command's path begins with prefix.
bool isKnownLevel(const QStringList &prefix)
{
    for (const Command &command : commands()) {
        if (startsWith(command.path, prefix))
            return true;
    }
    return false;
}

/// The longest command path that the leading words name; null when none.
const Command *findCommand(const QStringList &words)
{
    const Command *found = nullptr;
    for (const Command &command : commands()) {
        if (startsWith(words, command.path) && (!found || command.path.size() > found->path.size()))
            found = &command;
    }
    return found;
}

/// The command words with the short names people type (ls, rm, info)
/// replaced by the verbs they stand for where that names a command.
QStringList resolveAliases(QStringList words)
{
    static const QMap<QString, QStringList> aliases = {
        {"ls", {"list"}}, {"rm", {"delete", "remove"}}, {"info", {"show"}}};
    // Only command words are replaced: the arguments after them stay as typed.
    for (int i = 0; i < words.size() && isKnownLevel(words.mid(0, i)) && !findCommand(words.mid(0, i)); ++i) {
        for (const QString &verb : aliases.value(words.at(i))) {
            if (isKnownLevel(words.mid(0, i) << verb)) {
                words[i] = verb;
                break;
            }
        }
    }
    return words;
}

/// The number of single-character edits (a swap of neighbours counting as
/// one) that turn a into b.
int editDistance(const QString &a, const QString &b)
{
    QVector<QVector<int>> d(a.size() + 1, QVector<int>(b.size() + 1));
    for (int i = 0; i <= a.size(); ++i)
        d[i][0] = i;
    for (int j = 0; j <= b.size(); ++j)
        d[0][j] = j;
    for (int i = 1; i <= a.size(); ++i) {
        for (int j = 1; j <= b.size(); ++j) {
            const int cost = a.at(i - 1) == b.at(j - 1) ? 0 : 1;
            d[i][j] = qMin(qMin(d[i - 1][j] + 1, d[i][j - 1] + 1), d[i - 1][j - 1] + cost);
            if (i > 1 && j > 1 && a.at(i - 1) == b.at(j - 2) && a.at(i - 2) == b.at(j - 1))
                d[i][j] = qMin(d[i][j], d[i - 2][j - 2] + 1);
        }
    }
    return d[a.size()][b.size()];
}

/// The command the user most likely meant by word after prefix; empty when
/// nothing is close.
QString closestCommand(const QStringList &prefix, const QString &word)
{
    QString best;
    int bestDistance = word.size() < 4 ? 2 : 3;
    for (const Command &command : commands()) {
        if (!startsWith(command.path, prefix) || command.path.size() <= prefix.size())
            continue;
        const QString candidate = command.path.at(prefix.size());
        const int distance = candidate.startsWith(word) ? 1 : editDistance(word, candidate);
        if (distance < bestDistance) {
            bestDistance = distance;
            best = (QStringList(prefix) << candidate).join(QLatin1Char(' '));
        }
    }
    return best;
}

/// Refuses words whose last one names no command at the level before it:
/// one line, with the command meant when one is close.
int unknownCommand(const GlobalOptions &options, const QStringList &known)
{
    const QString word = options.rest.at(known.size());
    const QString meant = closestCommand(known, word);
    const QString help = QStringLiteral("hvtool %1--help").arg(known.isEmpty() ? QString() : known.join(' ') + ' ');
    const QString hint = meant.isEmpty() ? QStringLiteral("'%1' lists the commands").arg(help)
                                         : QStringLiteral("did you mean 'hvtool %1'?").arg(meant);
    return usageError(options.format,
                      QStringLiteral("unknown command '%1'; %2").arg((known + QStringList{word}).join(' '), hint),
                      QString());
}

/// Answers words that name no command: "--version" alone, the help of the
/// level (noun) they name, or the usage error.
int answerLevel(const GlobalOptions &options)
{
    if (options.version && options.rest.isEmpty()) {
        if (const Command *version = findCommand({QStringLiteral("version")})) {
            QCommandLineParser none;
            Context context({}, none, options.format, options.verbose);
            return context.finish(version->run(context));
        }
    }
    QStringList prefix;
    while (prefix.size() < options.rest.size() && isKnownLevel(options.rest.mid(0, prefix.size() + 1)))
        prefix << options.rest.at(prefix.size());
    if (options.rest.size() > prefix.size())
        return unknownCommand(options, prefix);
    const QString text = levelHelp(prefix);
    if (!options.help)
        return usageError(options.format, QStringLiteral("missing command"), QLatin1Char('\n') + text);
    out() << text;
    out().flush();
    return Success;
}

/// Parses the command's own arguments and options into parser; Success, or
/// the usage error reported.
/// The arguments with the value of each option that may leave it out put in
/// where it is left out: where the option is not followed by a whole number.
QStringList withOptionalValues(const Command &command, QStringList arguments)
{
    for (auto it = command.optionalValues.constBegin(); it != command.optionalValues.constEnd(); ++it) {
        for (int i = 0; i < arguments.size(); ++i) {
            bool number = false;
            arguments.value(i + 1).toLongLong(&number);
            if (arguments.at(i) == QStringLiteral("--") + it.key() && !number)
                arguments.insert(i + 1, it.value());
        }
    }
    return arguments;
}

int parseCommandLine(const Command &command, const QString &program, const GlobalOptions &options,
                     QCommandLineParser *parser)
{
    parser->setSingleDashWordOptionMode(QCommandLineParser::ParseAsLongOptions);
    parser->setOptionsAfterPositionalArgumentsMode(QCommandLineParser::ParseAsOptions);
    parser->addOptions(command.options);
    const QString usage = QStringLiteral("Usage: %1\n").arg(usageLine(command));
    if (!parser->parse(QStringList{program} + withOptionalValues(command, options.rest.mid(command.path.size()))))
        return usageError(options.format, parser->errorText(), usage);
    const QStringList positional = parser->positionalArguments();
    if (positional.size() < command.minArgs)
        return usageError(options.format, QStringLiteral("missing argument: %1").arg(command.arguments), usage);
    if (command.maxArgs >= 0 && positional.size() > command.maxArgs)
        return usageError(options.format, QStringLiteral("unexpected argument '%1'").arg(positional.at(command.maxArgs)),
                          usage);
    for (const QString &option : command.required) {
        if (!parser->isSet(option))
            return usageError(options.format, QStringLiteral("missing option --%1").arg(option), usage);
    }
    return Success;
}

/// Parses the command's own options and arguments, opens the device it
/// names and runs it.
int runCommand(const Command &command, const QString &program, const GlobalOptions &options)
{
    QCommandLineParser parser;
    const int wrong = parseCommandLine(command, program, options, &parser);
    if (wrong != Success)
        return wrong;
    Context context(parser.positionalArguments(), parser, options.format, options.verbose);
    context.setCommand(command.path);
    const int invalid = command.checkArguments ? command.checkArguments(context) : Success;
    const int opened = invalid == Success ? openTarget(command, context) : invalid;
    return context.finish(opened == Success ? command.run(context) : opened);
}

/// Refuses a home that HV_HOME names and that cannot be made: everything
/// hvtool keeps lives below it.
int checkHome(const GlobalOptions &options)
{
    const QString home = QString::fromLocal8Bit(qgetenv("HV_HOME"));
    if (home.isEmpty() || FileUtils::makeDirectory(home))
        return Success;
    const QString cause = qt_error_string(errno);
    const QString message =
        QStringLiteral("HV_HOME is set to '%1', but this directory cannot be created: %2").arg(home, cause);
    err() << "hvtool: " << message << '\n';
    err().flush();
    if (options.format == Format::Json)
        printDocument(errorDocument(message, Failed));
    return Failed;
}

} // namespace

int runCommandLine(const QStringList &arguments)
{
    GlobalOptions options;
    int code = readGlobalOptions(arguments, &options);
    if (code != Success || (code = checkHome(options)) != Success)
        return code;
    installLogHandler(options.verbose);
    options.rest = resolveAliases(options.rest);
    const Command *found = findCommand(options.rest);
    if (!found)
        return answerLevel(options);
    if (options.help) {
        out() << commandHelp(*found);
        out().flush();
        return Success;
    }
    return runCommand(*found, arguments.value(0), options);
}

} // namespace hvtool

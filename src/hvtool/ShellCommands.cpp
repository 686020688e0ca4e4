// hvtool completion: the shell's completion of hvtool, made from the command
// table, so that what completes is what the tool takes.
#include "Command.h"

#include "Paths.h"

#include <QJsonObject>
#include <QMap>

namespace hvtool {
namespace {

/// The nouns whose names a first argument may complete to, with how their
/// names are listed ("hvtool NOUN list --format json" gives each as "name").
const QStringList kNamedNouns = {QStringLiteral("device"), QStringLiteral("image"), QStringLiteral("profile")};

/// The noun whose existing names (for settings, keys) the command's first
/// argument takes; empty when it takes a new name, a file or nothing.
QString namedNoun(const Command &command)
{
    const QString noun = command.path.value(0);
    if (noun == QLatin1String("settings") && command.arguments.startsWith(QLatin1String("KEY")))
        return noun;
    if (!kNamedNouns.contains(noun) || command.maxArgs == 0)
        return QString();
    // Every device verb whose first argument is a NAME names one that exists,
    // but create, which names the new one.
    if (noun == QLatin1String("device"))
        return command.arguments.startsWith(QLatin1String("NAME")) && command.path.value(1) != QLatin1String("create")
            ? noun : QString();
    return command.arguments.startsWith(QLatin1String("ID")) ? noun : QString();
}

/// The long options of the command, and those of them that take a value.
void optionWords(const Command &command, QStringList *options, QStringList *valued)
{
    for (const QCommandLineOption &option : command.options) {
        for (const QString &name : option.names()) {
            if (name.size() < 2)
                continue;
            *options << QStringLiteral("--") + name;
            if (!option.valueName().isEmpty())
                *valued << QStringLiteral("--") + name;
        }
    }
}

/// One line of the level table: the words that may follow the path, the
/// options, those that take a value and the noun of the first argument.
QString levelLine(const QString &path, const QStringList &words, const QStringList &options,
                  const QStringList &valued, const QString &noun)
{
    return QStringLiteral("        '%1') echo '%2|%3|%4|%5' ;;\n")
        .arg(path, words.join(QLatin1Char(' ')), options.join(QLatin1Char(' ')), valued.join(QLatin1Char(' ')), noun);
}

/// The bash function that tells, for the words typed so far, what may follow.
QString levelFunction()
{
    QMap<QString, QStringList> next;
    QString leaves;
    for (const Command &command : commands()) {
        for (int i = 0; i < command.path.size(); ++i) {
            QStringList &words = next[command.path.mid(0, i).join(QLatin1Char(' '))];
            if (!words.contains(command.path[i]))
                words << command.path[i];
        }
        QStringList options, valued;
        optionWords(command, &options, &valued);
        leaves += levelLine(command.path.join(QLatin1Char(' ')), {}, options, valued, namedNoun(command));
    }
    QString levels;
    for (auto it = next.cbegin(); it != next.cend(); ++it)
        levels += levelLine(it.key(), it.value(), {}, {}, QString());
    QStringList keys;
    for (const SettingKey &setting : settingKeys())
        keys << setting.key;
    return QStringLiteral("_hvtool_level() {\n    case $1 in\n") + levels + leaves
        + QStringLiteral("    esac\n}\n\n_hvtool_setting_keys='%1'\n").arg(keys.join(QLatin1Char(' ')));
}

// The part of the script that does not depend on the table. The names come
// from the tool itself (the one the user typed), one JSON key per line.
const char kCompletionBody[] = R"script(
_hvtool_names() {
    local name
    COMPREPLY=()
    while IFS= read -r name; do
        [[ $name == "$cur"* ]] && COMPREPLY+=("$(printf '%q' "$name")")
    done < <("${COMP_WORDS[0]}" "$1" list --format json 2>/dev/null |
             sed -n 's/^        "name": "\(.*\)",\{0,1\}$/\1/p')
}

_hvtool() {
    local cur=${COMP_WORDS[COMP_CWORD]} prev=${COMP_WORDS[COMP_CWORD-1]}
    local path='' words opts valued noun word i skip=0 args=0
    COMPREPLY=()
    for ((i = 1; i < COMP_CWORD; i++)); do
        word=${COMP_WORDS[i]}
        IFS='|' read -r words opts valued noun <<<"$(_hvtool_level "$path")"
        if ((skip)); then skip=0; continue; fi
        if [[ $word == -* ]]; then
            [[ $word != *=* && " $valued --format " == *" $word "* ]] && skip=1
            continue
        fi
        if [[ " $words " == *" $word "* ]]; then path=${path:+$path }$word; else args=$((args + 1)); fi
    done
    IFS='|' read -r words opts valued noun <<<"$(_hvtool_level "$path")"
    if ((skip)); then
        case $prev in
            --format) COMPREPLY=($(compgen -W 'text json' -- "$cur")) ;;
            --image) _hvtool_names image ;;
            --profile) _hvtool_names profile ;;
        esac
    elif [[ $cur == -* ]]; then
        COMPREPLY=($(compgen -W "$opts --format --verbose --help" -- "$cur"))
    elif [[ -n $words ]]; then
        COMPREPLY=($(compgen -W "$words" -- "$cur"))
    elif ((args == 0)) && [[ $noun == settings ]]; then
        COMPREPLY=($(compgen -W "$_hvtool_setting_keys" -- "$cur"))
    elif ((args == 0)) && [[ -n $noun ]]; then
        _hvtool_names "$noun"
    fi
}

complete -F _hvtool hvtool
)script";

/// Text as roff shows it literally: backslashes escaped, hyphens as minus
/// signs (options stay typeable when copied), no line taken for a request.
QString roff(QString text)
{
    text.replace(QLatin1Char('\\'), QLatin1String("\\e")).replace(QLatin1Char('-'), QLatin1String("\\-"));
    QStringList lines = text.split(QLatin1Char('\n'));
    for (QString &line : lines) {
        if (line.startsWith(QLatin1Char('.')) || line.startsWith(QLatin1Char('\'')))
            line.prepend(QLatin1String("\\&"));
    }
    return lines.join(QLatin1Char('\n'));
}

/// The command's synopsis as a line of text: its words in bold, its
/// arguments in italics, the options it cannot do without outside brackets.
QString manualSynopsis(const Command &command)
{
    QString line = QStringLiteral("\\fBhvtool ") + roff(command.path.join(QLatin1Char(' '))) + QStringLiteral("\\fR");
    for (const QString &argument : command.arguments.split(QLatin1Char(' '), Qt::SkipEmptyParts))
        line += QStringLiteral(" \\fI") + roff(argument) + QStringLiteral("\\fR");
    for (const QCommandLineOption &option : command.options) {
        const QString name = longName(option);
        QString text = QStringLiteral("\\fB\\-\\-") + roff(name) + QStringLiteral("\\fR");
        if (!option.valueName().isEmpty())
            text += QStringLiteral(" \\fI") + roff(option.valueName()) + QStringLiteral("\\fR");
        line += command.required.contains(name) ? QLatin1Char(' ') + text : QStringLiteral(" [") + text + QLatin1Char(']');
    }
    return line;
}

/// One command: its synopsis, what it does, its options and its example.
QString manualCommand(const Command &command)
{
    QString page = QStringLiteral(".TP\n") + manualSynopsis(command) + QLatin1Char('\n') + roff(command.summary)
        + QLatin1Char('\n');
    if (!command.details.isEmpty())
        page += QStringLiteral(".IP\n.nf\n") + roff(command.details) + QStringLiteral("\n.fi\n");
    if (!command.options.isEmpty()) {
        page += QStringLiteral(".RS\n");
        for (const QCommandLineOption &option : command.options) {
            page += QStringLiteral(".TP\n.B \\-\\-") + roff(longName(option));
            if (!option.valueName().isEmpty())
                page += QStringLiteral(" \\fI") + roff(option.valueName()) + QStringLiteral("\\fR");
            page += QLatin1Char('\n') + roff(option.description()) + QLatin1Char('\n');
        }
        page += QStringLiteral(".RE\n");
    }
    if (!command.example.isEmpty())
        page += QStringLiteral(".IP\nExample:\n.RS\n.nf\n") + roff(command.example) + QStringLiteral("\n.fi\n.RE\n");
    return page;
}

/// The variables a user may set, and what they change.
const QList<QPair<QString, QString>> kEnvironment = {
    {QStringLiteral("HV_HOME"), QStringLiteral("The directory that takes the place of the home directory: the data tree "
                                               "is made in it (created when missing).")},
    {QStringLiteral("HV_QEMU_BIN_DIR"), QStringLiteral("The directory of qemu-system-x86_64 and qemu-img, when not "
                                                       "those on PATH.")},
    {QStringLiteral("HV_QEMU_START_ARGS"), QStringLiteral("Changes to the emulator's command line, each \"-option=value\" "
                                                          "(\"-option[index]=value\" for one of several), separated "
                                                          "by colons; an empty value removes the option.")},
    {QStringLiteral("HV_QEMU_READY_TIMEOUT_MS"), QStringLiteral("How long a start waits for the emulator to be ready, "
                                                                "in milliseconds, before it gives up.")},
    {QStringLiteral("HV_CALL_TIMEOUT_MS"), QStringLiteral("How long a run of a host program (qemu-img) may take, in "
                                                          "milliseconds.")},
    {QStringLiteral("HV_CALL_LONG_TIMEOUT_MS"), QStringLiteral("The same for the long runs (converting an image's "
                                                               "disks).")},
    {QStringLiteral("HV_HYPERVISOR_WINDOW"), QStringLiteral("When set, devices start with the emulator's own window.")},
};

/// Where the tool keeps things, as the user's home names them (the page is
/// made with a scratch home).
QList<QPair<QString, QString>> manualFiles()
{
    const QString home = Paths::getHomePath();
    const auto tilde = [&](const QString &path) {
        return QStringLiteral("~") + path.mid(home.size()) + (path.endsWith(QLatin1Char('/')) ? "" : "/");
    };
    return {
        {tilde(Paths::getHalvistromPath()), QStringLiteral("The data tree, private to the user: settings.json and "
                                                           "everything below. With HV_HOME set, it is under $HV_HOME "
                                                           "instead of the home directory.")},
        {tilde(Paths::getUserOsImagePath()), QStringLiteral("The records of the registered OS images.")},
        {tilde(Paths::getOvaPath()), QStringLiteral("Downloaded OS images (OVA archives).")},
        {tilde(Paths::getUserHwProfilePath()), QStringLiteral("The user's hardware profiles.")},
        {tilde(Paths::getDeployedPath()), QStringLiteral("The devices, a directory each (its disks and "
                                                         "shared/config/device.json), unless the setting "
                                                         "virtual_devices.directory names another directory.")},
        {QStringLiteral("$XDG_RUNTIME_DIR/halvistrom/"), QStringLiteral("The control sockets of running devices, "
                                                                        "reachable by the user only.")},
    };
}

/// A section of the page made of tagged paragraphs.
QString manualList(const QString &section, const QList<QPair<QString, QString>> &entries)
{
    QString text = QStringLiteral(".SH ") + section + QLatin1Char('\n');
    for (const auto &[tag, meaning] : entries)
        text += QStringLiteral(".TP\n.B ") + roff(tag) + QLatin1Char('\n') + roff(meaning) + QLatin1Char('\n');
    return text;
}

/// The whole page: what the tool is, every command, the environment, the
/// exit codes.
QString manualPage(const QString &date)
{
    QString page = QStringLiteral(".TH HVTOOL 1 \"%1\" \"hvtool %2\" \"User Commands\"\n").arg(date, QStringLiteral(HVTOOL_VERSION))
        + QStringLiteral(".SH NAME\nhvtool \\- create and run Android virtual devices\n"
                         ".SH SYNOPSIS\n.B hvtool\n.I noun verb\n.RI [ arguments ]\n.RI [ options ]\n"
                         ".SH DESCRIPTION\n"
                         "hvtool creates Android virtual devices from OS images and hardware profiles, and starts "
                         "(cold, or quick boot from the saved state), stops, snapshots, clones, resets and deletes "
                         "them. A device is a directory of copy\\-on\\-write disks and a record; a running device is "
                         "a detached QEMU emulator controlled over a private socket.\n"
                         ".SH COMMANDS\n");
    QString noun;
    for (const Command &command : commands()) {
        if (command.path.first() != noun) {
            noun = command.path.first();
            page += QStringLiteral(".SS ") + roff(noun) + QLatin1Char('\n');
        }
        page += manualCommand(command);
    }
    QList<QPair<QString, QString>> exitCodes;
    for (const auto &[code, meaning] : exitCodeMeanings())
        exitCodes.append({QString::number(code), meaning});
    QList<QPair<QString, QString>> settings;
    for (const SettingKey &setting : settingKeys())
        settings.append({setting.key, setting.description});
    return page + manualList(QStringLiteral("OPTIONS"), globalOptions())
        + manualList(QStringLiteral("SETTINGS"), settings) + manualList(QStringLiteral("ENVIRONMENT"), kEnvironment)
        + manualList(QStringLiteral("FILES"), manualFiles())
        + manualList(QStringLiteral("EXIT STATUS"), exitCodes)
        + QStringLiteral(".SH SEE ALSO\n.BR qemu\\-system\\-x86_64 (1),\n.BR qemu\\-img (1),\n.BR adb (1)\n");
}

int manual(Context &ctx)
{
    const QString page = manualPage(ctx.value(QStringLiteral("date")));
    return ctx.show({QJsonObject{{"page", page}}, {}, {}, {page.chopped(1)}});
}

int completion(Context &ctx)
{
    if (ctx.arg(0) != QLatin1String("bash"))
        return ctx.fail(Usage, QStringLiteral("no completion for the shell '%1'; hvtool completes in bash").arg(ctx.arg(0)));
    const QString script = QStringLiteral("# bash completion for hvtool, made by 'hvtool completion bash' from its "
                                          "command table\n")
        + levelFunction() + QString::fromUtf8(kCompletionBody);
    return ctx.show({QJsonObject{{"shell", ctx.arg(0)}, {"script", script}}, {}, {}, {script.chopped(1)}});
}

} // namespace

void addShellCommands()
{
    commands() << Command({QStringLiteral("completion")}, QStringLiteral("SHELL"),
                          QStringLiteral("Print the shell completion script (bash)."), {}, 1, 1, completion)
                       .withExample(QStringLiteral("hvtool completion bash > ~/.local/share/bash-completion/completions/hvtool"))
               << Command({QStringLiteral("manual")}, QString(),
                          QStringLiteral("Print the manual page (roff), as it is installed as hvtool(1)."),
                          {{QStringLiteral("date"), QStringLiteral("The date on the page's title line."), QStringLiteral("DATE")}},
                          0, 0, manual)
                       .withExample(QStringLiteral("hvtool manual | man -l -"));
}

} // namespace hvtool

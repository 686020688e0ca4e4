// hvtool completion: the shell's completion of hvtool, made from the command
// table, so that what completes is what the tool takes.
#include "Command.h"

#include <QJsonObject>
#include <QMap>

namespace hvtool {
namespace {

/// The nouns whose names a first argument may complete to, with how their
/// names are listed ("hvtool NOUN list --format json" gives each as "name").
const QStringList kNamedNouns = {QStringLiteral("device"), QStringLiteral("image"), QStringLiteral("profile")};

/// The noun whose existing names the command's first argument takes; empty
/// when it takes a new name, a file or nothing.
QString namedNoun(const Command &command)
{
    const QString noun = command.path.value(0);
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
    return QStringLiteral("_hvtool_level() {\n    case $1 in\n") + levels + leaves
        + QStringLiteral("    esac\n}\n");
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
    elif ((args == 0)) && [[ -n $noun ]]; then
        _hvtool_names "$noun"
    fi
}

complete -F _hvtool hvtool
)script";

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
                          QStringLiteral("Print the shell completion script (bash)."), {}, 1, 1, completion);
}

} // namespace hvtool

#pragma once

#include <QMap>
#include <QString>
#include <QStringList>
#include <QVariant>
#include <QVariantList>

/// The emulator's options before they become a command line: option names
/// (with their leading dash) mapped to values kept in insertion order. A value
/// is a string (rendered as the option followed by it) or a boolean flag
/// (rendered as the bare option when true, omitted when false). The command
/// line lists the names in sorted order (UTF-16 code units), so "-drive"
/// options stay together whatever order they were added in.
class QEMUOptionSet
{
public:
    /// The developer override of the start options.
    static const char *startArgsVariable();
    /// The separator of the override's items. A colon, the usual list
    /// separator of the environment overrides, cannot be used: option values
    /// such as "fat:rw:/path" and "unix:/path/qmp.sock" carry colons.
    static QChar startArgsSeparator();

    /// text made safe as one value inside an option's "key=value,..." list:
    /// the emulator splits such lists on commas and reads ",," as one comma,
    /// so a path holding a comma cannot add options of its own.
    static QString escapeValue(const QString &text);

    /// Appends a string value under name.
    void add(const QString &name, const QString &value);
    /// Appends a boolean flag under name.
    void addFlag(const QString &name, bool on = true);
    /// Removes every value of name.
    void remove(const QString &name);
    bool contains(const QString &name) const;
    /// The values of name in insertion order (QString or bool).
    QVariantList values(const QString &name) const;

    /// Applies override items of the form "-name[index]=value" (the name may
    /// also start with two dashes, as "--device" does):
    /// - an empty value removes the option;
    /// - an option not yet present is added ("true" becomes a flag);
    /// - index -1 appends one more value, index -2 replaces the latest one,
    ///   index 0 or more replaces the value at that position;
    /// - without an index, the value replaces all the option's values.
    /// Wherever a value is stored, "true" is a flag. Items of another form
    /// and indexes past the last value are ignored with a warning.
    void applyOverrides(const QStringList &items);
    /// Applies the items of "HV_QEMU_START_ARGS", split on ";".
    void applyStartArgsVariable();

    /// The arguments: names in sorted order, each name's values in insertion
    /// order.
    QStringList render() const;

private:
    static QVariant overrideValue(const QString &text);

    QMap<QString, QVariantList> m_options;
};

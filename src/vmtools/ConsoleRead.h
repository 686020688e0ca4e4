#pragma once

#include "halvistromcore_export.h"

#include <QByteArray>
#include <QString>

/// A piece of what a device's guest wrote on its console, from a position
/// in the run's output on.
struct HALVISTROM_CORE_EXPORT ConsoleRead {
    /// The bytes as the guest wrote them, after a line that says how many
    /// were dropped when the kept output no longer reaches back to where
    /// the read started.
    QByteArray text;
    /// Where the next read goes on from.
    qint64 next = 0;
    /// Whether the console could be read: the engine keeps one and the
    /// emulator, while it runs, answered.
    bool available = false;

    /// The guest's bytes as text a terminal shows as it is: line ends
    /// kept, tabs kept, every other control character and escape sequence
    /// (which could move the cursor, retitle or reset the terminal) dropped.
    static QString printable(const QByteArray &bytes);
};

#pragma once

#include "QEMUEngine.h"

#include <QDir>
#include <QTemporaryDir>

/// Puts a directory back as it was unless disarmed: a factory reset that
/// fails half-way gives the device its previous disks back.
class QEMUEngine::DirectoryRestorer
{
public:
    explicit DirectoryRestorer(const QDir &directory);
    ~DirectoryRestorer();
    DirectoryRestorer(const DirectoryRestorer &) = delete;
    DirectoryRestorer &operator=(const DirectoryRestorer &) = delete;

    /// Copies the directory's contents aside; false when the temporary
    /// directory cannot be made or the copy fails.
    bool backup();
    /// Keeps the directory as it is now.
    void disable();

private:
    QDir m_directory;
    QTemporaryDir m_backup;
    bool m_enabled = true;
};

#pragma once

#include "QEMUEngine.h"

#include <QDir>

/// Removes a directory under construction unless disarmed: a creation that
/// fails half-way leaves no half-made device behind.
class QEMUEngine::DirectoryCleaner
{
public:
    explicit DirectoryCleaner(const QDir &directory);
    ~DirectoryCleaner();
    DirectoryCleaner(const DirectoryCleaner &) = delete;
    DirectoryCleaner &operator=(const DirectoryCleaner &) = delete;

    /// Keeps the directory: called as the last step of a success.
    void disable();

private:
    QDir m_directory;
    bool m_enabled = true;
};

#pragma once

#include <QString>

/// A directory of the devices directory that the system made for a device
/// and that holds none it can load, with the reason in words.
struct BrokenMachine {
    QString name;   ///< the directory's name, the device's name
    QString path;   ///< its absolute path
    QString reason; ///< why no device loads from it
};

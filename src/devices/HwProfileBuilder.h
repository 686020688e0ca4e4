#pragma once

#include "HwProfile.h"
#include "halvistromcore_export.h"

#include <QString>

/// A fresh user-made profile with sensible defaults: a new braced uuid, brand
/// "ACME", the given model name ("Unnamed" when empty), 4 CPUs, 2048 MB of
/// memory, an 8192 MB data disk and a 1280 x 768 screen. The screen is added
/// after the default one, so the profile starts with two identical displays.
class HALVISTROM_CORE_EXPORT HwProfileBuilder : public HwProfile
{
public:
    explicit HwProfileBuilder(const QString &name = QString());
};

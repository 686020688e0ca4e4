#pragma once

#include "OsImage.h"
#include "halvistromcore_export.h"

/// A placeholder image that passes isValid(): a new braced uuid, an https
/// address of "image.ova" on the vendor's download host, size 1, a checksum
/// text, the phone form factor and a build date of 2021-02-02.
class HALVISTROM_CORE_EXPORT OsImageBuilder : public OsImage
{
public:
    OsImageBuilder();
};

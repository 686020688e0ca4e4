#pragma once

#include "OsImage.h"

#include <functional>

namespace hvtool {

class Context;

/// image add URL: registers the record or the OVA at an http(s) address,
/// fetching its OVA; describeOva reads what the options say of an OVA.
int addFromUrl(Context &ctx, const std::function<int(Context &, OsImage *)> &describeOva);
/// Whether the argument of image add is a web address rather than a file.
bool isWebAddress(const QString &argument);
/// Makes sure the OVA of image is on this machine before a device is made
/// from it: fetched with --pull, or when the user says so on a terminal.
/// Success, or the exit code of the failure it reported.
int ensureOva(Context &ctx, const OsImage &image);

} // namespace hvtool

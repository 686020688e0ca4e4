#pragma once

#include <QString>

namespace hvtest {

/// Gives the process a private temporary root with its own HOME, XDG folders
/// and HV_HOME, so that nothing a test does reaches the real home. Called by
/// the harness main() before the QCoreApplication exists. A CTest entry that
/// sets HV_TEST_KEEP_HV_HOME keeps the HV_HOME it gives (even unset).
void isolateProcess();

/// The private temporary root of this test process.
QString testRoot();

/// Absolute path of a helper executable built next to the test binaries.
QString helperPath(const QString &name);

} // namespace hvtest

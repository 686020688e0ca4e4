#pragma once

#include "HwProfile.h"
#include "OsImage.h"
#include "QEMUEngine.h"

#include <memory>

/// Devices made the way a user gets them: an OVA built with the real qemu-img
/// (vmdk disks) and GNU tar, an OS image record pointing at it, a profile.
namespace devicefixture {

/// Runs a program to its end (bounded); false with a test failure otherwise.
bool run(const QString &program, const QStringList &arguments, QByteArray *output = nullptr);
/// An OVA with "system.vmdk" and "data.vmdk" of sizeMiB, in a fresh directory.
QString makeOva(const QString &name, int sizeMiB = 16);
OsImage makeImage(const QString &ovaPath, const QString &androidVersion, const QString &imageVersion = "3.8.0");
/// One CPU, 256 MiB of RAM and an SD card of the given size (none for 0).
HwProfile makeProfile(long long sdCardSizeMiB = 0);
QByteArray fileHash(const QString &path);
/// The device directory of a name, under the deployed path.
QString deployed(const QString &name);
/// The engine of the tests, initialised.
std::unique_ptr<QEMUEngine> makeEngine();
/// An engine whose image tool fails every run with the message on its error
/// output (a fake "qemu-img" in its own "HV_QEMU_BIN_DIR").
std::unique_ptr<QEMUEngine> makeEngineWithFailingImageTool(const QString &message);

} // namespace devicefixture

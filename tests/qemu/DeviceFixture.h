#pragma once

#include "HwProfile.h"
#include "OsImage.h"
#include "QEMUEngine.h"
#include "QEMUMachine.h"

#include <QByteArray>
#include <QString>
#include <QStringList>

#include <memory>

/// Devices for the engine's tests, made the way a user gets them: an OVA built
/// with the real qemu-img (vmdk disks) and GNU tar, an OS image record that
/// points at it and a small hardware profile.
namespace devicefixture {

/// Runs a program to its end (bounded); false with a test failure otherwise.
bool run(const QString &program, const QStringList &arguments, QByteArray *output = nullptr);

/// An OVA with "system.vmdk" and "data.vmdk" of the given size in MiB, made
/// in a fresh directory under the test root; returns its path.
QString makeOva(const QString &name, int sizeMiB = 16);

/// An OS image record of the given Android version whose archive is ovaPath.
OsImage makeImage(const QString &ovaPath, const QString &androidVersion, const QString &imageVersion = "3.8.0");

/// A profile with one CPU, 256 MiB of RAM and the given SD card size.
HwProfile makeProfile(long long sdCardSizeMiB = 0);

/// The hex SHA-256 of a file's bytes.
QByteArray fileHash(const QString &path);

/// The engine of the tests (initialised); devices live in the deployed path.
std::unique_ptr<QEMUEngine> makeEngine();

/// An engine whose image tool fails every run with the given message on its
/// error output (a fake "qemu-img" in its own "HV_QEMU_BIN_DIR").
std::unique_ptr<QEMUEngine> makeEngineWithFailingImageTool(const QString &message);

} // namespace devicefixture

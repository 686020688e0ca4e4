#include "Command.h"

#include "HalvistromAppUtils.h"
#include "Settings.h"

#include <QCoreApplication>

int main(int argc, char **argv)
{
    QCoreApplication app(argc, argv);
    HalvistromAppUtils::setup(HalvistromAppUtils::Tool);
    Settings::applyHalvistromEnv();

    hvtool::addSettingsCommands();
    hvtool::addProfileCommands();
    hvtool::addImageCommands();
    hvtool::addPullCommands();
    hvtool::addDeviceCommands();
    hvtool::addDoctorCommand();
    hvtool::addAdbCommands();
    hvtool::addShellCommands();
    hvtool::addViewCommands();
    return hvtool::runCommandLine(QCoreApplication::arguments());
}

// Starts one device cold, the way a second program (say hvtool beside the
// desktop application) would, and prints the port offset it got:
//   hv_start_device <device name>
// Exit code 0 when the emulator runs, 1 otherwise. The device directory is
// taken from HV_HOME like any program of the product.
#include "QEMUEngine.h"
#include "QEMUMachine.h"

#include <QCoreApplication>
#include <QTextStream>

#include <memory>

int main(int argc, char **argv)
{
    QCoreApplication app(argc, argv);
    if (app.arguments().size() != 2) {
        QTextStream(stderr) << "usage: hv_start_device <device name>\n";
        return 2;
    }
    QEMUEngine engine;
    if (engine.initialize(VMToolsEngine::NoAccelerationCheck).first != 0)
        return 1;
    std::unique_ptr<VMToolsMachine> machine(engine.getMachine(app.arguments().at(1)));
    if (!machine)
        return 1;
    // Tells the test that the start begins now.
    QTextStream(stdout) << "starting" << Qt::endl;
    const int result = engine.startMachine(machine.get(), QString());
    auto *qemuMachine = static_cast<QEMUMachine *>(machine.get());
    qemuMachine->refreshPortOffset();
    QTextStream(stdout) << "offset=" << qemuMachine->getPortOffset() << "\n";
    return result == QEMUMachine::Started ? 0 : 1;
}

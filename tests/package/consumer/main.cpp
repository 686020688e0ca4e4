// A program of its own that embeds the installed library. It has its own
// class Settings, with the same get() as the library's, which only it calls.
//   consumer            loads the engine and says how it went
//   consumer RECORD     and runs a device's whole life on that OS image
#include <HalvistromCore/FileUtils.h>
#include <HalvistromCore/GuestBridge.h>
#include <HalvistromCore/OsImageIO.h>
#include <HalvistromCore/Paths.h>
#include <HalvistromCore/VMToolsEngine.h>
#include <HalvistromCore/VMToolsMachine.h>

#include <QCoreApplication>
#include <QElapsedTimer>
#include <QJsonDocument>
#include <QThread>

#include <cstdio>
#include <memory>

struct Settings {
    static inline int calls = 0;
    static QVariant get(const QString &, const QVariant &def) { ++calls; return def; }
};

namespace {

// The demo guest's banner through its debug bridge, up to its uptime.
QByteArray guestAnswer(const VMToolsMachine &machine)
{
    QElapsedTimer timer;
    timer.start();
    for (; timer.elapsed() < 180000; QThread::msleep(250)) {
        GuestBridge bridge;
        QByteArray line;
        if (bridge.connect(quint16(machine.getAdbPort()), 2000) == GuestBridge::Device
            && bridge.shell(QStringLiteral("banner"), 2000, &line) && !line.isEmpty())
            return line.split(' ').mid(0, 3).join(' ');
    }
    return QByteArray();
}

bool stop(VMToolsEngine &engine, VMToolsMachine &machine)
{
    engine.stopMachine(&machine);
    for (int i = 0; i < 240 && machine.getStatus() == VMToolsMachine::On; ++i)
        QThread::msleep(250);
    return machine.getStatus() == VMToolsMachine::Off;
}

const char *lifecycle(VMToolsEngine &engine, const QString &record)
{
    OsImage image = OsImageIO::loadFromFile(record, HwProfile::Source::USER);
    image.imageUri = QUrl::fromLocalFile(QFileInfo(record).dir().filePath("halvistrom-demo.ova")).toString();
    if (!FileUtils::makeDirectory(Paths::getUserOsImagePath())
        || !FileUtils::saveFile(QDir(Paths::getUserOsImagePath()).filePath("demo.json"),
                                QJsonDocument(OsImageIO::toJsonObject(image)).toJson()))
        return "register the image";
    HwProfile profile;
    profile.uuid = QStringLiteral("{6d1c3b1e-0d0b-4c55-9d6a-2f1f3d6b7a01}");
    profile.cpuCount = 1;
    profile.ramSize = 256;
    profile.dataDiskSize = 16;
    if (engine.createMachine("embedded", image, profile) != 0)
        return "create";
    const std::unique_ptr<VMToolsMachine> machine(engine.getMachine("embedded"));
    bool quickBoot = true;
    if (!machine || engine.startFromLatestSnapshot(machine.get(), &quickBoot) != 1)
        return "start";
    const QByteArray cold = guestAnswer(*machine);
    if (!cold.startsWith("HALVISTROM-DEMO"))
        return "wait for the guest";
    if (!engine.saveSnapshot(machine.get(), VMToolsEngine::latestSnapshotName()) || !stop(engine, *machine))
        return "save and stop";
    quickBoot = true;
    if (engine.startFromLatestSnapshot(machine.get(), &quickBoot) != 1 || !quickBoot || guestAnswer(*machine) != cold)
        return "resume";
    return stop(engine, *machine) && engine.deleteMachine(machine.get()) ? nullptr : "stop and delete";
}

} // namespace

int main(int argc, char **argv)
{
    QCoreApplication app(argc, argv);
    Settings::get(QStringLiteral("greeting"), QStringLiteral("hello"));
    const VMToolsEngine::LoadResult loaded = VMToolsEngine::loadEngine(VMToolsEngine::Full);
    const std::unique_ptr<VMToolsEngine> engine(loaded.engine);
    if (!engine) {
        std::printf("no engine: %s\n", qPrintable(loaded.message));
        return 1;
    }
    const char *failed = argc > 1 ? lifecycle(*engine, QString::fromLocal8Bit(argv[1])) : nullptr;
    std::printf("%s; Settings::get calls: %d\n", failed ? failed : "done", Settings::calls);
    return failed ? 1 : 0;
}

#include "HwProfileBuilder.h"
#include "OsImageBuilder.h"
#include "QEMUEngine.h"
#include "QEMUMachine.h"

#include "MessageCapture.h"
#include "TestEnvironment.h"

#include <gtest/gtest.h>

namespace {

TEST(QEMUEngineIdentifiers, storeSerialAndAndroidIdInDeviceJson)
{
    QEMUEngine engine;
    const QString path = hvtest::testRoot() + "/ident-device";
    QEMUMachine created(&engine, path, OsImageBuilder(), HwProfileBuilder("Ident"));
    ASSERT_TRUE(created.save());

    ASSERT_TRUE(engine.setMachineIdentifiers(&created, "HV0001", "3f2a9c"));
    QEMUMachine reloaded(&engine, path);
    ASSERT_TRUE(reloaded.load());
    EXPECT_EQ(reloaded.getBuildSerial(), "HV0001");
    EXPECT_EQ(reloaded.getData("android_id").toString(), "3f2a9c");
}

TEST(QEMUEngineIdentifiers, refuseANullMachine)
{
    QEMUEngine engine;
    hvtest::MessageCapture capture;
    EXPECT_FALSE(engine.setMachineIdentifiers(nullptr, "a", "b"));
    EXPECT_TRUE(capture.has(QtWarningMsg, "[VMTools] Cannot set identifiers of a null machine"));
}

} // namespace

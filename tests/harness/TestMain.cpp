#include "TestEnvironment.h"

#include <QCoreApplication>
#include <QLoggingCategory>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

int main(int argc, char **argv)
{
    hvtest::isolateProcess();
    // Event loops, QProcess and sockets need an application object.
    QCoreApplication app(argc, argv);
    // The tests assert the library's progress lines too.
    QLoggingCategory::setFilterRules(QStringLiteral("halvistrom.*.debug=true"));
    ::testing::InitGoogleMock(&argc, argv);
    // Re-executing the binary keeps death tests safe with Qt's state around.
    ::testing::GTEST_FLAG(death_test_style) = "threadsafe";
    return RUN_ALL_TESTS();
}

# The QMP client: framing and messages, a scripted fake server on the loopback
# address, and the real emulator (TCG).
hv_add_test(qmp_tests
    SOURCES
        ${CMAKE_CURRENT_LIST_DIR}/QmpFramingTest.cpp
        ${CMAKE_CURRENT_LIST_DIR}/QEMUClientTest.cpp
        ${CMAKE_CURRENT_LIST_DIR}/QEMUClientEmulatorTest.cpp
        ${CMAKE_CURRENT_LIST_DIR}/QEMUConsoleLogTest.cpp
        ${CMAKE_CURRENT_LIST_DIR}/FakeQmpServer.cpp
        ${CMAKE_CURRENT_LIST_DIR}/FakeQmpServer.h
    LIBS hv-qemu
    ARGS --gtest_filter=-QEMUClientEmulator.*
    TIMEOUT 180)
hv_add_test(qmp_emulator_tests
    TARGET qmp_tests
    ARGS --gtest_filter=QEMUClientEmulator.*
    LABELS qemu
    TIMEOUT 180)

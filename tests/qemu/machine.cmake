# The QEMU machine runtime and the diagnosis of QEMU's error output.
hv_add_test(qemu_diagnosis_tests
    SOURCES ${CMAKE_CURRENT_LIST_DIR}/QEMUErrorDiagnosisTest.cpp
    LIBS hv-qemu
    LABELS qemu
    TIMEOUT 60)

hv_add_test(qemu_machine_tests
    SOURCES
        ${CMAKE_CURRENT_LIST_DIR}/QEMUMachineTest.cpp
        ${CMAKE_CURRENT_LIST_DIR}/QEMUMachineEmulatorTest.cpp
    LIBS hv-qemu
    ARGS --gtest_filter=-QEMUMachineEmulator*:*identifiers*
    LABELS qemu
    TIMEOUT 60)
hv_add_test(qemu_identifier_tests
    TARGET qemu_machine_tests
    ARGS --gtest_filter=*identifiers*
    TIMEOUT 60)

# The real emulator under TCG: each start waits two seconds before it checks.
hv_add_test(qemu_machine_emulator_tests
    TARGET qemu_machine_tests
    ARGS --gtest_filter=QEMUMachineEmulator*
    LABELS qemu
    TIMEOUT 180)

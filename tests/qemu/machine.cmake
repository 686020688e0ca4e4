# The QEMU machine runtime and the diagnosis of QEMU's error output.
hv_add_test(qemu_diagnosis_tests
    SOURCES ${CMAKE_CURRENT_LIST_DIR}/QEMUErrorDiagnosisTest.cpp
    LIBS hv-qemu
    LABELS qemu
    TIMEOUT 60)

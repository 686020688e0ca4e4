# The machine record and its device configuration file.
hv_add_test(vmtools_machine_tests
    SOURCES ${CMAKE_CURRENT_LIST_DIR}/VMToolsMachineTest.cpp
    LABELS vmtools
    TIMEOUT 60)

# The launch command line: the option set, its overrides and its rendering.
hv_add_test(launch_tests
    SOURCES
        ${CMAKE_CURRENT_LIST_DIR}/QEMULaunchTest.cpp
    LIBS hv-qemu
    LABELS qemu
    TIMEOUT 60)

# Device creation, cloning, deletion and factory reset against the real
# qemu-img, OVAs built with qemu-img and GNU tar; the quick-boot decision.
hv_add_test(lifecycle_tests
    SOURCES
        ${CMAKE_CURRENT_LIST_DIR}/QEMULifecycleTest.cpp
        ${CMAKE_CURRENT_LIST_DIR}/QEMUSecurityTest.cpp
        ${CMAKE_CURRENT_LIST_DIR}/DeviceFixture.cpp
        ${CMAKE_CURRENT_LIST_DIR}/DeviceFixture.h
    LIBS hv-qemu
    LABELS qemu
    ARGS --gtest_filter=-Security.*
    TIMEOUT 300)

# Starting, snapshotting and stopping devices with the real emulator under
# TCG; two programs starting devices at once.
add_executable(hv_start_device ${CMAKE_CURRENT_LIST_DIR}/StartDeviceHelper.cpp)
target_link_libraries(hv_start_device PRIVATE hv-qemu)
hv_add_test(launch_emulator_tests
    SOURCES
        ${CMAKE_CURRENT_LIST_DIR}/QEMULaunchEmulatorTest.cpp
        ${CMAKE_CURRENT_LIST_DIR}/DeviceFixture.cpp
        ${CMAKE_CURRENT_LIST_DIR}/DeviceFixture.h
    LIBS hv-qemu
    LABELS qemu
    TIMEOUT 600)
add_dependencies(launch_emulator_tests hv_start_device)

# Another user and a hostile OS image against real devices: the control
# socket, private files under the widest umask, hostile disks, links.
hv_add_test(security_tests
    TARGET lifecycle_tests
    ARGS --gtest_filter=Security.*
    LABELS qemu
    ENVIRONMENT HV_TEST_UMASK=000
    TIMEOUT 300)

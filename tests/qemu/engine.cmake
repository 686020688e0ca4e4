# The QEMU engine's start-up, linked directly, and the engine loaded through
# its plug-in as an application does.
hv_add_test(qemu_engine_tests SOURCES
    ${CMAKE_CURRENT_LIST_DIR}/QEMUEngineTest.cpp
    LIBS hv-qemu
    TIMEOUT 120
    ARGS --gtest_filter=-QEMUEngineVersionOverrides.*)
hv_add_test(qemu_engine_version_overrides TARGET qemu_engine_tests
    TIMEOUT 60
    ENVIRONMENT HV_QEMU_VERSION=7.0.0 HV_QEMU_MIN_VERSION=7.1 HV_QEMU_MAX_VERSION=8.0.0-beta2
    ARGS --gtest_filter=QEMUEngineVersionOverrides.*)

hv_add_test(qemu_plugin_tests SOURCES
    ${CMAKE_CURRENT_LIST_DIR}/QEMUPluginTest.cpp
    TIMEOUT 120
    ARGS --gtest_filter=-QEMUPluginRosetta.*)
hv_add_test(qemu_plugin_rosetta TARGET qemu_plugin_tests
    TIMEOUT 60
    ENVIRONMENT HV_ROSETTA_UI=1
    ARGS --gtest_filter=QEMUPluginRosetta.*)
add_dependencies(qemu_plugin_tests qemu)


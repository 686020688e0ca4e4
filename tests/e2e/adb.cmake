# Debian's adb client against a device that hvtool made and started.
if(TARGET hvtool)
    find_package(Python3 COMPONENTS Interpreter REQUIRED)
    add_test(NAME hvtool_adb COMMAND ${Python3_EXECUTABLE} ${CMAKE_CURRENT_SOURCE_DIR}/adb_e2e.py
        --hvtool $<TARGET_FILE:hvtool>
        --image-dir ${CMAKE_BINARY_DIR}/demo-image
        --demo-image ${PROJECT_SOURCE_DIR}/scripts/demo-image)
    set_tests_properties(hvtool_adb PROPERTIES TIMEOUT 900 LABELS e2e RUN_SERIAL TRUE FIXTURES_REQUIRED demo_image)
endif()

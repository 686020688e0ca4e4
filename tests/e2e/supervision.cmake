# Process supervision through hvtool with the real emulator on blank-disk
# devices: no guest image is needed.
if(TARGET hvtool)
    find_package(Python3 COMPONENTS Interpreter REQUIRED)
    add_test(NAME hvtool_supervision COMMAND ${Python3_EXECUTABLE} ${CMAKE_CURRENT_SOURCE_DIR}/supervision_e2e.py
        --hvtool $<TARGET_FILE:hvtool>)
    set_tests_properties(hvtool_supervision PROPERTIES TIMEOUT 600 LABELS e2e RUN_SERIAL TRUE)
endif()

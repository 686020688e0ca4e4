# What a device shows: screenshots, the console log and the emulator's window
# (under Xvfb), on the demo OS image and on a guest that prints without end.
if(TARGET hvtool)
    find_package(Python3 COMPONENTS Interpreter REQUIRED)
    add_test(NAME view_e2e COMMAND ${Python3_EXECUTABLE} ${CMAKE_CURRENT_SOURCE_DIR}/view_e2e.py
        --hvtool $<TARGET_FILE:hvtool>
        --image-dir ${CMAKE_BINARY_DIR}/demo-image
        --demo-image ${PROJECT_SOURCE_DIR}/scripts/demo-image)
    set_tests_properties(view_e2e PROPERTIES TIMEOUT 600 LABELS e2e RUN_SERIAL TRUE FIXTURES_REQUIRED demo_image)
endif()

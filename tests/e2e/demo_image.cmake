# The demo OS image, built once by the fixture and cached in the build
# directory; every test that needs it requires the fixture "demo_image".
set(HV_DEMO_IMAGE_DIR ${CMAKE_BINARY_DIR}/demo-image)
add_test(NAME e2e_demo_image_build
    COMMAND ${PROJECT_SOURCE_DIR}/scripts/demo-image ${HV_DEMO_IMAGE_DIR})
set_tests_properties(e2e_demo_image_build PROPERTIES
    LABELS e2e
    TIMEOUT 600
    FIXTURES_SETUP demo_image)

# Its records and archive as the library reads them.
hv_add_test(e2e_demo_image_records
    SOURCES DemoImageTest.cpp
    LABELS e2e
    TIMEOUT 120
    ENVIRONMENT HV_TEST_DEMO_IMAGE_DIR=${HV_DEMO_IMAGE_DIR})
set_tests_properties(e2e_demo_image_records PROPERTIES FIXTURES_REQUIRED demo_image)

# It boots under TCG on virtio and on IDE disks, answers on its forwarded
# port, counts cold boots and resumes from a snapshot.
add_test(NAME e2e_demo_image_boot
    COMMAND ${CMAKE_CURRENT_SOURCE_DIR}/demo_image_boot.sh ${HV_DEMO_IMAGE_DIR})
set_tests_properties(e2e_demo_image_boot PROPERTIES
    LABELS e2e
    TIMEOUT 1200
    FIXTURES_REQUIRED demo_image)

# The demo OS image boots under TCG on virtio and on IDE disks, answers on its
# forwarded port, counts cold boots and resumes from a snapshot. The image is
# built on first use and cached in the build directory.
add_test(NAME e2e_demo_image
    COMMAND ${CMAKE_CURRENT_SOURCE_DIR}/demo_image_boot.sh ${CMAKE_BINARY_DIR}/demo-image)
set_tests_properties(e2e_demo_image PROPERTIES
    LABELS e2e
    TIMEOUT 1200)

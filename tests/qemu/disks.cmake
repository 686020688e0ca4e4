# The QEMU engine's disk operations: the real qemu-img, and a fake image tool
# (a script in build/bin/fake-qemu-img) that records its runs, can be made
# slow or made to fail, and otherwise hands over to the real one.
configure_file(${CMAKE_CURRENT_LIST_DIR}/fake-qemu-img/qemu-img ${CMAKE_BINARY_DIR}/bin/fake-qemu-img/qemu-img COPYONLY)
hv_add_test(disk_tests
    SOURCES ${CMAKE_CURRENT_LIST_DIR}/QEMUEngineDisksTest.cpp ${CMAKE_CURRENT_LIST_DIR}/QEMUSnapshotTableTest.cpp
    LIBS hv-qemu
    LABELS qemu
    TIMEOUT 240)

hv_add_test(qemu_identifier_tests SOURCES QEMUIdentifiersTest.cpp LIBS hv-qemu)

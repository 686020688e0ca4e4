# Tests that run emulators with forwarded host ports expect the offsets a
# quiet machine gives (0, then 7); they never run at the same time.
foreach(test launch_emulator_tests lifecycle_tests security_tests qemu_machine_emulator_tests qmp_emulator_tests)
    if(TEST ${test})
        set_tests_properties(${test} PROPERTIES RESOURCE_LOCK hv_forwarded_ports)
    endif()
endforeach()

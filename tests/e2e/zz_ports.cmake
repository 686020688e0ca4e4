# Every test here starts emulators that forward host ports: none runs beside
# the tests that expect the offsets a quiet machine gives (0, then 7).
foreach(test e2e_demo_image_boot hvtool_e2e hvtool_snapshots hvtool_supervision hvtool_adb view_e2e)
    if(TEST ${test})
        set_tests_properties(${test} PROPERTIES RESOURCE_LOCK hv_forwarded_ports)
    endif()
endforeach()

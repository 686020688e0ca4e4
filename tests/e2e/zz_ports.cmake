# The demo guest's boot test forwards host ports as devices do.
if(TEST e2e_demo_image_boot)
    set_tests_properties(e2e_demo_image_boot PROPERTIES RESOURCE_LOCK hv_forwarded_ports)
endif()

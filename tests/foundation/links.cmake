# Error triggers and web links: both read environment overrides on every call.
hv_add_test(foundation_links_tests
    SOURCES
        ${CMAKE_CURRENT_LIST_DIR}/TriggerErrorTest.cpp
        ${CMAKE_CURRENT_LIST_DIR}/UrlsTest.cpp
    LABELS foundation
    TIMEOUT 60)

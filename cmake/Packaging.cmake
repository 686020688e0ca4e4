# The Debian packages (scripts/package runs CPack over a build configured for
# /usr): "hvtool", the runtime (the library, the engine plug-in, hvtool, its
# completion and manual page), and "libhalvistrom-core-dev", what a program
# builds against. CPack writes the control files; what Debian requires beyond
# them (the copyright file, the changelog, the lintian overrides) is installed
# here into each package's documentation directory.
set(HV_PACKAGING_DIR ${PROJECT_SOURCE_DIR}/packaging)
set(HV_RUNTIME_PACKAGE hvtool)
set(HV_DEVELOPMENT_PACKAGE libhalvistrom-core-dev)

# The changelog's newest entry is the version being packaged.
file(STRINGS ${HV_PACKAGING_DIR}/changelog hv_changelog_head LIMIT_COUNT 1)
if(NOT hv_changelog_head MATCHES "^${HV_RUNTIME_PACKAGE} \\(${PROJECT_VERSION}\\) ")
    message(FATAL_ERROR "packaging/changelog begins with '${hv_changelog_head}': its newest entry must be "
                        "'${HV_RUNTIME_PACKAGE} (${PROJECT_VERSION})', the project's version")
endif()

find_program(HV_GZIP gzip REQUIRED)
file(MAKE_DIRECTORY ${CMAKE_BINARY_DIR}/packaging/home)
set(hv_changelog_gz ${CMAKE_BINARY_DIR}/packaging/changelog.gz)
add_custom_command(OUTPUT ${hv_changelog_gz}
    COMMAND ${HV_GZIP} -9nc ${HV_PACKAGING_DIR}/changelog > ${hv_changelog_gz}
    DEPENDS ${HV_PACKAGING_DIR}/changelog
    COMMENT "Compressing the Debian changelog")
add_custom_target(hv-changelog ALL DEPENDS ${hv_changelog_gz})

# The manual page and the bash completion are made from hvtool's command
# table by hvtool itself, in a scratch home of the build tree; the page is
# dated by the changelog's newest entry, so a rebuild gives the same page.
file(STRINGS ${HV_PACKAGING_DIR}/changelog hv_changelog_trailer REGEX "^ -- " LIMIT_COUNT 1)
string(REGEX REPLACE "^.*>  [A-Za-z]+, ([0-9]+ [A-Za-z]+ [0-9]+) .*$" "\\1" hv_manual_date "${hv_changelog_trailer}")
set(hv_generated ${CMAKE_BINARY_DIR}/packaging)
set(hv_tool env HV_HOME=${hv_generated}/home $<TARGET_FILE:hvtool>)
add_custom_command(OUTPUT ${hv_generated}/hvtool.1.gz ${hv_generated}/hvtool.bash
    COMMAND ${hv_tool} manual --date "${hv_manual_date}" > ${hv_generated}/hvtool.1
    COMMAND ${HV_GZIP} -9nf ${hv_generated}/hvtool.1
    COMMAND ${hv_tool} completion bash > ${hv_generated}/hvtool.bash
    DEPENDS hvtool
    COMMENT "Making hvtool's manual page and bash completion from its command table")
add_custom_target(hv-manual ALL DEPENDS ${hv_generated}/hvtool.1.gz ${hv_generated}/hvtool.bash)
install(FILES ${hv_generated}/hvtool.1.gz DESTINATION ${CMAKE_INSTALL_MANDIR}/man1 COMPONENT runtime)
install(FILES ${hv_generated}/hvtool.bash DESTINATION ${CMAKE_INSTALL_DATAROOTDIR}/bash-completion/completions
    RENAME hvtool COMPONENT runtime)

foreach(component IN ITEMS runtime development)
    if(component STREQUAL "runtime")
        set(package ${HV_RUNTIME_PACKAGE})
    else()
        set(package ${HV_DEVELOPMENT_PACKAGE})
    endif()
    install(FILES ${HV_PACKAGING_DIR}/copyright ${hv_changelog_gz}
        DESTINATION ${CMAKE_INSTALL_DATAROOTDIR}/doc/${package} COMPONENT ${component})
    if(EXISTS ${HV_PACKAGING_DIR}/${package}.lintian-overrides)
        install(FILES ${HV_PACKAGING_DIR}/${package}.lintian-overrides
            DESTINATION ${CMAKE_INSTALL_DATAROOTDIR}/lintian/overrides RENAME ${package} COMPONENT ${component})
    endif()
endforeach()

set(CPACK_GENERATOR DEB)
set(CPACK_PACKAGE_NAME ${HV_RUNTIME_PACKAGE})
set(CPACK_PACKAGE_VENDOR Corbelwick)
set(CPACK_PACKAGE_VERSION ${PROJECT_VERSION})
set(CPACK_PACKAGE_CONTACT "Halvistrom core maintainers <maintainers@users.noreply.c-seed-2d9f5618.example>")
set(CPACK_COMPONENTS_ALL runtime development)
set(CPACK_DEB_COMPONENT_INSTALL ON)
set(CPACK_STRIP_FILES ON)
set(CPACK_DEBIAN_FILE_NAME DEB-DEFAULT)
set(CPACK_DEBIAN_PACKAGE_PRIORITY optional)
set(CPACK_DEBIAN_PACKAGE_SHLIBDEPS ON)
set(CPACK_DEBIAN_PACKAGE_GENERATE_SHLIBS ON)
set(CPACK_DEBIAN_PACKAGE_GENERATE_SHLIBS_POLICY ">=")

set(CPACK_DEBIAN_RUNTIME_PACKAGE_NAME ${HV_RUNTIME_PACKAGE})
set(CPACK_DEBIAN_RUNTIME_PACKAGE_SECTION otherosfs)
set(CPACK_DEBIAN_RUNTIME_PACKAGE_DEPENDS "qemu-system-x86, qemu-utils")
set(CPACK_DEBIAN_RUNTIME_PACKAGE_RECOMMENDS "adb, qemu-system-gui")
# The dynamic linker's cache is refreshed by dpkg's trigger.
set(CPACK_DEBIAN_RUNTIME_PACKAGE_CONTROL_EXTRA ${HV_PACKAGING_DIR}/triggers)
set(CPACK_COMPONENT_RUNTIME_DESCRIPTION [=[
Android virtual devices on a Linux desktop
hvtool creates Android virtual devices from OS images and hardware
profiles, and starts (cold, or quick boot from the saved state), stops,
snapshots, clones, resets and deletes them. A running device is a
detached QEMU emulator controlled over a private socket.

This package holds hvtool, the Halvistrom core library it is built on
and the library's QEMU engine plug-in.]=])

set(CPACK_DEBIAN_DEVELOPMENT_PACKAGE_NAME ${HV_DEVELOPMENT_PACKAGE})
set(CPACK_DEBIAN_DEVELOPMENT_PACKAGE_SECTION libdevel)
set(CPACK_DEBIAN_DEVELOPMENT_PACKAGE_DEPENDS "${HV_RUNTIME_PACKAGE} (= ${PROJECT_VERSION}), qtbase5-dev")
set(CPACK_COMPONENT_DEVELOPMENT_DESCRIPTION [=[
Android virtual devices on a Linux desktop - development files
The headers of the Halvistrom core library, its CMake package
(find_package(HalvistromCore), target Halvistrom::Core) and its
pkg-config file, for programs that embed the library to create and run
Android virtual devices.]=])

include(CPack)

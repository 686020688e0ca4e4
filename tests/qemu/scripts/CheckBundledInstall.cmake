# Installs the build into a scratch prefix and checks that the install tree
# has the bundled QEMU directory, with links to the system's programs, and the
# engine plug-in beside the executables.
# Arguments: -DBUILD_DIR=<build tree> -DSCRATCH=<scratch directory>
#            -DQEMU_SYSTEM=<program> -DQEMU_IMG=<program>
file(REMOVE_RECURSE ${SCRATCH})
execute_process(COMMAND ${CMAKE_COMMAND} --install ${BUILD_DIR} --prefix ${SCRATCH}/prefix
    RESULT_VARIABLE rc OUTPUT_QUIET)
if(NOT rc EQUAL 0)
    message(FATAL_ERROR "install into ${SCRATCH}/prefix failed: ${rc}")
endif()
set(dir ${SCRATCH}/prefix/bin/qemu/x86_64/bin)
foreach(program IN ITEMS ${QEMU_SYSTEM} ${QEMU_IMG})
    get_filename_component(name ${program} NAME)
    if(NOT IS_SYMLINK ${dir}/${name})
        message(FATAL_ERROR "${dir}/${name} is not a link")
    endif()
    file(READ_SYMLINK ${dir}/${name} target)
    if(NOT target STREQUAL program)
        message(FATAL_ERROR "${dir}/${name} points to '${target}', expected '${program}'")
    endif()
endforeach()
if(NOT EXISTS ${SCRATCH}/prefix/bin/plugins/libqemu.so)
    message(FATAL_ERROR "the plug-in is missing from ${SCRATCH}/prefix/bin/plugins")
endif()
file(REMOVE_RECURSE ${SCRATCH})

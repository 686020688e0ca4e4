# Installs the build tree into a scratch prefix, checks its layout, builds the
# consumer project against it and runs it: a device's whole life with only
# HV_HOME set, each load failure's message, and the prefix moved elsewhere.
foreach(var BUILD_DIR SOURCE_DIR WORK_DIR GENERATOR RECORD)
    if(NOT DEFINED ${var})
        message(FATAL_ERROR "${var} is not set")
    endif()
endforeach()

file(REMOVE_RECURSE ${WORK_DIR})
set(prefix ${WORK_DIR}/prefix)
set(build ${WORK_DIR}/build)

# run(<expected exit code> <expected stdout> command...): a success prints
# nothing on stderr (a failure is also logged there).
function(run code expected)
    execute_process(COMMAND ${ARGN} RESULT_VARIABLE rc OUTPUT_VARIABLE out ERROR_VARIABLE err)
    if(NOT rc STREQUAL code OR (code EQUAL 0 AND NOT err STREQUAL "") OR (expected AND NOT out MATCHES "${expected}"))
        message(FATAL_ERROR "${ARGN}\nexit ${rc} (expected ${code})\nstdout: ${out}\nexpected: ${expected}\nstderr: ${err}")
    endif()
endfunction()

run(0 "" ${CMAKE_COMMAND} --install ${BUILD_DIR} --prefix ${prefix})
file(GLOB_RECURSE plugin RELATIVE ${prefix} ${prefix}/*/libqemu.so)
file(GLOB bin RELATIVE ${prefix}/bin ${prefix}/bin/*)
if(NOT plugin MATCHES "^lib.*/halvistrom/plugins/libqemu.so$" OR NOT bin STREQUAL "hvtool"
   OR NOT EXISTS ${prefix}/include/HalvistromCore/Settings.h)
    message(FATAL_ERROR "install layout: plug-in '${plugin}', bin/ '${bin}'")
endif()
run(0 "" ${CMAKE_COMMAND} -S ${SOURCE_DIR} -B ${build} -G ${GENERATOR} -DCMAKE_PREFIX_PATH=${prefix})
run(0 "" ${CMAKE_COMMAND} --build ${build})

set(home ${WORK_DIR}/home)
run(0 "" env -i HV_HOME=${home} ${prefix}/bin/hvtool settings set emulator.accelerator tcg)
run(0 "^done; Settings::get calls: 1\n$" env -i HV_HOME=${home} ${build}/consumer ${RECORD})

# What a load that fails says, in plain text.
file(MAKE_DIRECTORY ${build}/plugins ${WORK_DIR}/no-emulator)
file(WRITE ${build}/plugins/libqemu.so "not a library\n")
run(1 "^no engine: ${build}/plugins/libqemu.so is not an engine plug-in: Cannot load library "
    env HV_HOME=${home} ${build}/consumer)
file(COPY_FILE ${build}/libotherengine.so ${build}/plugins/libqemu.so)
run(1 "^no engine: the engine plug-in ${build}/plugins/libqemu.so was built for Halvistrom core 2.0.0, but this library is Halvistrom core [0-9.]+: install the plug-in of the same version\n$"
    env HV_HOME=${home} ${build}/consumer)
file(REMOVE_RECURSE ${build}/plugins)
find_program(qemu_img qemu-img REQUIRED)
file(CREATE_LINK ${qemu_img} ${WORK_DIR}/no-emulator/qemu-img SYMBOLIC)
run(1 "^no engine: QEMU's qemu-system-x86_64 was not found in ${WORK_DIR}/no-emulator \\(HV_QEMU_BIN_DIR\\): install the Debian package qemu-system-x86\n$"
    env HV_HOME=${home} HV_QEMU_BIN_DIR=${WORK_DIR}/no-emulator ${build}/consumer)

# The installed tree moved elsewhere still finds its own plug-in.
file(RENAME ${prefix} ${WORK_DIR}/moved)
get_filename_component(libdir ${WORK_DIR}/moved/${plugin}/../../.. ABSOLUTE)
run(0 "^done" env HV_HOME=${home} LD_LIBRARY_PATH=${libdir} ${build}/consumer)
file(REMOVE_RECURSE ${libdir}/halvistrom)
run(1 "^no engine: the qemu engine plug-in \\(libqemu.so\\) was not found in ${build}/plugins or ${libdir}/halvistrom/plugins\n$"
    env HV_HOME=${home} LD_LIBRARY_PATH=${libdir} ${build}/consumer)
file(REMOVE_RECURSE ${WORK_DIR})

# Installs the build tree into a scratch prefix, then configures, builds and
# runs the consumer project against it.
foreach(var BUILD_DIR SOURCE_DIR WORK_DIR GENERATOR)
    if(NOT DEFINED ${var})
        message(FATAL_ERROR "${var} is not set")
    endif()
endforeach()

file(REMOVE_RECURSE ${WORK_DIR})
set(prefix ${WORK_DIR}/prefix)

function(run)
    execute_process(COMMAND ${ARGN} RESULT_VARIABLE rc OUTPUT_VARIABLE out ERROR_VARIABLE err)
    if(NOT rc EQUAL 0)
        message(FATAL_ERROR "failed (${rc}): ${ARGN}\n${out}\n${err}")
    endif()
    set(last_output "${out}" PARENT_SCOPE)
endfunction()

run(${CMAKE_COMMAND} --install ${BUILD_DIR} --prefix ${prefix})
run(${CMAKE_COMMAND} -S ${SOURCE_DIR} -B ${WORK_DIR}/build -G ${GENERATOR} -DCMAKE_PREFIX_PATH=${prefix})
run(${CMAKE_COMMAND} --build ${WORK_DIR}/build)
run(${WORK_DIR}/build/consumer)
if(NOT last_output STREQUAL "11.0.0-rc2 api=30 name=pixel\n")
    message(FATAL_ERROR "unexpected consumer output: '${last_output}'")
endif()
message(STATUS "consumer: ${last_output}")

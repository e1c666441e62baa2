# Installs the build tree into a scratch prefix, then configures, builds and runs a consumer
# project that finds the package with find_package(orvo CONFIG REQUIRED).
file(REMOVE_RECURSE "${WORK_DIR}")
set(prefix "${WORK_DIR}/prefix")

function(run)
  execute_process(COMMAND ${ARGN} RESULT_VARIABLE rc OUTPUT_VARIABLE out ERROR_VARIABLE out)
  if(NOT rc EQUAL 0)
    message(FATAL_ERROR "command failed (${rc}): ${ARGN}\n${out}")
  endif()
endfunction()

run(${CMAKE_COMMAND} --install "${BUILD_DIR}" --prefix "${prefix}")
run(${CMAKE_COMMAND} -S "${SOURCE_DIR}" -B "${WORK_DIR}/build" -G Ninja
    "-DCMAKE_PREFIX_PATH=${prefix}" "-DCMAKE_CXX_COMPILER=${CXX_COMPILER}"
    "-DCMAKE_CXX_FLAGS=${CXX_FLAGS}" "-DCMAKE_EXE_LINKER_FLAGS=${LINKER_FLAGS}")
run(${CMAKE_COMMAND} --build "${WORK_DIR}/build")
execute_process(COMMAND "${WORK_DIR}/build/consumer" RESULT_VARIABLE rc OUTPUT_VARIABLE out
                ERROR_VARIABLE err)
set(expected "References:\n1. [Guide](docs/guide)\n")
if(NOT rc EQUAL 0 OR NOT out STREQUAL expected)
  message(FATAL_ERROR "consumer printed:\n${out}${err}\nexpected:\n${expected}")
endif()

# The installed tool answers from the sample corpus, offline.
execute_process(COMMAND "${prefix}/bin/orvo" ask --docs "${DOCS_DIR}" "What causes spring tides?"
                RESULT_VARIABLE rc OUTPUT_VARIABLE out ERROR_VARIABLE err)
if(NOT rc EQUAL 0 OR NOT out MATCHES "\nReferences:\n1\\. \\[.+\\]\\(.+\\)")
  message(FATAL_ERROR "installed orvo printed:\n${out}${err}")
endif()
message(STATUS "consumer project built against the installed package and ran; orvo answered")

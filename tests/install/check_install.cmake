# Installs the build tree into a staging root, then configures, builds and runs a consumer
# project that finds the package with find_package(orvo CONFIG REQUIRED), and imports the
# installed Python packages. DESTDIR keeps the Python packages, which go to an absolute
# site-packages folder, inside the staging root too.
file(REMOVE_RECURSE "${WORK_DIR}")
set(stage "${WORK_DIR}/stage")
set(prefix "${stage}/prefix")

function(run)
  execute_process(COMMAND ${ARGN} RESULT_VARIABLE rc OUTPUT_VARIABLE out ERROR_VARIABLE out)
  if(NOT rc EQUAL 0)
    message(FATAL_ERROR "command failed (${rc}): ${ARGN}\n${out}")
  endif()
endfunction()

run(${CMAKE_COMMAND} -E env "DESTDIR=${stage}" ${CMAKE_COMMAND} --install "${BUILD_DIR}" --prefix /prefix)
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

# The installed Python packages import and run, from their site-packages folder alone.
if(PYTHON)
  file(GLOB installed RELATIVE "${stage}${PYTHON_INSTALL_DIR}" "${stage}${PYTHON_INSTALL_DIR}/*")
  list(SORT installed)
  if(NOT installed STREQUAL "orvo_core;orvo_generation;orvo_inference")
    message(FATAL_ERROR "site-packages got: ${installed}")
  endif()
  set(code [=[
import asyncio, orvo_core
from orvo_generation.response_synthesizer import StaticListResponseSynthesizer
assert orvo_core.__file__.startswith(__import__("sys").argv[1]), orvo_core.__file__
assert __import__("os").path.exists(orvo_core.__path__[0] + "/py.typed")
print(asyncio.run(StaticListResponseSynthesizer()._run(state_variables={"context_list": ["a"]})))
]=])
  execute_process(COMMAND ${CMAKE_COMMAND} -E env "PYTHONPATH=${stage}${PYTHON_INSTALL_DIR}"
                          PYTHONDONTWRITEBYTECODE=1 ${PYTHON} -c "${code}" "${stage}"
                  RESULT_VARIABLE rc OUTPUT_VARIABLE out ERROR_VARIABLE err)
  if(NOT rc EQUAL 0 OR NOT out MATCHES "1\\. a")
    message(FATAL_ERROR "the installed Python packages printed:\n${out}${err}")
  endif()
endif()
message(STATUS "consumer project built against the installed package and ran; orvo answered")

# `pip install .` into a fresh venv, offline, then the Python suite against the installed
# packages. The CMake build folder of the install is kept in WORK_DIR/cmake, so only the first
# run compiles the library (Release); the venv and the install are new every time.
set(venv "${WORK_DIR}/venv")
file(REMOVE_RECURSE "${venv}")
file(MAKE_DIRECTORY "${WORK_DIR}")

function(run)
  execute_process(COMMAND ${ARGN} WORKING_DIRECTORY "${WORK_DIR}" RESULT_VARIABLE rc
                  OUTPUT_VARIABLE out ERROR_VARIABLE out)
  if(NOT rc EQUAL 0)
    message(FATAL_ERROR "command failed (${rc}): ${ARGN}\n${out}")
  endif()
endfunction()

run(${PYTHON} -m venv "${venv}")
# No index and no user configuration: nothing may come from anywhere but this checkout.
run(${CMAKE_COMMAND} -E env PIP_CONFIG_FILE=/dev/null "ORVO_CMAKE_BUILD_DIR=${WORK_DIR}/cmake"
    "${venv}/bin/python" -m pip install --no-index --no-cache-dir "${SOURCE_DIR}")
run(${CMAKE_COMMAND} -E env --unset=PYTHONPATH PYTHONDONTWRITEBYTECODE=1 "${venv}/bin/python" -c
    "import orvo_core, sys; assert orvo_core.__file__.startswith(sys.prefix), orvo_core.__file__")
run(${CMAKE_COMMAND} -E env --unset=PYTHONPATH PYTHONDONTWRITEBYTECODE=1 "${venv}/bin/python"
    -m unittest discover -s "${SOURCE_DIR}/tests/python" -t "${SOURCE_DIR}/tests/python")
message(STATUS "pip installed orvo into a fresh venv and the Python suite passed against it")

# Runs the tour of docs/cpp.md on a freshly loaded examples/device.json and
# compares what it prints with what the document says it prints.
#   cmake -DTOUR=... -DTARNCTL=... -DSOURCE=... -DROOT=... -DEXPECTED=... -P run_tour.cmake
file(REMOVE_RECURSE ${ROOT})
set(ENV{TARNHOST_ROOT} ${ROOT})
execute_process(COMMAND ${TARNCTL} load ${SOURCE}/examples/device.json
                RESULT_VARIABLE status OUTPUT_QUIET ERROR_VARIABLE err)
if(NOT status EQUAL 0)
  message(FATAL_ERROR "tarnctl load failed: ${err}")
endif()
execute_process(COMMAND ${TOUR} RESULT_VARIABLE status OUTPUT_VARIABLE out ERROR_VARIABLE err)
file(READ ${EXPECTED} want)
file(REMOVE_RECURSE ${ROOT})
if(NOT status EQUAL 0)
  message(FATAL_ERROR "the tour exited with ${status}: ${err}")
endif()
if(NOT out STREQUAL want)
  message(FATAL_ERROR "the tour printed\n${out}\ninstead of\n${want}")
endif()

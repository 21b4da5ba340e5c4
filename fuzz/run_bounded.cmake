# cmake -DFUZZER=<exe> -DCORPUS=<dir> -DWORK=<dir> -DARGS=<list> -P run_bounded.cmake
# Runs a libFuzzer target on a fresh copy of a corpus; fails on any finding.
file(REMOVE_RECURSE ${WORK})
file(MAKE_DIRECTORY ${WORK}/corpus ${WORK}/artifacts)
file(GLOB _seeds ${CORPUS}/*)
file(COPY ${_seeds} DESTINATION ${WORK}/corpus)
execute_process(
  COMMAND ${FUZZER} ${WORK}/corpus -artifact_prefix=${WORK}/artifacts/ ${ARGS}
  RESULT_VARIABLE _rc)
if(NOT _rc EQUAL 0)
  message(FATAL_ERROR "${FUZZER} failed (${_rc}); see ${WORK}/artifacts")
endif()

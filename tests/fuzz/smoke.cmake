# One fuzz smoke run: copies the seed corpus to a scratch directory (libFuzzer
# adds what it finds to its first corpus directory, and the committed seeds
# must not change) and runs the fuzzer there for SECONDS.
#   cmake -DFUZZER=path -DCORPUS=dir -DWORK=dir -DSECONDS=n -P smoke.cmake
foreach(var FUZZER CORPUS WORK SECONDS)
  if(NOT DEFINED ${var})
    message(FATAL_ERROR "smoke.cmake: ${var} not given")
  endif()
endforeach()

file(REMOVE_RECURSE ${WORK})
file(MAKE_DIRECTORY ${WORK}/corpus)
file(GLOB seeds ${CORPUS}/*)
if(NOT seeds)
  message(FATAL_ERROR "smoke.cmake: no seed files in ${CORPUS}")
endif()
file(COPY ${seeds} DESTINATION ${WORK}/corpus)

# -close_fd_mask=3 silences the code's own logging; libFuzzer and the
# sanitizers keep writing their reports to a copy of standard error.
execute_process(
  COMMAND ${FUZZER} -max_total_time=${SECONDS} -max_len=8192 -timeout=25
          -rss_limit_mb=2048 -print_final_stats=1 -close_fd_mask=3
          -artifact_prefix=${WORK}/ ${WORK}/corpus
  WORKING_DIRECTORY ${WORK}
  RESULT_VARIABLE rc)
if(NOT rc EQUAL 0)
  message(FATAL_ERROR "smoke.cmake: ${FUZZER} failed (${rc}); reproducer in ${WORK}")
endif()

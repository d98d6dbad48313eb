# Runs one fuzzer for a bounded number of executions over a fresh copy of its seed corpus.
file(REMOVE_RECURSE ${WORK})
file(MAKE_DIRECTORY ${WORK})
file(GLOB seeds ${SEED}/*)
file(COPY ${seeds} DESTINATION ${WORK})
execute_process(COMMAND ${FUZZER} -runs=${RUNS} -seed=1 -max_len=4096 -artifact_prefix=${WORK}/ ${WORK}
                RESULT_VARIABLE rc)
if(NOT rc EQUAL 0)
  message(FATAL_ERROR "${FUZZER} failed (${rc})")
endif()

# Corpus replay tests: each fuzz target's LLVMFuzzerTestOneInput built with a
# plain main (ReplayMain.cpp) instead of libFuzzer, run on its checked-in
# corpus as an ordinary test named fuzz_corpus_replay_<target without _fuzz>.
# Included from tests/CMakeLists.txt, so any compiler builds them.
include(${PROJECT_SOURCE_DIR}/fuzz/FuzzTargets.cmake)

function(quvo_fuzz_replay name corpus)
    string(REGEX REPLACE "_fuzz$" "" short ${name})
    add_executable(${name}_replay ${PROJECT_SOURCE_DIR}/fuzz/ReplayMain.cpp ${ARGN})
    target_link_libraries(${name}_replay PRIVATE quvo_core)
    quvo_target_defaults(${name}_replay)
    set(workdir ${CMAKE_CURRENT_BINARY_DIR}/run/${name}_replay)
    file(MAKE_DIRECTORY ${workdir})
    add_test(NAME fuzz_corpus_replay_${short}
             COMMAND ${name}_replay ${PROJECT_SOURCE_DIR}/fuzz/corpus/${corpus}
             WORKING_DIRECTORY ${workdir})
endfunction()

quvo_for_each_fuzz_target(quvo_fuzz_replay)

# Included by tests/CMakeLists.txt: every fuzz target's entry point compiled into the replay test
# (tests/fuzz_replay_test.cpp) under its own name, velto_fuzz_<name>, so that the seed corpora and
# the kept crashers run in the normal (gcc) suite without libFuzzer.
include(${CMAKE_CURRENT_LIST_DIR}/targets.cmake)
set(entries "")
foreach(name ${VELTO_FUZZ_TARGETS})
  set(src ${CMAKE_CURRENT_LIST_DIR}/targets/${name}.cpp)
  set_source_files_properties(${src} PROPERTIES COMPILE_DEFINITIONS "LLVMFuzzerTestOneInput=velto_fuzz_${name}")
  target_sources(fuzz_replay_test PRIVATE ${src})
  string(APPEND entries "VELTO_FUZZ_ENTRY(${name})\n")
endforeach()
file(CONFIGURE OUTPUT ${CMAKE_CURRENT_BINARY_DIR}/fuzz_replay/fuzz_entries.inc CONTENT "${entries}")
target_include_directories(fuzz_replay_test PRIVATE ${CMAKE_CURRENT_BINARY_DIR}/fuzz_replay)
target_compile_definitions(fuzz_replay_test PRIVATE VELTO_FUZZ_DIR="${CMAKE_CURRENT_LIST_DIR}")

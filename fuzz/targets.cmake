# The fuzz targets, one per reader of outside input: fuzz/targets/<name>.cpp, seeds in
# fuzz/corpus/<name>/, an optional dictionary fuzz/dict/<name>.dict, found faults in
# fuzz/crashers/<name>/. Read by fuzz/CMakeLists.txt (libFuzzer build) and fuzz/replay.cmake (the
# replay test of the normal suite); fuzz/run.sh asks the build for the same list.
set(VELTO_FUZZ_TARGETS
  json_text
  config_file
  envelope
  base_line
  server_reply
  msg_file
  debug_report
  client_prefs
  decode_reader
  collector_payload)

# The preferences-file reader over arbitrary bytes.
curvana_fuzzer(prefs SOURCES ${PROJECT_SOURCE_DIR}/fuzz/prefs_fuzz.cpp LIBS Curvana::session)

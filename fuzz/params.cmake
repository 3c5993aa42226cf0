# The host's --params reader (JSON actions) over arbitrary bytes.
curvana_fuzzer(params SOURCES ${PROJECT_SOURCE_DIR}/fuzz/params_fuzz.cpp LIBS curvana_hostlib)

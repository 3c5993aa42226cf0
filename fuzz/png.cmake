# readPng over arbitrary bytes.
curvana_fuzzer(png SOURCES ${PROJECT_SOURCE_DIR}/fuzz/png_fuzz.cpp LIBS curvana_hostlib ITERATIONS 4000)

# readJpeg over arbitrary bytes.
curvana_fuzzer(jpeg SOURCES ${PROJECT_SOURCE_DIR}/fuzz/jpeg_fuzz.cpp LIBS curvana_hostlib ITERATIONS 4000)

# TiffSource and its block cache over arbitrary bytes.
curvana_fuzzer(tiff SOURCES ${PROJECT_SOURCE_DIR}/fuzz/tiff_fuzz.cpp LIBS curvana_hostlib ITERATIONS 4000)

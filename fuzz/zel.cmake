# The Zel layout parser and checker over arbitrary text.
curvana_fuzzer(zel SOURCES ${PROJECT_SOURCE_DIR}/fuzz/zel_fuzz.cpp LIBS Curvana::framework)

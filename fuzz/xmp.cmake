# The camera-metadata reader over arbitrary XMP packets.
curvana_fuzzer(xmp SOURCES ${PROJECT_SOURCE_DIR}/fuzz/xmp_fuzz.cpp LIBS Curvana::geometry exiv2lib)

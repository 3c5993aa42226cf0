# The scripting-parameter reader over descriptors decoded from arbitrary bytes.
curvana_fuzzer(descriptor SOURCES ${PROJECT_SOURCE_DIR}/fuzz/descriptor_fuzz.cpp LIBS Curvana::session)

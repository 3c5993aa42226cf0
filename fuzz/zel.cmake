# The Zel layout parser and checker over arbitrary text. Their sources are
# compiled into the target itself so that libFuzzer sees their coverage (the
# layer libraries are built without it); the framework library only lends its
# include path and pulls in nothing that they define.
curvana_fuzzer(zel
  SOURCES
    ${PROJECT_SOURCE_DIR}/fuzz/zel_fuzz.cpp
    ${PROJECT_SOURCE_DIR}/src/framework/ZelDocument.cpp
    ${PROJECT_SOURCE_DIR}/src/framework/ZelSchema.cpp
  LIBS Curvana::framework)

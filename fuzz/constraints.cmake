# readConstraintData on arbitrary bytes (constraint files and the scripting
# "Constraint Data" value share the parser).
curvana_fuzzer(constraints
  SOURCES ${PROJECT_SOURCE_DIR}/fuzz/constraints_fuzz.cpp
  LIBS Curvana::constraints)

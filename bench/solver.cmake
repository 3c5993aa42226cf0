# The mesh warp solve and its sparse back end.
curvana_benchmark(solver_bench
  SOURCES ${CMAKE_CURRENT_LIST_DIR}/solver_bench.cpp
  LIBS Curvana::solver Curvana::geometry)

# The mesh warp solve and its sparse back end.
if(TARGET Curvana::solver AND TARGET Curvana::constraints AND TARGET Curvana::geometry)
  curvana_benchmark(solver_bench
    SOURCES ${CMAKE_CURRENT_LIST_DIR}/solver_bench.cpp
    LIBS Curvana::solver Curvana::geometry)
endif()

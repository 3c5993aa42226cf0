curvana_benchmark(geometry_bench SOURCES ${CMAKE_CURRENT_LIST_DIR}/geometry_bench.cpp LIBS Curvana::geometry)

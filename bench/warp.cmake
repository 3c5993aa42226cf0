curvana_benchmark(warp_bench SOURCES ${CMAKE_CURRENT_LIST_DIR}/warp_bench.cpp LIBS Curvana::warp)

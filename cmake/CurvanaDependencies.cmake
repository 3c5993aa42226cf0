# Every dependency comes from Debian packages installed by scripts/setup.
find_package(Threads REQUIRED)
find_package(PkgConfig REQUIRED)
find_package(Eigen3 3.4 REQUIRED NO_MODULE)
find_package(TBB REQUIRED)
find_package(Vulkan REQUIRED)
find_package(glslang REQUIRED)
find_package(exiv2 REQUIRED)
find_package(TIFF REQUIRED)
find_package(PNG REQUIRED)
find_package(JPEG REQUIRED)
find_package(nlohmann_json REQUIRED)
find_package(Qt6 REQUIRED COMPONENTS Core Gui Widgets Test)
# Only the modules the line detection needs.
find_package(OpenCV 4 REQUIRED COMPONENTS core imgproc)
pkg_check_modules(LENSFUN REQUIRED IMPORTED_TARGET lensfun)

# SuiteSparse ships no CMake configuration: CHOLMOD with its own helpers and
# METIS, on OpenBLAS (named explicitly so the reference BLAS is never picked).
find_path(CHOLMOD_INCLUDE_DIR cholmod.h PATH_SUFFIXES suitesparse REQUIRED)
find_library(CHOLMOD_LIBRARY cholmod REQUIRED)
find_library(SUITESPARSECONFIG_LIBRARY suitesparseconfig REQUIRED)
find_library(METIS_LIBRARY metis REQUIRED)
find_library(OPENBLAS_LIBRARY openblas REQUIRED)
add_library(curvana_cholmod INTERFACE)
add_library(Curvana::cholmod ALIAS curvana_cholmod)
target_include_directories(curvana_cholmod SYSTEM INTERFACE ${CHOLMOD_INCLUDE_DIR})
target_link_libraries(curvana_cholmod INTERFACE
  ${CHOLMOD_LIBRARY} ${SUITESPARSECONFIG_LIBRARY} ${METIS_LIBRARY} ${OPENBLAS_LIBRARY})

if(CURVANA_BUILD_TESTS)
  find_package(GTest REQUIRED)
  include(GoogleTest)
endif()
if(CURVANA_BUILD_BENCHMARKS)
  find_package(benchmark REQUIRED)
endif()

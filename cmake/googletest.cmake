# GoogleTest and GoogleMock for the test suites, as GTest::gtest and
# GTest::gmock.  A native build uses Debian's prebuilt libraries; those are
# built for the host, so a cross build compiles GoogleTest from the sources in
# Debian's googletest package for the target instead.
if(NOT CMAKE_CROSSCOMPILING)
  find_package(GTest REQUIRED)
  return()
endif()

set(BRASK_GTEST_SOURCE_DIR /usr/src/googletest CACHE PATH
    "GoogleTest sources to build for the target (Debian package googletest)")
if(NOT EXISTS ${BRASK_GTEST_SOURCE_DIR}/CMakeLists.txt)
  message(FATAL_ERROR "GoogleTest sources not found in ${BRASK_GTEST_SOURCE_DIR}: "
                      "install the Debian package googletest (scripts/setup --armhf does).")
endif()
set(BUILD_GMOCK ON CACHE BOOL "" FORCE)
set(INSTALL_GTEST OFF CACHE BOOL "" FORCE)
add_subdirectory(${BRASK_GTEST_SOURCE_DIR} ${CMAKE_BINARY_DIR}/googletest EXCLUDE_FROM_ALL SYSTEM)
# GoogleTest's own build names them so from 1.11 on; older sources do not.
if(NOT TARGET GTest::gtest)
  add_library(GTest::gtest ALIAS gtest)
  add_library(GTest::gmock ALIAS gmock)
endif()

# Shared build settings for the daemon, the host platform, tools and tests.
option(QMED_BUILD_BENCH "Build the benchmarks under bench/" ON)
option(QMED_BUILD_FUZZ "Build the libFuzzer targets (needs clang)" OFF)

set(QMED_WARNINGS -Wall -Wextra)
add_compile_options(${QMED_WARNINGS})

# Sanitizer build types.
set(QMED_ASAN_FLAGS "-fsanitize=address,undefined -fno-omit-frame-pointer -fno-sanitize-recover=undefined")
set(QMED_TSAN_FLAGS "-fsanitize=thread -fno-omit-frame-pointer")
foreach(lang C CXX)
  set(CMAKE_${lang}_FLAGS_ASAN "-O1 -g ${QMED_ASAN_FLAGS}" CACHE STRING "" FORCE)
  set(CMAKE_${lang}_FLAGS_TSAN "-O1 -g ${QMED_TSAN_FLAGS}" CACHE STRING "" FORCE)
  set(CMAKE_${lang}_FLAGS_COVERAGE "-O0 -g --coverage -fprofile-update=atomic" CACHE STRING "" FORCE)
  # Lock annotations checked by clang; nothing built this way is run.
  set(CMAKE_${lang}_FLAGS_TSA "-O0 -Wthread-safety -Werror" CACHE STRING "" FORCE)
endforeach()
if(CMAKE_BUILD_TYPE STREQUAL "Tsa" AND NOT CMAKE_CXX_COMPILER_ID MATCHES "Clang")
  message(FATAL_ERROR "The Tsa build type needs clang: -DCMAKE_CXX_COMPILER=clang++")
endif()
set(CMAKE_EXE_LINKER_FLAGS_COVERAGE "--coverage" CACHE STRING "" FORCE)
set(CMAKE_SHARED_LINKER_FLAGS_COVERAGE "--coverage" CACHE STRING "" FORCE)
set(CMAKE_EXE_LINKER_FLAGS_ASAN "${QMED_ASAN_FLAGS}" CACHE STRING "" FORCE)
set(CMAKE_SHARED_LINKER_FLAGS_ASAN "${QMED_ASAN_FLAGS}" CACHE STRING "" FORCE)
set(CMAKE_EXE_LINKER_FLAGS_TSAN "${QMED_TSAN_FLAGS}" CACHE STRING "" FORCE)
set(CMAKE_SHARED_LINKER_FLAGS_TSAN "${QMED_TSAN_FLAGS}" CACHE STRING "" FORCE)

# Debian's AOSP libraries: headers in /usr/include/android, libraries in
# /usr/lib/<triplet>/android.
if(CMAKE_LIBRARY_ARCHITECTURE)
  set(QMED_TRIPLET ${CMAKE_LIBRARY_ARCHITECTURE})
elseif(CMAKE_CXX_LIBRARY_ARCHITECTURE)
  set(QMED_TRIPLET ${CMAKE_CXX_LIBRARY_ARCHITECTURE})
endif()
set(QMED_ANDROID_LIBDIR /usr/lib/${QMED_TRIPLET}/android)
find_library(QMED_LIBUTILS utils PATHS ${QMED_ANDROID_LIBDIR} NO_DEFAULT_PATH REQUIRED)
find_library(QMED_LIBLOG log PATHS ${QMED_ANDROID_LIBDIR} NO_DEFAULT_PATH REQUIRED)
find_library(QMED_LIBSAFEC safec REQUIRED)
find_package(Threads REQUIRED)

add_library(qmed_android INTERFACE)
target_include_directories(qmed_android SYSTEM INTERFACE /usr/include/android /usr/include/safeclib)
target_link_libraries(qmed_android INTERFACE ${QMED_LIBUTILS} ${QMED_LIBLOG} ${QMED_LIBSAFEC}
                      Threads::Threads ${CMAKE_DL_LIBS})
target_link_options(qmed_android INTERFACE "LINKER:-rpath,${QMED_ANDROID_LIBDIR}")

# The daemon's logic: one static library that the daemon, tools, tests and fuzzers link.
# Each source folder adds its files with target_sources(qmed PRIVATE ...).
add_library(qmed STATIC)
target_include_directories(qmed PUBLIC ${CMAKE_SOURCE_DIR})
target_link_libraries(qmed PUBLIC qmed_platform qmed_android)

# qmed_add_gtest(NAME src... [LIBS lib...] [LABELS label...] [WRAPPER cmd...])
# Builds a GoogleTest binary into bin/ and registers one CTest test per case.
# WRAPPER runs the binary through a command (for example tools/qmed-ns for a
# private mount/network namespace); such a test starts the daemon and its tools,
# so it is built after them and never runs a stale daemon.
find_package(GTest REQUIRED)
include(GoogleTest)
# Everything the concurrency-labelled tests need, so a ThreadSanitizer build can
# build just that.
add_custom_target(qmed_concurrency_tests)
add_dependencies(qmed_concurrency_tests ykqmed qmedctl service kmodsim kmodshim)
function(qmed_add_gtest name)
  cmake_parse_arguments(T "" "" "LIBS;LABELS;WRAPPER;PROPERTIES" ${ARGN})
  add_executable(${name} ${T_UNPARSED_ARGUMENTS})
  target_link_libraries(${name} PRIVATE qmed qmed_testsupport ${T_LIBS} GTest::gmock GTest::gtest)
  set(_labels unit)
  if(T_LABELS)
    set(_labels ${T_LABELS})
  endif()
  if("concurrency" IN_LIST _labels)
    add_dependencies(qmed_concurrency_tests ${name})
  endif()
  if(T_WRAPPER)
    add_dependencies(${name} ykqmed qmedctl service kmodsim kmodshim)
    add_test(NAME ${name} COMMAND ${T_WRAPPER} ${CMAKE_CROSSCOMPILING_EMULATOR} $<TARGET_FILE:${name}>)
    set_tests_properties(${name} PROPERTIES LABELS "${_labels}" TIMEOUT 600 ${T_PROPERTIES})
  else()
    gtest_discover_tests(${name} DISCOVERY_MODE PRE_TEST DISCOVERY_TIMEOUT 60
                         PROPERTIES TIMEOUT 300 ${T_PROPERTIES})
    # Labels are set once the cases are known: through PROPERTIES a list of labels would be
    # split into property names.
    set(_f ${CMAKE_CURRENT_BINARY_DIR}/${name}_labels.cmake)
    file(WRITE ${_f} "foreach(_t IN LISTS ${name}_TESTS)\n"
                     "  set_tests_properties(\"\${_t}\" PROPERTIES LABELS \"${_labels}\")\n"
                     "endforeach()\n")
    set_property(DIRECTORY APPEND PROPERTY TEST_INCLUDE_FILES ${_f})
  endif()
endfunction()

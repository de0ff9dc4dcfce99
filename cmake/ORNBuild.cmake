# Common compile settings and helpers for the project's targets.

add_compile_options(-Wall -Wextra -Wno-unused-parameter -fno-strict-aliasing)

if(ORN_SANITIZE)
  add_compile_options(-fsanitize=address,undefined -fno-sanitize-recover=undefined -fno-omit-frame-pointer)
  add_link_options(-fsanitize=address,undefined)
endif()

# ThreadSanitizer for the threaded parts (read-ahead, sound service); it cannot share a build
# with ASan, so it has a build of its own.
if(ORN_TSAN)
  if(ORN_SANITIZE OR ORN_FUZZ)
    message(FATAL_ERROR "ORN_TSAN cannot be combined with ORN_SANITIZE or ORN_FUZZ")
  endif()
  add_compile_options(-fsanitize=thread -fno-omit-frame-pointer)
  add_link_options(-fsanitize=thread)
endif()

if(ORN_FUZZ)
  if(NOT CMAKE_CXX_COMPILER_ID MATCHES "Clang")
    message(FATAL_ERROR "ORN_FUZZ needs clang (CC=clang CXX=clang++)")
  endif()
  # Libraries carry coverage instrumentation; fuzz targets link the libFuzzer driver.
  add_compile_options(-fsanitize=fuzzer-no-link,address,undefined -fno-omit-frame-pointer)
  add_link_options(-fsanitize=address,undefined)
endif()

# orn_library(name SOURCES...) - a subsystem's static library, headers found from src/. Symbols
# are hidden by default: when the library goes into a shared one (libvelmo.so), only what the
# public headers mark with VELMO_API is exported.
function(orn_library name)
  add_library(${name} STATIC ${ARGN})
  target_include_directories(${name} PUBLIC ${PROJECT_SOURCE_DIR}/src ${PROJECT_SOURCE_DIR}/include)
  set_target_properties(${name} PROPERTIES C_VISIBILITY_PRESET hidden CXX_VISIBILITY_PRESET hidden
                        VISIBILITY_INLINES_HIDDEN ON)
endfunction()

# Vector kernels are x86 only; on other processors their sources compile to nothing.
if(CMAKE_SYSTEM_PROCESSOR MATCHES "^(x86_64|AMD64|amd64|i[3-6]86|x86)$")
  set(ORN_X86 ON)
else()
  set(ORN_X86 OFF)
endif()

# orn_ssse3_sources(files...) - compile these files with SSSE3 enabled; callers pick them at run
# time.
function(orn_ssse3_sources)
  if(ORN_X86)
    set_source_files_properties(${ARGN} PROPERTIES COMPILE_OPTIONS "-mssse3")
  endif()
endfunction()

# orn_avx2_sources(files...) - compile these files with AVX2 enabled; callers pick them at run time.
function(orn_avx2_sources)
  if(ORN_X86)
    set_source_files_properties(${ARGN} PROPERTIES COMPILE_OPTIONS "-mavx2;-mfma")
  endif()
endfunction()

# orn_test(name SOURCES... LIBS libs...) - a GoogleTest program registered with CTest.
# LABELS tags every test of the program (ctest -L picks them). The shared test helpers are
# included as "support/...".
function(orn_test name)
  cmake_parse_arguments(T "" "" "SOURCES;LIBS;LABELS" ${ARGN})
  add_executable(${name} ${T_SOURCES})
  # Shared test helpers are included as "support/...".
  target_include_directories(${name} PRIVATE ${PROJECT_SOURCE_DIR}/tests)
  target_link_libraries(${name} PRIVATE ${T_LIBS} GTest::gtest GTest::gtest_main GTest::gmock Threads::Threads)
  if(T_LABELS)
    gtest_discover_tests(${name} DISCOVERY_TIMEOUT 60 PROPERTIES TIMEOUT 300 LABELS "${T_LABELS}")
  else()
    gtest_discover_tests(${name} DISCOVERY_TIMEOUT 60 PROPERTIES TIMEOUT 300)
  endif()
endfunction()

# orn_fuzzer(name SOURCE LIBS...) - a libFuzzer target; CTest runs it briefly over its seeds.
function(orn_fuzzer name source)
  add_executable(${name} ${source})
  target_link_libraries(${name} PRIVATE ${ARGN})
  target_link_options(${name} PRIVATE -fsanitize=fuzzer)
endfunction()

find_package(Threads REQUIRED)

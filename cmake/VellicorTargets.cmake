# What every target of the project shares: the language, the warnings, the libraries and the output folders.

set(CMAKE_CXX_STANDARD 20)
set(CMAKE_CXX_STANDARD_REQUIRED ON)
set(CMAKE_CXX_EXTENSIONS OFF)
set(CMAKE_EXPORT_COMPILE_COMMANDS ON)
set(CMAKE_RUNTIME_OUTPUT_DIRECTORY "${PROJECT_BINARY_DIR}/bin")
set(THREADS_PREFER_PTHREAD_FLAG ON)

find_package(Threads REQUIRED)
find_package(CURL 7.87 REQUIRED)
find_package(OpenSSL 3.0 REQUIRED COMPONENTS Crypto SSL)
if(APPLE)
  # Homebrew keeps ICU out of the default search path.
  foreach(prefix /opt/homebrew/opt/icu4c /usr/local/opt/icu4c)
    if(EXISTS "${prefix}" AND NOT ICU_ROOT)
      set(ICU_ROOT "${prefix}")
    endif()
  endforeach()
endif()
find_package(ICU 70 REQUIRED COMPONENTS uc i18n)
find_package(fmt 9 REQUIRED)
find_package(nlohmann_json 3.11 REQUIRED)

option(VELLICOR_LIBCXX "Build with libc++ where it is not the system's standard library; needs clang" OFF)
if(VELLICOR_LIBCXX)
  add_compile_options(-stdlib=libc++)
  # The system's C++ libraries are built with another standard library: fmt's headers hold all of it.
  add_link_options(-stdlib=libc++ -Wl,--as-needed)
  set_target_properties(fmt::fmt PROPERTIES INTERFACE_COMPILE_DEFINITIONS FMT_HEADER_ONLY=1)
endif()

option(VELLICOR_SANITIZE "Build with the address and undefined-behaviour sanitizers" OFF)
option(VELLICOR_FUZZ "Build the fuzzing programs instead of the tests; needs clang with libFuzzer" OFF)

add_library(VellicorSettings INTERFACE)
target_compile_features(VellicorSettings INTERFACE cxx_std_20)
target_include_directories(VellicorSettings INTERFACE "${PROJECT_SOURCE_DIR}")
target_compile_definitions(VellicorSettings INTERFACE _FILE_OFFSET_BITS=64)
target_compile_options(
  VellicorSettings
  INTERFACE -Wall
            -Wextra
            -Wpedantic
            -Werror
            -Wshadow
            -Wconversion
            -Wsign-conversion
            -Wold-style-cast
            -Wnon-virtual-dtor
            -Woverloaded-virtual
            -Wcast-align
            -Wformat=2
            -Wimplicit-fallthrough
            -Wextra-semi)
if(VELLICOR_SANITIZE)
  set(sanitizers -fsanitize=address,undefined -fno-sanitize-recover=all -fno-omit-frame-pointer)
  target_compile_options(VellicorSettings INTERFACE ${sanitizers})
  target_link_options(VellicorSettings INTERFACE ${sanitizers})
  if(CMAKE_CXX_COMPILER_ID STREQUAL "GNU")
    # GCC's flow analysis misfires on instrumented code of the standard library.
    target_compile_options(VellicorSettings INTERFACE -Wno-maybe-uninitialized)
  endif()
endif()
if(VELLICOR_FUZZ)
  if(NOT CMAKE_CXX_COMPILER_ID STREQUAL "Clang")
    message(FATAL_ERROR "VELLICOR_FUZZ needs clang with libFuzzer, and this is ${CMAKE_CXX_COMPILER_ID}")
  endif()
  target_compile_options(VellicorSettings INTERFACE -fsanitize=fuzzer-no-link)
endif()

# vellicor_library(<name> SOURCES <file>... [LINKS <target>...] [PRIVATE_LINKS <target>...])
# A static library of one folder. LINKS are the floors below that its headers may include; PRIVATE_LINKS are the
# third-party libraries that only its sources use.
function(vellicor_library name)
  cmake_parse_arguments(PARSE_ARGV 1 arg "" "" "SOURCES;LINKS;PRIVATE_LINKS")
  add_library(${name} STATIC ${arg_SOURCES})
  target_link_libraries(${name} PUBLIC $<BUILD_INTERFACE:VellicorSettings> ${arg_LINKS} PRIVATE ${arg_PRIVATE_LINKS})
endfunction()

# SPDX-License-Identifier: LGPL-3.0-or-later
# The compiler settings of everything here. A target gets them by linking tavrix_settings.

if(NOT CMAKE_BUILD_TYPE AND NOT CMAKE_CONFIGURATION_TYPES)
  set(CMAKE_BUILD_TYPE RelWithDebInfo CACHE STRING "Build type" FORCE)
endif()
set(CMAKE_CXX_STANDARD 20)
set(CMAKE_CXX_STANDARD_REQUIRED ON)
set(CMAKE_CXX_EXTENSIONS OFF)
set(CMAKE_C_STANDARD 11)
set(CMAKE_C_STANDARD_REQUIRED ON)
set(CMAKE_C_EXTENSIONS OFF)
set(CMAKE_EXPORT_COMPILE_COMMANDS ON)

find_program(CCACHE ccache)
if(CCACHE AND NOT CMAKE_CXX_COMPILER_LAUNCHER)
  set(CMAKE_C_COMPILER_LAUNCHER "${CCACHE}")
  set(CMAKE_CXX_COMPILER_LAUNCHER "${CCACHE}")
endif()

# NDEBUG would remove assert() from programs and tests. The library's assertions do not depend on it.
foreach(config RELEASE RELWITHDEBINFO MINSIZEREL)
  foreach(language C CXX)
    string(REPLACE "-DNDEBUG" "" CMAKE_${language}_FLAGS_${config} "${CMAKE_${language}_FLAGS_${config}}")
  endforeach()
endforeach()

add_library(tavrix_settings INTERFACE)
target_compile_definitions(tavrix_settings INTERFACE _GNU_SOURCE)
target_include_directories(tavrix_settings INTERFACE ${CMAKE_SOURCE_DIR}/include
  ${CMAKE_SOURCE_DIR}/events/generated ${CMAKE_SOURCE_DIR})
target_compile_options(tavrix_settings INTERFACE
  -Wall -Wextra -Wpedantic -Wconversion -Wshadow
  $<$<COMPILE_LANGUAGE:CXX>:-Wnon-virtual-dtor>
  # Messages name their source file: this makes its path relative to the tree.
  -ffile-prefix-map=${CMAKE_SOURCE_DIR}/=)
if(TAVRIX_WERROR)
  target_compile_options(tavrix_settings INTERFACE -Werror)
endif()

# SPDX-License-Identifier: Apache-2.0
# One file for every C library since glibc 2.17, and for musl. In glibc 2.34 the functions of
# libdl.so.2 moved into libc.so.6 under a new version, which no older glibc knows, but libdl.so.2
# stayed and the first version is answered for good. So this links against an empty libdl.so.2 with
# these functions in their first version: no symbol is then wanted from where it has not been always.

if(CMAKE_SYSTEM_PROCESSOR STREQUAL x86_64)
  set(first_version GLIBC_2.2.5)
elseif(CMAKE_SYSTEM_PROCESSOR STREQUAL aarch64)
  set(first_version GLIBC_2.17)
else()
  message(FATAL_ERROR "The first version of dlopen on ${CMAKE_SYSTEM_PROCESSOR} is not known here")
endif()
set(functions dlopen dlsym dlclose dladdr)
list(TRANSFORM functions REPLACE "(.+)" "void \\1() {} " OUTPUT_VARIABLE definitions)
list(JOIN definitions "" definitions)
list(JOIN functions "; " exported)
set(folder ${CMAKE_BINARY_DIR}/oldest-libc)
file(CONFIGURE OUTPUT ${folder}/libdl.cpp CONTENT "extern \"C\" { @definitions@}\n" @ONLY)
file(CONFIGURE OUTPUT ${folder}/libdl.map CONTENT "@first_version@ { @exported@; };\n" @ONLY)

add_library(quarvel_libdl SHARED ${folder}/libdl.cpp)
set_target_properties(quarvel_libdl PROPERTIES OUTPUT_NAME dl SOVERSION 2
                                               LIBRARY_OUTPUT_DIRECTORY ${folder}
                                               LINK_DEPENDS ${folder}/libdl.map)
target_link_options(quarvel_libdl PRIVATE -nostdlib LINKER:--version-script=${folder}/libdl.map)

# quarvel_oldest_libc(TARGET): links it so. Before all other libraries; and no path to the empty
# file gets into the target, which finds the real one.
function(quarvel_oldest_libc target)
  target_link_libraries(${target} PRIVATE quarvel_libdl)
  if(CMAKE_SYSTEM_PROCESSOR STREQUAL aarch64)
    # Else atomics ask the processor for its abilities, by a function that musl lacks.
    target_compile_options(${target} PRIVATE -mno-outline-atomics)
  endif()
  set_target_properties(${target} PROPERTIES SKIP_BUILD_RPATH ON)
endfunction()

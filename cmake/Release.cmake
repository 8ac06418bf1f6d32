# SPDX-License-Identifier: Apache-2.0
# The flags of our releases, for QUARVEL_RELEASE. Other builders have flags of their own.

target_compile_options(quarvel_flags INTERFACE -Wall -Wextra -Wconversion -Wmissing-declarations
                                               -fstack-protector-strong
                                               -ffile-prefix-map=${CMAKE_SOURCE_DIR}=.)
target_link_options(quarvel_flags INTERFACE LINKER:--no-undefined LINKER:-z,relro LINKER:-z,now
                                            LINKER:-z,noexecstack)

# Fortification needs an optimising build; in a debug build the sanitizers check. The library takes
# its first level, since every format is a literal and musl lacks the functions of the second. The
# adapter takes none, since not every C library has the checked functions that it would call.
target_compile_options(quarvel_fortified
                       INTERFACE $<$<NOT:$<CONFIG:Debug>>:-U_FORTIFY_SOURCE>
                                 $<$<NOT:$<CONFIG:Debug>>:-D_FORTIFY_SOURCE=1>)
target_compile_options(quarvel_adapter_options INTERFACE -U_FORTIFY_SOURCE)

include(CheckIPOSupported)
check_ipo_supported(RESULT lto OUTPUT why LANGUAGES CXX)
if(NOT lto)
  message(FATAL_ERROR "This compiler cannot optimise when it links: ${why}")
endif()
set_target_properties(${QUARVEL_NATIVE_TARGETS} PROPERTIES INTERPROCEDURAL_OPTIMIZATION ON)

# A call takes a few hundred nanoseconds, so the small helpers between method and module count. These
# flags inline them although they carry trace texts, and clear structures without the slow start of
# "rep stos".
include(CheckCXXCompilerFlag)
set(CMAKE_REQUIRED_FLAGS -Werror) # a compiler that would ignore a flag fails
foreach(flag -finline-functions --param=max-inline-insns-auto=100
             -mmemset-strategy=unrolled_loop:256:noalign,libcall:-1:noalign)
  string(MAKE_C_IDENTIFIER "QUARVEL_KNOWS_${flag}" known)
  check_cxx_compiler_flag(${flag} ${known})
  if(${known})
    list(APPEND tuning ${flag})
  endif()
endforeach()
unset(CMAKE_REQUIRED_FLAGS)
target_compile_options(quarvelpkcs11 PRIVATE ${tuning})
target_link_options(quarvelpkcs11 PRIVATE ${tuning})

# ---- One file for every C library since glibc 2.17, and for musl ----

# In glibc 2.34 the functions of libdl.so.2 moved into libc.so.6 under a new version, which no older
# glibc knows. But libdl.so.2 stays, and answers to the first version for good. So the files are linked
# against an empty libdl.so.2 with these functions in their first version, and want no symbol from a
# place where it has not always been.
if(CMAKE_SYSTEM_PROCESSOR STREQUAL x86_64)
  set(first_version GLIBC_2.2.5)
elseif(CMAKE_SYSTEM_PROCESSOR STREQUAL aarch64)
  set(first_version GLIBC_2.17)
  # Otherwise atomics ask for the processor's abilities by a function that musl lacks.
  target_compile_options(quarvel_flags INTERFACE -mno-outline-atomics)
else()
  message(WARNING "The first version of dlopen on ${CMAKE_SYSTEM_PROCESSOR} is not known here: the "
                  "native files are for the C library of this machine and newer ones")
  return()
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
# The empty file comes before all other libraries. Its path does not get into the targets, which so
# find the real one.
foreach(target ${QUARVEL_NATIVE_TARGETS})
  target_link_libraries(${target} PRIVATE quarvel_libdl)
  set_target_properties(${target} PROPERTIES SKIP_BUILD_RPATH ON)
endforeach()

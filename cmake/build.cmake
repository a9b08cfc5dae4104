# What every folder is compiled and linked with.

set(CMAKE_CXX_STANDARD 20)
set(CMAKE_CXX_STANDARD_REQUIRED ON)
set(CMAKE_CXX_EXTENSIONS OFF)
set(CMAKE_EXPORT_COMPILE_COMMANDS ON)
set(CMAKE_POSITION_INDEPENDENT_CODE ON)
set(CMAKE_CXX_VISIBILITY_PRESET hidden)
set(CMAKE_VISIBILITY_INLINES_HIDDEN ON)

set(CMAKE_RUNTIME_OUTPUT_DIRECTORY ${CMAKE_BINARY_DIR}/bin)
set(CMAKE_LIBRARY_OUTPUT_DIRECTORY ${CMAKE_BINARY_DIR}/lib)

# A RUNPATH relative to the program: the tree can be moved, and LD_LIBRARY_PATH still wins. Never
# rewritten by CMake, which pads what it rewrites with empty entries, and the loader takes those for
# the current folder.
set(CMAKE_BUILD_WITH_INSTALL_RPATH ON)
set(CMAKE_INSTALL_RPATH "$ORIGIN/../lib")
set(external_libraries ${EUSCP_ROOT} ${LOG2_ROOT})
list(TRANSFORM external_libraries APPEND /lib)
list(APPEND CMAKE_INSTALL_RPATH ${external_libraries})
add_link_options(-Wl,--enable-new-dtags -Wl,--as-needed -Wl,-z,relro,-z,now)
# The mark of -fcf-protection, which the C library's start files do not carry everywhere, and which
# one object without it takes from all the others.
add_link_options(-Wl,-z,ibt,-z,shstk)

add_compile_options(-Wall -Wextra -Wpedantic -Wconversion -Wshadow)

option(VELMORA_SANITIZE "Build with the address and undefined-behaviour sanitizers" OFF)

# What Debian builds with under hardening=+all, in every build. Fortified functions need the
# optimiser and stand in the sanitizers' way.
add_compile_options(-Wformat -Werror=format-security -fstack-protector-strong
  -fstack-clash-protection -fcf-protection)
if(NOT VELMORA_SANITIZE)
  set(fortified "-U_FORTIFY_SOURCE;-D_FORTIFY_SOURCE=3")
  add_compile_options("$<$<CONFIG:Release,RelWithDebInfo,MinSizeRel>:${fortified}>")
endif()
include(CheckPIESupported)
check_pie_supported()

# Log records name a source file as it stands in the project, wherever it was built.
add_compile_options(-ffile-prefix-map=${CMAKE_SOURCE_DIR}/=)

# Loading and relocating the shared C++ runtime takes longer than most of what a command does. Each
# binary holds the little of it that it uses; nothing of C++ crosses from one to another. And only
# of its own runtime can a binary tell what happens when memory runs out.
include(CMakeDependentOption)
cmake_dependent_option(VELMORA_STATIC_RUNTIME "Link the C++ runtime into each binary" ON
  "NOT VELMORA_SANITIZE" OFF)
if(VELMORA_STATIC_RUNTIME)
  add_compile_options(-ffunction-sections -fdata-sections)
  add_link_options(-static-libstdc++ -static-libgcc -Wl,--gc-sections -Wl,--exclude-libs,ALL)
endif()

if(VELMORA_SANITIZE)
  add_compile_options(-fsanitize=address,undefined -fno-sanitize-recover=all -fno-omit-frame-pointer)
  add_link_options(-fsanitize=address,undefined)
endif()

option(VELMORA_FUZZ "Build the fuzz targets in place of the tests, with clang++" OFF)
if(VELMORA_FUZZ)
  add_compile_options(-fsanitize=fuzzer-no-link)
endif()

# Exports just the functions that the map file names: no template instantiations of libstdc++.
function(velmora_export_only target map)
  target_link_options(${target} PRIVATE -Wl,--version-script=${map})
  set_property(TARGET ${target} APPEND PROPERTY LINK_DEPENDS ${map})
endfunction()

# Another build of a platform library: its headers, its file by name.
function(velmora_external_library target root file)
  if(NOT EXISTS ${root}/include OR NOT EXISTS ${root}/lib/${file})
    message(FATAL_ERROR "${root} does not hold include/ and lib/${file}")
  endif()
  add_library(${target} INTERFACE)
  target_include_directories(${target} SYSTEM INTERFACE ${root}/include)
  target_link_directories(${target} INTERFACE ${root}/lib)
  target_link_libraries(${target} INTERFACE -l:${file})
endfunction()

# The name by which the loader finds a shared library, for one that is loaded only when it is needed.
function(velmora_soname variable library)
  execute_process(COMMAND ${CMAKE_OBJDUMP} -p ${library}
    OUTPUT_VARIABLE headers COMMAND_ERROR_IS_FATAL ANY)
  if(NOT headers MATCHES "SONAME +([^\n]+)")
    message(FATAL_ERROR "${library} has no name for the loader")
  endif()
  set(${variable} ${CMAKE_MATCH_1} PARENT_SCOPE)
endfunction()

# A second compiler for the same target: clang with mingw-w64's headers and GCC's runtime.
include(${CMAKE_CURRENT_LIST_DIR}/mingw64.cmake)
set(CMAKE_C_COMPILER ${CMAKE_CURRENT_LIST_DIR}/clang64 gcc)
set(CMAKE_CXX_COMPILER ${CMAKE_CURRENT_LIST_DIR}/clang64 g++)
# CMake would take LLVM's, which cannot set a debug link.
find_program(CMAKE_OBJCOPY x86_64-w64-mingw32-objcopy REQUIRED)
find_program(CMAKE_OBJDUMP x86_64-w64-mingw32-objdump REQUIRED)
# Each source must include what it uses.
set(CMAKE_DISABLE_PRECOMPILE_HEADERS ON)

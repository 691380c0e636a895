# Flags of our own code. A target gets them by linking own_code. The property C_CASTS is for the
# plug-in, whose casts are C's, as in the contract's headers.
add_library(own_code INTERFACE)
target_compile_definitions(own_code INTERFACE
  UNICODE _UNICODE WIN32_LEAN_AND_MEAN NOGDI NOMINMAX _WIN32_WINNT=0x0601)
target_compile_options(own_code INTERFACE
  -fvisibility=hidden -fstack-protector-strong
  # The last matching prefix wins, since the build directory may be inside the source directory.
  -ffile-prefix-map=${CMAKE_SOURCE_DIR}=. -ffile-prefix-map=${BYPASS_DEPS}=deps
  -ffile-prefix-map=${CMAKE_BINARY_DIR}=build
  -Wall -Wextra -Wshadow -Wformat=2 -Wformat-signedness -Wundef -Wcast-qual -Wconversion
  -Wsign-conversion -Wlogical-op -Wduplicated-cond -Wduplicated-branches -Wnull-dereference
  -Wmissing-declarations -Wredundant-decls -Wimplicit-fallthrough=5 -Wvla -Wdouble-promotion
  -Wdate-time $<$<COMPILE_LANGUAGE:CXX>:-Woverloaded-virtual -Wsuggest-override>
  $<$<AND:$<COMPILE_LANGUAGE:CXX>,$<NOT:$<BOOL:$<TARGET_PROPERTY:C_CASTS>>>>:-Wold-style-cast> -Werror)
# Each module links the compiler runtime statically: Wine and Windows do not provide it.
target_link_options(own_code INTERFACE -static
  -Wl,--nxcompat,--dynamicbase,--high-entropy-va,--no-insert-timestamp)

add_library(stack_guard STATIC ${CMAKE_SOURCE_DIR}/runtime/stack_guard.cpp)
target_compile_definitions(stack_guard PRIVATE $<TARGET_PROPERTY:own_code,INTERFACE_COMPILE_DEFINITIONS>)
target_compile_options(stack_guard PRIVATE $<TARGET_PROPERTY:own_code,INTERFACE_COMPILE_OPTIONS>)
target_link_libraries(own_code INTERFACE stack_guard)

# A test-only build that traps on undefined behaviour. Its development host guards the plug-in's
# blocks by default. Guarded blocks end at a page boundary and may start unaligned. This processor
# allows that, so alignment is not checked.
option(BYPASS_TRAP "trap on undefined behaviour, and guard blocks" OFF)
if(BYPASS_TRAP)
  target_compile_options(own_code INTERFACE -O0 -fsanitize=undefined -fno-sanitize=alignment,vptr
    -fsanitize-undefined-trap-on-error -Wno-error)
endif()

# Counters in the plug-in, which each run adds to files next to its objects (./dev coverage). All
# that links its objects links the counters' runtime.
option(BYPASS_COVERAGE "count the lines and branches of the plug-in that run" OFF)
add_library(counted_code INTERFACE)
if(BYPASS_COVERAGE)
  target_compile_options(counted_code INTERFACE -O0 --coverage -fprofile-abs-path -Wno-error)
  target_compile_definitions(own_code INTERFACE BYPASS_COVERAGE)
  target_link_options(own_code INTERFACE --coverage)
endif()

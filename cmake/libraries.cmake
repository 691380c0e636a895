# Third-party libraries. Header-only packages of the build machine are included through symbolic
# links to their headers: the cross compiler must not search all of /usr/include.
set(headers ${CMAKE_BINARY_DIR}/headers)
file(MAKE_DIRECTORY ${headers})
foreach(name rapidjson CLI uthash.h)
  if(NOT EXISTS /usr/include/${name})
    message(FATAL_ERROR "/usr/include/${name} is missing: run ./dev setup")
  endif()
  file(CREATE_LINK /usr/include/${name} ${headers}/${name} SYMBOLIC)
endforeach()
add_library(header_packages INTERFACE)
target_include_directories(header_packages SYSTEM INTERFACE ${headers})

if(NOT EXISTS ${BYPASS_DEPS}/jansson/lib/libjansson.a)
  message(FATAL_ERROR "${BYPASS_DEPS}/jansson is missing: run ./dev setup")
endif()
# All targets except libwdu_jansson use only Jansson's header, through the platform's json.h.
add_library(jansson_headers INTERFACE)
target_include_directories(jansson_headers SYSTEM INTERFACE ${BYPASS_DEPS}/jansson/include)
add_library(jansson STATIC IMPORTED)
set_target_properties(jansson PROPERTIES IMPORTED_LOCATION ${BYPASS_DEPS}/jansson/lib/libjansson.a)
target_link_libraries(jansson INTERFACE jansson_headers)

# The contract between platform and plug-ins.
add_library(oxni_base INTERFACE)
target_include_directories(oxni_base INTERFACE ${CMAKE_SOURCE_DIR}/oxni_base/include)
target_link_libraries(oxni_base INTERFACE jansson_headers)

set(gtest_disable_pthreads ON CACHE BOOL "" FORCE)
set(BUILD_GMOCK OFF CACHE BOOL "" FORCE)
set(INSTALL_GTEST OFF CACHE BOOL "" FORCE)
add_subdirectory(/usr/src/googletest ${CMAKE_BINARY_DIR}/googletest EXCLUDE_FROM_ALL)
target_compile_options(gtest PRIVATE -O0) # only the build runs it: compile time matters more

# Headers that most of our sources parse take half of their time. Sources still include what they
# use: ./dev check and the second compiler compile them without this.
function(precompile_headers target)
  target_precompile_headers(${target} PRIVATE <windows.h> <algorithm> <functional> <list> <map>
    <memory> <optional> <set> <string> <string_view> <vector> ${ARGN})
endfunction()

# A DLL of the reference platform.
function(platform_library name)
  add_library(${name} SHARED ${ARGN})
  set_target_properties(${name} PROPERTIES IMPORT_PREFIX "")
  target_compile_definitions(${name} PRIVATE OXNI_EXPORTING)
  target_include_directories(${name} PRIVATE ${CMAKE_SOURCE_DIR}/platform)
  target_link_libraries(${name} PUBLIC oxni_base PRIVATE own_code)
  split_symbols(${name})
endfunction()

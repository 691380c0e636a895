# A platform SDK, given as a directory: include/ with oxni/base/*.h and jansson.h, lib/ with an
# import library for each DLL, from this or another toolchain.
add_library(oxni_base INTERFACE)
target_include_directories(oxni_base SYSTEM INTERFACE ${BYPASS_PLATFORM_SDK}/include)
target_compile_options(oxni_base INTERFACE -ffile-prefix-map=${BYPASS_PLATFORM_SDK}=sdk)
foreach(header oxni/base/api.h jansson.h)
  if(NOT EXISTS ${BYPASS_PLATFORM_SDK}/include/${header})
    message(FATAL_ERROR "BYPASS_PLATFORM_SDK: ${BYPASS_PLATFORM_SDK}/include/${header} is missing")
  endif()
endforeach()
foreach(library ${platform_libraries})
  find_file(${library}_import NAMES ${library}.dll.a ${library}.lib
    PATHS ${BYPASS_PLATFORM_SDK}/lib NO_DEFAULT_PATH NO_CMAKE_FIND_ROOT_PATH)
  if(NOT ${library}_import)
    message(FATAL_ERROR "BYPASS_PLATFORM_SDK: ${BYPASS_PLATFORM_SDK}/lib has neither "
      "${library}.dll.a nor ${library}.lib")
  endif()
  # The linker orders imports by the paths of the import libraries. Copying them makes the DLL
  # independent of the SDK's location.
  file(COPY ${${library}_import} DESTINATION ${CMAKE_BINARY_DIR}/lib)
  get_filename_component(name ${${library}_import} NAME)
  add_library(${library} SHARED IMPORTED GLOBAL)
  set_target_properties(${library} PROPERTIES IMPORTED_IMPLIB ${CMAKE_BINARY_DIR}/lib/${name})
endforeach()

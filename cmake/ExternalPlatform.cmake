# The framework's own libraries in place of the bundled platform. Point CMAKE_PREFIX_PATH at its installation.
find_path(ZEL_INCLUDE_DIR zel/peer.h REQUIRED)
find_path(KROTRACE_INCLUDE_DIR krotrace/krotrace.h REQUIRED)

add_library(krohttp_platform INTERFACE)
target_include_directories(krohttp_platform SYSTEM INTERFACE ${ZEL_INCLUDE_DIR} ${KROTRACE_INCLUDE_DIR})
foreach(library IN ITEMS zel_utils zel_dm zel_sl krotrace)
  string(TOUPPER ${library} name)
  find_library(${name}_LIBRARY ${library} REQUIRED)
  target_link_libraries(krohttp_platform INTERFACE ${${name}_LIBRARY})
endforeach()
add_library(krohttp_platform_static ALIAS krohttp_platform)

# What `cmake --install` puts where. Two components: runtime (shared libraries, krohttpd, its site) and development
# (headers, static libraries, the CMake package, krohttp.pc). Nothing installed names a folder of the build machine.
include(CMakePackageConfigHelpers)

# As a part of another project this one installs nothing.
if(NOT PROJECT_IS_TOP_LEVEL)
  return()
endif()

set(KROHTTP_CMAKE_DIR ${CMAKE_INSTALL_LIBDIR}/cmake/krohttp)

# --- the libraries ---------------------------------------------------------------------------------------------------

if(KROHTTP_PLATFORM STREQUAL bundled)
  set(shared krohttp zel_utils krotrace krohttp_platform)
  set(static krohttp_static zel_utils_static krotrace_static krohttp_platform_static)
  set(KROHTTP_PC_PLATFORM "-lzel_utils -lkrotrace")
  set(KROHTTP_PC_REQUIRES_PRIVATE "libuv libcrypto")
  set(KROHTTP_FRAMEWORK_LIBRARIES)
else()
  set(shared krohttp krohttp_platform)
  set(static krohttp_static)
  set(KROHTTP_FRAMEWORK_LIBRARIES zel_utils zel_dm zel_sl krotrace)
  list(TRANSFORM KROHTTP_FRAMEWORK_LIBRARIES PREPEND -l OUTPUT_VARIABLE KROHTTP_PC_PLATFORM)
  string(JOIN " " KROHTTP_PC_PLATFORM ${KROHTTP_PC_PLATFORM})
  set(KROHTTP_PC_REQUIRES_PRIVATE libcrypto)

  # Where the framework lies is asked again on the machine that uses the package.
  foreach(property IN ITEMS INTERFACE_LINK_LIBRARIES INTERFACE_INCLUDE_DIRECTORIES INTERFACE_SYSTEM_INCLUDE_DIRECTORIES)
    get_target_property(entries krohttp_platform ${property})
    if(entries)
      list(TRANSFORM entries REPLACE "(.+)" "$<BUILD_INTERFACE:\\1>")
      set_target_properties(krohttp_platform PROPERTIES ${property} "${entries}")
    endif()
  endforeach()
  target_link_libraries(krohttp_platform INTERFACE $<INSTALL_INTERFACE:krohttp::framework>)
endif()

# The libraries find each other, and krohttpd finds them, wherever the prefix is.
foreach(target IN LISTS shared)
  get_target_property(type ${target} TYPE)
  if(type STREQUAL SHARED_LIBRARY)
    set_target_properties(${target} PROPERTIES INSTALL_RPATH "$ORIGIN")
  endif()
endforeach()

install(TARGETS ${shared} EXPORT krohttpTargets
  LIBRARY DESTINATION ${CMAKE_INSTALL_LIBDIR} COMPONENT runtime NAMELINK_COMPONENT development)
install(TARGETS ${static} EXPORT krohttpStaticTargets
  ARCHIVE DESTINATION ${CMAKE_INSTALL_LIBDIR} COMPONENT development)

# --- headers ---------------------------------------------------------------------------------------------------------

install(DIRECTORY ${PROJECT_SOURCE_DIR}/include/krohttp DESTINATION ${CMAKE_INSTALL_INCLUDEDIR}
  COMPONENT development FILES_MATCHING PATTERN "*.h")
if(KROHTTP_PLATFORM STREQUAL bundled)
  install(DIRECTORY ${PROJECT_SOURCE_DIR}/platform/include/zel ${PROJECT_SOURCE_DIR}/platform/include/krotrace
    DESTINATION ${CMAKE_INSTALL_INCLUDEDIR} COMPONENT development FILES_MATCHING PATTERN "*.h")
endif()

# --- find_package(krohttp [COMPONENTS static]) -------------------------------------------------------------------------

install(EXPORT krohttpTargets NAMESPACE krohttp:: DESTINATION ${KROHTTP_CMAKE_DIR} COMPONENT development)
install(EXPORT krohttpStaticTargets NAMESPACE krohttp:: DESTINATION ${KROHTTP_CMAKE_DIR} COMPONENT development)
configure_package_config_file(${CMAKE_CURRENT_LIST_DIR}/krohttpConfig.cmake.in
  ${PROJECT_BINARY_DIR}/package/krohttpConfig.cmake INSTALL_DESTINATION ${KROHTTP_CMAKE_DIR})
# Before 1.0 a new minor version may change the interface.
write_basic_package_version_file(${PROJECT_BINARY_DIR}/package/krohttpConfigVersion.cmake
  COMPATIBILITY SameMinorVersion)
install(FILES
  ${PROJECT_BINARY_DIR}/package/krohttpConfig.cmake
  ${PROJECT_BINARY_DIR}/package/krohttpConfigVersion.cmake
  DESTINATION ${KROHTTP_CMAKE_DIR} COMPONENT development)

# --- pkg-config --------------------------------------------------------------------------------------------------------

# The .pc file reckons the prefix from where it lies itself.
cmake_path(ABSOLUTE_PATH CMAKE_INSTALL_LIBDIR BASE_DIRECTORY /prefix OUTPUT_VARIABLE libdir)
cmake_path(ABSOLUTE_PATH CMAKE_INSTALL_INCLUDEDIR BASE_DIRECTORY /prefix OUTPUT_VARIABLE includedir)
cmake_path(RELATIVE_PATH libdir BASE_DIRECTORY /prefix OUTPUT_VARIABLE KROHTTP_PC_LIBDIR)
cmake_path(RELATIVE_PATH includedir BASE_DIRECTORY /prefix OUTPUT_VARIABLE KROHTTP_PC_INCLUDEDIR)
cmake_path(SET pcdir "${libdir}/pkgconfig")
set(prefix /prefix)
cmake_path(RELATIVE_PATH prefix BASE_DIRECTORY ${pcdir} OUTPUT_VARIABLE KROHTTP_PC_PREFIX)
configure_file(${CMAKE_CURRENT_LIST_DIR}/krohttp.pc.in ${PROJECT_BINARY_DIR}/package/krohttp.pc @ONLY)
install(FILES ${PROJECT_BINARY_DIR}/package/krohttp.pc
  DESTINATION ${CMAKE_INSTALL_LIBDIR}/pkgconfig COMPONENT development)

# --- the programs --------------------------------------------------------------------------------------------------------

cmake_path(ABSOLUTE_PATH CMAKE_INSTALL_BINDIR BASE_DIRECTORY /prefix OUTPUT_VARIABLE bindir)
cmake_path(RELATIVE_PATH libdir BASE_DIRECTORY ${bindir} OUTPUT_VARIABLE from_bin_to_lib)
foreach(program IN ITEMS krohttpd kroget)
  if(TARGET ${program})
    set_target_properties(${program} PROPERTIES INSTALL_RPATH "$ORIGIN/${from_bin_to_lib}")
    install(TARGETS ${program} RUNTIME DESTINATION ${CMAKE_INSTALL_BINDIR} COMPONENT runtime)
  endif()
endforeach()
if(TARGET krohttpd)
  install(DIRECTORY ${PROJECT_SOURCE_DIR}/site/ DESTINATION ${CMAKE_INSTALL_DATADIR}/krohttp/site COMPONENT runtime)
endif()

install(FILES ${PROJECT_SOURCE_DIR}/LICENSE DESTINATION ${CMAKE_INSTALL_DOCDIR} COMPONENT runtime)

# How every target of this project is compiled.

add_library(krohttp_compile INTERFACE)
target_compile_features(krohttp_compile INTERFACE cxx_std_20 c_std_11)
target_compile_definitions(krohttp_compile INTERFACE _GNU_SOURCE)
target_compile_options(krohttp_compile INTERFACE -Wall -Wextra -Wshadow -Wconversion)
if(CMAKE_CXX_COMPILER_ID STREQUAL GNU AND CMAKE_CXX_COMPILER_VERSION VERSION_LESS 13)
  # It takes std::string's own copying for overlapping (GCC bug 105329, mended in 13).
  target_compile_options(krohttp_compile INTERFACE $<$<COMPILE_LANGUAGE:CXX>:-Wno-restrict>)
endif()
if(KROHTTP_WERROR)
  target_compile_options(krohttp_compile INTERFACE -Werror)
endif()
if(KROHTTP_SANITIZE)
  target_compile_options(krohttp_compile INTERFACE -fsanitize=${KROHTTP_SANITIZE} -fno-omit-frame-pointer)
  target_link_options(krohttp_compile INTERFACE -fsanitize=${KROHTTP_SANITIZE})
  if(KROHTTP_SANITIZE MATCHES undefined)
    target_compile_options(krohttp_compile INTERFACE -fno-sanitize-recover=undefined)
  endif()
endif()

# krohttp_library(NAME DEFINE SOURCES...): a shared library NAME and its static twin NAME_static, built from the same
# sources; symbols are hidden unless a header marks them. Dependencies are added by the caller to both.
function(krohttp_library name building)
  foreach(target IN ITEMS ${name} ${name}_static)
    if(target STREQUAL name)
      add_library(${target} SHARED ${ARGN})
      set_target_properties(${target} PROPERTIES VERSION ${PROJECT_VERSION} SOVERSION ${PROJECT_VERSION_MAJOR})
      # Calls within the library are direct: nobody is meant to replace a single function of it.
      target_link_options(${target} PRIVATE -Wl,-Bsymbolic-functions)
      if(NOT KROHTTP_SANITIZE)  # clang leaves the sanitizers' own symbols to the program
        target_link_options(${target} PRIVATE -Wl,-z,defs)
      endif()
    else()
      add_library(${target} STATIC ${ARGN})
    endif()
    set_target_properties(${target} PROPERTIES
      OUTPUT_NAME ${name} EXPORT_NAME ${target}
      CXX_VISIBILITY_PRESET hidden C_VISIBILITY_PRESET hidden VISIBILITY_INLINES_HIDDEN ON
      POSITION_INDEPENDENT_CODE ON CXX_EXTENSIONS OFF)
    target_compile_definitions(${target} PRIVATE ${building})
    target_compile_options(${target} PRIVATE -fno-semantic-interposition)
    # Nothing here throws, and nothing may cross the C boundary.
    target_compile_options(${target} PRIVATE $<$<COMPILE_LANGUAGE:CXX>:-fno-exceptions -fno-rtti>)
    target_link_libraries(${target} PRIVATE $<BUILD_INTERFACE:krohttp_compile>)
  endforeach()
endfunction()

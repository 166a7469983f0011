# Puts site/upload.html with its style and script into a header, for the daemon to show wherever it is asked to.
set(site ${PROJECT_SOURCE_DIR}/site)
file(READ ${site}/upload.html page)
file(READ ${site}/upload.css style)
file(READ ${site}/upload.js script)
set_property(DIRECTORY APPEND PROPERTY CMAKE_CONFIGURE_DEPENDS
  ${site}/upload.html ${site}/upload.css ${site}/upload.js)

set(policy_element [[  <meta http-equiv="Content-Security-Policy" content="default-src 'self'; form-action 'self'; base-uri 'none'">
]])
set(icon_element [[<link rel="icon" type="image/png" href="favicon.png">]])
set(style_element [[<link rel="stylesheet" href="upload.css">]])
set(script_element [[<script src="upload.js"></script>]])
set(action [[ action="upload"]])
set(limit [[data-limit="0"]])
foreach(text IN ITEMS policy_element icon_element style_element script_element action limit)
  string(FIND "${page}" "${${text}}" at)
  if(at EQUAL -1)
    message(FATAL_ERROR "site/upload.html: this is not in it: ${${text}}")
  endif()
endforeach()
configure_file(${CMAKE_CURRENT_SOURCE_DIR}/upload_site.h.in ${CMAKE_CURRENT_BINARY_DIR}/upload_site.h @ONLY)

# varnel_module(NAME [DEPENDS folder...] [LINK target...])
#
# One folder of src/ as an object library, linked into libvarnel. DEPENDS
# names the folders whose headers this one may include (scripts/check_layout.sh
# holds every include to that list, and to no folder above); LINK names the
# packages its sources compile against beyond FFmpeg's public headers.
function(varnel_module name)
  cmake_parse_arguments(M "" "" "DEPENDS;LINK" ${ARGN})
  file(GLOB sources CONFIGURE_DEPENDS ${CMAKE_CURRENT_SOURCE_DIR}/*.cpp)
  list(FILTER sources EXCLUDE REGEX "_test\\.cpp$")
  add_library(varnel_${name} OBJECT ${sources})
  set_target_properties(varnel_${name} PROPERTIES POSITION_INDEPENDENT_CODE ON)
  target_include_directories(varnel_${name} PRIVATE ${PROJECT_SOURCE_DIR}/src)
  target_link_libraries(varnel_${name} PRIVATE PkgConfig::FFMPEG ${M_LINK})
  set_target_properties(varnel_${name} PROPERTIES VARNEL_DEPENDS "${M_DEPENDS}")
  set_property(GLOBAL APPEND PROPERTY VARNEL_MODULES varnel_${name})
endfunction()

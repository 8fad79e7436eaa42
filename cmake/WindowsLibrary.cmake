# What tilvarcm.dll has beside its code: the export list that the Linux library is checked against too, made into a .def
# file, and a version resource.

set_property(DIRECTORY ${PROJECT_SOURCE_DIR} APPEND PROPERTY CMAKE_CONFIGURE_DEPENDS packaging/exports.txt)
file(STRINGS ${PROJECT_SOURCE_DIR}/packaging/exports.txt names)
set(definition "LIBRARY tilvarcm.dll\nEXPORTS\n")
foreach(name IN LISTS names)
  if(name MATCHES "^(CM__|DowAry|MonAry)")
    string(APPEND definition "  ${name} DATA\n")
  else()
    string(APPEND definition "  ${name}\n")
  endif()
endforeach()
file(CONFIGURE OUTPUT ${PROJECT_BINARY_DIR}/tilvarcm.def CONTENT "${definition}" @ONLY)

configure_file(${PROJECT_SOURCE_DIR}/packaging/tilvarcm.rc.in ${PROJECT_BINARY_DIR}/tilvarcm.rc @ONLY)

target_sources(tilvarcm PRIVATE ${PROJECT_BINARY_DIR}/tilvarcm.def ${PROJECT_BINARY_DIR}/tilvarcm.rc)
set_target_properties(tilvarcm PROPERTIES PREFIX "" IMPORT_PREFIX "lib")

# How our targets are made. Headers are included as "<Folder>/<File>.h"
# ("Kel/Trace.h", "Ipfix/IpfixSm.h", "agent/ConfigLoader.h"). A target exposes
# only its own folders, so that code that includes a folder of a library it
# does not link fails to compile: in the build tree each target has an include
# root of its own that holds a link to each of its folders; installed, the
# folders of every library sit under one root. The headers are the target's
# header set, so that CMAKE_VERIFY_INTERFACE_HEADER_SETS (the release preset)
# compiles each on its own with only what the target links.

set(IPFIX_INSTALL_INCLUDEDIR ${CMAKE_INSTALL_INCLUDEDIR}/ipfix-exporter)
set(IPFIX_INSTALL_LIBDIR ${CMAKE_INSTALL_LIBDIR}/ipfix-exporter)

# Makes <target>'s include root of <folder>... (relative to the source tree).
function(ipfix_include_root target)
   get_target_property(type ${target} TYPE)
   if(type STREQUAL "INTERFACE_LIBRARY")
      set(scope INTERFACE)
   else()
      set(scope PUBLIC)
   endif()
   set(root ${PROJECT_BINARY_DIR}/include/${target})
   file(MAKE_DIRECTORY ${root})
   foreach(folder ${ARGN})
      cmake_path(GET folder FILENAME leaf)
      file(CREATE_LINK ${PROJECT_SOURCE_DIR}/${folder} ${root}/${leaf} SYMBOLIC)
      file(GLOB headers CONFIGURE_DEPENDS ${root}/${leaf}/*.h)
      target_sources(${target} ${scope} FILE_SET HEADERS BASE_DIRS ${root} FILES ${headers})
   endforeach()
   target_include_directories(${target} ${scope} $<BUILD_INTERFACE:${root}>
                                                 $<INSTALL_INTERFACE:${IPFIX_INSTALL_INCLUDEDIR}>)
endfunction()

# A library of the installed set (platform, model, the export library) from
# every .cpp of its folders, so that adding a source pair needs no build edit;
# header-only folders make an interface library. PUBLIC names what its headers
# include, PRIVATE what only its sources do.
#   ipfix_library(<name> FOLDERS <folder>... [PUBLIC <lib>...] [PRIVATE <lib>...])
function(ipfix_library name)
   cmake_parse_arguments(LIB "" "" "FOLDERS;PUBLIC;PRIVATE" ${ARGN})
   set(sources)
   foreach(folder ${LIB_FOLDERS})
      file(GLOB found CONFIGURE_DEPENDS ${PROJECT_SOURCE_DIR}/${folder}/*.cpp)
      list(APPEND sources ${found})
   endforeach()
   if(sources)
      add_library(${name} STATIC ${sources})
      # Build-only: the warnings are ours, not the embedding program's.
      target_link_libraries(${name} PUBLIC ${LIB_PUBLIC}
                                    PRIVATE ${LIB_PRIVATE} $<BUILD_INTERFACE:ipfix_warnings>)
      set_property(GLOBAL APPEND PROPERTY IPFIX_ARCHIVES ${name})
   else()
      add_library(${name} INTERFACE)
      target_link_libraries(${name} INTERFACE ${LIB_PUBLIC})
   endif()
   ipfix_include_root(${name} ${LIB_FOLDERS})

   install(TARGETS ${name} EXPORT IpfixExporterTargets
           ARCHIVE DESTINATION ${IPFIX_INSTALL_LIBDIR}
           FILE_SET HEADERS DESTINATION ${IPFIX_INSTALL_INCLUDEDIR})
endfunction()

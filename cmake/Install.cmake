# What `cmake --install` puts in place besides the programs and the libraries
# with their headers (see ipfix_library): the library's CMake package and
# pkg-config file, the agent's configuration file, and the man pages and
# service units when the tree has them. Test support, ipfix-collect, the fuzz
# targets and the benchmarks are development tools and stay in the build tree.
include(CMakePackageConfigHelpers)

# find_package(IpfixExporter CONFIG) gives IpfixExporter::ipfix and the layers
# below it, with their include directories and dependencies.
set(IPFIX_INSTALL_CMAKEDIR ${CMAKE_INSTALL_LIBDIR}/cmake/IpfixExporter)
install(EXPORT IpfixExporterTargets NAMESPACE IpfixExporter::
        DESTINATION ${IPFIX_INSTALL_CMAKEDIR})
configure_package_config_file(cmake/IpfixExporterConfig.cmake.in
                              ${PROJECT_BINARY_DIR}/IpfixExporterConfig.cmake
                              INSTALL_DESTINATION ${IPFIX_INSTALL_CMAKEDIR})
write_basic_package_version_file(${PROJECT_BINARY_DIR}/IpfixExporterConfigVersion.cmake
                                 COMPATIBILITY SameMinorVersion)
install(FILES ${PROJECT_BINARY_DIR}/IpfixExporterConfig.cmake
              ${PROJECT_BINARY_DIR}/IpfixExporterConfigVersion.cmake
        DESTINATION ${IPFIX_INSTALL_CMAKEDIR})

# pkg-config: the archives in link order (each before those it uses), found
# from the .pc file's own place so that the tree can be moved.
set(IPFIX_INSTALL_PKGCONFIGDIR ${CMAKE_INSTALL_LIBDIR}/pkgconfig)
get_property(archives GLOBAL PROPERTY IPFIX_ARCHIVES)
list(REVERSE archives)
list(TRANSFORM archives PREPEND -l)
list(JOIN archives " " IPFIX_PC_LIBS)
file(RELATIVE_PATH IPFIX_PC_PREFIX /${IPFIX_INSTALL_PKGCONFIGDIR} /)
string(REGEX REPLACE "/$" "" IPFIX_PC_PREFIX ${IPFIX_PC_PREFIX})
set(IPFIX_PC_CFLAGS)
if(KEL_THREAD_SAFE_PTR)
   set(IPFIX_PC_CFLAGS -DKEL_THREAD_SAFE_PTR)
endif()
configure_file(cmake/ipfix-exporter.pc.in ${PROJECT_BINARY_DIR}/ipfix-exporter.pc @ONLY)
install(FILES ${PROJECT_BINARY_DIR}/ipfix-exporter.pc DESTINATION ${IPFIX_INSTALL_PKGCONFIGDIR})

# The commented example as the agent's configuration: /etc/ipfix-agent when
# installed under /usr.
set(IPFIX_AGENT_CONFIG_DIR ${CMAKE_INSTALL_FULL_SYSCONFDIR}/ipfix-agent)
install(FILES examples/demo.yaml DESTINATION ${IPFIX_AGENT_CONFIG_DIR} RENAME ipfix-agent.yaml)

# Installs <file> of the source tree gzipped, as Debian wants man pages and
# changelogs, into <destination>.
function(ipfix_install_gzipped file destination)
   cmake_path(GET file FILENAME name)
   set(copy ${PROJECT_BINARY_DIR}/gzipped/${name})
   add_custom_command(OUTPUT ${copy}.gz
                      COMMAND ${CMAKE_COMMAND} -E copy ${PROJECT_SOURCE_DIR}/${file} ${copy}
                      COMMAND gzip -9nf ${copy}
                      DEPENDS ${PROJECT_SOURCE_DIR}/${file} VERBATIM)
   add_custom_target(gzip_${name} ALL DEPENDS ${copy}.gz)
   install(FILES ${copy}.gz DESTINATION ${destination})
endfunction()

# The man pages and the service units, when the tree has them.
foreach(page doc/man/ipfix-agent.8 doc/man/ipfix-stats.8 doc/man/ipfix-agent.yaml.5)
   if(EXISTS ${PROJECT_SOURCE_DIR}/${page})
      cmake_path(GET page EXTENSION LAST_ONLY section)
      string(REPLACE "." "man" section ${section})
      ipfix_install_gzipped(${page} ${CMAKE_INSTALL_MANDIR}/${section})
   endif()
endforeach()
foreach(unit systemd/ipfix-agent.service systemd/ipfix-stats-metrics.service)
   if(EXISTS ${PROJECT_SOURCE_DIR}/${unit})
      install(FILES ${unit} DESTINATION lib/systemd/system)
   endif()
endforeach()

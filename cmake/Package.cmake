# The Debian package (`make package`, or the `package` target): everything
# `cmake --install` puts in place under /usr and /etc, with the copyright file
# and changelog Debian asks for. The agent's configuration is a conffile, so
# an upgrade keeps the operator's changes.
install(FILES packaging/copyright DESTINATION ${CMAKE_INSTALL_DOCDIR})
ipfix_install_gzipped(packaging/changelog ${CMAKE_INSTALL_DOCDIR})
file(WRITE ${PROJECT_BINARY_DIR}/debian/conffiles "${IPFIX_AGENT_CONFIG_DIR}/ipfix-agent.yaml\n")

set(CPACK_GENERATOR DEB)
set(CPACK_PACKAGE_NAME ${PROJECT_NAME})
set(CPACK_PACKAGE_DESCRIPTION_SUMMARY "IPFIX export of a switch's flow tracking")
set(CPACK_PACKAGE_DESCRIPTION
    "The IPFIX (RFC 7011) exporter of a switch's flow-tracking agent: data
templates of the hardware's flow groups, options templates and options
data (flow keys, the flow-tracker, interface and VRF tables), sent over
UDP to IPv4 and IPv6 collectors, with per-collector statistics in shared
memory.

This package holds ipfix-agent, the stand-alone agent run from a YAML
file, ipfix-stats, which prints the statistics and clears counters, and
the export library with its headers, CMake package and pkg-config file,
for embedding in another agent.")
set(CPACK_DEBIAN_PACKAGE_MAINTAINER
    "IPFIX exporter maintainers <maintainers@ipfix-exporter.example>")
set(CPACK_DEBIAN_PACKAGE_SECTION net)
set(CPACK_DEBIAN_PACKAGE_PRIORITY optional)
set(CPACK_DEBIAN_FILE_NAME DEB-DEFAULT)
# The programs' dependencies come from their shared libraries; building
# against the library needs fmt's headers as well.
set(CPACK_DEBIAN_PACKAGE_SHLIBDEPS ON)
set(CPACK_DEBIAN_PACKAGE_RECOMMENDS "libfmt-dev")
set(CPACK_DEBIAN_PACKAGE_CONTROL_EXTRA ${PROJECT_BINARY_DIR}/debian/conffiles)
set(CPACK_DEBIAN_PACKAGE_CONTROL_STRICT_PERMISSION ON)
set(CPACK_STRIP_FILES ON)
include(CPack)

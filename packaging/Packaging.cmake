# The Debian packages, built with "cpack -G DEB" in a build directory:
#   zik-agent        the agent's install tree in /opt/agent, its systemd unit
#                    and agent(8); its postinst makes a sample public key
#   zik-work-server  the local work server for trying agents, and work_server(1)
# Destinations are relative to "/", where the packages put them.

# One source for the version: the one the agent reports.
file(STRINGS ${CMAKE_SOURCE_DIR}/work/agent/src/common/agent_globals.cpp AGENT_VERSION_LINE
     REGEX "g_strVersion = \"[0-9.]+\"")
string(REGEX REPLACE ".*\"([0-9.]+)\".*" "\\1" AGENT_VERSION "${AGENT_VERSION_LINE}")

set(PKG_SRC ${CMAKE_SOURCE_DIR}/packaging)
set(PKG_GEN ${CMAKE_BINARY_DIR}/packaging)
set(TREE opt/agent)

foreach(page agent.8 work_server.1)
  configure_file(${PKG_SRC}/man/${page} ${PKG_GEN}/${page} @ONLY)
  add_custom_command(OUTPUT ${PKG_GEN}/${page}.gz
    COMMAND gzip -9nc ${PKG_GEN}/${page} > ${PKG_GEN}/${page}.gz
    DEPENDS ${PKG_GEN}/${page})
endforeach()
add_custom_target(package_files ALL
  DEPENDS ${PKG_GEN}/agent.8.gz ${PKG_GEN}/work_server.1.gz)

install(TARGETS agent DESTINATION ${TREE}/bin COMPONENT agent)
# etc/publickey.pem is no file of the package: postinst makes a sample key
# where none is. A key made at build time would differ in every build, and
# each upgrade would stop at dpkg's question about the site's own key.
install(FILES ${PKG_SRC}/config DESTINATION ${TREE}/etc COMPONENT agent)
install(PROGRAMS ${PKG_SRC}/restart.sh DESTINATION ${TREE}/tools/op COMPONENT agent)
install(DIRECTORY DESTINATION ${TREE}/log COMPONENT agent)
install(FILES ${PKG_SRC}/zik-agent.service DESTINATION usr/lib/systemd/system COMPONENT agent)
install(FILES ${PKG_GEN}/agent.8.gz DESTINATION usr/share/man/man8 COMPONENT agent)

install(TARGETS work_server DESTINATION usr/bin COMPONENT work_server)
install(FILES ${PKG_GEN}/work_server.1.gz DESTINATION usr/share/man/man1 COMPONENT work_server)

set(CPACK_GENERATOR DEB)
set(CPACK_PACKAGE_NAME zik-agent)
set(CPACK_PACKAGE_VERSION ${AGENT_VERSION})
set(CPACK_PACKAGE_CONTACT "operations platform team <root@localhost>")
set(CPACK_PACKAGING_INSTALL_PREFIX /)
set(CPACK_STRIP_FILES ON)
set(CPACK_DEB_COMPONENT_INSTALL ON)
set(CPACK_COMPONENTS_ALL agent work_server)
set(CPACK_DEBIAN_FILE_NAME DEB-DEFAULT)
set(CPACK_DEBIAN_PACKAGE_SHLIBDEPS ON)
set(CPACK_DEBIAN_PACKAGE_SECTION admin)
set(CPACK_DEBIAN_PACKAGE_CONTROL_STRICT_PERMISSION ON)

set(CPACK_DEBIAN_AGENT_PACKAGE_NAME zik-agent)
set(CPACK_COMPONENT_AGENT_DESCRIPTION "host agent of the operations platform
The agent keeps one link to a work server and runs the commands and moves
the files that the server asks for. The package installs its tree in
/opt/agent with a sample configuration, and a systemd unit, zik-agent,
that is not enabled until the site has configured the agent.")
# The commands run through su and /bin/sh; the restart script uses setsid;
# postinst makes the sample key with openssl.
set(CPACK_DEBIAN_AGENT_PACKAGE_DEPENDS "util-linux, openssl")
set(CPACK_DEBIAN_AGENT_PACKAGE_CONTROL_EXTRA
  ${PKG_SRC}/deb/conffiles ${PKG_SRC}/deb/postinst ${PKG_SRC}/deb/prerm ${PKG_SRC}/deb/postrm)

set(CPACK_DEBIAN_WORK_SERVER_PACKAGE_NAME zik-work-server)
set(CPACK_COMPONENT_WORK_SERVER_DESCRIPTION "local work server for trying agents of the operations platform
A small work server, on the agent's own codec, that serves agents on one
address and runs commands on them from the command line.")

include(CPack)

# The Debian packages, built with "cpack -G DEB" in a build directory:
#   zik-agent        the agent's install tree in /opt/agent, its systemd unit
#                    and agent(8)
#   zik-work-server  the local work server for trying agents, and work_server(1)
# Destinations are relative to "/", where the packages put them.

# One source for the version: the one the agent reports.
file(STRINGS ${CMAKE_SOURCE_DIR}/work/agent/src/common/agent_globals.cpp AGENT_VERSION_LINE
     REGEX "g_strVersion = \"[0-9.]+\"")
string(REGEX REPLACE ".*\"([0-9.]+)\".*" "\\1" AGENT_VERSION "${AGENT_VERSION_LINE}")

set(PKG_SRC ${CMAKE_SOURCE_DIR}/packaging)
set(PKG_GEN ${CMAKE_BINARY_DIR}/packaging)
set(TREE opt/agent)

# A sample server key, made at build time; its private half is thrown away.
# The site replaces it with its own server's public key.
find_program(OPENSSL_PROGRAM openssl REQUIRED)
add_custom_command(OUTPUT ${PKG_GEN}/publickey.pem
  COMMAND ${CMAKE_COMMAND} -E make_directory ${PKG_GEN}
  COMMAND ${OPENSSL_PROGRAM} genrsa -traditional -out ${PKG_GEN}/sample_private.pem 2048
  COMMAND ${OPENSSL_PROGRAM} rsa -in ${PKG_GEN}/sample_private.pem -RSAPublicKey_out -out ${PKG_GEN}/publickey.pem
  COMMAND ${CMAKE_COMMAND} -E remove ${PKG_GEN}/sample_private.pem
  COMMENT "Making the sample public key of the package"
  VERBATIM)
foreach(page agent.8 work_server.1)
  configure_file(${PKG_SRC}/man/${page} ${PKG_GEN}/${page} @ONLY)
  add_custom_command(OUTPUT ${PKG_GEN}/${page}.gz
    COMMAND gzip -9nc ${PKG_GEN}/${page} > ${PKG_GEN}/${page}.gz
    DEPENDS ${PKG_GEN}/${page})
endforeach()
add_custom_target(package_files ALL
  DEPENDS ${PKG_GEN}/publickey.pem ${PKG_GEN}/agent.8.gz ${PKG_GEN}/work_server.1.gz)

install(TARGETS agent DESTINATION ${TREE}/bin COMPONENT agent)
install(FILES ${PKG_SRC}/config ${PKG_GEN}/publickey.pem DESTINATION ${TREE}/etc COMPONENT agent)
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
# The commands run through su and /bin/sh; the restart script uses setsid.
set(CPACK_DEBIAN_AGENT_PACKAGE_DEPENDS "util-linux")
set(CPACK_DEBIAN_AGENT_PACKAGE_CONTROL_EXTRA
  ${PKG_SRC}/deb/conffiles ${PKG_SRC}/deb/postinst ${PKG_SRC}/deb/prerm ${PKG_SRC}/deb/postrm)

set(CPACK_DEBIAN_WORK_SERVER_PACKAGE_NAME zik-work-server)
set(CPACK_COMPONENT_WORK_SERVER_DESCRIPTION "local work server for trying agents of the operations platform
A small work server, on the agent's own codec, that serves agents on one
address and runs commands on them from the command line.")

include(CPack)

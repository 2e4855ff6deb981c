# Debian packages: "cpack" in the build folder, with the umask 022 that the packages' folders need; or dev/package-test,
# which also tries them.
set(ZELVIND_PACKAGE_CONTACT "zelvind maintainers <zelvind@localhost>" CACHE STRING "who answers for the packages")

set(CPACK_GENERATOR DEB)
set(CPACK_PACKAGE_CONTACT ${ZELVIND_PACKAGE_CONTACT})
set(CPACK_PACKAGE_DIRECTORY ${CMAKE_BINARY_DIR}/packages)
set(CPACK_STRIP_FILES ON)
set(CPACK_DEB_COMPONENT_INSTALL ON)
set(CPACK_DEBIAN_FILE_NAME DEB-DEFAULT)
set(CPACK_DEBIAN_PACKAGE_CONTROL_STRICT_PERMISSION ON)

set(CPACK_COMPONENT_RUNTIME_GROUP runtime)
set(CPACK_COMPONENT_PACKAGE_GROUP runtime)
set(CPACK_COMPONENT_DEVELOPMENT_GROUP development)
set(CPACK_COMPONENT_UPLINK_GROUP uplink)

set(CPACK_DEBIAN_RUNTIME_PACKAGE_NAME zelvind)
set(CPACK_DEBIAN_RUNTIME_PACKAGE_SECTION net)
set(CPACK_DEBIAN_RUNTIME_PACKAGE_SHLIBDEPS ON)
set(CPACK_DEBIAN_RUNTIME_PACKAGE_DEPENDS adduser)
set(CPACK_DEBIAN_RUNTIME_PACKAGE_SUGGESTS "zelvind-uplink, zelvind-dev, lua-check, stunnel4")
set(CPACK_COMPONENT_RUNTIME_DESCRIPTION "event daemon with Lua scripts
Takes the events of a device's programs, hands them to Lua scripts and
forwards them to the TCP clients that have subscribed to them. The scripts
are loaded again without a stop, and plug-ins bring further sources of
events and functions for scripts.")
set(debian ${CMAKE_CURRENT_SOURCE_DIR}/debian)
set(CPACK_DEBIAN_RUNTIME_PACKAGE_CONTROL_EXTRA
  "${debian}/conffiles;${debian}/postinst;${debian}/prerm;${debian}/postrm")

set(CPACK_DEBIAN_DEVELOPMENT_PACKAGE_NAME zelvind-dev)
set(CPACK_DEBIAN_DEVELOPMENT_PACKAGE_SECTION libdevel)
set(CPACK_DEBIAN_DEVELOPMENT_PACKAGE_ARCHITECTURE all)
set(CPACK_DEBIAN_DEVELOPMENT_PACKAGE_DEPENDS "zelvind (>= ${PROJECT_VERSION}), liblua5.1-0-dev")
set(CPACK_COMPONENT_DEVELOPMENT_DESCRIPTION "header for plug-ins of the event daemon zelvind
What a native plug-in exports, and what the daemon offers to it.")

set(CPACK_DEBIAN_UPLINK_PACKAGE_NAME zelvind-uplink)
set(CPACK_DEBIAN_UPLINK_PACKAGE_SECTION net)
set(CPACK_DEBIAN_UPLINK_PACKAGE_SHLIBDEPS ON)
set(CPACK_DEBIAN_UPLINK_PACKAGE_DEPENDS "zelvind (>= ${PROJECT_VERSION}), adduser")
set(CPACK_DEBIAN_UPLINK_PACKAGE_SUGGESTS "mosquitto")
set(CPACK_COMPONENT_UPLINK_DESCRIPTION "connection of the event daemon zelvind to an MQTT broker
Sends chosen events of a device to a broker, keeps them on the disk while
there is no connection, and posts the commands that come back.")
set(CPACK_DEBIAN_UPLINK_PACKAGE_CONTROL_EXTRA
  "${debian}/uplink/conffiles;${debian}/uplink/postinst;${debian}/uplink/prerm;${debian}/uplink/postrm")

include(CPack)

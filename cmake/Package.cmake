# The .deb: the release build's service, its unit, the web application. Build it with cpack.
install(TARGETS kestrel-server RUNTIME DESTINATION bin)
install(PROGRAMS packaging/prepare DESTINATION lib/kestrel-server)
install(DIRECTORY www/ DESTINATION share/kestrel-server/www)
install(FILES packaging/deb/kestrel-server.service DESTINATION /lib/systemd/system)
install(FILES packaging/proxy/kestrel-server.conf packaging/proxy/kestrel-server.nft
    DESTINATION share/doc/kestrel-server/examples)

set(CPACK_GENERATOR DEB)
set(CPACK_PACKAGING_INSTALL_PREFIX /usr)
set(CPACK_STRIP_FILES ON)
set(CPACK_PACKAGE_CONTACT "the kestrel-server developers <kestrel-server@localhost>")
set(CPACK_PACKAGE_DESCRIPTION_SUMMARY "Camera and laser-arm service")
set(CPACK_DEBIAN_FILE_NAME DEB-DEFAULT)
set(CPACK_DEBIAN_PACKAGE_SECTION video)
set(CPACK_DEBIAN_PACKAGE_SHLIBDEPS ON)
set(CPACK_DEBIAN_PACKAGE_DEPENDS "v4l-utils, passwd")
set(CPACK_DEBIAN_PACKAGE_SUGGESTS strace)
set(CPACK_DEBIAN_PACKAGE_CONTROL_STRICT_PERMISSION ON)
set(CPACK_DEBIAN_PACKAGE_CONTROL_EXTRA
    ${PROJECT_SOURCE_DIR}/packaging/deb/postinst
    ${PROJECT_SOURCE_DIR}/packaging/deb/prerm
    ${PROJECT_SOURCE_DIR}/packaging/deb/postrm)
include(CPack)

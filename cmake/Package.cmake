# `make package`: a Debian package of the installed tree (cpack -G DEB).
set(CPACK_GENERATOR DEB)
set(CPACK_PACKAGE_NAME vexil)
set(CPACK_PACKAGE_VERSION 0.1.0)
set(CPACK_PACKAGE_CONTACT "vexil developers <vexil@localhost>")
set(CPACK_PACKAGE_DESCRIPTION_SUMMARY
    "Host firewall and DPI engine, user-space half: Lua 5.2 modules norv, norvi, vexil")
set(CPACK_DEBIAN_FILE_NAME DEB-DEFAULT)
set(CPACK_DEBIAN_PACKAGE_SECTION net)
set(CPACK_STRIP_FILES ON)
# dpkg-shlibdeps derives the libraries' packages from what the binaries link
# (libssl3, libwxbase3.2-1, libsqlite3-0, and the driver library's own); the
# interpreter that loads the modules, the Lua library the agent program uses
# and the nft program are named here.
set(CPACK_DEBIAN_PACKAGE_SHLIBDEPS ON)
set(CPACK_DEBIAN_PACKAGE_DEPENDS "lua5.2, lua-posix")
if(TARGET norvi_linux)
    string(APPEND CPACK_DEBIAN_PACKAGE_DEPENDS ", nftables")
endif()
include(CPack)

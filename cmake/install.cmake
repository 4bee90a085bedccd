# What the builds install and package: the camera build (armhf) installs a
# camera root overlay and packs it as upgrade-<version>-armhf.tar.gz; host
# builds install camtool only (its rules are in camtool/CMakeLists.txt) and
# pack it as a Debian package; the Windows build packs camtool.exe with its
# README as camtool-<version>-windows-x86_64.zip. The daemon is never installed by a host build:
# on a host it would arm the watchdog and reboot the machine.
set(CPACK_PACKAGE_VERSION ${PROJECT_VERSION})
set(CPACK_PACKAGE_VENDOR "Camera Daemon Team")
set(CPACK_PACKAGE_CHECKSUM SHA256)
set(CPACK_VERBATIM_VARIABLES ON)

if(WIN32)
  set(CPACK_GENERATOR ZIP)
  set(CPACK_PACKAGE_NAME camtool)
  set(CPACK_PACKAGE_FILE_NAME camtool-${PROJECT_VERSION}-windows-x86_64)
  set(CPACK_STRIP_FILES ON)
  # camtool-<version>-windows-x86_64/camtool.exe: one folder to unpack.
  set(CPACK_INCLUDE_TOPLEVEL_DIRECTORY ON)
  set(CPACK_SOURCE_GENERATOR "")
elseif(CMAKE_CROSSCOMPILING)
  # The overlay's paths are relative to the camera's root: `cmake --install
  # build/armhf --prefix ROOTFS` installs into a root file system tree (the
  # preset's default is build/armhf/camera-root). Never into this machine's
  # own /, /usr or /usr/local: the daemon and its init script are for a camera.
  install(CODE [[
    get_filename_component(root "$ENV{DESTDIR}${CMAKE_INSTALL_PREFIX}" ABSOLUTE)
    if(root MATCHES "^/(usr(/local)?)?$")
      message(FATAL_ERROR "the camera's files go into a camera root file system tree, "
                          "not into ${root}: give --prefix ROOTFS")
    endif()
  ]])
  set(CAMERA_FILES ${CMAKE_SOURCE_DIR}/packaging/camera)
  install(PROGRAMS $<TARGET_FILE:upgrade> DESTINATION bin)
  # Always stripped: the camera's flash has no room for symbols.
  install(CODE "execute_process(COMMAND \"${CMAKE_STRIP}\" \"\$ENV{DESTDIR}\${CMAKE_INSTALL_PREFIX}/bin/upgrade\"
                                COMMAND_ERROR_IS_FATAL ANY)")
  install(PROGRAMS ${CAMERA_FILES}/S90upgrade DESTINATION etc/init.d)
  install(FILES ${CAMERA_FILES}/upgrade.conf DESTINATION customer)
  install(FILES ${CAMERA_FILES}/README ${CMAKE_SOURCE_DIR}/LICENSE DESTINATION usr/share/doc/upgrade)

  set(CPACK_GENERATOR TGZ)
  set(CPACK_PACKAGE_NAME upgrade)
  set(CPACK_PACKAGE_FILE_NAME upgrade-${PROJECT_VERSION}-armhf)
  # Unpacked straight over a root file system: no top folder.
  set(CPACK_INCLUDE_TOPLEVEL_DIRECTORY OFF)
  set(CPACK_SOURCE_GENERATOR "")
else()
  set(CPACK_GENERATOR DEB)
  set(CPACK_PACKAGE_NAME camtool)
  set(CPACK_PACKAGING_INSTALL_PREFIX /usr)
  set(CPACK_STRIP_FILES ON)
  set(CPACK_DEBIAN_FILE_NAME DEB-DEFAULT)
  set(CPACK_DEBIAN_PACKAGE_MAINTAINER ${CAMTOOL_MAINTAINER})
  set(CPACK_DEBIAN_PACKAGE_SECTION net)
  set(CPACK_DEBIAN_PACKAGE_PRIORITY optional)
  # Dependencies from the libraries the program is linked with (dpkg-shlibdeps).
  set(CPACK_DEBIAN_PACKAGE_SHLIBDEPS ON)
  set(CPACK_DEBIAN_PACKAGE_CONTROL_STRICT_PERMISSION ON)
  set(CPACK_DEBIAN_PACKAGE_DESCRIPTION "LAN tool for the PTZ cameras' upgrade daemon
camtool finds the cameras on a LAN, sets their network, runs the factory
board test, reboots them and upgrades one camera or a whole site in one
multicast stream, following each camera until it is back with its new
version. It also speaks the partner's binary protocol and the broadcast
commissioning protocol, and makes and uses the Ed25519 site keys that
keyed cameras need.")
  set(CPACK_SOURCE_GENERATOR "")
endif()
include(CPack)

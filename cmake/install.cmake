# `cmake --install build --prefix DIR` puts everything a client project needs under DIR:
#   include/qx_realtime.h                      the public header (with QX_REALTIME_VERSION)
#   <libdir>/libqxt_realtime_hal.so            the library (SONAME libqxt_realtime_hal.so)
#   bin/rtctl, share/man/man1/rtctl.1          the operator's command line and its manual
#   share/bash-completion/completions/rtctl    its bash completion
#   <libdir>/pkgconfig/qxt_realtime_hal.pc     for `pkg-config --cflags --libs qxt_realtime_hal`
#   <libdir>/cmake/qxt_realtime_hal/           for `find_package(qxt_realtime_hal)`, which gives
#                                              the target qxt_realtime_hal::qxt_realtime_hal
# Every installed file finds the others relative to itself, so the tree can be installed under
# any prefix (or DESTDIR) and moved afterwards.
include(CMakePackageConfigHelpers)

set(QXRT_CMAKE_DIR ${CMAKE_INSTALL_LIBDIR}/cmake/qxt_realtime_hal)
set(QXRT_PKGCONFIG_DIR ${CMAKE_INSTALL_LIBDIR}/pkgconfig)

# liblog lives outside the linker's default path (/usr/lib/<triple>/android), so the installed
# library keeps it in its RUNPATH; rtctl finds the library next to it.
file(RELATIVE_PATH qxrt_bin_to_lib ${CMAKE_INSTALL_FULL_BINDIR} ${CMAKE_INSTALL_FULL_LIBDIR})
set_target_properties(rtctl PROPERTIES INSTALL_RPATH "$ORIGIN/${qxrt_bin_to_lib};${ANDROID_LOG_DIR}")

install(TARGETS qxt_realtime_hal EXPORT qxt_realtime_hal_targets
        LIBRARY DESTINATION ${CMAKE_INSTALL_LIBDIR}
        INCLUDES DESTINATION ${CMAKE_INSTALL_INCLUDEDIR})
install(FILES ${CMAKE_CURRENT_SOURCE_DIR}/include/qx_realtime.h
        DESTINATION ${CMAKE_INSTALL_INCLUDEDIR})
install(TARGETS rtctl RUNTIME DESTINATION ${CMAKE_INSTALL_BINDIR})
# bash completion, where bash-completion looks for it under the prefix.
install(FILES ${CMAKE_CURRENT_SOURCE_DIR}/tools/rtctl.bash-completion
        DESTINATION ${CMAKE_INSTALL_DATADIR}/bash-completion/completions RENAME rtctl)
if(QXRT_RTCTL_MAN)
  install(FILES ${QXRT_RTCTL_MAN} DESTINATION ${CMAKE_INSTALL_MANDIR}/man1)
endif()

install(EXPORT qxt_realtime_hal_targets NAMESPACE qxt_realtime_hal::
        FILE qxt_realtime_halTargets.cmake DESTINATION ${QXRT_CMAKE_DIR})
configure_package_config_file(${CMAKE_CURRENT_LIST_DIR}/qxt_realtime_halConfig.cmake.in
  ${CMAKE_CURRENT_BINARY_DIR}/qxt_realtime_halConfig.cmake INSTALL_DESTINATION ${QXRT_CMAKE_DIR})
write_basic_package_version_file(${CMAKE_CURRENT_BINARY_DIR}/qxt_realtime_halConfigVersion.cmake
  VERSION ${PROJECT_VERSION} COMPATIBILITY SameMajorVersion)
install(FILES ${CMAKE_CURRENT_BINARY_DIR}/qxt_realtime_halConfig.cmake
              ${CMAKE_CURRENT_BINARY_DIR}/qxt_realtime_halConfigVersion.cmake
        DESTINATION ${QXRT_CMAKE_DIR})

# The .pc file names its prefix relative to its own directory (${pcfiledir}), so it stays right
# for `cmake --install --prefix` and DESTDIR.
file(RELATIVE_PATH qxrt_pc_to_prefix ${CMAKE_INSTALL_FULL_LIBDIR}/pkgconfig ${CMAKE_INSTALL_PREFIX})
string(REGEX REPLACE "/$" "" qxrt_pc_to_prefix "${qxrt_pc_to_prefix}")
configure_file(${CMAKE_CURRENT_LIST_DIR}/qxt_realtime_hal.pc.in
               ${CMAKE_CURRENT_BINARY_DIR}/qxt_realtime_hal.pc @ONLY)
install(FILES ${CMAKE_CURRENT_BINARY_DIR}/qxt_realtime_hal.pc DESTINATION ${QXRT_PKGCONFIG_DIR})

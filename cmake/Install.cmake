# Board deployment: how the shipped programs link, and what `cmake --install` lays out.
#
#   cmake --install <build> --prefix <staging> [--strip]
#
#   <staging>/bin/afd                         the daemon
#   <staging>/bin/afctl                       the control client (when that target is built)
#   <staging>/lib/systemd/system/afd.service  systemd unit
#   <staging>/etc/init.d/afd                  SysV-style init script
#   <staging>/etc/default/afd                 settings read by both (daemon arguments)
#
# The unit and the init script name the daemon by its path on the board, AFD_RUNTIME_PREFIX/bin,
# not by the staging directory (see docs/deployment.md).
include_guard(GLOBAL)

set(AFD_RUNTIME_PREFIX "/usr" CACHE PATH
    "Prefix of bin/afd on the board; written into the systemd unit and the init script")

# The board's root file system has glibc but not necessarily the C++ runtime of this compiler,
# so cross builds link libstdc++ and libgcc into the programs by default. AFD_FULLY_STATIC links
# glibc in as well, for boards whose glibc is older than the build's.
if(CMAKE_CROSSCOMPILING AND NOT AFD_SANITIZE)
    set(_afd_static_default ON)
else()
    set(_afd_static_default OFF)
endif()
option(AFD_STATIC_RUNTIME "Link the shipped programs with -static-libstdc++ -static-libgcc"
       ${_afd_static_default})
option(AFD_FULLY_STATIC "Link the shipped programs fully statically (-static)" OFF)

set(AFD_SHIPPED_TARGETS afd)
if(TARGET afctl)
    list(APPEND AFD_SHIPPED_TARGETS afctl)
endif()

foreach(_afd_target IN LISTS AFD_SHIPPED_TARGETS)
    if(AFD_FULLY_STATIC)
        target_link_options(${_afd_target} PRIVATE -static)
    elseif(AFD_STATIC_RUNTIME)
        target_link_options(${_afd_target} PRIVATE -static-libstdc++ -static-libgcc)
    endif()
endforeach()

install(TARGETS ${AFD_SHIPPED_TARGETS} RUNTIME DESTINATION bin)

set(AFD_RUNTIME_BINDIR "${AFD_RUNTIME_PREFIX}/bin")
set(_afd_pkg "${CMAKE_BINARY_DIR}/packaging")
configure_file("${CMAKE_SOURCE_DIR}/packaging/systemd/afd.service.in" "${_afd_pkg}/afd.service"
               @ONLY)
configure_file("${CMAKE_SOURCE_DIR}/packaging/sysv/afd.in" "${_afd_pkg}/afd.init" @ONLY)

install(FILES "${_afd_pkg}/afd.service" DESTINATION lib/systemd/system)
install(PROGRAMS "${_afd_pkg}/afd.init" DESTINATION etc/init.d RENAME afd)
install(FILES "${CMAKE_SOURCE_DIR}/packaging/default/afd" DESTINATION etc/default)

# Checks of the packaging itself, native builds only (they run host shell scripts).
if(AFD_BUILD_TESTS AND NOT CMAKE_CROSSCOMPILING)
    add_test(NAME packaging.install_layout
             COMMAND sh "${CMAKE_SOURCE_DIR}/packaging/tests/install_layout_test.sh"
                     "${CMAKE_COMMAND}" "${CMAKE_BINARY_DIR}" "${AFD_RUNTIME_BINDIR}" ${AFD_SHIPPED_TARGETS})
    add_test(NAME packaging.sysv_init
             COMMAND sh "${CMAKE_SOURCE_DIR}/packaging/tests/sysv_init_test.sh"
                     "${_afd_pkg}/afd.init")
endif()

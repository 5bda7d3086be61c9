# What `cmake --install` puts on a mail server; the Debian package (debian/)
# is made of exactly that.  Only the programs and their operator files are
# installed: the unit tests and the test drivers have no install rules, so
# they can never end up in the package.

include(GNUInstallDirs)

# Directories the install creates get the usual mode whatever the umask of
# whoever builds the package.
set(CMAKE_INSTALL_DEFAULT_DIRECTORY_PERMISSIONS
    OWNER_READ OWNER_WRITE OWNER_EXECUTE
    GROUP_READ GROUP_EXECUTE
    WORLD_READ WORLD_EXECUTE)

install(TARGETS dravnik dravnik-setup dravnik-audit dravnik-batch dravnik-auth dravnik-export RUNTIME DESTINATION ${CMAKE_INSTALL_SBINDIR})

# Manual pages are installed compressed, as man-db expects them; -n keeps the
# name and time stamp out of the archive so that rebuilds are identical.
find_program(GZIP_EXECUTABLE gzip REQUIRED)
set(manpages)
foreach(page dravnik.8 dravnik-setup.8 dravnik-audit.8 dravnik-batch.8 dravnik-auth.8 dravnik-export.8)
  set(source ${PROJECT_SOURCE_DIR}/doc/${page})
  set(copy ${PROJECT_BINARY_DIR}/man/${page})
  add_custom_command(OUTPUT ${copy}.gz
    COMMAND ${CMAKE_COMMAND} -E copy ${source} ${copy}
    COMMAND ${GZIP_EXECUTABLE} -9nf ${copy}
    DEPENDS ${source}
    COMMENT "Compressing the manual page ${page}"
    VERBATIM)
  list(APPEND manpages ${copy}.gz)
endforeach()
add_custom_target(manpages ALL DEPENDS ${manpages})
install(FILES ${manpages} DESTINATION ${CMAKE_INSTALL_MANDIR}/man8)

# systemd reads units from <prefix>/lib/systemd/system for /usr and
# /usr/local alike; the Debian package puts them in /lib/systemd/system,
# where its tools look for them.  The service runs the installed audit.
set(DRAVNIK_SYSTEMD_UNIT_DIR lib/systemd/system
    CACHE STRING "Where the systemd units are installed (relative: under the prefix)")
configure_file(dist/systemd/dravnik-audit.service.in
               ${PROJECT_BINARY_DIR}/systemd/dravnik-audit.service @ONLY)
install(FILES ${PROJECT_BINARY_DIR}/systemd/dravnik-audit.service
              dist/systemd/dravnik-audit.timer
        DESTINATION ${DRAVNIK_SYSTEMD_UNIT_DIR})

# /usr/lib/tmpfiles.d is where packages put their entries, whatever the
# prefix's library directory (lib64, lib/<triplet>) is.
install(FILES dist/tmpfiles.d/dravnik.conf DESTINATION lib/tmpfiles.d)
install(FILES dist/bash-completion/dravnik dist/bash-completion/dravnik-setup
              dist/bash-completion/dravnik-audit dist/bash-completion/dravnik-batch
              dist/bash-completion/dravnik-auth
              dist/bash-completion/dravnik-export
        DESTINATION ${CMAKE_INSTALL_DATADIR}/bash-completion/completions)
# Beside Dovecot's own auth-*.conf.ext, where its 10-auth.conf includes them
# from; none is active until the operator includes one.
install(FILES dist/dovecot/auth-dravnik-checkpassword.conf.ext
              dist/dovecot/auth-dravnik-lua.conf.ext dist/dovecot/dravnik-auth.lua
        DESTINATION /etc/dovecot/conf.d)

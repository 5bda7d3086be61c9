# What `cmake --install` puts on a mail server, and the Debian package made of
# exactly that (cd build && cpack -G DEB).  Only the programs and their
# operator files are installed: the unit tests and the test drivers have no
# install rules, so they can never end up in the package.

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

# ---------------------------------------------------------------------------
# The Debian package

set(DRAVNIK_MAINTAINER "Dravnik Maintainers <dravnik@localhost>"
    CACHE STRING "Maintainer field of the Debian package (name <address>)")

set(CPACK_GENERATOR DEB)
set(CPACK_PACKAGE_NAME dravnik)
set(CPACK_PACKAGING_INSTALL_PREFIX /usr)
set(CPACK_PACKAGE_CONTACT "${DRAVNIK_MAINTAINER}")
set(CPACK_PACKAGE_DESCRIPTION_SUMMARY
    "mail domains, mailboxes and aliases of a qmail server for a hosting panel")
set(CPACK_DEBIAN_PACKAGE_DESCRIPTION "\
dravnik is the command a web-hosting control panel runs as root to manage
mail: it adds, renames, enables and removes mail domains, mail names with
their Maildir mailboxes, aliases and domain aliases, sets passwords and disk
quotas, editing qmail's control files under its own locks and keeping the
mail authentication and mail handlers databases.

dravnik-setup prepares a host for it: the qmail files, the lock directory and
the databases. dravnik-audit finds, and safely repairs, where qmail's files,
the mail tree and the databases disagree.")
set(CPACK_DEBIAN_FILE_NAME DEB-DEFAULT)
set(CPACK_DEBIAN_PACKAGE_SECTION admin)
set(CPACK_DEBIAN_PACKAGE_PRIORITY optional)
set(CPACK_DEBIAN_PACKAGE_SHLIBDEPS ON)
# The Dovecot files under /etc are the operator's to edit: dpkg keeps their edits.
set(CPACK_DEBIAN_PACKAGE_CONTROL_EXTRA ${PROJECT_SOURCE_DIR}/dist/debian/postinst
    ${PROJECT_SOURCE_DIR}/dist/debian/conffiles)
set(CPACK_DEBIAN_PACKAGE_CONTROL_STRICT_PERMISSION ON)
# Debug information stays in the build tree; the exported dynamic symbols a
# traceback names functions by survive stripping.
set(CPACK_STRIP_FILES ON)
include(CPack)

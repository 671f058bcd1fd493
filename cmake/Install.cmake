# What `cmake --install` puts where; scripts/package makes the Debian package
# from exactly this (prefix /usr), so the two layouts cannot drift apart.
include(GNUInstallDirs)

# Paths the programs have fixed in code, and Debian 12's places for units.
set(VEXD_SYSTEMD_UNIT_DIR "/lib/systemd/system" CACHE PATH "Where systemd units go")
set(VEXD_TMPFILES_DIR "/usr/lib/tmpfiles.d" CACHE PATH "Where tmpfiles.d entries go")
set(VEXD_GRANTS_DIR "/etc/ovix/entitlements.d")
set(VEXD_TRUST_DIR "/usr/share/velmor/trust")
set(VEXD_DOC_DIR "${CMAKE_INSTALL_DATADIR}/doc/vexd-helper")

install(TARGETS vexd_helper RUNTIME DESTINATION ${CMAKE_INSTALL_LIBEXECDIR})
install(TARGETS vexdctl qlx-manifest qlx-sign-manifest RUNTIME DESTINATION ${CMAKE_INSTALL_BINDIR})
install(TARGETS qlx-mapdisk RUNTIME DESTINATION ${CMAKE_INSTALL_SBINDIR})

# The units name the programs where the install prefix (known only when
# installing: `cmake --install --prefix`) puts them.
foreach(unit vexd_helper.service vexd_helper.socket vexd-mapdisk.service)
  install(CODE "
    file(READ \"${PROJECT_SOURCE_DIR}/dist/${unit}\" text)
    string(REPLACE \"/usr/libexec/\" \"\${CMAKE_INSTALL_PREFIX}/${CMAKE_INSTALL_LIBEXECDIR}/\" text \"\${text}\")
    string(REPLACE \"/usr/sbin/\" \"\${CMAKE_INSTALL_PREFIX}/${CMAKE_INSTALL_SBINDIR}/\" text \"\${text}\")
    message(STATUS \"Installing: \$ENV{DESTDIR}${VEXD_SYSTEMD_UNIT_DIR}/${unit}\")
    file(MAKE_DIRECTORY \"\$ENV{DESTDIR}${VEXD_SYSTEMD_UNIT_DIR}\")
    file(WRITE \"\$ENV{DESTDIR}${VEXD_SYSTEMD_UNIT_DIR}/${unit}\" \"\${text}\")
  ")
endforeach()
install(FILES dist/tmpfiles.d/vexd_helper.conf DESTINATION ${VEXD_TMPFILES_DIR})

# Grants and trust anchors are the device owner's to add; the folders ship.
install(DIRECTORY DESTINATION ${VEXD_GRANTS_DIR} DIRECTORY_PERMISSIONS
        OWNER_READ OWNER_WRITE OWNER_EXECUTE GROUP_READ GROUP_EXECUTE WORLD_READ WORLD_EXECUTE)
install(DIRECTORY DESTINATION ${VEXD_TRUST_DIR}/production)
install(DIRECTORY DESTINATION ${VEXD_TRUST_DIR}/development)

# Manual pages, compressed the way Debian ships them.
set(man_pages vexdctl.1 qlx-manifest.1 qlx-sign-manifest.1 vexd_helper.8 qlx-mapdisk.8)
set(man_gz)
foreach(page ${man_pages})
  string(REGEX REPLACE ".*\\.([0-9])$" "\\1" section ${page})
  set(out ${CMAKE_BINARY_DIR}/man/${page}.gz)
  add_custom_command(OUTPUT ${out}
    COMMAND ${CMAKE_COMMAND} -E make_directory ${CMAKE_BINARY_DIR}/man
    COMMAND sh -c "gzip -9n -c \"$0\" > \"$1\"" ${PROJECT_SOURCE_DIR}/dist/man/${page} ${out}
    DEPENDS ${PROJECT_SOURCE_DIR}/dist/man/${page} VERBATIM)
  install(FILES ${out} DESTINATION ${CMAKE_INSTALL_MANDIR}/man${section})
  list(APPEND man_gz ${out})
endforeach()
add_custom_target(man_pages ALL DEPENDS ${man_gz})

install(FILES README.md DESTINATION ${VEXD_DOC_DIR})
install(DIRECTORY docs/ DESTINATION ${VEXD_DOC_DIR} FILES_MATCHING PATTERN "*.md")

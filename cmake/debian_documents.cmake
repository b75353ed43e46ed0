# cpack runs this on the staged tree before it packs.
set(share ${CPACK_TEMPORARY_INSTALL_DIRECTORY}/usr/share)
if(NOT EXISTS ${share})
  set(share ${CPACK_TEMPORARY_INSTALL_DIRECTORY}/ALL_COMPONENTS_IN_ONE/usr/share)
endif()
set(doc ${share}/doc/screenrecord)
file(COPY_FILE ${CPACK_SCREENRECORD_SOURCE_DIR}/cmake/debian_copyright ${doc}/copyright)
string(TIMESTAMP now "%a, %d %b %Y %H:%M:%S +0000" UTC)
file(WRITE ${doc}/changelog "screenrecord (${CPACK_PACKAGE_VERSION}) unstable; urgency=medium

  * See CHANGELOG.md.

 -- ${CPACK_PACKAGE_CONTACT}  ${now}
")
execute_process(COMMAND gzip -9n ${doc}/changelog ${share}/man/man1/screenrecord.1 COMMAND_ERROR_IS_FATAL ANY)

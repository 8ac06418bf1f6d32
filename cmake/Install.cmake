# SPDX-License-Identifier: Apache-2.0
# What cmake --install puts into a prefix; packaging/package.sh makes the Debian packages and the
# tarball of it.

include(GNUInstallDirs)
set(java_dir ${CMAKE_INSTALL_DATADIR}/java)
set(doc_dir ${CMAKE_INSTALL_DATADIR}/doc/quarvel-pkcs11)

# Whatever the builder's umask.
set(CMAKE_INSTALL_DEFAULT_DIRECTORY_PERMISSIONS OWNER_READ OWNER_WRITE OWNER_EXECUTE GROUP_READ
                                                GROUP_EXECUTE WORLD_READ WORLD_EXECUTE)

# The manual page describes commands and options by what the inspector's classes say of them.
set(manual ${CMAKE_BINARY_DIR}/quarvel-pkcs11.1)
configure_file(packaging/quarvel-pkcs11.1.in ${manual}.in @ONLY)
add_custom_command(
  OUTPUT ${manual}
  COMMAND ${Java_JAVA_EXECUTABLE} -cp ${QUARVEL_CLASSES}:${QUARVEL_CLI_CLASSES}:${QUARVEL_PICOCLI}
          ${CMAKE_SOURCE_DIR}/packaging/ManualPage.java ${manual}.in > ${manual}
  DEPENDS packaging/ManualPage.java ${manual}.in ${QUARVEL_CLI_STAMP}
  VERBATIM)
add_custom_target(manual ALL DEPENDS ${manual})
install(TARGETS ${QUARVEL_NATIVE_TARGETS} LIBRARY DESTINATION ${CMAKE_INSTALL_LIBDIR}/jni)
install(FILES ${QUARVEL_JAR} ${CMAKE_BINARY_DIR}/quarvel-pkcs11-cli.jar DESTINATION ${java_dir})
install(PROGRAMS packaging/quarvel-pkcs11 DESTINATION ${CMAKE_INSTALL_BINDIR})
install(FILES ${manual} DESTINATION ${CMAKE_INSTALL_MANDIR}/man1)
install(FILES ${QUARVEL_COMPLETION}
        DESTINATION ${CMAKE_INSTALL_DATADIR}/bash-completion/completions RENAME quarvel-pkcs11)
install(FILES README.md CHANGELOG.md SECURITY.md CONTRIBUTING.md LICENSE NOTICE
        DESTINATION ${doc_dir})
install(DIRECTORY docs DESTINATION ${doc_dir})
install(DIRECTORY ${QUARVEL_JAVADOC}/ DESTINATION ${doc_dir}/api)

add_custom_target(
  packages
  COMMAND ${CMAKE_SOURCE_DIR}/packaging/package.sh ${CMAKE_BINARY_DIR} ${PROJECT_VERSION}
          ${QUARVEL_DATE} ${QUARVEL_POM} ${QUARVEL_VARIANTS}
  DEPENDS packaging/package.sh
  VERBATIM USES_TERMINAL)
add_dependencies(packages ${QUARVEL_NATIVE_TARGETS} completion manual quarvel-pkcs11-jar
                 quarvel-pkcs11-pure-jar quarvel-pkcs11-cli-jar quarvel-pkcs11-javadoc-jar
                 quarvel-pkcs11-sources-jar)

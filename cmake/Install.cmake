# What cmake --install puts into a prefix, and the packages that CPack makes of it. The components
# are the two Debian packages: jni has the native library, java everything that runs on a Java
# virtual machine.

include(GNUInstallDirs)
set(java_dir ${CMAKE_INSTALL_DATADIR}/java)
set(doc_dir ${CMAKE_INSTALL_DATADIR}/doc/libquarvel-pkcs11-java)

install(TARGETS quarvelpkcs11 LIBRARY DESTINATION ${CMAKE_INSTALL_LIBDIR}/jni COMPONENT jni)
install(FILES ${QUARVEL_JAR} ${CMAKE_BINARY_DIR}/quarvel-pkcs11-cli.jar DESTINATION ${java_dir}
        COMPONENT java)
install(FILES ${CMAKE_BINARY_DIR}/quarvel-pkcs11-javadoc.jar
              ${CMAKE_BINARY_DIR}/quarvel-pkcs11-sources.jar README.md SECURITY.md
        DESTINATION ${doc_dir} COMPONENT java)
install(DIRECTORY docs DESTINATION ${doc_dir} COMPONENT java)
install(PROGRAMS packaging/quarvel-pkcs11 DESTINATION ${CMAKE_INSTALL_BINDIR} COMPONENT java)
install(FILES packaging/quarvel-pkcs11.1 DESTINATION ${CMAKE_INSTALL_MANDIR}/man1 COMPONENT java)

set(CPACK_GENERATOR DEB TGZ)
set(CPACK_PACKAGE_VENDOR quarvel)
set(CPACK_PACKAGE_CONTACT "quarvel developers <maintainers@quarvel.invalid>")
set(CPACK_PACKAGE_DESCRIPTION_SUMMARY "Java binding to PKCS#11 tokens")
set(CPACK_STRIP_FILES ON)
set(CPACK_COMPONENTS_ALL jni java)
set(CPACK_PACKAGING_INSTALL_PREFIX ${CMAKE_INSTALL_PREFIX})

set(CPACK_DEB_COMPONENT_INSTALL ON)
set(CPACK_DEBIAN_FILE_NAME DEB-DEFAULT)
set(CPACK_DEBIAN_PACKAGE_SECTION java)
set(CPACK_DEBIAN_JNI_PACKAGE_NAME libquarvel-pkcs11-jni)
set(CPACK_DEBIAN_JNI_PACKAGE_SHLIBDEPS ON)
set(CPACK_DEBIAN_JNI_DESCRIPTION "The native half of the classes it.quarvel.pkcs11: opens a PKCS#11 module and
turns each native method into checked calls of it.")
set(CPACK_DEBIAN_JAVA_PACKAGE_NAME libquarvel-pkcs11-java)
set(CPACK_DEBIAN_JAVA_PACKAGE_ARCHITECTURE all)
set(CPACK_DEBIAN_JAVA_PACKAGE_DEPENDS
    "libquarvel-pkcs11-jni (= ${PROJECT_VERSION}), default-jre-headless (>= 2:1.17) | java17-runtime-headless, libpicocli-java")
set(CPACK_DEBIAN_JAVA_DESCRIPTION "The Java half of the binding, its Javadoc, and the command quarvel-pkcs11,
which shows what a token offers and checks whether the binding works with it.")

set(CPACK_ARCHIVE_COMPONENT_INSTALL OFF)
set(CPACK_PACKAGE_FILE_NAME quarvel-pkcs11-${PROJECT_VERSION}-linux-${CMAKE_SYSTEM_PROCESSOR})
include(CPack)

# SPDX-License-Identifier: Apache-2.0
# Tells what cmake --install puts into a prefix, by component: runtime, java, cli, doc.

include(GNUInstallDirs)
set(jni_dir ${CMAKE_INSTALL_LIBDIR}/jni)
set(java_dir ${CMAKE_INSTALL_DATADIR}/java)

# Modes are the same whatever the umask, which CMake would apply to the folders above the files.
set(CMAKE_INSTALL_DEFAULT_DIRECTORY_PERMISSIONS OWNER_READ OWNER_WRITE OWNER_EXECUTE GROUP_READ
                                                GROUP_EXECUTE WORLD_READ WORLD_EXECUTE)
# quarvel_folders(COMPONENT FOLDER...): makes folders under the prefix, with those above, in mode 755
function(quarvel_folders component)
  install(CODE "set(folders \"${ARGN}\")" COMPONENT ${component})
  install(CODE [[
    foreach(folder IN LISTS folders)
      cmake_path(ABSOLUTE_PATH folder BASE_DIRECTORY "${CMAKE_INSTALL_PREFIX}")
      execute_process(COMMAND sh -c "umask 022 && mkdir -p \"$0\"" "$ENV{DESTDIR}${folder}"
                      COMMAND_ERROR_IS_FATAL ANY)
    endforeach()]] COMPONENT ${component})
endfunction()

quarvel_folders(runtime ${jni_dir})
quarvel_folders(java ${java_dir})
quarvel_folders(doc ${CMAKE_INSTALL_DOCDIR})
install(TARGETS ${QUARVEL_NATIVE_TARGETS} LIBRARY DESTINATION ${jni_dir} COMPONENT runtime)
install(FILES ${QUARVEL_JAR} DESTINATION ${java_dir} COMPONENT java)
install(FILES README.md CHANGELOG.md SECURITY.md CONTRIBUTING.md LICENSE NOTICE
        DESTINATION ${CMAKE_INSTALL_DOCDIR} COMPONENT doc)
install(DIRECTORY docs DESTINATION ${CMAKE_INSTALL_DOCDIR} COMPONENT doc)
if(QUARVEL_JAVADOC)
  install(DIRECTORY ${QUARVEL_JAVADOC_PAGES}/ DESTINATION ${CMAKE_INSTALL_DOCDIR}/api COMPONENT doc)
endif()

if(QUARVEL_CLI)
  # The launcher finds these folders from its own if it can, so that a prefix may be moved. It names no
  # processor, so that it is the same on each.
  foreach(dir jni_dir java_dir)
    if(IS_ABSOLUTE "${${dir}}" OR IS_ABSOLUTE "${CMAKE_INSTALL_BINDIR}")
      cmake_path(ABSOLUTE_PATH ${dir} BASE_DIRECTORY ${CMAKE_INSTALL_PREFIX} OUTPUT_VARIABLE path)
    else()
      file(RELATIVE_PATH path /${CMAKE_INSTALL_BINDIR} /${${dir}})
      string(PREPEND path "$bin/")
    endif()
    string(REPLACE "/${CMAKE_SYSTEM_PROCESSOR}-linux-gnu/" "/$(uname -m)-linux-gnu/" launcher_${dir} ${path})
  endforeach()
  configure_file(packaging/quarvel-pkcs11.in quarvel-pkcs11 @ONLY)
  set(completions ${CMAKE_INSTALL_DATADIR}/bash-completion/completions)
  quarvel_folders(cli ${java_dir} ${CMAKE_INSTALL_BINDIR} ${CMAKE_INSTALL_MANDIR}/man1 ${completions})
  install(FILES ${CMAKE_BINARY_DIR}/quarvel-pkcs11-cli.jar DESTINATION ${java_dir} COMPONENT cli)
  install(PROGRAMS ${CMAKE_BINARY_DIR}/quarvel-pkcs11 DESTINATION ${CMAKE_INSTALL_BINDIR} COMPONENT cli)
  install(FILES ${QUARVEL_MANUAL} DESTINATION ${CMAKE_INSTALL_MANDIR}/man1 COMPONENT cli)
  install(FILES ${QUARVEL_COMPLETION} COMPONENT cli RENAME quarvel-pkcs11
          DESTINATION ${completions})
endif()

if(QUARVEL_CLI AND QUARVEL_JAVADOC)
  add_custom_target(
    packages
    COMMAND ${CMAKE_SOURCE_DIR}/packaging/package.sh ${CMAKE_BINARY_DIR} ${PROJECT_VERSION}
            ${QUARVEL_DATE} ${QUARVEL_VARIANTS}
    VERBATIM USES_TERMINAL)
  add_dependencies(packages ${QUARVEL_NATIVE_TARGETS} inspector quarvel-pkcs11-jar quarvel-pkcs11-cli-jar
                   quarvel-pkcs11-javadoc-jar quarvel-pkcs11-sources-jar)
endif()

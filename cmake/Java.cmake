# The Java half: classes and native method headers from one javac run, then the jars.

# jni.h stands beside the compiler that writes the headers built on it.
file(REAL_PATH ${Java_JAVAC_EXECUTABLE} javac)
cmake_path(GET javac PARENT_PATH QUARVEL_JDK)
cmake_path(GET QUARVEL_JDK PARENT_PATH QUARVEL_JDK)

file(GLOB_RECURSE QUARVEL_JAVA_SOURCES CONFIGURE_DEPENDS ${CMAKE_SOURCE_DIR}/java/*.java)
set(QUARVEL_CLASSES ${CMAKE_BINARY_DIR}/classes)
set(QUARVEL_JNI_HEADERS ${CMAKE_BINARY_DIR}/jni-headers)
set(QUARVEL_CLASSES_STAMP ${CMAKE_BINARY_DIR}/classes.stamp)
set(QUARVEL_JAR ${CMAKE_BINARY_DIR}/quarvel-pkcs11.jar)
# One fixed time for all entries, so that the same sources give the same jar.
set(QUARVEL_JAR_DATE 2026-01-01T00:00:00Z)

foreach(class NativePKCS11 NativePKCS11Slot NativePKCS11Session NativePKCS11Object)
  list(APPEND QUARVEL_JNI_HEADER_FILES ${QUARVEL_JNI_HEADERS}/it_quarvel_pkcs11_nat_${class}.h)
endforeach()

add_custom_command(
  OUTPUT ${QUARVEL_CLASSES_STAMP}
  BYPRODUCTS ${QUARVEL_JNI_HEADER_FILES}
  COMMAND ${CMAKE_COMMAND} -E rm -rf ${QUARVEL_CLASSES}
  COMMAND ${Java_JAVAC_EXECUTABLE} --release 17 -Xlint:all -Werror -Xdoclint:all/protected,-missing
          -d ${QUARVEL_CLASSES} -h ${QUARVEL_JNI_HEADERS} ${QUARVEL_JAVA_SOURCES}
  COMMAND ${CMAKE_COMMAND} -E touch ${QUARVEL_CLASSES_STAMP}
  DEPENDS ${QUARVEL_JAVA_SOURCES}
  VERBATIM)
add_custom_target(quarvel_classes DEPENDS ${QUARVEL_CLASSES_STAMP})

# quarvel_jar(NAME DEPENDS files... CONTENTS jar arguments...): a target that writes NAME.jar
function(quarvel_jar name)
  cmake_parse_arguments(ARG "" "" "DEPENDS;CONTENTS" ${ARGN})
  set(jar ${CMAKE_BINARY_DIR}/${name}.jar)
  add_custom_command(
    OUTPUT ${jar}
    COMMAND ${Java_JAR_EXECUTABLE} --create --file ${jar} --date=${QUARVEL_JAR_DATE} ${ARG_CONTENTS}
    DEPENDS ${ARG_DEPENDS}
    VERBATIM)
  add_custom_target(${name}-jar ALL DEPENDS ${jar})
endfunction()

# ---- The library's jar: classes, the native library, what GraalVM's native-image wants to know ----

# os.arch of the Java virtual machine names the folder of the library.
if(CMAKE_SYSTEM_PROCESSOR STREQUAL x86_64)
  set(arch amd64)
else()
  set(arch ${CMAKE_SYSTEM_PROCESSOR})
endif()
set(resources ${CMAKE_BINARY_DIR}/resources)
set(library ${resources}/it/quarvel/pkcs11/nat/linux-${arch}/libquarvelpkcs11.so)
set(graal META-INF/native-image/it.quarvel/quarvel-pkcs11)
file(GLOB graal_files CONFIGURE_DEPENDS ${CMAKE_SOURCE_DIR}/packaging/native-image/*.json)
cmake_path(GET library PARENT_PATH library_folder)
file(MAKE_DIRECTORY ${library_folder})
add_custom_command(
  OUTPUT ${library}
  COMMAND ${CMAKE_STRIP} -o ${library} $<TARGET_FILE:quarvelpkcs11>
  COMMAND ${CMAKE_COMMAND} -E make_directory ${resources}/${graal}
  COMMAND ${CMAKE_COMMAND} -E copy ${graal_files} ${resources}/${graal}
  DEPENDS quarvelpkcs11 ${graal_files}
  VERBATIM)
quarvel_jar(
  quarvel-pkcs11
  DEPENDS ${QUARVEL_CLASSES_STAMP} ${library} ${graal_files}
  CONTENTS --module-version ${PROJECT_VERSION} -C ${QUARVEL_CLASSES} . -C ${resources} .)

# ---- The inspector's jar ----

file(GLOB_RECURSE cli_sources CONFIGURE_DEPENDS ${CMAKE_SOURCE_DIR}/cli/*.java)
find_file(QUARVEL_PICOCLI picocli.jar PATHS /usr/share/java NO_DEFAULT_PATH REQUIRED)
set(QUARVEL_CLI_CLASSES ${CMAKE_BINARY_DIR}/cli-classes)
set(QUARVEL_CLI_STAMP ${QUARVEL_CLI_CLASSES}.stamp)
add_custom_command(
  OUTPUT ${QUARVEL_CLI_STAMP}
  COMMAND ${CMAKE_COMMAND} -E rm -rf ${QUARVEL_CLI_CLASSES}
  COMMAND ${Java_JAVAC_EXECUTABLE} --release 17 -Xlint:all,-processing -Werror
          -cp ${QUARVEL_CLASSES}:${QUARVEL_PICOCLI} -d ${QUARVEL_CLI_CLASSES} ${cli_sources}
  COMMAND ${CMAKE_COMMAND} -E touch ${QUARVEL_CLI_STAMP}
  DEPENDS ${cli_sources} ${QUARVEL_CLASSES_STAMP}
  VERBATIM)
set(manifest ${CMAKE_BINARY_DIR}/cli-manifest.txt)
file(CONFIGURE OUTPUT ${manifest} CONTENT [[Main-Class: it.quarvel.pkcs11.cli.Main
Class-Path: quarvel-pkcs11.jar @QUARVEL_PICOCLI@
Enable-Native-Access: ALL-UNNAMED
]] @ONLY)
quarvel_jar(quarvel-pkcs11-cli DEPENDS ${QUARVEL_CLI_STAMP} ${manifest} CONTENTS --manifest ${manifest}
            -C ${QUARVEL_CLI_CLASSES} .)

# ---- Sources and Javadoc, for development environments ----

set(javadoc ${CMAKE_BINARY_DIR}/javadoc)
set(javadoc_title "${PROJECT_NAME} ${PROJECT_VERSION}")
find_program(QUARVEL_JAVADOC javadoc HINTS ${QUARVEL_JDK}/bin REQUIRED)
add_custom_command(
  OUTPUT ${javadoc}.stamp
  COMMAND ${CMAKE_COMMAND} -E rm -rf ${javadoc}
  COMMAND ${QUARVEL_JAVADOC} -quiet -notimestamp -Xdoclint:all,-missing -Werror -d ${javadoc}
          -windowtitle ${javadoc_title} -doctitle ${javadoc_title} -header ${javadoc_title}
          ${QUARVEL_JAVA_SOURCES}
  COMMAND ${CMAKE_COMMAND} -E touch ${javadoc}.stamp
  DEPENDS ${QUARVEL_JAVA_SOURCES}
  VERBATIM)
quarvel_jar(quarvel-pkcs11-javadoc DEPENDS ${javadoc}.stamp CONTENTS -C ${javadoc} .)
quarvel_jar(quarvel-pkcs11-sources DEPENDS ${QUARVEL_JAVA_SOURCES} CONTENTS
            -C ${CMAKE_SOURCE_DIR}/java .)

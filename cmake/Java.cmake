# SPDX-License-Identifier: Apache-2.0
# The Java half: classes and native method headers from one javac run, then the jars.

# jni.h stands beside the compiler that writes the headers built on it.
file(REAL_PATH ${Java_JAVAC_EXECUTABLE} javac)
cmake_path(GET javac PARENT_PATH QUARVEL_JDK)
cmake_path(GET QUARVEL_JDK PARENT_PATH QUARVEL_JDK)
# The builder's environment gets into no class and no page, and names of folders may have any letter.
set(in_java ${CMAKE_COMMAND} -E env --unset=CLASSPATH --unset=JDK_JAVA_OPTIONS
            --unset=JAVA_TOOL_OPTIONS LC_ALL=C.UTF-8)
# javac ends before a thorough translation of its own code would pay.
set(quick -J-XX:TieredStopAtLevel=1)
if(CMAKE_COMPILE_WARNING_AS_ERROR)
  set(java_warnings -Xlint:all -Werror)
  set(javadoc_warnings -Werror)
endif()
set(QUARVEL_JAVAC ${in_java} ${Java_JAVAC_EXECUTABLE} ${quick} -encoding UTF-8 --release 17
                  ${java_warnings})
# javac puts texts together by plain code: its usual way loads classes at each start. A javac without
# the option ignores it.
set(javac_inline ${QUARVEL_JAVAC} -XDstringConcat=inline)

file(GLOB_RECURSE QUARVEL_JAVA_SOURCES CONFIGURE_DEPENDS ${CMAKE_SOURCE_DIR}/java/*.java)
set(generated ${CMAKE_BINARY_DIR}/generated)
file(CONFIGURE OUTPUT ${generated}/it/quarvel/pkcs11/Version.java CONTENT
"// SPDX-License-Identifier: Apache-2.0
package it.quarvel.pkcs11;

/** The version that the build is told. */
final class Version {
  static final String TEXT = \"${PROJECT_VERSION}\";

  private Version() {}
}
")
list(APPEND QUARVEL_JAVA_SOURCES ${generated}/it/quarvel/pkcs11/Version.java)
set(QUARVEL_CLASSES ${CMAKE_BINARY_DIR}/classes)
set(QUARVEL_JNI_HEADERS ${CMAKE_BINARY_DIR}/jni-headers)
set(QUARVEL_CLASSES_STAMP ${CMAKE_BINARY_DIR}/classes.stamp)

foreach(class NativePKCS11 NativePKCS11Slot NativePKCS11Session NativePKCS11Object)
  list(APPEND QUARVEL_JNI_HEADER_FILES ${QUARVEL_JNI_HEADERS}/it_quarvel_pkcs11_nat_${class}.h)
endforeach()

# javac writes its own version, 17.0.21 say, into the description of the module: only 17 stays.
find_program(QUARVEL_PERL perl REQUIRED)
add_custom_command(
  OUTPUT ${QUARVEL_CLASSES_STAMP}
  BYPRODUCTS ${QUARVEL_JNI_HEADER_FILES}
  COMMAND ${CMAKE_COMMAND} -E rm -rf ${QUARVEL_CLASSES}
  COMMAND ${javac_inline} -Xdoclint:all/protected,-missing -d ${QUARVEL_CLASSES}
          -h ${QUARVEL_JNI_HEADERS} ${QUARVEL_JAVA_SOURCES}
  COMMAND ${QUARVEL_PERL} -0777 -pi -e "s/\\x01\\0.17\\.[0-9.]+/\\x01\\0\\x0217/s"
          ${QUARVEL_CLASSES}/module-info.class
  COMMAND ${CMAKE_COMMAND} -E touch ${QUARVEL_CLASSES_STAMP}
  DEPENDS ${QUARVEL_JAVA_SOURCES}
  VERBATIM)
add_custom_target(quarvel_classes DEPENDS ${QUARVEL_CLASSES_STAMP})

# Every manifest says this; the jar tool would add its own exact version.
set(manifest_lines "Created-By: CMake
Implementation-Title: ${PROJECT_NAME}
Implementation-Version: ${PROJECT_VERSION}
Implementation-Vendor: the quarvel-pkcs11 authors
")
set(legal ${CMAKE_BINARY_DIR}/legal)
file(COPY LICENSE NOTICE DESTINATION ${legal}/META-INF)

# quarvel_jar(NAME [MANIFEST text] [DEPENDS files...] [AFTER targets...] CONTENTS jar arguments...): a
# target NAME-jar that writes NAME.jar, licence included. If several targets depend on a file, AFTER
# keeps a parallel make from making it several times at once.
function(quarvel_jar name)
  cmake_parse_arguments(PARSE_ARGV 1 ARG "" "MANIFEST" "DEPENDS;AFTER;CONTENTS")
  set(jar ${CMAKE_BINARY_DIR}/${name}.jar)
  set(manifest ${CMAKE_BINARY_DIR}/${name}.mf)
  file(CONFIGURE OUTPUT ${manifest} CONTENT "${manifest_lines}${ARG_MANIFEST}" @ONLY)
  add_custom_command(
    OUTPUT ${jar}
    COMMAND ${in_java} ${Java_JAR_EXECUTABLE} --create --file ${jar} --date=${QUARVEL_DATE}T00:00:00Z
            --manifest ${manifest} ${ARG_CONTENTS} -C ${legal} META-INF
    DEPENDS ${ARG_DEPENDS} ${manifest}
    VERBATIM)
  add_custom_target(${name}-jar ALL DEPENDS ${jar})
  add_dependencies(${name}-jar quarvel_classes ${ARG_AFTER})
endfunction()

# ---- The library's jar: classes, native files, and files for Maven and native-image ----

set(resources ${CMAKE_BINARY_DIR}/resources)
if(QUARVEL_NATIVES_IN_JAR)
  if(NOT CMAKE_STRIP)
    message(FATAL_ERROR "strip is missing")
  endif()
  # os.arch of the Java virtual machine names the folder of the native files.
  if(CMAKE_SYSTEM_PROCESSOR STREQUAL x86_64)
    set(arch amd64)
  else()
    set(arch ${CMAKE_SYSTEM_PROCESSOR})
  endif()
  set(nat it/quarvel/pkcs11/nat)
  foreach(target ${QUARVEL_NATIVE_TARGETS})
    set(folder ${nat}/linux-${arch})
    set(native ${folder}/lib${target}.so)
    add_custom_command(
      OUTPUT ${resources}/${native}
      COMMAND ${CMAKE_COMMAND} -E make_directory ${resources}/${folder}
      COMMAND ${CMAKE_STRIP} --remove-section=.comment -o ${resources}/${native}
              $<TARGET_FILE:${target}>
      DEPENDS ${target}
      VERBATIM)
    list(APPEND native_files ${resources}/${native})
    list(APPEND natives -C ${resources} ${native})
  endforeach()
  add_custom_target(natives DEPENDS ${native_files})
  set(natives_target natives)
  set(index ${resources}/${nat}/INDEX)
  set(sums ${native_files})
  list(TRANSFORM sums REPLACE ".*/${nat}/" "")
  set(sum ${CMAKE_SOURCE_DIR}/cmake/index.sh)
  set(write_index COMMAND ${sum} ${resources}/${nat} ${sums} > ${index})
  # The natives of other presets: each is configured afresh, as its compiler may have changed.
  foreach(variant ${QUARVEL_VARIANTS})
    set(folder ${CMAKE_BINARY_DIR}/${variant})
    set(variant_files)
    foreach(target ${QUARVEL_NATIVE_TARGETS})
      set(native ${nat}/${variant}/lib${target}.so)
      list(APPEND variant_files ${folder}/resources/${native})
      list(APPEND natives -C ${folder}/resources ${native})
    endforeach()
    add_custom_target(
      variant-${variant}
      COMMAND ${CMAKE_COMMAND} --fresh --log-level=WARNING --preset ${variant} -B ${folder}
      COMMAND ${CMAKE_COMMAND} --build ${folder} --target natives
      WORKING_DIRECTORY ${CMAKE_SOURCE_DIR}
      BYPRODUCTS ${variant_files}
      VERBATIM USES_TERMINAL)
    list(APPEND native_files ${variant_files})
    list(TRANSFORM variant_files REPLACE ".*/${nat}/" "")
    list(APPEND write_index COMMAND ${sum} ${folder}/resources/${nat} ${variant_files} >> ${index})
  endforeach()
  # The index tells Java which native files the jar carries, and whether they are whole.
  add_custom_command(OUTPUT ${index} ${write_index} DEPENDS ${native_files} ${sum} VERBATIM)
  list(APPEND native_files ${index})
  list(APPEND natives -C ${resources} ${nat}/INDEX)
endif()

set(pom META-INF/maven/it.quarvel/quarvel-pkcs11)
set(QUARVEL_POM ${resources}/${pom}/pom.xml)
set(home)
if(QUARVEL_URL)
  string(APPEND home "  <url>${QUARVEL_URL}</url>\n")
endif()
if(QUARVEL_SCM)
  string(APPEND home "  <scm>\n    <url>${QUARVEL_SCM}</url>\n  </scm>\n")
endif()
configure_file(packaging/pom.xml.in ${QUARVEL_POM} @ONLY)
string(REPLACE "-" "" updated "${QUARVEL_DATE}000000")
configure_file(packaging/maven-metadata.xml.in maven-metadata.xml @ONLY)
# The jar needs Java and the C library alone, so its list of components is empty.
set(purl "pkg:maven/it.quarvel/quarvel-pkcs11@${PROJECT_VERSION}?type=jar")
string(UUID serial NAMESPACE 6ba7b811-9dad-11d1-80b4-00c04fd430c8 NAME ${purl} TYPE SHA1)
configure_file(packaging/sbom.cdx.json.in sbom.cdx.json @ONLY)
file(CONFIGURE OUTPUT ${resources}/${pom}/pom.properties
     CONTENT "groupId=it.quarvel\nartifactId=quarvel-pkcs11\nversion=${PROJECT_VERSION}\n")
# The class path reads here what `provides` says in the module.
set(services META-INF/services)
file(CONFIGURE OUTPUT ${resources}/${services}/java.security.Provider
     CONTENT "it.quarvel.pkcs11.security.QuarvelProvider\n")
set(contents --module-version ${PROJECT_VERSION} -C ${QUARVEL_CLASSES} . -C ${resources} ${pom}
             -C ${resources} ${services})
file(GLOB graal_files CONFIGURE_DEPENDS ${CMAKE_SOURCE_DIR}/packaging/native-image/*.json)
foreach(file ${graal_files})
  cmake_path(GET file FILENAME name)
  set(graal META-INF/native-image/it.quarvel/quarvel-pkcs11/${name})
  configure_file(${file} ${resources}/${graal} COPYONLY)
  list(APPEND contents -C ${resources} ${graal})
endforeach()

# The OSGi bundle exports the packages that the Java module exports.
file(STRINGS java/module-info.java exports REGEX "^ *exports ")
list(TRANSFORM exports REPLACE "^ *exports ([^;]*).*" "\\1")
list(JOIN exports ";version=\"${PROJECT_VERSION}\"," exports)
set(bundle
    "Bundle-ManifestVersion: 2
Bundle-SymbolicName: it.quarvel.pkcs11
Bundle-Name: ${PROJECT_NAME}
Bundle-Version: ${PROJECT_VERSION}
Bundle-License: Apache-2.0
Export-Package: ${exports};version=\"${PROJECT_VERSION}\"
Require-Capability: osgi.ee;filter:=\"(&(osgi.ee=JavaSE)(version=17))\"
")
quarvel_jar(quarvel-pkcs11 MANIFEST "${bundle}" CONTENTS ${contents} ${natives}
            DEPENDS ${QUARVEL_CLASSES_STAMP} ${native_files} ${QUARVEL_POM} ${graal_files}
            AFTER ${natives_target})
set(QUARVEL_JAR ${CMAKE_BINARY_DIR}/quarvel-pkcs11.jar)

# ---- Sources and Javadoc, for development environments ----

quarvel_jar(quarvel-pkcs11-sources CONTENTS -C ${CMAKE_SOURCE_DIR}/java . -C ${generated} .
            DEPENDS ${QUARVEL_JAVA_SOURCES})

if(QUARVEL_JAVADOC)
  set(QUARVEL_JAVADOC_PAGES ${CMAKE_BINARY_DIR}/javadoc)
  set(title "${PROJECT_NAME} ${PROJECT_VERSION}")
  # The pages have no index, which brings a JavaScript library with a licence of its own, and no fonts,
  # which newer versions of Java bring.
  set(plain -noindex)
  if(Java_VERSION_MAJOR GREATER_EQUAL 23)
    list(APPEND plain --no-fonts)
  endif()
  add_custom_command(
    OUTPUT ${QUARVEL_JAVADOC_PAGES}.stamp
    COMMAND ${CMAKE_COMMAND} -E rm -rf ${QUARVEL_JAVADOC_PAGES}
    COMMAND ${in_java} ${Java_JAVADOC_EXECUTABLE} ${quick} -J-Duser.language=en -quiet -notimestamp
            ${plain} -locale en -encoding UTF-8 -docencoding UTF-8 -Xdoclint:all,-missing
            ${javadoc_warnings} -windowtitle ${title} -doctitle ${title} -header ${title} -d ${QUARVEL_JAVADOC_PAGES}
            ${QUARVEL_JAVA_SOURCES}
    COMMAND ${CMAKE_COMMAND} -E touch ${QUARVEL_JAVADOC_PAGES}.stamp
    DEPENDS ${QUARVEL_JAVA_SOURCES}
    VERBATIM)
  quarvel_jar(quarvel-pkcs11-javadoc CONTENTS -C ${QUARVEL_JAVADOC_PAGES} .
              DEPENDS ${QUARVEL_JAVADOC_PAGES}.stamp)
endif()

if(NOT QUARVEL_CLI)
  return()
endif()

# ---- The inspector, and its completion and manual page, which are made from its classes ----

file(GLOB_RECURSE cli_sources CONFIGURE_DEPENDS ${CMAKE_SOURCE_DIR}/cli/*.java)
find_file(QUARVEL_PICOCLI picocli.jar PATHS /usr/share/java NO_DEFAULT_PATH)
if(NOT QUARVEL_PICOCLI)
  message(FATAL_ERROR "picocli.jar is missing: QUARVEL_PICOCLI names it, QUARVEL_CLI=OFF does without")
endif()
set(QUARVEL_CLI_CLASSES ${CMAKE_BINARY_DIR}/cli-classes)
set(QUARVEL_CLI_STAMP ${QUARVEL_CLI_CLASSES}.stamp)
add_custom_command(
  OUTPUT ${QUARVEL_CLI_STAMP}
  COMMAND ${CMAKE_COMMAND} -E rm -rf ${QUARVEL_CLI_CLASSES}
  COMMAND ${javac_inline} -Xlint:-processing
          -cp ${QUARVEL_CLASSES}:${QUARVEL_PICOCLI} -d ${QUARVEL_CLI_CLASSES} ${cli_sources}
  COMMAND ${CMAKE_COMMAND} -E touch ${QUARVEL_CLI_STAMP}
  DEPENDS ${cli_sources} ${QUARVEL_CLASSES_STAMP}
  VERBATIM)
add_custom_target(quarvel_cli_classes DEPENDS ${QUARVEL_CLI_STAMP})
add_dependencies(quarvel_cli_classes quarvel_classes)
quarvel_jar(
  quarvel-pkcs11-cli
  MANIFEST "Main-Class: it.quarvel.pkcs11.cli.Launcher
Class-Path: quarvel-pkcs11.jar picocli.jar ${QUARVEL_PICOCLI}
Enable-Native-Access: ALL-UNNAMED
"
  CONTENTS -C ${QUARVEL_CLI_CLASSES} .
  DEPENDS ${QUARVEL_CLI_STAMP}
  AFTER quarvel_cli_classes)

set(cli_java ${in_java} ${Java_JAVA_EXECUTABLE} -cp
             ${QUARVEL_CLASSES}:${QUARVEL_CLI_CLASSES}:${QUARVEL_PICOCLI})
set(QUARVEL_COMPLETION ${CMAKE_BINARY_DIR}/quarvel-pkcs11.bash)
add_custom_command(
  OUTPUT ${QUARVEL_COMPLETION}
  COMMAND ${cli_java} it.quarvel.pkcs11.cli.Main generate-completion > ${QUARVEL_COMPLETION}
  COMMAND sed -i "/^#!/d" ${QUARVEL_COMPLETION} # shells read the file, none runs it
  DEPENDS ${QUARVEL_CLI_STAMP}
  VERBATIM)
set(QUARVEL_MANUAL ${CMAKE_BINARY_DIR}/quarvel-pkcs11.1)
configure_file(packaging/quarvel-pkcs11.1.in ${QUARVEL_MANUAL}.in @ONLY)
add_custom_command(
  OUTPUT ${QUARVEL_MANUAL}
  COMMAND ${cli_java} ${CMAKE_SOURCE_DIR}/packaging/ManualPage.java ${QUARVEL_MANUAL}.in
          > ${QUARVEL_MANUAL}
  DEPENDS packaging/ManualPage.java ${QUARVEL_MANUAL}.in ${QUARVEL_CLI_STAMP}
  VERBATIM)
add_custom_target(inspector ALL DEPENDS ${QUARVEL_COMPLETION} ${QUARVEL_MANUAL})
add_dependencies(inspector quarvel_cli_classes)

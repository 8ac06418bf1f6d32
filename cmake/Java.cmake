# The Java half: classes and native method headers from one javac run, then the jar, which also
# carries the native library as a resource.

# jni.h stands beside the compiler that writes the headers built on it.
file(REAL_PATH ${Java_JAVAC_EXECUTABLE} javac)
cmake_path(GET javac PARENT_PATH QUARVEL_JDK)
cmake_path(GET QUARVEL_JDK PARENT_PATH QUARVEL_JDK)

file(GLOB_RECURSE QUARVEL_JAVA_SOURCES CONFIGURE_DEPENDS ${CMAKE_SOURCE_DIR}/java/*.java)
set(QUARVEL_CLASSES ${CMAKE_BINARY_DIR}/classes)
set(QUARVEL_JNI_HEADERS ${CMAKE_BINARY_DIR}/jni-headers)
set(QUARVEL_CLASSES_STAMP ${CMAKE_BINARY_DIR}/classes.stamp)
# One fixed time for all entries, so that the same sources give the same jar.
set(QUARVEL_JAR_DATE 2026-01-01T00:00:00Z)

foreach(class NativePKCS11 NativePKCS11Slot NativePKCS11Session NativePKCS11Object)
  list(APPEND QUARVEL_JNI_HEADER_FILES ${QUARVEL_JNI_HEADERS}/it_quarvel_pkcs11_nat_${class}.h)
endforeach()

add_custom_command(
  OUTPUT ${QUARVEL_CLASSES_STAMP}
  BYPRODUCTS ${QUARVEL_JNI_HEADER_FILES}
  COMMAND ${CMAKE_COMMAND} -E rm -rf ${QUARVEL_CLASSES}
  COMMAND ${Java_JAVAC_EXECUTABLE} --release 17 -Xlint:all -Werror -Xdoclint:all/protected
          -d ${QUARVEL_CLASSES} -h ${QUARVEL_JNI_HEADERS} ${QUARVEL_JAVA_SOURCES}
  COMMAND ${CMAKE_COMMAND} -E touch ${QUARVEL_CLASSES_STAMP}
  DEPENDS ${QUARVEL_JAVA_SOURCES}
  VERBATIM)
add_custom_target(quarvel_classes DEPENDS ${QUARVEL_CLASSES_STAMP})

function(quarvel_add_jar)
  set(jar ${CMAKE_BINARY_DIR}/quarvel-pkcs11.jar)
  # os.arch of the Java virtual machine names the folder of the library.
  if(CMAKE_SYSTEM_PROCESSOR STREQUAL x86_64)
    set(arch amd64)
  else()
    set(arch ${CMAKE_SYSTEM_PROCESSOR})
  endif()
  set(resources ${CMAKE_BINARY_DIR}/resources)
  set(folder ${resources}/it/quarvel/pkcs11/nat/linux-${arch})
  add_custom_command(
    OUTPUT ${jar}
    COMMAND ${CMAKE_COMMAND} -E make_directory ${folder}
    COMMAND ${CMAKE_COMMAND} -E copy $<TARGET_FILE:quarvelpkcs11> ${folder}
    COMMAND
      ${Java_JAR_EXECUTABLE} --create --file ${jar} --date=${QUARVEL_JAR_DATE} --module-version
      ${PROJECT_VERSION} -C ${QUARVEL_CLASSES} . -C ${resources} .
    DEPENDS ${QUARVEL_CLASSES_STAMP} quarvelpkcs11
    VERBATIM)
  add_custom_target(quarvel_jar ALL DEPENDS ${jar})
endfunction()

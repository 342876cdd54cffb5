# The Java surface: the JNI bridge (bridge/*.cc, part of the shared library),
# zelvarpack.jar with the com.zelvarpack classes, the servlet host
# (zelvarpack-servlet.jar, hosts/java) and their JUnit tests on a real JVM
# (label "java").
#
# Needs a JDK 17 (javac, jar, jni.h); the host and the tests need Debian's
# jars: libservlet-api-java, libjetty9-java, junit4 (scripts/install-deps.sh
# installs them). Without a JDK the bridge is left out of the library and
# the Java targets are not made; without the jars the tests report
# themselves skipped.

if(WIN32)
  # The Windows DLL carries the bridge too, compiled against the JDK's
  # platform-neutral jni.h and the Windows jni_md.h of bridge/windows. The
  # jar and the Java tests belong to the Linux build (the jar is the same).
  find_package(Java 17 COMPONENTS Development)
  file(GLOB ZP_BRIDGE_SOURCES CONFIGURE_DEPENDS ${CMAKE_SOURCE_DIR}/bridge/*.cc)
  list(FILTER ZP_BRIDGE_SOURCES EXCLUDE REGEX "_test\\.cc$")
  set(ZP_JDK_INCLUDE "")
  if(Java_FOUND)
    file(REAL_PATH ${Java_JAVAC_EXECUTABLE} ZP_JAVAC_REAL)
    get_filename_component(ZP_JDK_HOME ${ZP_JAVAC_REAL} DIRECTORY)
    get_filename_component(ZP_JDK_HOME ${ZP_JDK_HOME} DIRECTORY)
    if(EXISTS ${ZP_JDK_HOME}/include/jni.h)
      set(ZP_JDK_INCLUDE ${ZP_JDK_HOME}/include)
    endif()
  endif()
  if(ZP_JDK_INCLUDE)
    set_source_files_properties(
      ${ZP_BRIDGE_SOURCES} PROPERTIES INCLUDE_DIRECTORIES
                                      "${CMAKE_SOURCE_DIR}/bridge/windows;${ZP_JDK_INCLUDE}")
  else()
    message(STATUS "No JDK 17 with jni.h: the Java bridge is left out of the DLL")
    set_source_files_properties(${ZP_BRIDGE_SOURCES} PROPERTIES HEADER_FILE_ONLY ON)
  endif()
  return()
endif()

find_package(Java 17 COMPONENTS Development Runtime)
# jni.h of the JDK whose javac was found (other JDKs may be installed beside it).
if(Java_FOUND AND NOT JAVA_HOME AND NOT DEFINED ENV{JAVA_HOME})
  file(REAL_PATH ${Java_JAVAC_EXECUTABLE} ZP_JAVAC_REAL)
  get_filename_component(JAVA_HOME ${ZP_JAVAC_REAL} DIRECTORY)
  get_filename_component(JAVA_HOME ${JAVA_HOME} DIRECTORY)
endif()
find_package(JNI COMPONENTS JVM)
file(GLOB ZP_BRIDGE_SOURCES CONFIGURE_DEPENDS ${CMAKE_SOURCE_DIR}/bridge/*.cc)
list(FILTER ZP_BRIDGE_SOURCES EXCLUDE REGEX "_test\\.cc$")

if(NOT Java_FOUND OR NOT JNI_INCLUDE_DIRS)
  message(STATUS "No JDK 17 with jni.h: the Java bridge and zelvarpack.jar are not built")
  if(ZP_BRIDGE_SOURCES)
    set_source_files_properties(${ZP_BRIDGE_SOURCES} PROPERTIES HEADER_FILE_ONLY ON)
  endif()
  return()
endif()

# Only the bridge sees jni.h; nothing of the JVM is linked (the library is
# loaded into one).
set_source_files_properties(${ZP_BRIDGE_SOURCES} PROPERTIES INCLUDE_DIRECTORIES
                                                            "${JNI_INCLUDE_DIRS}")

include(UseJava)
set(CMAKE_JAVA_COMPILE_FLAGS --release 17 -Xlint:all -Werror)

file(GLOB ZP_JAVA_SOURCES CONFIGURE_DEPENDS ${CMAKE_SOURCE_DIR}/bridge/java/com/zelvarpack/*.java)
add_jar(zelvarpack_jar SOURCES ${ZP_JAVA_SOURCES} OUTPUT_NAME zelvarpack)

# Debian's jars, by their version-less names.
set(ZP_JAVA_JARS /usr/share/java)
find_jar(ZP_SERVLET_API_JAR NAMES servlet-api servlet-api-4.0 PATHS ${ZP_JAVA_JARS})
set(ZP_JETTY_JARS "")
set(ZP_JETTY_MISSING "")
foreach(part server servlet security http io util)
  find_jar(ZP_JETTY_${part}_JAR NAMES jetty9-${part} PATHS ${ZP_JAVA_JARS})
  if(ZP_JETTY_${part}_JAR)
    list(APPEND ZP_JETTY_JARS ${ZP_JETTY_${part}_JAR})
  else()
    list(APPEND ZP_JETTY_MISSING jetty9-${part})
  endif()
endforeach()
find_jar(ZP_JUNIT_JAR NAMES junit4 junit PATHS ${ZP_JAVA_JARS})
find_jar(ZP_HAMCREST_JAR NAMES hamcrest-core hamcrest PATHS ${ZP_JAVA_JARS})

set(ZP_HOST_READY OFF)
file(GLOB ZP_SERVLET_SOURCES CONFIGURE_DEPENDS
     ${CMAKE_SOURCE_DIR}/hosts/java/com/zelvarpack/servlet/*.java)
if(ZP_SERVLET_API_JAR AND NOT ZP_JETTY_MISSING AND ZP_SERVLET_SOURCES)
  set(ZP_HOST_READY ON)
  add_jar(zelvarpack_servlet_jar SOURCES ${ZP_SERVLET_SOURCES}
          INCLUDE_JARS zelvarpack_jar ${ZP_SERVLET_API_JAR} ${ZP_JETTY_JARS}
          OUTPUT_NAME zelvarpack-servlet)
else()
  message(STATUS "servlet API or Jetty 9 jars missing: the Java host is not built")
endif()

if(NOT ZP_TESTS)
  return()
endif()
if(ZP_SANITIZE OR ZP_FUZZ)
  # A JVM cannot load a library built with sanitizers unless their runtime
  # is preloaded into it; the Java tests run in the plain builds.
  message(STATUS "sanitizer build: the Java tests are left to the plain builds")
  return()
endif()

get_target_property(ZP_JAR_FILE zelvarpack_jar JAR_FILE)
set(ZP_JAVA_RUN ${Java_JAVA_EXECUTABLE} -Xcheck:jni -Dzelvarpack.source=${CMAKE_SOURCE_DIR}
                -Djava.library.path=$<TARGET_FILE_DIR:ZelvarPackCore>
                -Dzelvarpack.library=$<TARGET_FILE:ZelvarPackCore>)

if(NOT ZP_JUNIT_JAR OR NOT ZP_HAMCREST_JAR)
  message(STATUS "junit4 not found: the Java tests will be reported as skipped")
  add_test(NAME java.bridge COMMAND ${CMAKE_COMMAND} -E echo "SKIPPED: junit4 missing")
  set_tests_properties(java.bridge PROPERTIES LABELS java SKIP_REGULAR_EXPRESSION SKIPPED)
  return()
endif()

file(GLOB ZP_JAVA_TEST_SOURCES CONFIGURE_DEPENDS ${CMAKE_SOURCE_DIR}/tests/java/com/zelvarpack/*.java)
add_jar(zelvarpack_java_tests SOURCES ${ZP_JAVA_TEST_SOURCES}
        INCLUDE_JARS zelvarpack_jar ${ZP_JUNIT_JAR} ${ZP_HAMCREST_JAR}
        OUTPUT_NAME zelvarpack-tests)
add_dependencies(zelvarpack_java_tests ZelvarPackCore)
get_target_property(ZP_JAVA_TESTS_FILE zelvarpack_java_tests JAR_FILE)
set(ZP_JAVA_TEST_CLASSPATH "${ZP_JAVA_TESTS_FILE}:${ZP_JAR_FILE}:${ZP_JUNIT_JAR}:${ZP_HAMCREST_JAR}")

# The bridge's surface, exports and marshalling rules; the leak test runs on
# its own (it measures the process's resident memory).
add_test(NAME java.bridge
         COMMAND ${ZP_JAVA_RUN} -cp ${ZP_JAVA_TEST_CLASSPATH} org.junit.runner.JUnitCore
                 com.zelvarpack.BridgeTest com.zelvarpack.ExportsTest)
add_test(NAME java.leak
         COMMAND ${ZP_JAVA_RUN} -Xms128m -Xmx128m -XX:+AlwaysPreTouch -cp ${ZP_JAVA_TEST_CLASSPATH}
                 org.junit.runner.JUnitCore com.zelvarpack.LeakTest)
# Native allocation failure under an address-space limit small enough to
# reach and large enough for a JVM with small reservations.
find_program(ZP_PRLIMIT prlimit)
if(ZP_PRLIMIT)
  add_test(NAME java.out_of_memory
           COMMAND ${ZP_PRLIMIT} --as=1887436800 ${ZP_JAVA_RUN} -Xmx64m -XX:MaxDirectMemorySize=2g -XX:+UseSerialGC
                   -XX:ReservedCodeCacheSize=32m -XX:CompressedClassSpaceSize=32m
                   -XX:MaxMetaspaceSize=64m -cp ${ZP_JAVA_TEST_CLASSPATH}
                   org.junit.runner.JUnitCore com.zelvarpack.OutOfMemoryTest)
  set_tests_properties(java.out_of_memory PROPERTIES LABELS java TIMEOUT 120)
endif()
set_tests_properties(java.bridge PROPERTIES LABELS java TIMEOUT 120)
set_tests_properties(java.leak PROPERTIES LABELS java TIMEOUT 300)

if(ZP_HOST_READY)
  file(GLOB ZP_SERVLET_TEST_SOURCES CONFIGURE_DEPENDS
       ${CMAKE_SOURCE_DIR}/tests/java/com/zelvarpack/servlet/*.java)
  add_jar(zelvarpack_servlet_tests SOURCES ${ZP_SERVLET_TEST_SOURCES}
          INCLUDE_JARS zelvarpack_jar zelvarpack_servlet_jar ${ZP_SERVLET_API_JAR}
                       ${ZP_JETTY_JARS} ${ZP_JUNIT_JAR} ${ZP_HAMCREST_JAR}
          OUTPUT_NAME zelvarpack-servlet-tests)
  add_dependencies(zelvarpack_servlet_tests ZelvarPackCore)
  get_target_property(ZP_SERVLET_JAR_FILE zelvarpack_servlet_jar JAR_FILE)
  get_target_property(ZP_SERVLET_TESTS_FILE zelvarpack_servlet_tests JAR_FILE)
  string(REPLACE ";" ":" ZP_JETTY_CLASSPATH "${ZP_JETTY_JARS}")
  set(ZP_HOST_CLASSPATH
      "${ZP_JAR_FILE}:${ZP_SERVLET_JAR_FILE}:${ZP_SERVLET_API_JAR}:${ZP_JETTY_CLASSPATH}")
  add_test(NAME java.servlet
           COMMAND ${ZP_JAVA_RUN} -cp
                   "${ZP_SERVLET_TESTS_FILE}:${ZP_HOST_CLASSPATH}:${ZP_JUNIT_JAR}:${ZP_HAMCREST_JAR}"
                   org.junit.runner.JUnitCore com.zelvarpack.servlet.ZelvarPackFilterTest)
  set_tests_properties(java.servlet PROPERTIES LABELS java TIMEOUT 180)
  # The class path scripts/run-java-host.sh and the browser test start the
  # host with.
  file(GENERATE OUTPUT ${CMAKE_BINARY_DIR}/java-host.classpath CONTENT "${ZP_HOST_CLASSPATH}\n")
  if(Python3_Interpreter_FOUND)
    add_test(NAME browser.java_host
             COMMAND ${Python3_EXECUTABLE} ${CMAKE_SOURCE_DIR}/tests/browser/run_java_host_tests.py
                     --java ${Java_JAVA_EXECUTABLE} --classpath ${ZP_HOST_CLASSPATH}
                     --library-dir $<TARGET_FILE_DIR:ZelvarPackCore>)
    set_tests_properties(browser.java_host PROPERTIES LABELS browser SKIP_RETURN_CODE 77
                                                      TIMEOUT 600)
  endif()
endif()

/* The machine-dependent part of the Java Native Interface for 64-bit
 * Windows, which jni.h includes. Debian's JDK carries only the Linux one;
 * the Windows build compiles the bridge against the JDK's jni.h and this.
 * Entry points are exported from the DLL by their plain JNI names (no
 * decoration on x64, where __stdcall is the one calling convention). */
#ifndef _JAVASOFT_JNI_MD_H_
#define _JAVASOFT_JNI_MD_H_

#define JNIEXPORT __declspec(dllexport)
#define JNIIMPORT __declspec(dllimport)
#define JNICALL __stdcall

/* long is 32 bits on Windows, as jint must be. */
typedef long jint;
typedef long long jlong;
typedef signed char jbyte;

#endif /* _JAVASOFT_JNI_MD_H_ */

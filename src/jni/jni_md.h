/*
 * Machine-dependent JNI types for Windows, for building with any compiler
 * (MSVC or MinGW-w64) against the JDK's own jni.h.
 *
 * JNIEXPORT marks a native for export. The 32-bit driver takes its export
 * names from its module definition file instead (the decorated stdcall names
 * that a 32-bit VM looks up) and defines JNIEXPORT empty on the command line.
 */
#ifndef _JAVASOFT_JNI_MD_H_
#define _JAVASOFT_JNI_MD_H_

#ifndef JNIEXPORT
#define JNIEXPORT __declspec(dllexport)
#endif
#define JNIIMPORT __declspec(dllimport)
#define JNICALL __stdcall

/* Windows widths: jint is a long (32 bits on every Windows), jlong 64 bits. */
typedef long jint;
typedef __int64 jlong;
typedef signed char jbyte;

#endif /* !_JAVASOFT_JNI_MD_H_ */

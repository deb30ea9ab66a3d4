/* Machine-dependent JNI types for 64-bit Windows, for cross builds whose JDK
 * ships only the headers of its own platform. The layout matches the JNI
 * types of a Windows JVM: jint 32 bits, jlong 64 bits, jbyte signed 8 bits. */
#ifndef QV_WIN32_JNI_MD_H
#define QV_WIN32_JNI_MD_H

#define JNIEXPORT __declspec(dllexport)
#define JNIIMPORT __declspec(dllimport)
#define JNICALL __stdcall

typedef long jint;
typedef long long jlong;
typedef signed char jbyte;

#endif

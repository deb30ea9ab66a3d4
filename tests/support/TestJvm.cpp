// The one real JVM of a test process.
#include <cstdio>
#include <cstdlib>
#include <mutex>
#include <string>

#include "support/JniInterposer.h"

#ifndef QV_TEST_CLASSPATH
#error "QV_TEST_CLASSPATH names the jars of the test JVM's class path"
#endif

namespace jnitest {

JavaVM* TestJvm() {
    static JavaVM* vm = nullptr;
    static std::once_flag started;
    std::call_once(started, [] {
        std::string classPath = std::string("-Djava.class.path=") + QV_TEST_CLASSPATH;
        JavaVMOption options[3];
        options[0].optionString = const_cast<char*>(classPath.c_str());
        // The JVM's own signal handling stays out of the sanitizers' way.
        options[1].optionString = const_cast<char*>("-Xrs");
        options[2].optionString = const_cast<char*>("-Xss2m");
        JavaVMInitArgs args{};
        args.version = JNI_VERSION_1_8;
        args.nOptions = 3;
        args.options = options;
        args.ignoreUnrecognized = JNI_FALSE;
        JNIEnv* env = nullptr;
        if (JNI_CreateJavaVM(&vm, reinterpret_cast<void**>(&env), &args) != JNI_OK) {
            std::fprintf(stderr, "the test JVM could not be started\n");
            std::abort();
        }
        // The starting thread stays attached; other threads attach in TestEnv().
    });
    return vm;
}

JNIEnv* TestEnv() {
    JavaVM* vm = TestJvm();
    JNIEnv* env = nullptr;
    if (vm->GetEnv(reinterpret_cast<void**>(&env), JNI_VERSION_1_8) == JNI_OK) return env;
    if (vm->AttachCurrentThreadAsDaemon(reinterpret_cast<void**>(&env), nullptr) != JNI_OK) return nullptr;
    return env;
}

}  // namespace jnitest

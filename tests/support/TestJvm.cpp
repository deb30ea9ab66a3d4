// The one real JVM of a test process.
#include <cstdio>
#include <cstdlib>
#include <mutex>
#include <sstream>
#include <string>
#include <vector>

#include "support/JniInterposer.h"

#ifndef QV_TEST_CLASSPATH
#error "QV_TEST_CLASSPATH names the jars of the test JVM's class path"
#endif

namespace jnitest {

JavaVM* TestJvm() {
    static JavaVM* vm = nullptr;
    static std::once_flag started;
    std::call_once(started, [] {
        std::vector<std::string> texts{std::string("-Djava.class.path=") + QV_TEST_CLASSPATH,
                                       // The JVM's own signal handling stays out of the sanitizers' way.
                                       "-Xrs", "-Xss2m"};
        // QV_TEST_JVM_OPTIONS adds options as a host would set them (heap size,
        // collector), blank-separated; the benchmarks use it to compare settings.
        if (const char* extra = std::getenv("QV_TEST_JVM_OPTIONS")) {
            std::istringstream words(extra);
            for (std::string word; words >> word;) texts.push_back(word);
        }
        std::vector<JavaVMOption> options(texts.size());
        for (size_t i = 0; i < texts.size(); ++i) options[i].optionString = texts[i].data();
        JavaVMInitArgs args{};
        args.version = JNI_VERSION_1_8;
        args.nOptions = static_cast<jint>(options.size());
        args.options = options.data();
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

// What a storage operation costs the host beside what it cannot avoid.
//
// Small operations (IsObjectExist, CreateObject, CloseObject) are measured
// against the raw JNI sequence every call needs: attach the thread as a
// daemon, look up the class and the method, make one call, detach. Data
// operations (plain WriteObject and ReadObject) are measured against memcpy
// of the same size, with the Java test double doing no work on the bytes,
// so that the figure is the bridge's own cost: one Java array and one copy.
// The host thread is not attached between calls, as in a real host.
#include <benchmark/benchmark.h>

#include <cstdlib>
#include <cstring>
#include <memory>
#include <thread>
#include <vector>

#include "bridge/JNIBridge.h"
#include "support/JniInterposer.h"
#include "support/TempFolder.h"
#include "support/TestDouble.h"

namespace {

struct BenchWorld {
    JavaVM* vm = nullptr;
    CloudPluginCreateInfo createInfo;
    std::unique_ptr<testsupport::TempFolder> folder;
    std::unique_ptr<JNIWrapperLog> log;
    std::unique_ptr<JNIBridge> bridge;
};

// The heap of the benchmark's JVM: fixed and touched at start, as a host
// sizes its own. With the JVM's default (a quarter of the machine, grown on
// demand) the figures depended on what ran before: after the small
// operations G1 had grown the heap to over 5 GB with a 3 GB young
// generation, so each large array of the data benchmarks landed in memory
// never touched before and paid a page fault for every page of it (WriteObject
// of 16 MiB: 0.35 GB/s in the whole run, 7 GB/s run alone). QV_TEST_JVM_OPTIONS
// set by the caller wins.
constexpr const char* kBenchJvmOptions = "-Xms1g -Xmx1g -XX:+AlwaysPreTouch";

// The bridge on the real JVM (no interposer), its Java object made, and the
// calling thread detached again.
BenchWorld& World() {
    static BenchWorld* world = [] {
        setenv("QV_TEST_JVM_OPTIONS", kBenchJvmOptions, 0);
        auto* w = new BenchWorld;
        w->folder = std::make_unique<testsupport::TempFolder>();
        w->log = std::make_unique<JNIWrapperLog>(w->folder->Path(), false);
        w->createInfo.installFolder = w->folder->Path();
        w->createInfo.logFolder = w->folder->Path();
        w->createInfo.jvmRef = &w->vm;
        // The JVM is started and the bridge set up on a thread of their own,
        // so that every benchmark thread, the main one too, starts unattached.
        std::thread([w] {
            w->vm = jnitest::TestJvm();
            jnitest::TestDouble::Reset();
            jnitest::TestDouble::SetDataPassThrough(true);
            w->bridge = std::make_unique<JNIBridge>(w->folder->Path(), &w->createInfo);
            w->bridge->StartCommunication();
            w->vm->DetachCurrentThread();
        }).join();
        return w;
    }();
    return *world;
}

// Clears the double's call record now and then, so that a long run does not
// measure a growing list.
void ForgetCalls(benchmark::State& state) {
    if (state.thread_index() != 0) return;
    std::thread([] {
        jnitest::TestDouble::Reset();
        jnitest::TestDouble::SetDataPassThrough(true);
        jnitest::TestJvm()->DetachCurrentThread();
    }).join();
}

// ---------------------------------------------------------------- small operations

// The floor: attach as daemon, class and method lookup, one call, detach.
void RawCall(JavaVM* vm, jobject plugin, const char* name, const char* signature, const char16_t* argument) {
    JNIEnv* env = nullptr;
    vm->AttachCurrentThreadAsDaemon(reinterpret_cast<void**>(&env), nullptr);
    jclass cls = env->GetObjectClass(plugin);
    jmethodID method = env->GetMethodID(cls, name, signature);
    jstring text = env->NewString(reinterpret_cast<const jchar*>(argument),
                                  static_cast<jsize>(std::char_traits<char16_t>::length(argument)));
    jobject result = env->CallObjectMethod(plugin, method, text);
    env->DeleteLocalRef(result);
    env->DeleteLocalRef(text);
    env->DeleteLocalRef(cls);
    vm->DetachCurrentThread();
}

void BM_Floor_IsObjectExist(benchmark::State& state) {
    BenchWorld& w = World();
    ForgetCalls(state);
    for (auto _ : state) {
        RawCall(w.vm, w.bridge->PluginObject(), "IsObjectExist",
                "(Ljava/lang/String;)Lcom/qv/AzureLibrary/CIsObjectExistFnValue;", u"object-1");
    }
}

void BM_Bridge_IsObjectExist(benchmark::State& state) {
    BenchWorld& w = World();
    ForgetCalls(state);
    w.bridge->SetLogger(state.range(0) ? w.log.get() : nullptr);
    uint32_t exists = 0;
    for (auto _ : state) benchmark::DoNotOptimize(w.bridge->IsObjectExist(u"object-1", &exists));
}

void BM_Floor_CreateObject(benchmark::State& state) {
    BenchWorld& w = World();
    ForgetCalls(state);
    for (auto _ : state) {
        RawCall(w.vm, w.bridge->PluginObject(), "CreateObject",
                "(Ljava/lang/String;)Lcom/qv/AzureLibrary/CCreateFnValue;", u"object-1");
    }
}

void BM_Bridge_CreateObject(benchmark::State& state) {
    BenchWorld& w = World();
    ForgetCalls(state);
    w.bridge->SetLogger(state.range(0) ? w.log.get() : nullptr);
    WideString handle;
    for (auto _ : state) benchmark::DoNotOptimize(w.bridge->CreateObject(u"object-1", handle));
}

void BM_Floor_CloseObject(benchmark::State& state) {
    BenchWorld& w = World();
    ForgetCalls(state);
    for (auto _ : state) {
        RawCall(w.vm, w.bridge->PluginObject(), "CloseObject",
                "(Ljava/lang/String;)Lcom/qv/QVCloudPluginInterface/CErrorValue;", u"handle:object-1");
    }
}

void BM_Bridge_CloseObject(benchmark::State& state) {
    BenchWorld& w = World();
    ForgetCalls(state);
    w.bridge->SetLogger(state.range(0) ? w.log.get() : nullptr);
    for (auto _ : state) benchmark::DoNotOptimize(w.bridge->CloseObject(u"handle:object-1"));
}

// ---------------------------------------------------------------- data

void BM_Memcpy(benchmark::State& state) {
    const size_t bytes = static_cast<size_t>(state.range(0));
    std::vector<uint8_t> from(bytes, 0x5A);
    std::vector<uint8_t> to(bytes);
    for (auto _ : state) {
        std::memcpy(to.data(), from.data(), bytes);
        benchmark::ClobberMemory();
    }
    state.SetBytesProcessed(static_cast<int64_t>(state.iterations()) * state.range(0));
}

void BM_Bridge_WriteObject(benchmark::State& state) {
    BenchWorld& w = World();
    ForgetCalls(state);
    w.bridge->SetLogger(nullptr);
    const size_t bytes = static_cast<size_t>(state.range(0));
    std::vector<uint8_t> buffer(bytes, 0x5A);
    for (auto _ : state) benchmark::DoNotOptimize(w.bridge->WriteObject(u"object-1", buffer.data(), bytes));
    state.SetBytesProcessed(static_cast<int64_t>(state.iterations()) * state.range(0));
}

void BM_Bridge_ReadObject(benchmark::State& state) {
    BenchWorld& w = World();
    ForgetCalls(state);
    w.bridge->SetLogger(nullptr);
    const size_t bytes = static_cast<size_t>(state.range(0));
    std::vector<uint8_t> buffer(bytes);
    for (auto _ : state) {
        uint64_t length = bytes;
        benchmark::DoNotOptimize(w.bridge->ReadObject(u"object-1", buffer.data(), 0, &length));
    }
    state.SetBytesProcessed(static_cast<int64_t>(state.iterations()) * state.range(0));
}

constexpr int64_t kMiB = 1 << 20;
// Each figure starts after the JIT has compiled the Java side and the heap
// has grown to its working size; before that the first half second is up to
// three times slower.
constexpr double kWarmUpSeconds = 1.0;

}  // namespace

// Argument: 0 = no log writer (the bridge's own cost), 1 = with the log writer.
BENCHMARK(BM_Floor_IsObjectExist)->Threads(1)->Threads(2)->UseRealTime()->MinWarmUpTime(kWarmUpSeconds);
BENCHMARK(BM_Bridge_IsObjectExist)->Arg(0)->Arg(1)->Threads(1)->Threads(2)->UseRealTime()->MinWarmUpTime(kWarmUpSeconds);
BENCHMARK(BM_Floor_CreateObject)->Threads(1)->UseRealTime()->MinWarmUpTime(kWarmUpSeconds);
BENCHMARK(BM_Bridge_CreateObject)->Arg(0)->Arg(1)->Threads(1)->UseRealTime()->MinWarmUpTime(kWarmUpSeconds);
BENCHMARK(BM_Floor_CloseObject)->Threads(1)->UseRealTime()->MinWarmUpTime(kWarmUpSeconds);
BENCHMARK(BM_Bridge_CloseObject)->Arg(0)->Arg(1)->Threads(1)->UseRealTime()->MinWarmUpTime(kWarmUpSeconds);

BENCHMARK(BM_Memcpy)->Arg(kMiB)->Arg(16 * kMiB)->Arg(256 * kMiB)->UseRealTime()->MinWarmUpTime(kWarmUpSeconds);
BENCHMARK(BM_Bridge_WriteObject)->Arg(kMiB)->Arg(16 * kMiB)->Arg(256 * kMiB)->Threads(1)->UseRealTime()->MinWarmUpTime(kWarmUpSeconds);
BENCHMARK(BM_Bridge_WriteObject)->Arg(16 * kMiB)->Threads(2)->UseRealTime()->MinWarmUpTime(kWarmUpSeconds);
BENCHMARK(BM_Bridge_ReadObject)->Arg(kMiB)->Arg(16 * kMiB)->Arg(256 * kMiB)->Threads(1)->UseRealTime()->MinWarmUpTime(kWarmUpSeconds);
BENCHMARK(BM_Bridge_ReadObject)->Arg(16 * kMiB)->Threads(2)->UseRealTime()->MinWarmUpTime(kWarmUpSeconds);

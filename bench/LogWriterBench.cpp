// How fast the process-wide log writer appends records, beside its floor:
// the bare open, append and close of the same bytes, measured in the same run.
#include <benchmark/benchmark.h>

#include <memory>

#include "log/JNIWrapperLog.h"
#include "log/LogText.h"
#include "support/TempFolder.h"

namespace {

const std::u16string kMessage = u"JNIBridge::WriteObject called objFlag:[0x0000000000000001]";

// One folder and one writer for all threads of a run; made by thread 0.
struct Shared {
    std::unique_ptr<testsupport::TempFolder> folder;
    std::unique_ptr<JNIWrapperLog> log;
};
Shared g_shared;

void SetUp(const benchmark::State& state) {
    if (state.thread_index() != 0) return;
    g_shared.folder = std::make_unique<testsupport::TempFolder>();
    g_shared.log = std::make_unique<JNIWrapperLog>(g_shared.folder->Path(), false);
}

void TearDown(const benchmark::State& state) {
    if (state.thread_index() != 0) return;
    g_shared.log.reset();
    g_shared.folder.reset();
}

void BM_JNIWrapperLogWrite(benchmark::State& state) {
    for (auto _ : state) g_shared.log->Write(kMessage);
    state.SetItemsProcessed(state.iterations());
}

// The floor: the same record bytes, appended with an open and a close of
// their own: no time stamp, no formatting, no mutex and no size query.
void BM_FloorOpenAppendClose(benchmark::State& state) {
    const std::u16string record = u"\r\n" +
                                  JNIWrapperLog::RecordPrefix(qvplatform::GetLocalTimeNow(), 1, 2) + u" :" +
                                  kMessage;
    const std::string bytes = logtext::Utf16LeBytes(record);
    const std::u16string path = g_shared.log->CurrentFilePath() + u".floor";
    for (auto _ : state) {
        qvplatform::SharedFile file;
        file.OpenOrCreate(path);
        file.AppendAtEnd(bytes.data(), bytes.size());
        file.Close();
    }
    state.SetItemsProcessed(state.iterations());
}

}  // namespace

BENCHMARK(BM_JNIWrapperLogWrite)->Setup(SetUp)->Teardown(TearDown)->Threads(1)->Threads(2)->UseRealTime();
BENCHMARK(BM_FloorOpenAppendClose)->Setup(SetUp)->Teardown(TearDown)->Threads(1)->Threads(2)->UseRealTime();

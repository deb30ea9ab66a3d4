// A Volume Shadow Copy for the time of a backup, as a requester of the
// Volume Shadow Copy service: a copy backup (VSS_BT_COPY: the writers'
// own backup histories are left alone) of the one volume that holds the
// source, in the backup context (the copy goes when the requester lets go
// of it, or when the process dies). vssapi.dll is loaded when a copy is
// asked for, so that the tool starts where it is missing, and its absence
// or refusal is one line naming the step and the service's code.
//
// The steps, in the order the service wants them: initialise for backup,
// set the backup state, gather the writers' metadata, start a snapshot
// set, add the volume, prepare for backup, make the set, read where the
// copy's device is. Letting go: backup complete, delete the set.
#include "local/ShadowCopy.h"

#include <windows.h>
#include <objbase.h>
#include <vss.h>
#include <vswriter.h>
#include <vsbackup.h>

#include <cstdio>
#include <filesystem>

#include "util/Error.h"

namespace qvhost {

namespace {

using CreateComponents = HRESULT(WINAPI*)(IVssBackupComponents**);

std::string Utf8(const std::wstring& wide) { return std::filesystem::path(wide).u8string(); }

std::string CodeText(HRESULT code) {
    char text[16];
    std::snprintf(text, sizeof text, "0x%08lX", static_cast<unsigned long>(code));
    return text;
}

// What the service's most common refusals mean, for the one line.
std::string Meaning(HRESULT code) {
    switch (code) {
        case E_ACCESSDENIED: return " (access denied: shadow copies need an administrator's rights)";
        case E_NOTIMPL: return " (not implemented on this system)";
        case VSS_E_BAD_STATE: return " (the service is in the wrong state)";
        case VSS_E_VOLUME_NOT_SUPPORTED: return " (the volume takes no shadow copies)";
        case VSS_E_MAXIMUM_NUMBER_OF_VOLUMES_REACHED:
        case VSS_E_MAXIMUM_NUMBER_OF_SNAPSHOTS_REACHED: return " (too many shadow copies)";
        case VSS_E_SNAPSHOT_SET_IN_PROGRESS: return " (another shadow copy is being made)";
        case VSS_E_UNEXPECTED_PROVIDER_ERROR:
        case VSS_E_UNEXPECTED_WRITER_ERROR: return " (a provider or writer failed)";
        default: return "";
    }
}

[[noreturn]] void Failed(const std::wstring& volume, const std::string& step, HRESULT code) {
    throw Error(ErrorKind::LocalFile, "cannot make a shadow copy of " + Utf8(volume) + ": " + step + " answered " +
                                          CodeText(code) + Meaning(code));
}

void Check(HRESULT code, const std::wstring& volume, const std::string& step) {
    if (FAILED(code)) Failed(volume, step, code);
}

// Waits for an asynchronous step and answers how it ended.
HRESULT Await(IVssAsync* async) {
    HRESULT waited = async->Wait();
    HRESULT status = S_OK;
    if (SUCCEEDED(waited)) waited = async->QueryStatus(&status, nullptr);
    async->Release();
    return FAILED(waited) ? waited : status;
}

void AwaitStep(HRESULT started, IVssAsync* async, const std::wstring& volume, const std::string& step) {
    Check(started, volume, step);
    Check(Await(async), volume, step);
}

}  // namespace

struct ShadowCopy::Session {
    HMODULE library = nullptr;
    bool comStarted = false;
    IVssBackupComponents* components = nullptr;
    VSS_ID set = GUID_NULL;
    bool made = false;

    ~Session() {
        if (components) {
            if (made) {
                IVssAsync* async = nullptr;
                if (SUCCEEDED(components->BackupComplete(&async)) && async) Await(async);
                LONG deleted = 0;
                VSS_ID notDeleted = GUID_NULL;
                components->DeleteSnapshots(set, VSS_OBJECT_SNAPSHOT_SET, TRUE, &deleted, &notDeleted);
            }
            components->Release();
        }
        if (comStarted) CoUninitialize();
        if (library) FreeLibrary(library);
    }
};

ShadowCopy::ShadowCopy(const std::string& folder) : session_(std::make_unique<Session>()) {
    const std::wstring path = std::filesystem::absolute(std::filesystem::u8path(folder)).wstring();
    wchar_t volumeName[MAX_PATH + 1] = {};
    if (!GetVolumePathNameW(path.c_str(), volumeName, MAX_PATH)) {
        throw Error(ErrorKind::LocalFile, "cannot make a shadow copy of " + folder + ": its volume is unknown (error " +
                                              std::to_string(GetLastError()) + ")");
    }
    std::wstring volume = volumeName;  // "C:\", with its backslash, as the service wants it
    if (volume.empty() || volume.back() != L'\\') volume += L'\\';

    const HRESULT com = CoInitializeEx(nullptr, COINIT_MULTITHREADED);
    Check(com, volume, "CoInitializeEx");
    session_->comStarted = true;
    // The service calls back into the requester: it must be allowed to.
    const HRESULT security =
        CoInitializeSecurity(nullptr, -1, nullptr, nullptr, RPC_C_AUTHN_LEVEL_PKT_PRIVACY, RPC_C_IMP_LEVEL_IDENTIFY,
                             nullptr, EOAC_DYNAMIC_CLOAKING, nullptr);
    if (security != RPC_E_TOO_LATE) Check(security, volume, "CoInitializeSecurity");

    session_->library = LoadLibraryW(L"vssapi.dll");
    if (!session_->library) Failed(volume, "loading vssapi.dll", HRESULT_FROM_WIN32(GetLastError()));
    const auto create = reinterpret_cast<CreateComponents>(
        reinterpret_cast<void*>(GetProcAddress(session_->library, "CreateVssBackupComponentsInternal")));
    if (!create) Failed(volume, "finding CreateVssBackupComponentsInternal", HRESULT_FROM_WIN32(GetLastError()));
    Check(create(&session_->components), volume, "CreateVssBackupComponents");
    if (!session_->components) Failed(volume, "CreateVssBackupComponents", E_POINTER);
    IVssBackupComponents& components = *session_->components;

    Check(components.InitializeForBackup(), volume, "InitializeForBackup");
    Check(components.SetContext(VSS_CTX_BACKUP), volume, "SetContext");
    Check(components.SetBackupState(false, false, VSS_BT_COPY, false), volume, "SetBackupState");
    IVssAsync* async = nullptr;
    AwaitStep(components.GatherWriterMetadata(&async), async, volume, "GatherWriterMetadata");
    Check(components.StartSnapshotSet(&session_->set), volume, "StartSnapshotSet");
    VSS_ID snapshot = GUID_NULL;
    Check(components.AddToSnapshotSet(&volume[0], GUID_NULL, &snapshot), volume, "AddToSnapshotSet");
    AwaitStep(components.PrepareForBackup(&async), async, volume, "PrepareForBackup");
    AwaitStep(components.DoSnapshotSet(&async), async, volume, "DoSnapshotSet");
    session_->made = true;

    VSS_SNAPSHOT_PROP properties = {};
    Check(components.GetSnapshotProperties(snapshot, &properties), volume, "GetSnapshotProperties");
    const std::wstring device = properties.m_pwszSnapshotDeviceObject ? properties.m_pwszSnapshotDeviceObject : L"";
    // The strings of the properties are the caller's to free.
    for (VSS_PWSZ text : {properties.m_pwszSnapshotDeviceObject, properties.m_pwszOriginalVolumeName,
                          properties.m_pwszOriginatingMachine, properties.m_pwszServiceMachine,
                          properties.m_pwszExposedName, properties.m_pwszExposedPath}) {
        CoTaskMemFree(text);
    }
    if (device.empty()) Failed(volume, "GetSnapshotProperties (no device)", E_UNEXPECTED);
    device_ = Utf8(device);
    // The folder's path below its volume, under the copy's device.
    std::wstring below = path.size() > volume.size() ? path.substr(volume.size()) : L"";
    folder_ = Utf8(below.empty() ? device : device + L"\\" + below);
}

ShadowCopy::~ShadowCopy() = default;

}  // namespace qvhost

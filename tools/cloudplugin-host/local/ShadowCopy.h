// A point-in-time copy of the volume that holds a backup's source, so that
// the backup reads every file as it was at one moment, files held open by
// other programs included: Windows' Volume Shadow Copy service (backup
// --use-fs-snapshot). ShadowCopyWin32.cpp makes it; on other systems
// (ShadowCopyPosix.cpp) there is none to make.
#pragma once

#include <memory>
#include <string>

namespace qvhost {

class ShadowCopy {
public:
    // A copy of the volume holding `folder`, kept until the object goes.
    // Throws Error (local file) naming the step that failed when the
    // service cannot make one (not running, no right to, or not there at
    // all: Wine has none), and Error (usage) where the system has no such
    // service.
    explicit ShadowCopy(const std::string& folder);
    ~ShadowCopy();
    ShadowCopy(const ShadowCopy&) = delete;
    ShadowCopy& operator=(const ShadowCopy&) = delete;

    // `folder` as seen in the copy: the path to read it from.
    const std::string& Folder() const { return folder_; }
    // The copy's device (\\?\GLOBALROOT\Device\HarddiskVolumeShadowCopyN).
    const std::string& Device() const { return device_; }

private:
    struct Session;
    std::unique_ptr<Session> session_;
    std::string folder_;
    std::string device_;
};

}  // namespace qvhost

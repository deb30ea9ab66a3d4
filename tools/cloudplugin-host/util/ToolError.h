// How a command fails: one exception type carrying the process exit status
// and, when the plug-in refused an operation, which operation, on which
// object, with which result code.
#pragma once

#include <cstdint>
#include <stdexcept>
#include <string>

#include "util/Json.h"

namespace qvhost {

// The tool's exit statuses.
enum ExitStatus : int {
    kExitOk = 0,
    kExitDamaged = 1,        // verify or restore found data that does not match its hashes
    kExitUsage = 2,          // bad command line
    kExitPluginFailed = 3,   // the plug-in answered an operation with a non-zero result code
    kExitLocalFile = 4,      // a local file or folder could not be read or written
    kExitSetUpFailed = 5,    // the JVM or the plug-in could not be loaded or created
    kExitNoSuchBackup = 6,   // the named backup or snapshot does not exist
    kExitWrongPassword = 7,  // no password given, or no key of the repository opens with it
    kExitLocked = 8,         // another process holds a lock that the command cannot share
    kExitUnsupported = 9,    // a repository of a format version this tool does not read, or none at all
    kExitInterrupted = 130,  // stopped by Ctrl-C or SIGTERM
};

class ToolError : public std::runtime_error {
public:
    ToolError(int exitStatus, const std::string& message) : std::runtime_error(message), exitStatus_(exitStatus) {}

    int exitStatus() const { return exitStatus_; }
    virtual Json ToJson() const { return Json{{"status", exitStatus_}, {"message", what()}}; }

private:
    int exitStatus_;
};

// A non-zero result code of a plug-in operation.
class PluginError : public ToolError {
public:
    PluginError(std::string operation, std::string object, uint32_t code)
        : ToolError(kExitPluginFailed, Describe(operation, object, code)),
          operation_(std::move(operation)),
          object_(std::move(object)),
          code_(code) {}
    // The same failure told in the command's own words.
    PluginError(std::string operation, std::string object, uint32_t code, const std::string& message)
        : ToolError(kExitPluginFailed, message),
          operation_(std::move(operation)),
          object_(std::move(object)),
          code_(code) {}

    const std::string& operation() const { return operation_; }
    const std::string& object() const { return object_; }
    uint32_t code() const { return code_; }

    Json ToJson() const override {
        return Json{{"status", exitStatus()},
                    {"message", what()},
                    {"operation", operation_},
                    {"object", object_},
                    {"code", code_}};
    }

private:
    static std::string Describe(const std::string& operation, const std::string& object, uint32_t code) {
        std::string text = "the plug-in's " + operation;
        if (!object.empty()) text += " of object '" + object + "'";
        return text + " failed with result code " + std::to_string(code);
    }

    std::string operation_;
    std::string object_;
    uint32_t code_;
};

}  // namespace qvhost

// How work fails: one exception type whose kind says what went wrong. The
// layers below the command line (repository/, local/, host/, legacy/) only
// ever say what happened; the command line alone turns a kind into an exit
// status and, where one helps, a hint of what to do (cli/ExitStatus.h).
#pragma once

#include <cerrno>
#include <cstring>
#include <stdexcept>
#include <string>

namespace qvhost {

enum class ErrorKind {
    Usage,          // a bad command line, or an argument the command cannot take
    Damaged,        // data that does not decode or does not match its hashes
    NotFound,       // the named snapshot, backup or path does not exist
    WrongPassword,  // no password given, or none of the repository's keys opens with it
    Locked,         // another process holds a lock the work cannot share
    NoRepository,   // no repository where the command needs one
    Unsupported,    // a repository or object of a format this tool does not read
    Exists,         // something the command would make exists already
    LocalFile,      // a local file or folder could not be read or written
    Storage,        // the storage refused an operation
    ObjectMissing,  // an object read does not exist (for a reader: damage)
    Archived,       // an object read is in the Archive tier and cannot be read until rehydrated
    SetUp,          // the JVM or the plug-in could not be loaded or created
    Interrupted,    // stopped by Ctrl-C or SIGTERM
    SourceFailed,   // what a backup reads from failed as a whole (a command that ended with an error)
};

class Error : public std::runtime_error {
public:
    Error(ErrorKind kind, const std::string& message, std::string object = "")
        : std::runtime_error(message), kind_(kind), object_(std::move(object)) {}

    ErrorKind kind() const { return kind_; }
    // The stored object the failure is about, when there is one.
    const std::string& object() const { return object_; }

private:
    ErrorKind kind_;
    std::string object_;
};

// The system's text for errno as it stands.
inline std::string ErrnoText() { return std::strerror(errno); }

// Data from storage that is not what this tool writes.
[[noreturn]] inline void Damaged(const std::string& what) { throw Error(ErrorKind::Damaged, what); }

}  // namespace qvhost

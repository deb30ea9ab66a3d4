// The tool's exit statuses, and the one place that turns a failure into
// one of them (with a hint of what to do, where one helps).
#pragma once

#include <string>
#include <utility>
#include <vector>

#include "util/Error.h"
#include "util/Json.h"

namespace qvhost {

// Where restic's table gives a number a meaning (0, 1, 3, 10, 11, 12, 130),
// the number means the same here, so that a wrapper written for restic
// reads this tool right; the tool's own meanings take numbers restic leaves
// unassigned. 7 is not used: it meant a wrong password until that moved to 12.
enum ExitStatus : int {
    kExitOk = 0,
    kExitFailed = 1,         // the command failed: damaged data found, or a failure of no other kind
    kExitDamaged = kExitFailed,  // verify, restore or check found data that does not match its hashes
    kExitUsage = 2,          // bad command line (restic's 2, a Go runtime error, has no counterpart here)
    kExitIncomplete = 3,     // a backup saved its snapshot, but some source entries could not be read
    kExitLocalFile = 4,      // a local file or folder could not be read or written
    kExitSetUpFailed = 5,    // the JVM or the plug-in could not be loaded or created
    kExitNoSuchBackup = 6,   // the named backup or snapshot does not exist
    kExitStorage = 8,        // the plug-in answered an operation with a non-zero result code (storage, archive tier)
    kExitUnsupported = 9,    // a repository of a format this tool does not read
    kExitNoRepository = 10,  // no repository under --repo
    kExitLocked = 11,        // another process holds a lock that the command cannot share
    kExitWrongPassword = 12, // no password given, or no key of the repository opens with it
    kExitInterrupted = 130,  // stopped by Ctrl-C or SIGTERM
};

struct ExitVerdict {
    int status = kExitOk;
    std::string hint;  // a sentence of what to do next; empty when there is none to give
};

// The exit status of a failure, and the hint the command line adds to its
// message. `command` is the command that failed, `target` its main argument
// (a snapshot, a backup), for hints that name them.
ExitVerdict ExitFor(const Error& error, const std::string& command = "", const std::string& target = "");

// Every exit status and what it means, for help and the man page.
const std::vector<std::pair<int, std::string>>& ExitStatusTable();

// The --json form of a failure: status, message, kind and, for a plug-in
// failure, the operation, the object and the result code.
Json ErrorJson(const Error& error, int status);

}  // namespace qvhost

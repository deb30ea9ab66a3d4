#include "local/StreamSource.h"

#include <fcntl.h>
#ifdef _WIN32
#include <io.h>
#else
#include <signal.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>
#endif

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <cstring>

#include "util/Error.h"
#include "util/PathRules.h"

#ifndef _WIN32
extern char** environ;
#endif

namespace qvhost {

namespace {

using repo::Node;
using repo::NodeType;

// The name without leading slashes, a path a restore takes.
std::string CheckedName(const std::string& given) {
    const size_t start = given.find_first_not_of('/');
    const std::string name = start == std::string::npos ? "" : given.substr(start);
    if (name.empty()) throw Error(ErrorKind::Usage, "--stdin-filename names no file");
    const std::string why = WhyPathIsRefused(name);
    if (!why.empty()) throw Error(ErrorKind::Usage, "--stdin-filename " + given + " " + why);
    return name;
}

class StreamReader : public repo::SourceReader {
public:
    explicit StreamReader(StreamSource& source) : source_(source) {}
    size_t Read(void* buffer, size_t size) override { return source_.Read(buffer, size); }

private:
    StreamSource& source_;
};

#ifndef _WIN32
// Waits for the child, through signals that interrupt the wait; answers
// waitpid's result.
pid_t WaitFor(pid_t child, int& status) {
    pid_t ended;
    while ((ended = waitpid(child, &status, 0)) < 0 && errno == EINTR) {
    }
    return ended;
}
#endif

std::string Joined(const std::vector<std::string>& words) {
    std::string text;
    for (const std::string& word : words) text += (text.empty() ? "" : " ") + word;
    return text;
}

}  // namespace

StreamSource::StreamSource(const std::string& name)
    : name_(CheckedName(name)),
      startedNs_(std::chrono::duration_cast<std::chrono::nanoseconds>(
                     std::chrono::system_clock::now().time_since_epoch())
                     .count()) {
#ifdef _WIN32
    _setmode(fd_, _O_BINARY);  // the stream's bytes as they are, no text translation
#endif
}

StreamSource::StreamSource(const std::string& name, const std::vector<std::string>& command) : StreamSource(name) {
    if (command.empty()) throw Error(ErrorKind::Usage, "--stdin-from-command needs a command after --");
    commandText_ = Joined(command);
#ifdef _WIN32
    throw Error(ErrorKind::Usage, "--stdin-from-command is not built in the Windows build: pipe the command's "
                                  "output into --stdin instead");
#else
    int pipeEnds[2];
    if (pipe2(pipeEnds, O_CLOEXEC) != 0) {
        throw Error(ErrorKind::SourceFailed, "cannot start " + commandText_ + ": " + ErrnoText());
    }
    posix_spawn_file_actions_t actions;
    posix_spawn_file_actions_init(&actions);
    posix_spawn_file_actions_adddup2(&actions, pipeEnds[1], STDOUT_FILENO);
    std::vector<char*> argv;
    for (const std::string& word : command) argv.push_back(const_cast<char*>(word.c_str()));
    argv.push_back(nullptr);
    const int failed = posix_spawnp(&child_, argv[0], &actions, nullptr, argv.data(), environ);
    posix_spawn_file_actions_destroy(&actions);
    close(pipeEnds[1]);
    if (failed != 0) {
        close(pipeEnds[0]);
        child_ = -1;
        throw Error(ErrorKind::SourceFailed, "cannot start " + commandText_ + ": " + std::strerror(failed));
    }
    fd_ = pipeEnds[0];
#endif
}

StreamSource::~StreamSource() {
#ifndef _WIN32
    if (child_ > 0) {
        // The backup stopped before the end of the stream: the command is
        // not waited for to the end of its output.
        close(fd_);
        kill(child_, SIGTERM);
        int status = 0;
        WaitFor(child_, status);
    }
#endif
}

repo::Listing StreamSource::List(const std::string& folder) {
    repo::Listing listing;
    for (std::string path = name_; !path.empty(); path = FolderOf(path)) {
        if (FolderOf(path) != folder) continue;
        Node node;
        node.name = NameOf(path);
        node.modifiedNs = startedNs_;
        if (path == name_) {
            node.type = NodeType::File;
            node.mode = 0644;
        } else {
            node.type = NodeType::Folder;
            node.mode = 0755;
            node.implicit = true;
        }
        listing.nodes.push_back(std::move(node));
    }
    return listing;
}

std::unique_ptr<repo::SourceReader> StreamSource::Open(const std::string& path) {
    if (path != name_ || opened_) throw Error(ErrorKind::SourceFailed, "the stream " + path + " can be read once only");
    opened_ = true;
    return std::make_unique<StreamReader>(*this);
}

size_t StreamSource::Read(void* buffer, size_t size) {
    size_t done = 0;
    while (done < size) {
#ifdef _WIN32
        const int got = _read(fd_, static_cast<char*>(buffer) + done,
                              static_cast<unsigned>(std::min<size_t>(size - done, 1u << 30)));
#else
        const ssize_t got = read(fd_, static_cast<char*>(buffer) + done, size - done);
#endif
        if (got < 0 && errno == EINTR) continue;
        if (got < 0) {
            throw Error(ErrorKind::SourceFailed,
                        "cannot read " + (commandText_.empty() ? std::string("standard input") : "the output of " + commandText_) +
                            ": " + ErrnoText());
        }
        if (got == 0) {
            // What was read comes first; the next read, which finds only
            // the end, learns how the command ended.
            if (done == 0) Finish();
            break;
        }
        done += static_cast<size_t>(got);
    }
    return done;
}

void StreamSource::Finish() {
#ifndef _WIN32
    if (child_ <= 0) return;
    close(fd_);
    int status = 0;
    const pid_t ended = WaitFor(child_, status);
    child_ = -1;
    if (ended < 0) throw Error(ErrorKind::SourceFailed, commandText_ + ": " + ErrnoText());
    if (WIFEXITED(status) && WEXITSTATUS(status) == 0) return;
    const std::string how = WIFEXITED(status) ? "exited with status " + std::to_string(WEXITSTATUS(status))
                                              : "was ended by signal " + std::to_string(WTERMSIG(status));
    throw Error(ErrorKind::SourceFailed, commandText_ + " " + how + ": no snapshot was made");
#endif
}

}  // namespace qvhost

// Runs the built cloudplugin-host as a separate process against a local
// Azurite blob service, the way a user runs it.
#pragma once

#include <sys/types.h>

#include <string>
#include <vector>

namespace e2e {

// A local Azurite blob service on a free loopback port with in-memory
// storage; stopped when destroyed. Shared() is the one the tests share:
// under ctest the run's own (the fixture test host_tool_azurite_start
// starts it; the file QV_E2E_AZURITE_PORT_FILE names holds its port), else
// one this test program starts. A test that stops the service makes its own.
class Azurite {
public:
    // Plain http, or HTTPS with the key and certificate of a PKCS#12 file.
    Azurite();
    Azurite(const std::string& pfx, const std::string& password);
    ~Azurite();
    Azurite(const Azurite&) = delete;
    Azurite& operator=(const Azurite&) = delete;
    static Azurite& Shared();

    int port() const { return port_; }
    // The connection string of Azurite's development account for a container.
    std::string ConnectionString(const std::string& container) const;
    // The same with an account SAS signed in the test (no account key), over
    // https://localhost when the service speaks TLS, with these permissions
    // (r read, w write, d delete, l list, a add, c create, u update, p process).
    std::string SasConnectionString(const std::string& container, const std::string& permissions = "rwdlacup") const;
    // Ends the service at once (SIGKILL), as a crash or a lost network would.
    void Kill();

private:
    struct Running {
        int port;
    };
    // One that another process started and stops: never stopped from here.
    explicit Azurite(Running running) : port_(running.port) {}
    void Start(const std::vector<std::string>& tlsArguments);

    pid_t pid_ = -1;
    int port_ = 0;
    bool tls_ = false;
    std::string folder_;
};

// The Java library's fault proxy (FaultProxyLauncher in the library's
// tests) as a process of its own in front of an Azurite, with the faults
// given (see the launcher for their forms, e.g. "cut-body:1000000",
// "busy:15", "status:403:KeyBasedAuthenticationNotPermitted"). It listens
// on loopback, or on `bindAddress`; stopped when destroyed. Not for the
// Windows build.
class FaultProxy {
public:
    FaultProxy(const Azurite& azurite, const std::vector<std::string>& faults, const std::string& bindAddress = "");
    ~FaultProxy();
    FaultProxy(const FaultProxy&) = delete;
    FaultProxy& operator=(const FaultProxy&) = delete;

    int port() const { return port_; }
    // Azurite's connection string for the container, through the proxy,
    // with `extra` ("Key=Value;...") after it.
    std::string ConnectionString(const std::string& container, const std::string& extra = "") const;
    // A line for each request the proxy is done with:
    // "METHOD PATH?QUERY range=... if-match=... fault=KIND reply=STATUS
    // tier=... priority=..." (x-ms-access-tier, x-ms-rehydrate-priority).
    std::vector<std::string> Requests() const;
    // The requests whose line holds every one of `parts`.
    size_t Count(const std::vector<std::string>& parts) const;
    // A folder of the proxy's own (for a hold-get fault's handshake).
    const std::string& folder() const { return folder_; }
    // For a failed test's message: the proxy's own notes (standard error)
    // and its last requests.
    std::string Diagnostics() const;

private:
    pid_t pid_ = -1;
    int port_ = 0;
    std::string host_;
    std::string folder_;
};

struct ToolRun {
    int status = -1;  // the exit status, or 128 + signal
    std::string out;  // standard output
    std::string err;  // standard error
};

// Runs the tool with the arguments; waits for it to end.
ToolRun RunTool(const std::vector<std::string>& arguments);
// Runs the tool under a wrapper command (e.g. {"setpriv", ...}) whose last
// word is followed by the tool and its arguments.
ToolRun RunToolUnder(const std::vector<std::string>& wrapper, const std::vector<std::string>& arguments);

// Runs version2-writer (tools/version2-writer), which makes backups of the
// version 2 layout that the tool only reads; it takes the tool's global
// options and one command, backup.
ToolRun RunWriter(const std::vector<std::string>& arguments);

// Starts the tool without waiting; standard error goes to `errorFile`.
pid_t StartTool(const std::vector<std::string>& arguments, const std::string& errorFile);
// The same with version2-writer.
pid_t StartWriter(const std::vector<std::string>& arguments, const std::string& errorFile);
// Waits for a started tool; answers its exit status (128 + signal if killed).
int WaitTool(pid_t pid);

}  // namespace e2e

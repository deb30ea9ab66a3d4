#include "ToolRunner.h"

#include <arpa/inet.h>
#include <openssl/evp.h>
#include <openssl/hmac.h>
#include <fcntl.h>
#include <netinet/in.h>
#include <signal.h>
#include <spawn.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

#include <atomic>
#include <cctype>
#include <chrono>
#include <cstring>
#include <ctime>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <sstream>
#include <stdexcept>
#include <thread>

extern char** environ;

namespace e2e {

namespace {

std::string ReadWhole(const std::string& path) {
    std::ifstream in(path, std::ios::binary);
    std::ostringstream out;
    out << in.rdbuf();
    return out.str();
}

int FreeLoopbackPort() {
    const int s = socket(AF_INET, SOCK_STREAM, 0);
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    socklen_t length = sizeof address;
    if (bind(s, reinterpret_cast<sockaddr*>(&address), sizeof address) != 0 ||
        getsockname(s, reinterpret_cast<sockaddr*>(&address), &length) != 0) {
        close(s);
        throw std::runtime_error("no free loopback port");
    }
    close(s);
    return ntohs(address.sin_port);
}

bool Accepts(int port) {
    const int s = socket(AF_INET, SOCK_STREAM, 0);
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    address.sin_port = htons(static_cast<uint16_t>(port));
    const bool connected = connect(s, reinterpret_cast<sockaddr*>(&address), sizeof address) == 0;
    close(s);
    return connected;
}

// Azurite's executable: AZURITE_BIN from the environment, else the one the
// build was configured with; either may be an npm prefix.
std::string AzuriteExecutable() {
    const char* configured = std::getenv("AZURITE_BIN");
    std::filesystem::path path = configured && *configured ? configured : QV_AZURITE_BIN;
    if (std::filesystem::is_directory(path)) path = path / "node_modules" / ".bin" / "azurite-blob";
    return path.string();
}

pid_t Spawn(const std::vector<std::string>& arguments, const std::string& outFile, const std::string& errFile) {
    posix_spawn_file_actions_t actions;
    posix_spawn_file_actions_init(&actions);
    posix_spawn_file_actions_addopen(&actions, 0, "/dev/null", O_RDONLY, 0);
    posix_spawn_file_actions_addopen(&actions, 1, outFile.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0644);
    posix_spawn_file_actions_addopen(&actions, 2, errFile.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0644);
    std::vector<char*> argv;
    for (const std::string& argument : arguments) argv.push_back(const_cast<char*>(argument.c_str()));
    argv.push_back(nullptr);
    pid_t pid = -1;
    const int failed = posix_spawnp(&pid, argv[0], &actions, nullptr, argv.data(), environ);
    posix_spawn_file_actions_destroy(&actions);
    if (failed) throw std::runtime_error("cannot start " + arguments[0] + ": " + std::strerror(failed));
    return pid;
}

// One temporary folder for the test program's runs, removed when it ends
// (after the shared Azurite, which was made later, has stopped).
std::string RunFolder() {
    struct Folder {
        std::string path;
        Folder() {
            std::string pattern = (std::filesystem::temp_directory_path() / "cloudplugin-e2e-XXXXXX").string();
            if (!mkdtemp(&pattern[0])) throw std::runtime_error("no temporary folder");
            path = pattern;
        }
        ~Folder() {
            std::error_code ignored;
            std::filesystem::remove_all(path, ignored);
        }
    };
    static const Folder folder;
    return folder.path;
}

std::vector<std::string> WithProgram(const char* program, const std::vector<std::string>& arguments) {
    std::vector<std::string> all = {program};
    all.insert(all.end(), arguments.begin(), arguments.end());
    return all;
}

std::vector<std::string> WithTool(const std::vector<std::string>& arguments) {
    return WithProgram(QV_TOOL_PATH, arguments);
}

// The port of the test run's Azurite, or 0 when the test program runs
// outside ctest and starts its own.
int PortOfTheRunsAzurite() {
    const char* file = std::getenv("QV_E2E_AZURITE_PORT_FILE");
    if (!file || !*file) return 0;
    int port = 0;
    std::ifstream(file) >> port;
    if (port <= 0)
        throw std::runtime_error(std::string("no Azurite port in ") + file +
                                 " (the fixture host_tool_azurite_start starts it; see its output)");
    return port;
}

}  // namespace

Azurite& Azurite::Shared() {
    static const int port = PortOfTheRunsAzurite();
    static Azurite azurite = port ? Azurite(Running{port}) : Azurite();
    return azurite;
}

Azurite::Azurite() { Start({}); }

Azurite::Azurite(const std::string& pfx, const std::string& password) : tls_(true) {
    Start({"--cert", pfx, "--pwd", password});
}

void Azurite::Start(const std::vector<std::string>& tlsArguments) {
    static int instances = 0;
    folder_ = RunFolder() + "/azurite" + std::to_string(++instances);
    std::filesystem::create_directories(folder_);
    for (int attempt = 0; attempt < 3 && pid_ < 0; ++attempt) {
        port_ = FreeLoopbackPort();
        std::vector<std::string> command = {AzuriteExecutable(), "--blobHost", "127.0.0.1", "--blobPort",
                                            std::to_string(port_), "--inMemoryPersistence", "--disableTelemetry",
                                            "--skipApiVersionCheck", "--silent"};
        command.insert(command.end(), tlsArguments.begin(), tlsArguments.end());
        const pid_t pid = Spawn(command, folder_ + "/azurite.out", folder_ + "/azurite.err");
        const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(60);
        while (std::chrono::steady_clock::now() < deadline) {
            if (Accepts(port_)) {
                pid_ = pid;
                break;
            }
            int status = 0;
            if (waitpid(pid, &status, WNOHANG) == pid) break;  // it ended: try another port
            std::this_thread::sleep_for(std::chrono::milliseconds(100));
        }
        if (pid_ < 0) {
            kill(pid, SIGKILL);
            waitpid(pid, nullptr, 0);
        }
    }
    if (pid_ < 0) throw std::runtime_error("Azurite did not start; see " + folder_);
}

Azurite::~Azurite() {
    if (pid_ > 0) {
        kill(pid_, SIGTERM);
        waitpid(pid_, nullptr, 0);
    }
}

void Azurite::Kill() {
    if (pid_ <= 0) return;
    kill(pid_, SIGKILL);
    waitpid(pid_, nullptr, 0);
    pid_ = -1;
}

std::string Azurite::ConnectionString(const std::string& container) const {
    return "DefaultEndpointsProtocol=http;AccountName=devstoreaccount1;"
           "AccountKey=Eby8vdM02xNOcqFlqUwJPLlmEtlCDXJ1OUzFT50uSRZ6IFsuFq2UVErCz4I6tq/K1SZFPTOtr/KBHBeksoGMGw==;"
           "BlobEndpoint=http://127.0.0.1:" +
           std::to_string(port_) + "/devstoreaccount1;Container=" + container;
}

namespace {

constexpr const char* kDevelopmentKey =
    "Eby8vdM02xNOcqFlqUwJPLlmEtlCDXJ1OUzFT50uSRZ6IFsuFq2UVErCz4I6tq/K1SZFPTOtr/KBHBeksoGMGw==";

std::string Base64(const unsigned char* bytes, size_t size) {
    std::string text(4 * ((size + 2) / 3) + 1, '\0');
    text.resize(static_cast<size_t>(EVP_EncodeBlock(reinterpret_cast<unsigned char*>(&text[0]), bytes,
                                                    static_cast<int>(size))));
    return text;
}

std::string PercentEncoded(const std::string& text) {
    std::string out;
    for (const unsigned char c : text) {
        if (std::isalnum(c) || c == '-' || c == '_' || c == '.' || c == '~') {
            out.push_back(static_cast<char>(c));
        } else {
            char escaped[4];
            std::snprintf(escaped, sizeof escaped, "%%%02X", c);
            out += escaped;
        }
    }
    return out;
}

// An account SAS for the Blob service (version 2020-12-06) with these
// permissions on services, containers and objects, valid for a day.
std::string AccountSas(const std::string& permissions) {
    const size_t length = std::strlen(kDevelopmentKey);
    unsigned char key[66];
    EVP_DecodeBlock(key, reinterpret_cast<const unsigned char*>(kDevelopmentKey), static_cast<int>(length));
    const size_t padding = (kDevelopmentKey[length - 1] == '=') + (kDevelopmentKey[length - 2] == '=');
    const size_t keySize = length / 4 * 3 - padding;
    const std::time_t expiry = std::time(nullptr) + 86400;
    std::tm parts{};
    gmtime_r(&expiry, &parts);
    char se[32];
    std::strftime(se, sizeof se, "%Y-%m-%dT%H:%M:%SZ", &parts);
    const std::string toSign = "devstoreaccount1\n" + permissions + "\nb\nsco\n\n" + se + "\n\n\n2020-12-06\n\n";
    unsigned char mac[32];
    unsigned int macSize = 0;
    HMAC(EVP_sha256(), key, static_cast<int>(keySize), reinterpret_cast<const unsigned char*>(toSign.data()), toSign.size(), mac,
         &macSize);
    return "sv=2020-12-06&ss=b&srt=sco&sp=" + permissions + "&se=" + PercentEncoded(se) +
           "&sig=" + PercentEncoded(Base64(mac, macSize));
}

}  // namespace

std::string Azurite::SasConnectionString(const std::string& container, const std::string& permissions) const {
    return std::string("BlobEndpoint=") + (tls_ ? "https://localhost:" : "http://127.0.0.1:") +
           std::to_string(port_) + "/devstoreaccount1;SharedAccessSignature=" + AccountSas(permissions) +
           ";Container=" + container;
}

#ifdef QV_FAULT_PROXY_JAR
FaultProxy::FaultProxy(const Azurite& azurite, const std::vector<std::string>& faults, const std::string& bindAddress)
    : host_(bindAddress.empty() ? "127.0.0.1" : bindAddress) {
    static int instances = 0;
    folder_ = RunFolder() + "/proxy" + std::to_string(++instances);
    std::filesystem::create_directories(folder_);
    const std::string portFile = folder_ + "/port";
    std::vector<std::string> command = {QV_JAVA_PATH, "-cp", QV_FAULT_PROXY_JAR, "com.qv.AzureLibrary.FaultProxyLauncher",
                                        "--upstream", std::to_string(azurite.port()), "--port-file", portFile,
                                        "--log", folder_ + "/requests.log"};
    if (!bindAddress.empty()) command.insert(command.end(), {"--bind", bindAddress});
    command.insert(command.end(), faults.begin(), faults.end());
    const pid_t pid = Spawn(command, folder_ + "/proxy.out", folder_ + "/proxy.err");
    const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(60);
    while (std::chrono::steady_clock::now() < deadline) {
        if (std::filesystem::exists(portFile)) {
            port_ = std::stoi(ReadWhole(portFile));
            pid_ = pid;
            return;
        }
        int status = 0;
        if (waitpid(pid, &status, WNOHANG) == pid) {
            throw std::runtime_error("the fault proxy ended at its start: " + ReadWhole(folder_ + "/proxy.err"));
        }
        std::this_thread::sleep_for(std::chrono::milliseconds(50));
    }
    kill(pid, SIGKILL);
    waitpid(pid, nullptr, 0);
    throw std::runtime_error("the fault proxy did not start; see " + folder_);
}

FaultProxy::~FaultProxy() {
    if (pid_ > 0) {
        kill(pid_, SIGTERM);
        waitpid(pid_, nullptr, 0);
    }
}

std::string FaultProxy::ConnectionString(const std::string& container, const std::string& extra) const {
    return std::string("DefaultEndpointsProtocol=http;AccountName=devstoreaccount1;AccountKey=") + kDevelopmentKey +
           ";BlobEndpoint=http://" + host_ + ":" + std::to_string(port_) + "/devstoreaccount1;Container=" + container +
           (extra.empty() ? "" : ";" + extra);
}

// The proxy logs a request once it is done with it, which may be a moment
// after the tool saw the answer and ended: the log is read again until it
// has not grown for a quarter of a second (at most three seconds).
std::vector<std::string> FaultProxy::Requests() const {
    std::string text = ReadWhole(folder_ + "/requests.log");
    const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(3);
    while (std::chrono::steady_clock::now() < deadline) {
        std::this_thread::sleep_for(std::chrono::milliseconds(250));
        std::string again = ReadWhole(folder_ + "/requests.log");
        if (again == text) break;
        text = std::move(again);
    }
    std::vector<std::string> lines;
    std::istringstream in(text);
    for (std::string line; std::getline(in, line);) lines.push_back(line);
    return lines;
}

std::string FaultProxy::Diagnostics() const {
    const std::vector<std::string> requests = Requests();
    std::string text = "\nthe fault proxy's notes:\n" + ReadWhole(folder_ + "/proxy.err") + "its last requests:\n";
    for (size_t i = requests.size() > 30 ? requests.size() - 30 : 0; i < requests.size(); ++i) {
        text += requests[i] + "\n";
    }
    return text;
}

size_t FaultProxy::Count(const std::vector<std::string>& parts) const {
    size_t count = 0;
    for (const std::string& line : Requests()) {
        bool all = true;
        for (const std::string& part : parts) all = all && line.find(part) != std::string::npos;
        count += all ? 1 : 0;
    }
    return count;
}
#endif

namespace {

ToolRun RunCommand(const std::vector<std::string>& command) {
    static std::atomic<int> runs{0};
    const std::string stem = RunFolder() + "/run" + std::to_string(++runs);
    ToolRun run;
    run.status = WaitTool(Spawn(command, stem + ".out", stem + ".err"));
    run.out = ReadWhole(stem + ".out");
    run.err = ReadWhole(stem + ".err");
    return run;
}

}  // namespace

ToolRun RunToolUnder(const std::vector<std::string>& wrapper, const std::vector<std::string>& arguments) {
    std::vector<std::string> command = wrapper;
    for (const std::string& word : WithTool(arguments)) command.push_back(word);
    return RunCommand(command);
}

ToolRun RunTool(const std::vector<std::string>& arguments) { return RunToolUnder({}, arguments); }

ToolRun RunWriter(const std::vector<std::string>& arguments) {
    return RunCommand(WithProgram(QV_WRITER_PATH, arguments));
}

pid_t StartTool(const std::vector<std::string>& arguments, const std::string& errorFile) {
    return Spawn(WithTool(arguments), "/dev/null", errorFile);
}

pid_t StartWriter(const std::vector<std::string>& arguments, const std::string& errorFile) {
    return Spawn(WithProgram(QV_WRITER_PATH, arguments), "/dev/null", errorFile);
}

int WaitTool(pid_t pid) {
    int status = 0;
    while (waitpid(pid, &status, 0) < 0) {
    }
    if (WIFEXITED(status)) return WEXITSTATUS(status);
    return WIFSIGNALED(status) ? 128 + WTERMSIG(status) : -1;
}

}  // namespace e2e

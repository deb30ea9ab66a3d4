#include "Commands.h"

#include <algorithm>
#include <atomic>
#include <chrono>
#include <cstdio>
#include <cstring>
#include <ctime>
#include <exception>
#include <filesystem>
#include <mutex>
#include <random>
#include <thread>

#include "Interrupt.h"
#include "LocalFiles.h"
#include "Sha256.h"
#include "ToolError.h"

namespace qvhost {

namespace {

// Metadata property names written with every file part.
constexpr const char* kPathProperty = "path";
constexpr const char* kSizeProperty = "size";
constexpr const char* kModifiedProperty = "modified_ns";
constexpr const char* kPartProperty = "part";
constexpr const char* kPartsProperty = "parts";
constexpr const char* kPartShaProperty = "part_sha256";
constexpr const char* kFileShaProperty = "file_sha256";
constexpr const char* kBackupProperty = "backup";
// Metadata of the manifest object.
constexpr const char* kFilesProperty = "files";
constexpr const char* kBytesProperty = "bytes";
constexpr const char* kCreatedProperty = "created";
constexpr const char* kSourceProperty = "source";
constexpr const char* kManifestShaProperty = "manifest_sha256";

std::string UtcNow(const char* format) {
    const std::time_t now = std::time(nullptr);
    std::tm parts{};
#ifdef _WIN32
    gmtime_s(&parts, &now);
#else
    gmtime_r(&now, &parts);
#endif
    char text[64];
    std::strftime(text, sizeof text, format, &parts);
    return text;
}

std::string NewBackupId() {
    std::random_device random;
    char suffix[8];
    std::snprintf(suffix, sizeof suffix, "%04x", static_cast<unsigned>(random() & 0xFFFF));
    return UtcNow("%Y%m%d-%H%M%S-") + suffix;
}

std::string AbsolutePath(const std::string& path) {
    std::error_code error;
    const std::filesystem::path absolute = std::filesystem::absolute(std::filesystem::u8path(path), error);
    return error ? path : absolute.lexically_normal().u8string();
}

double MiBPerSecond(uint64_t bytes, double seconds) {
    return seconds > 0 ? static_cast<double>(bytes) / (1024.0 * 1024.0) / seconds : 0;
}

uint64_t ToNumber(const std::string& text) {
    try {
        return std::stoull(text);
    } catch (const std::exception&) {
        return 0;
    }
}

[[noreturn]] void ChangedWhileReading(const std::string& path) {
    throw ToolError(kExitLocalFile, path + " changed while it was being backed up");
}

}  // namespace

uint64_t ParseSize(const std::string& text) {
    if (text.empty() || text[0] < '0' || text[0] > '9') return 0;
    size_t used = 0;
    uint64_t value = 0;
    try {
        value = std::stoull(text, &used);
    } catch (const std::exception&) {
        return 0;
    }
    std::string unit = text.substr(used);
    if (!unit.empty() && (unit.back() == 'B' || unit.back() == 'b')) unit.pop_back();
    if (!unit.empty() && (unit.back() == 'i')) unit.pop_back();
    int shift = 0;
    if (unit.empty()) shift = 0;
    else if (unit == "K" || unit == "k") shift = 10;
    else if (unit == "M" || unit == "m") shift = 20;
    else if (unit == "G" || unit == "g") shift = 30;
    else return 0;
    if (value > (UINT64_MAX >> shift)) return 0;
    return value << shift;
}

void RunInParallel(unsigned jobs, size_t count, const std::function<void(size_t index, unsigned worker)>& work) {
    std::atomic<size_t> next{0};
    std::atomic<bool> stop{false};
    std::exception_ptr failure;
    std::mutex failureMutex;
    auto run = [&](unsigned worker) {
        for (;;) {
            if (stop || Interrupted()) return;
            const size_t index = next++;
            if (index >= count) return;
            try {
                work(index, worker);
            } catch (...) {
                std::lock_guard<std::mutex> lock(failureMutex);
                if (!failure) failure = std::current_exception();
                stop = true;
                return;
            }
        }
    };
    jobs = std::max(1u, std::min<unsigned>(jobs, static_cast<unsigned>(std::max<size_t>(count, 1))));
    std::vector<std::thread> threads;
    for (unsigned worker = 1; worker < jobs; ++worker) threads.emplace_back(run, worker);
    run(0);
    for (std::thread& thread : threads) thread.join();
    if (failure) std::rethrow_exception(failure);
    if (Interrupted()) throw ToolError(kExitInterrupted, "interrupted");
}

Commands::Commands(PluginSession& session, const CommandOptions& options) : session_(session), options_(options) {}

void Commands::Say(const std::string& text) const {
    if (options_.json || options_.quiet) return;
    std::fputs(text.c_str(), stdout);
    std::fputc('\n', stdout);
    std::fflush(stdout);
}

void Commands::SayPluginShare(double pluginSeconds, double seconds) const {
    char line[160];
    std::snprintf(line, sizeof line,
                  "inside the plug-in (with the JVM and the storage service): %.1f s of thread time, "
                  "%.0f%% of %u jobs x %.1f s",
                  pluginSeconds, seconds > 0 ? 100.0 * pluginSeconds / (seconds * options_.jobs) : 0.0,
                  options_.jobs, seconds);
    Say(line);
}

ProgressStyle Commands::Style() const {
    return options_.json || options_.quiet ? ProgressStyle::Silent : DefaultProgressStyle();
}

// ---------------------------------------------------------------- backup

void Commands::BackupFile(const std::string& sourceFolder, const SourceFile& source, uint32_t index,
                          const std::string& backupId, ManifestFile& entry, Progress& progress,
                          std::vector<uint8_t>& buffer, const std::function<void(const std::string&)>& wrote) {
    const std::string path = JoinPath(sourceFolder, source.relativePath);
    const uint64_t partSize = options_.partSize;
    const uint64_t parts = PartCount(source.size, partSize);
    InputFile input(path);

    // First pass: the file's hash goes into every part's metadata, so it is
    // known before the first part is written.
    Sha256 fileHash;
    Sha256 partHash;
    std::vector<std::string> partHashes;
    uint64_t total = 0;
    for (uint64_t part = 0; part < parts; ++part) {
        const size_t want = static_cast<size_t>(std::min(partSize, source.size - part * partSize));
        if (input.Read(buffer.data(), want) != want) ChangedWhileReading(path);
        fileHash.Update(buffer.data(), want);
        partHash.Update(buffer.data(), want);
        partHashes.push_back(ToHex(partHash.Final()));
        total += want;
    }
    uint8_t extra;
    if (input.Read(&extra, 1) != 0 || total != source.size) ChangedWhileReading(path);
    const std::string fileSha = ToHex(fileHash.Final());

    // Second pass: each part is hashed again as it is written, so what is
    // stored is exactly what the manifest describes.
    input.Rewind();
    Metadata metadata = {{kPathProperty, source.relativePath},
                         {kSizeProperty, std::to_string(source.size)},
                         {kModifiedProperty, std::to_string(source.modifiedNs)},
                         {kPartsProperty, std::to_string(parts)},
                         {kFileShaProperty, fileSha},
                         {kBackupProperty, backupId}};
    for (uint64_t part = 0; part < parts; ++part) {
        if (Interrupted()) throw ToolError(kExitInterrupted, "interrupted");
        const size_t want = static_cast<size_t>(std::min(partSize, source.size - part * partSize));
        if (input.Read(buffer.data(), want) != want) ChangedWhileReading(path);
        partHash.Update(buffer.data(), want);
        if (ToHex(partHash.Final()) != partHashes[part]) ChangedWhileReading(path);
        metadata[kPartProperty] = std::to_string(part);
        metadata[kPartShaProperty] = partHashes[part];
        const std::string name = options_.layout.PartName(backupId, index, part);
        wrote(name);  // noted before the call: a failed write may still leave an object
        session_.Write(name, buffer.data(), want, metadata);
        progress.AddBytes(want);
    }
    entry.index = index;
    entry.relativePath = source.relativePath;
    entry.size = source.size;
    entry.modifiedNs = source.modifiedNs;
    entry.sha256 = fileSha;
    entry.partSha256 = std::move(partHashes);
    progress.FileDone(source.relativePath, source.size);
}

CommandResult Commands::Backup(const std::string& sourceFolder) {
    const std::vector<SourceFile> sources = ListTree(sourceFolder);
    const std::string backupId = options_.backupName.empty() ? NewBackupId() : options_.backupName;
    if (!IsValidBackupId(backupId)) throw ToolError(kExitUsage, "not a usable backup name: " + backupId);
    const BackupLayout& layout = options_.layout;
    if (session_.Exists(layout.ManifestName(backupId))) {
        throw ToolError(kExitUsage, "a backup named " + backupId + " exists already");
    }

    Manifest manifest;
    manifest.backupId = backupId;
    manifest.source = AbsolutePath(sourceFolder);
    manifest.created = UtcNow("%Y-%m-%dT%H:%M:%SZ");
    manifest.partSize = options_.partSize;
    manifest.files.resize(sources.size());
    uint64_t totalBytes = 0;
    for (const SourceFile& source : sources) totalBytes += source.size;
    Say("backup " + backupId + ": " + std::to_string(sources.size()) + " files, " +
        FormatBytes(static_cast<double>(totalBytes)) + " from " + manifest.source);

    std::mutex writtenMutex;
    std::vector<std::string> written;
    auto wrote = [&](const std::string& name) {
        std::lock_guard<std::mutex> lock(writtenMutex);
        written.push_back(name);
    };
    const double pluginBefore = session_.PluginSeconds();
    Progress progress("backup", totalBytes, sources.size(), Style());
    std::vector<std::vector<uint8_t>> buffers(options_.jobs);
    try {
        RunInParallel(options_.jobs, sources.size(), [&](size_t index, unsigned worker) {
            std::vector<uint8_t>& buffer = buffers[worker];
            if (buffer.empty()) buffer.resize(static_cast<size_t>(std::max<uint64_t>(options_.partSize, 1)));
            BackupFile(sourceFolder, sources[index], static_cast<uint32_t>(index), backupId, manifest.files[index],
                       progress, buffer, wrote);
        });
    } catch (const ToolError&) {
        progress.Finish();
        // No manifest is written, so the backup never counts as complete;
        // its parts are removed as far as the storage allows.
        size_t removed = 0;
        for (const std::string& name : written) {
            try {
                session_.Delete(name);
                ++removed;
            } catch (const ToolError&) {
            }
        }
        if (!options_.json) {
            std::fprintf(stderr, "backup %s stopped: no manifest written, %zu of %zu parts removed\n",
                         backupId.c_str(), removed, written.size());
        }
        throw;
    }
    progress.Finish();

    const std::string text = EncodeManifest(manifest);
    const Metadata manifestMetadata = {{kFilesProperty, std::to_string(manifest.files.size())},
                                       {kBytesProperty, std::to_string(totalBytes)},
                                       {kCreatedProperty, manifest.created},
                                       {kSourceProperty, manifest.source},
                                       {kManifestShaProperty, ToHex(Sha256Of(text.data(), text.size()))}};
    session_.Write(layout.ManifestName(backupId), reinterpret_cast<const uint8_t*>(text.data()), text.size(),
                   manifestMetadata);

    const double seconds = progress.Seconds();
    const double pluginSeconds = session_.PluginSeconds() - pluginBefore;
    Say("backed up " + std::to_string(manifest.files.size()) + " files, " +
        FormatBytes(static_cast<double>(totalBytes)) + " in " + std::to_string(written.size()) + " objects, " +
        FormatDuration(seconds) + " (" + FormatBytes(MiBPerSecond(totalBytes, seconds) * 1048576) + "/s)");
    SayPluginShare(pluginSeconds, seconds);
    Say("backup id: " + backupId);
    CommandResult result;
    result.json = Json::Object({{"command", "backup"},
                                {"ok", true},
                                {"backup", backupId},
                                {"files", static_cast<uint64_t>(manifest.files.size())},
                                {"bytes", totalBytes},
                                {"objects", static_cast<uint64_t>(written.size())},
                                {"seconds", seconds},
                                {"mib_per_s", MiBPerSecond(totalBytes, seconds)},
                                {"plugin_seconds", pluginSeconds}});
    return result;
}

// ---------------------------------------------------------------- restore and verify

Manifest Commands::ReadManifest(const std::string& backupId) {
    if (!IsValidBackupId(backupId)) throw ToolError(kExitUsage, "not a backup name: " + backupId);
    const std::string name = options_.layout.ManifestName(backupId);
    if (!session_.Exists(name)) throw ToolError(kExitNoSuchBackup, "no complete backup named " + backupId);
    const std::string text = session_.ReadAll(name);
    const std::string expected = session_.Property(name, kManifestShaProperty);
    if (ToHex(Sha256Of(text.data(), text.size())) != expected) {
        throw ToolError(kExitDamaged, "the manifest of " + backupId + " does not match its hash");
    }
    Manifest manifest = DecodeManifest(text);
    if (manifest.backupId != backupId) throw ToolError(kExitDamaged, "the manifest names another backup");
    return manifest;
}

bool Commands::ReadFileBack(const Manifest& manifest, const ManifestFile& file, Progress& progress,
                            std::vector<uint8_t>& buffer, const Sink& sink, Problem& problem) {
    Sha256 fileHash;
    Sha256 partHash;
    problem.file = file.relativePath;
    for (uint64_t part = 0; part < file.partSha256.size(); ++part) {
        if (Interrupted()) throw ToolError(kExitInterrupted, "interrupted");
        const std::string name = options_.layout.PartName(manifest.backupId, file.index, part);
        const uint64_t expected = std::min(manifest.partSize, file.size - part * manifest.partSize);
        // One byte more than expected shows an object that grew.
        Metadata metadata;
        const uint64_t read = session_.Read(name, buffer.data(), 0, expected + 1, {kPartShaProperty}, metadata);
        problem.object = name;
        if (read != expected) {
            problem.what = "holds " + std::to_string(read) + " bytes, expected " + std::to_string(expected);
            return false;
        }
        partHash.Update(buffer.data(), static_cast<size_t>(read));
        if (ToHex(partHash.Final()) != file.partSha256[part]) {
            problem.what = "does not match its SHA-256";
            return false;
        }
        const auto stored = metadata.find(kPartShaProperty);
        if (stored != metadata.end() && stored->second != file.partSha256[part]) {
            problem.what = "carries a part hash that differs from the manifest";
            return false;
        }
        fileHash.Update(buffer.data(), static_cast<size_t>(read));
        sink(buffer.data(), static_cast<size_t>(read));
        progress.AddBytes(read);
    }
    problem.object.clear();
    if (ToHex(fileHash.Final()) != file.sha256) {
        problem.what = "does not match the file's SHA-256";
        return false;
    }
    return true;
}

CommandResult Commands::CheckBackup(const std::string& command, const std::string& backupId,
                                    const std::string* destinationFolder) {
    const Manifest manifest = ReadManifest(backupId);
    const uint64_t totalBytes = manifest.TotalBytes();
    if (destinationFolder && !options_.overwrite) {
        for (const ManifestFile& file : manifest.files) {
            const std::string target = JoinPath(*destinationFolder, file.relativePath);
            if (PathExists(target)) throw ToolError(kExitLocalFile, target + " exists (--overwrite replaces it)");
        }
    }
    Say(command + " " + backupId + ": " + std::to_string(manifest.files.size()) + " files, " +
        FormatBytes(static_cast<double>(totalBytes)));

    std::mutex problemsMutex;
    std::vector<Problem> problems;
    const double pluginBefore = session_.PluginSeconds();
    Progress progress(command, totalBytes, manifest.files.size(), Style());
    std::vector<std::vector<uint8_t>> buffers(options_.jobs);
    try {
        RunInParallel(options_.jobs, manifest.files.size(), [&](size_t index, unsigned worker) {
            const ManifestFile& file = manifest.files[index];
            std::vector<uint8_t>& buffer = buffers[worker];
            if (buffer.size() < manifest.partSize + 1) buffer.resize(static_cast<size_t>(manifest.partSize + 1));
            Problem problem;
            bool good = false;
            if (!destinationFolder) {
                good = ReadFileBack(manifest, file, progress, buffer, [](const uint8_t*, size_t) {}, problem);
            } else {
                // Written beside its final name and renamed only once every
                // hash matched, so a damaged file is never left as restored.
                const std::string target = JoinPath(*destinationFolder, file.relativePath);
                const std::string partial = target + ".cloudplugin-partial";
                try {
                    OutputFile output(partial, true);
                    good = ReadFileBack(manifest, file, progress, buffer,
                                        [&](const uint8_t* data, size_t size) { output.Write(data, size); }, problem);
                    output.Close();
                    if (good) {
                        if (options_.overwrite) RemoveFile(target);
                        RenameFile(partial, target);
                        SetModifiedNs(target, file.modifiedNs);
                    }
                } catch (...) {
                    RemoveFile(partial);
                    throw;
                }
                if (!good) RemoveFile(partial);
            }
            if (!good) {
                std::lock_guard<std::mutex> lock(problemsMutex);
                problems.push_back(problem);
            }
            progress.FileDone(file.relativePath, file.size);
        });
    } catch (const ToolError&) {
        progress.Finish();
        throw;
    }
    progress.Finish();

    const double seconds = progress.Seconds();
    const double pluginSeconds = session_.PluginSeconds() - pluginBefore;
    std::sort(problems.begin(), problems.end(), [](const Problem& a, const Problem& b) { return a.file < b.file; });
    Json damaged = Json::Array();
    for (const Problem& problem : problems) {
        const std::string where = problem.object.empty() ? "" : " (object " + problem.object + ")";
        if (!options_.json) std::fprintf(stderr, "DAMAGED %s%s: %s\n", problem.file.c_str(), where.c_str(),
                                         problem.what.c_str());
        damaged.Push(Json::Object({{"file", problem.file}, {"object", problem.object}, {"problem", problem.what}}));
    }
    const uint64_t goodFiles = manifest.files.size() - problems.size();
    Say(std::string(command == "restore" ? "restored " : "verified ") + std::to_string(goodFiles) + " of " +
        std::to_string(manifest.files.size()) + " files, " + FormatBytes(static_cast<double>(totalBytes)) + " in " +
        FormatDuration(seconds) + " (" + FormatBytes(MiBPerSecond(totalBytes, seconds) * 1048576) + "/s)" +
        (problems.empty() ? "" : "; " + std::to_string(problems.size()) + " damaged"));
    SayPluginShare(pluginSeconds, seconds);
    CommandResult result;
    result.status = problems.empty() ? kExitOk : kExitDamaged;
    result.json = Json::Object({{"command", command},
                                {"ok", problems.empty()},
                                {"backup", backupId},
                                {"files", static_cast<uint64_t>(manifest.files.size())},
                                {"bytes", totalBytes},
                                {"seconds", seconds},
                                {"mib_per_s", MiBPerSecond(totalBytes, seconds)},
                                {"plugin_seconds", pluginSeconds},
                                {"damaged", std::move(damaged)}});
    return result;
}

CommandResult Commands::Restore(const std::string& backupId, const std::string& destinationFolder) {
    MakeFolders(destinationFolder);
    return CheckBackup("restore", backupId, &destinationFolder);
}

CommandResult Commands::Verify(const std::string& backupId) { return CheckBackup("verify", backupId, nullptr); }

// ---------------------------------------------------------------- list and delete

CommandResult Commands::List() {
    const std::string prefix = options_.layout.ManifestsPrefix();
    std::vector<ListedObject> manifests = session_.List(prefix);
    std::sort(manifests.begin(), manifests.end(),
              [](const ListedObject& a, const ListedObject& b) { return a.name < b.name; });
    Json backups = Json::Array();
    if (!manifests.empty()) Say("backup                          files        size  created               source");
    for (const ListedObject& object : manifests) {
        const std::string id = object.name.substr(prefix.size());
        auto property = [&](const char* name) {
            const auto found = object.metadata.find(name);
            return found == object.metadata.end() ? std::string() : found->second;
        };
        const uint64_t files = ToNumber(property(kFilesProperty));
        const uint64_t bytes = ToNumber(property(kBytesProperty));
        char line[512];
        std::snprintf(line, sizeof line, "%-30s %7llu %11s  %-20s  %s", id.c_str(),
                      static_cast<unsigned long long>(files), FormatBytes(static_cast<double>(bytes)).c_str(),
                      property(kCreatedProperty).c_str(), property(kSourceProperty).c_str());
        Say(line);
        backups.Push(Json::Object({{"backup", id},
                                   {"files", files},
                                   {"bytes", bytes},
                                   {"created", property(kCreatedProperty)},
                                   {"source", property(kSourceProperty)}}));
    }
    if (manifests.empty()) Say("no backups");
    CommandResult result;
    result.json = Json::Object({{"command", "list"}, {"ok", true}, {"backups", std::move(backups)}});
    return result;
}

CommandResult Commands::Delete(const std::string& backupId) {
    if (!IsValidBackupId(backupId)) throw ToolError(kExitUsage, "not a backup name: " + backupId);
    const std::string manifestName = options_.layout.ManifestName(backupId);
    const bool complete = session_.Exists(manifestName);
    const std::vector<ListedObject> parts = session_.List(options_.layout.DataPrefix(backupId));
    if (!complete && parts.empty()) throw ToolError(kExitNoSuchBackup, "no backup named " + backupId);
    // The manifest goes first: from then on the backup is no longer listed,
    // whatever happens to its parts.
    if (complete) session_.Delete(manifestName);
    RunInParallel(options_.jobs, parts.size(), [&](size_t index, unsigned) { session_.Delete(parts[index].name); });
    Say("deleted " + backupId + (complete ? "" : " (incomplete)") + ": " + std::to_string(parts.size()) +
        " parts" + (complete ? " and its manifest" : ""));
    CommandResult result;
    result.json = Json::Object({{"command", "delete"},
                                {"ok", true},
                                {"backup", backupId},
                                {"complete", complete},
                                {"objects", static_cast<uint64_t>(parts.size() + (complete ? 1 : 0))}});
    return result;
}

// ---------------------------------------------------------------- info and bench

CommandResult Commands::Info() {
    session_.CheckConnectivity();
    const AccountFigures account = session_.Account();
    Say("connectivity:        ok");
    Say("account:             " + account.accountName);
    Say("account identity:    " + account.identity + " (" + account.type + ")");
    Say("objects in container " + FormatBytes(static_cast<double>(account.allObjectsBytes)));
    Say("object sizes:        " + FormatBytes(static_cast<double>(account.minimumObjectSize)) + " .. " +
        FormatBytes(static_cast<double>(account.maximumObjectSize)) + ", default " +
        FormatBytes(static_cast<double>(account.defaultObjectSize)));
    Json capabilities = Json::Object();
    for (const auto& [key, value] : account.capabilities) {
        Say("capability " + key + " = " + value);
        capabilities.Add(key, value);
    }
    CommandResult result;
    result.json = Json::Object({{"command", "info"},
                                {"ok", true},
                                {"connectivity", true},
                                {"account", account.accountName},
                                {"identity", account.identity},
                                {"type", account.type},
                                {"display_name", account.displayName},
                                {"used_bytes", account.usedBytes},
                                {"remaining_bytes", account.remainingBytes},
                                {"container_bytes", account.allObjectsBytes},
                                {"minimum_object_size", account.minimumObjectSize},
                                {"default_object_size", account.defaultObjectSize},
                                {"maximum_object_size", account.maximumObjectSize},
                                {"capabilities", std::move(capabilities)}});
    return result;
}

CommandResult Commands::Bench() {
    const std::string runPrefix = options_.layout.root + "/bench/" + NewBackupId() + "/";
    Json runs = Json::Array();
    Say("object size  threads  objects    write MiB/s    read MiB/s");
    for (const uint64_t size : options_.benchSizes) {
        // One pattern for every object of this size; reads are compared with it.
        std::vector<uint8_t> pattern(static_cast<size_t>(size));
        std::mt19937_64 random(size);
        for (size_t i = 0; i < pattern.size(); i += 8) {
            const uint64_t word = random();
            std::memcpy(&pattern[i], &word, std::min<size_t>(8, pattern.size() - i));
        }
        for (const unsigned threads : options_.benchThreads) {
            const uint64_t objects =
                std::max<uint64_t>(threads, size ? (options_.benchBytes + size - 1) / size : threads);
            auto name = [&](size_t index) {
                return runPrefix + std::to_string(size) + "-" + std::to_string(threads) + "/" + std::to_string(index);
            };
            const auto writeStart = std::chrono::steady_clock::now();
            RunInParallel(threads, objects, [&](size_t index, unsigned) {
                session_.Write(name(index), pattern.data(), size, {});
            });
            const double writeSeconds =
                std::chrono::duration<double>(std::chrono::steady_clock::now() - writeStart).count();
            std::vector<std::vector<uint8_t>> buffers(threads);
            const auto readStart = std::chrono::steady_clock::now();
            RunInParallel(threads, objects, [&](size_t index, unsigned worker) {
                std::vector<uint8_t>& buffer = buffers[worker];
                buffer.resize(static_cast<size_t>(size) + 1);
                const uint64_t read = session_.Read(name(index), buffer.data(), 0, size + 1);
                if (read != size || std::memcmp(buffer.data(), pattern.data(), static_cast<size_t>(size)) != 0) {
                    throw ToolError(kExitDamaged, "benchmark object " + name(index) + " read back different");
                }
            });
            const double readSeconds =
                std::chrono::duration<double>(std::chrono::steady_clock::now() - readStart).count();
            RunInParallel(threads, objects, [&](size_t index, unsigned) { session_.Delete(name(index)); });
            const uint64_t bytes = objects * size;
            char line[160];
            std::snprintf(line, sizeof line, "%11s  %7u  %7llu  %13.1f  %12.1f", FormatBytes(double(size)).c_str(),
                          threads, static_cast<unsigned long long>(objects), MiBPerSecond(bytes, writeSeconds),
                          MiBPerSecond(bytes, readSeconds));
            Say(line);
            runs.Push(Json::Object({{"object_size", size},
                                    {"threads", threads},
                                    {"objects", objects},
                                    {"bytes", bytes},
                                    {"write_seconds", writeSeconds},
                                    {"read_seconds", readSeconds},
                                    {"write_mib_per_s", MiBPerSecond(bytes, writeSeconds)},
                                    {"read_mib_per_s", MiBPerSecond(bytes, readSeconds)}}));
        }
    }
    CommandResult result;
    result.json = Json::Object({{"command", "bench"}, {"ok", true}, {"runs", std::move(runs)}});
    return result;
}

// ---------------------------------------------------------------- single objects

CommandResult Commands::ObjectPut(const std::string& name, const std::string& file) {
    InputFile input(file);
    std::vector<uint8_t> content;
    std::vector<uint8_t> slice(1 << 20);
    for (size_t read; (read = input.Read(slice.data(), slice.size())) > 0;) {
        content.insert(content.end(), slice.begin(), slice.begin() + static_cast<std::ptrdiff_t>(read));
    }
    session_.Write(name, content.data(), content.size(), {});
    Say("wrote " + name + " (" + FormatBytes(static_cast<double>(content.size())) + ")");
    CommandResult result;
    result.json = Json::Object({{"command", "object put"}, {"ok", true}, {"object", name},
                                {"bytes", static_cast<uint64_t>(content.size())}});
    return result;
}

CommandResult Commands::ObjectGet(const std::string& name, const std::string& file) {
    const std::string content = session_.ReadAll(name);
    OutputFile output(file, true);
    output.Write(content.data(), content.size());
    output.Close();
    Say("read " + name + " (" + FormatBytes(static_cast<double>(content.size())) + ") into " + file);
    CommandResult result;
    result.json = Json::Object({{"command", "object get"}, {"ok", true}, {"object", name},
                                {"bytes", static_cast<uint64_t>(content.size())}});
    return result;
}

CommandResult Commands::ObjectDelete(const std::string& name) {
    session_.Delete(name);
    Say("deleted " + name);
    CommandResult result;
    result.json = Json::Object({{"command", "object delete"}, {"ok", true}, {"object", name}});
    return result;
}

CommandResult Commands::ObjectList(const std::string& prefix) {
    std::vector<ListedObject> objects = session_.List(prefix);
    std::sort(objects.begin(), objects.end(),
              [](const ListedObject& a, const ListedObject& b) { return a.name < b.name; });
    Json list = Json::Array();
    for (const ListedObject& object : objects) {
        Say(object.name);
        Json metadata = Json::Object();
        for (const auto& [key, value] : object.metadata) metadata.Add(key, value);
        list.Push(Json::Object({{"name", object.name}, {"metadata", std::move(metadata)}}));
    }
    CommandResult result;
    result.json = Json::Object({{"command", "object list"}, {"ok", true}, {"objects", std::move(list)}});
    return result;
}

}  // namespace qvhost

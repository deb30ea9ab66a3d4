// info and bench: what the plug-in and the account say about themselves, and
// throughput through the plug-in.
#include <chrono>
#include <cstring>
#include <random>

#include "cli/Commands.h"
#include "util/ParallelRunner.h"
#include "util/ToolError.h"

namespace qvhost {

namespace {

struct BenchFigures {
    uint64_t objects = 0;
    double writeSeconds = 0;
    double readSeconds = 0;
};

double SecondsSince(std::chrono::steady_clock::time_point start) {
    return std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
}

// One pattern for every object of a size; reads are compared with it.
std::vector<uint8_t> Pattern(uint64_t size) {
    std::vector<uint8_t> pattern(static_cast<size_t>(size));
    std::mt19937_64 random(size);
    for (size_t i = 0; i < pattern.size(); i += 8) {
        const uint64_t word = random();
        std::memcpy(&pattern[i], &word, std::min<size_t>(8, pattern.size() - i));
    }
    return pattern;
}

// Writes, reads back (comparing every byte) and deletes the objects of one
// size on one thread count.
BenchFigures BenchRun(CommandContext& context, const std::string& prefix, const std::vector<uint8_t>& pattern,
                      unsigned threads) {
    const uint64_t size = pattern.size();
    BenchFigures figures;
    figures.objects = std::max<uint64_t>(threads, size ? (context.options.benchBytes + size - 1) / size : threads);
    auto name = [&](size_t index) { return prefix + std::to_string(size) + "-" + std::to_string(threads) + "/" +
                                           std::to_string(index); };
    PluginSession& session = context.session;
    auto start = std::chrono::steady_clock::now();
    RunInParallel(threads, figures.objects,
                  [&](size_t index, unsigned) { session.Write(name(index), pattern.data(), size, {}); });
    figures.writeSeconds = SecondsSince(start);
    std::vector<std::vector<uint8_t>> buffers(threads);
    start = std::chrono::steady_clock::now();
    RunInParallel(threads, figures.objects, [&](size_t index, unsigned worker) {
        std::vector<uint8_t>& buffer = buffers[worker];
        buffer.resize(static_cast<size_t>(size) + 1);
        const uint64_t read = session.Read(name(index), buffer.data(), 0, size + 1);
        if (read != size || std::memcmp(buffer.data(), pattern.data(), static_cast<size_t>(size)) != 0) {
            throw ToolError(kExitDamaged, "benchmark object " + name(index) + " read back different");
        }
    });
    figures.readSeconds = SecondsSince(start);
    RunInParallel(threads, figures.objects, [&](size_t index, unsigned) { session.Delete(name(index)); });
    return figures;
}

}  // namespace

CommandResult InfoCommand(CommandContext& context, const Arguments&) {
    context.session.CheckConnectivity();
    const AccountFigures account = context.session.Account();
    context.Say("connectivity:        ok");
    context.Say("account:             " + Printable(account.accountName));
    context.Say("account identity:    " + Printable(account.identity) + " (" + Printable(account.type) + ")");
    context.Say("objects in container " + FormatBytes(static_cast<double>(account.allObjectsBytes)));
    context.Say("object sizes:        " + FormatBytes(static_cast<double>(account.minimumObjectSize)) + " .. " +
                FormatBytes(static_cast<double>(account.maximumObjectSize)) + ", default " +
                FormatBytes(static_cast<double>(account.defaultObjectSize)));
    Json capabilities = Json::object();
    for (const auto& [key, value] : account.capabilities) {
        context.Say("capability " + Printable(key) + " = " + Printable(value));
        capabilities[key] = value;
    }
    CommandResult result;
    result.json = Json{{"command", "info"},
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
                       {"capabilities", std::move(capabilities)}};
    return result;
}

CommandResult BenchCommand(CommandContext& context, const Arguments&) {
    const std::string prefix = context.options.layout.root + "/bench/" + NewBackupId() + "/";
    Json runs = Json::array();
    context.Say("object size  threads  objects    write MiB/s    read MiB/s");
    for (const uint64_t size : context.options.benchSizes) {
        const std::vector<uint8_t> pattern = Pattern(size);
        for (const unsigned threads : context.options.benchThreads) {
            const BenchFigures figures = BenchRun(context, prefix, pattern, threads);
            const uint64_t bytes = figures.objects * size;
            char line[160];
            std::snprintf(line, sizeof line, "%11s  %7u  %7llu  %13.1f  %12.1f", FormatBytes(double(size)).c_str(),
                          threads, static_cast<unsigned long long>(figures.objects),
                          MiBPerSecond(bytes, figures.writeSeconds), MiBPerSecond(bytes, figures.readSeconds));
            context.Say(line);
            runs.push_back(Json{{"object_size", size},
                                {"threads", threads},
                                {"objects", figures.objects},
                                {"bytes", bytes},
                                {"write_seconds", figures.writeSeconds},
                                {"read_seconds", figures.readSeconds},
                                {"write_mib_per_s", MiBPerSecond(bytes, figures.writeSeconds)},
                                {"read_mib_per_s", MiBPerSecond(bytes, figures.readSeconds)}});
        }
    }
    CommandResult result;
    result.json = Json{{"command", "bench"}, {"ok", true}, {"runs", std::move(runs)}};
    return result;
}

}  // namespace qvhost

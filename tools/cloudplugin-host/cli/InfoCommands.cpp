// info and bench: what the plug-in and the account say about themselves, and
// throughput through the plug-in.
#include <chrono>
#include <cstring>
#include <random>

#include "cli/Cli.h"
#include "host/PluginSession.h"
#include "legacy/Legacy.h"
#include "util/Text.h"
#include "util/ParallelRunner.h"
#include "util/Error.h"

namespace qvhost::cli {

namespace {

struct BenchOptions {
    std::vector<uint64_t> sizes = {1ull << 20, 16ull << 20, 64ull << 20};
    std::vector<unsigned> threads = {1, 2};
    uint64_t bytes = 256ull << 20;  // written per size and thread count
};

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
BenchFigures BenchRun(Context& context, const BenchOptions& options, const std::string& prefix,
                      const std::vector<uint8_t>& pattern, unsigned threads) {
    const uint64_t size = pattern.size();
    BenchFigures figures;
    figures.objects = std::max<uint64_t>(threads, size ? (options.bytes + size - 1) / size : threads);
    auto name = [&](size_t index) { return prefix + std::to_string(size) + "-" + std::to_string(threads) + "/" +
                                           std::to_string(index); };
    PluginSession& session = context.Session();
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
            throw Error(ErrorKind::Damaged, "benchmark object " + name(index) + " read back different");
        }
    });
    figures.readSeconds = SecondsSince(start);
    RunInParallel(threads, figures.objects, [&](size_t index, unsigned) { session.Delete(name(index)); });
    return figures;
}

CommandResult RunInfo(Context& context) {
    context.Session().CheckConnectivity();
    const AccountFigures account = context.Session().Account();
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

CommandResult RunBench(Context& context, const BenchOptions& options) {
    const std::string prefix = context.options().repo + "/bench/" + legacy::NewBackupId() + "/";
    Json runs = Json::array();
    context.Say("object size  threads  objects    write MiB/s    read MiB/s");
    for (const uint64_t size : options.sizes) {
        const std::vector<uint8_t> pattern = Pattern(size);
        for (const unsigned threads : options.threads) {
            const BenchFigures figures = BenchRun(context, options, prefix, pattern, threads);
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

template <class Item, class Parse>
std::vector<Item> ListArgument(const std::string& text, Parse parse) {
    std::vector<Item> items;
    for (const std::string& piece : Split(text, ',')) items.push_back(parse(piece));
    return items;
}

}  // namespace

void AddInfoCommands(CommandTable& table) {
    table.Add({"info", "connectivity, account figures and the plug-in's capabilities",
               "Checks that the storage answers and shows what the plug-in says of the account, the container and "
               "itself: account name and kind, the bytes in the container, the object sizes it takes, its "
               "capabilities."},
              [](Context& context) { return RunInfo(context); });
    auto options = std::make_shared<BenchOptions>();
    CLI::App* bench = table.Add(
        {"bench", "write and read throughput through the plug-in",
         "Writes, reads back (comparing every byte) and deletes objects of each size on each number of threads "
         "under <repo>/bench/, and prints the throughput of each."},
        [options](Context& context) { return RunBench(context, *options); });
    bench->add_option_function<std::string>(
             "--sizes",
             [options](const std::string& text) {
                 options->sizes = ListArgument<uint64_t>(
                     text, [](const std::string& item) { return SizeArgument("--sizes", item, 1, legacy::kMaximumPartSize); });
             },
             "object sizes (default: 1M,16M,64M)")
        ->type_name("LIST");
    bench->add_option_function<std::string>(
             "--threads",
             [options](const std::string& text) {
                 options->threads =
                     ListArgument<unsigned>(text, [](const std::string& item) { return CountArgument("--threads", item); });
             },
             "thread counts (default: 1,2)")
        ->type_name("LIST");
    bench->add_option_function<std::string>(
             "--bench-bytes",
             [options](const std::string& text) { options->bytes = SizeArgument("--bench-bytes", text, 1, UINT64_MAX); },
             "bytes written per size and thread count (default: 256M)")
        ->type_name("SIZE");
}

}  // namespace qvhost::cli

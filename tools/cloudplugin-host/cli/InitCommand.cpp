// init: a new encrypted repository under --repo.
#include "cli/RepositorySupport.h"
#include "host/PluginObjectStore.h"
#include "repository/Locks.h"

namespace qvhost::cli {

namespace {

struct InitOptions {
    uint64_t kdfMemory = 64ull << 20;
    uint64_t packSize = 16ull << 20;
};

CommandResult RunInit(Context& context, const InitOptions& options) {
    repo::InitOptions init;
    init.kdfMemory = options.kdfMemory;
    init.packSize = options.packSize;
    const std::string& root = context.options().repo;
    repo::Repository::Init(context.Store(), root, context.options().password, init, repo::HostName());
    const repo::Repository repository = OpenRepository(context);
    context.Say("created the repository " + ShortId(repository.config().id) + " under " + root +
                "; keep the password safe: without it nothing can be read");
    CommandResult result;
    result.json = Json{{"command", "init"},
                       {"ok", true},
                       {"repository", repository.config().id},
                       {"root", root},
                       {"pack_size", repository.config().packSize}};
    return result;
}

}  // namespace

void AddInitCommand(CommandTable& table) {
    auto options = std::make_shared<InitOptions>();
    CLI::App* command = table.Add(
        {"init", "make a new encrypted repository under --repo",
         "Makes a new repository under the prefix --repo (default cloudplugin-host) of the container: its master "
         "keys, sealed by a key derived from the password (CLOUDPLUGIN_PASSWORD or --password-file) with scrypt, "
         "and its config. Nothing can be read without the password, and nothing recovers a lost one."},
        [options](Context& context) { return RunInit(context, *options); });
    command
        ->add_option_function<std::string>(
            "--kdf-memory",
            [options](const std::string& text) {
                options->kdfMemory = SizeArgument("--kdf-memory", text, 1ull << 20, 1ull << 30);
            },
            "memory of the password's key derivation, scrypt (default: 64M)")
        ->type_name("SIZE");
    command
        ->add_option_function<std::string>(
            "--pack-size",
            [options](const std::string& text) {
                options->packSize = SizeArgument("--pack-size", text, 1ull << 20, 256ull << 20);
            },
            "the size of the repository's packs (default: 16M)")
        ->type_name("SIZE");
}

}  // namespace qvhost::cli

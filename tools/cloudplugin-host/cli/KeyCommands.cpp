// key list, add, passwd and remove: the repository's passwords.
#include <cstdlib>

#include "cli/RepositorySupport.h"
#include "repository/KeyAdmin.h"
#include "repository/Locks.h"
#include "util/Text.h"

namespace qvhost::cli {

namespace {

struct KeyOptions {
    std::string newPasswordFile;
    uint64_t kdfMemory = 64ull << 20;
    std::string id;
    bool force = false;
};

// The new password: --new-password-file, else $CLOUDPLUGIN_NEW_PASSWORD.
std::string NewPassword(const KeyOptions& options) {
    std::string password;
    if (!options.newPasswordFile.empty()) {
        password = ReadPasswordFile(options.newPasswordFile);
    } else if (const char* text = std::getenv("CLOUDPLUGIN_NEW_PASSWORD")) {
        password = text;
    }
    if (password.empty()) {
        throw Error(ErrorKind::Usage, "no new password: give --new-password-file FILE or set CLOUDPLUGIN_NEW_PASSWORD");
    }
    return password;
}

Json KeyJson(const repo::KeyInfo& key) {
    Json json{{"id", key.id}, {"current", key.current}, {"usable", key.damage.empty()}};
    if (!key.damage.empty()) {
        json["damage"] = key.damage;
        return json;
    }
    json.update(Json{{"created", key.created}, {"host", key.host},
                     {"kdf", Json{{"n", key.kdf.n}, {"r", key.kdf.r}, {"p", key.kdf.p}}},
                     {"kdf_memory", key.kdf.MemoryBytes()}});
    return json;
}

CommandResult RunList(Context& context) {
    repo::Repository repository = OpenRepository(context);
    Json keys = Json::array();
    for (const repo::KeyInfo& key : repo::ListKeys(repository)) {
        context.Say((key.current ? "* " : "  ") + Printable(key.id) + "  " +
                    (key.damage.empty() ? Printable(key.created) + "  " + Printable(key.host) + "  scrypt " +
                                              FormatBytes(static_cast<double>(key.kdf.MemoryBytes()))
                                        : "UNUSABLE: " + Printable(key.damage)));
        keys.push_back(KeyJson(key));
    }
    CommandResult result;
    result.json = Json{{"command", "key list"}, {"ok", true}, {"keys", std::move(keys)}};
    return result;
}

CommandResult RunAdd(Context& context, const KeyOptions& options, bool change) {
    const std::string password = NewPassword(options);
    repo::Repository repository = OpenRepository(context);
    const std::string old = repository.keyName().substr(repository.layout().KeysPrefix().size());
    const repo::KdfParameters kdf = repo::NewKdfParameters(options.kdfMemory);
    const std::string id = change ? repo::ChangePassword(repository, password, kdf, repo::HostName())
                                  : repo::AddKey(repository, password, kdf, repo::HostName());
    context.Say(change ? "changed the password: the key " + old + " is replaced by " + id
                       : "added the key " + id + ": the new password opens the repository");
    CommandResult result;
    result.json = Json{{"command", change ? "key passwd" : "key add"}, {"ok", true}, {"id", id}};
    if (change) result.json["removed"] = old;
    return result;
}

CommandResult RunRemove(Context& context, const KeyOptions& options) {
    repo::Repository repository = OpenRepository(context);
    const std::string id = repo::RemoveKey(repository, options.id, options.force);
    context.Say("removed the key " + id);
    CommandResult result;
    result.json = Json{{"command", "key remove"}, {"ok", true}, {"removed", id}};
    return result;
}

void AddNewPasswordOptions(CLI::App* command, KeyOptions& options) {
    command->add_option("--new-password-file", options.newPasswordFile,
                        "the new password: the first line of FILE (default: $CLOUDPLUGIN_NEW_PASSWORD)")
        ->type_name("FILE");
    command
        ->add_option_function<std::string>(
            "--kdf-memory",
            [&options](const std::string& text) {
                options.kdfMemory = SizeArgument("--kdf-memory", text, 1ull << 20, 1ull << 30);
            },
            "memory of the new password's key derivation, scrypt (default: 64M)")
        ->type_name("SIZE");
}

}  // namespace

void AddKeyCommands(CommandTable& table) {
    table.Group("key", "the repository's passwords (one key object each)",
                "Every password opens the repository through a key object of its own under <repo>/keys/, each "
                "sealing the same master keys. The current password (CLOUDPLUGIN_PASSWORD or --password-file) "
                "opens the repository; a new one is read from --new-password-file or CLOUDPLUGIN_NEW_PASSWORD.");
    table.Add({"key list", "the repository's key objects (* the one the password opened)",
               "Lists every key object: its id, when and on which host it was made and its key derivation's "
               "memory; a key object that cannot be used is listed with why."},
              [](Context& context) { return RunList(context); });
    auto add = std::make_shared<KeyOptions>();
    CLI::App* command = table.Add(
        {"key add", "add another password",
         "Adds a key object for a new password, with its own key derivation (--kdf-memory); the new key object "
         "is read back and opened before the command succeeds. Every other password keeps working."},
        [add](Context& context) { return RunAdd(context, *add, false); });
    AddNewPasswordOptions(command, *add);
    auto passwd = std::make_shared<KeyOptions>();
    command = table.Add(
        {"key passwd", "change the password of the key in use",
         "Writes a key object for the new password, reads it back and opens it, and only then removes the key "
         "object the current password opened. Other passwords are not changed."},
        [passwd](Context& context) { return RunAdd(context, *passwd, true); });
    AddNewPasswordOptions(command, *passwd);
    auto remove = std::make_shared<KeyOptions>();
    command = table.Add(
        {"key remove", "remove the key object ID",
         "Removes a key object (ID: its id from 'key list', or a unique beginning of 4 characters or more). The "
         "last usable key object is never removed, and the one the current password opened only with --force."},
        [remove](Context& context) { return RunRemove(context, *remove); });
    command->add_option("ID", remove->id, "the key's id (or a unique beginning)")->required();
    command->add_flag("--force", remove->force, "also remove the key the current password opened");
}

}  // namespace qvhost::cli

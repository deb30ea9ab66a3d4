// object put, get, delete, list and tier: single objects of the container,
// as the plug-in stores them (no repository, no encryption).
#include <algorithm>
#include <filesystem>

#include "cli/Cli.h"
#include "host/PluginSession.h"
#include "legacy/Legacy.h"
#include "local/LocalFiles.h"
#include "util/Text.h"

namespace qvhost::cli {

namespace {

struct ObjectOptions {
    std::string name;
    std::string file;
    std::string tier;
    Metadata metadata;
};

CommandResult RunPut(Context& context, const ObjectOptions& options) {
    const std::string& name = options.name;
    InputFile input(options.file);
    std::vector<uint8_t> content;
    std::vector<uint8_t> slice(1 << 20);
    for (size_t read; (read = input.Read(slice.data(), slice.size())) > 0;) {
        if (content.size() + read > legacy::kMaximumPartSize) {
            throw Error(ErrorKind::LocalFile, options.file + " is larger than one object can be (2 GiB - 1)");
        }
        content.insert(content.end(), slice.begin(), slice.begin() + static_cast<std::ptrdiff_t>(read));
    }
    context.Session().Write(name, content.data(), content.size(), options.metadata);
    context.Say("wrote " + name + " (" + FormatBytes(static_cast<double>(content.size())) + ")");
    CommandResult result;
    result.json = Json{{"command", "object put"}, {"ok", true}, {"object", name}, {"bytes", content.size()}};
    return result;
}

// Read in slices straight into a file beside FILE: an object of any size
// fits. Only an object read whole is renamed to FILE; a read that fails
// leaves FILE as it was (absent, or what it held before) and no partial
// file behind.
CommandResult RunGet(Context& context, const ObjectOptions& options) {
    const std::string& name = options.name;
    constexpr uint64_t kSlice = 4u << 20;
    std::vector<uint8_t> slice(kSlice);
    const std::string partial = options.file + ".cloudplugin-partial";
    uint64_t total = 0;
    try {
        OutputFile output(partial, true);
        for (;;) {
            const uint64_t read = std::min(context.Session().Read(name, slice.data(), total, kSlice), kSlice);
            output.Write(slice.data(), static_cast<size_t>(read));
            total += read;
            if (read < kSlice) break;
        }
        output.Close();
        std::error_code renamed;
        std::filesystem::rename(PathOf(partial), PathOf(options.file), renamed);
        if (renamed) throw Error(ErrorKind::LocalFile, "cannot rename " + partial + " to " + options.file + ": " +
                                                           renamed.message());
    } catch (...) {
        std::error_code ignored;
        std::filesystem::remove(PathOf(partial), ignored);
        throw;
    }
    context.Say("read " + name + " (" + FormatBytes(static_cast<double>(total)) + ") into " + options.file);
    CommandResult result;
    result.json = Json{{"command", "object get"}, {"ok", true}, {"object", name}, {"bytes", total}};
    return result;
}

CommandResult RunDelete(Context& context, const ObjectOptions& options) {
    context.Session().Delete(options.name);
    context.Say("deleted " + options.name);
    CommandResult result;
    result.json = Json{{"command", "object delete"}, {"ok", true}, {"object", options.name}};
    return result;
}

CommandResult RunTier(Context& context, const ObjectOptions& options) {
    context.Session().SetProperty(options.name, kAccessTierProperty, options.tier);
    context.Say("asked for " + options.name + " to move to the tier " + options.tier);
    CommandResult result;
    result.json = Json{{"command", "object tier"}, {"ok", true}, {"object", options.name}, {"tier", options.tier}};
    return result;
}

CommandResult RunList(Context& context, const ObjectOptions& options) {
    std::vector<ListedObject> objects = context.Session().List(options.name);
    std::sort(objects.begin(), objects.end(),
              [](const ListedObject& a, const ListedObject& b) { return a.name < b.name; });
    Json list = Json::array();
    for (const ListedObject& object : objects) {
        context.Say(Printable(object.name));
        Json metadata = Json::object();
        for (const auto& [key, value] : object.metadata) metadata[key] = value;
        list.push_back(Json{{"name", object.name}, {"metadata", std::move(metadata)}});
    }
    CommandResult result;
    result.json = Json{{"command", "object list"}, {"ok", true}, {"objects", std::move(list)}};
    return result;
}


void AddMetadataOption(CLI::App* command, Metadata& metadata) {
    command
        ->add_option_function<std::vector<std::string>>(
            "--metadata",
            [&metadata](const std::vector<std::string>& values) {
                for (const std::string& value : values) {
                    const size_t equals = value.find('=');
                    if (equals == 0 || equals == std::string::npos) {
                        throw Error(ErrorKind::Usage, "--metadata takes KEY=VALUE, not " + value);
                    }
                    metadata[value.substr(0, equals)] = value.substr(equals + 1);
                }
            },
            "a metadata property of the object (repeatable)")
        ->type_name("KEY=VALUE")
        ->allow_extra_args(false);
}

}  // namespace

void AddObjectCommands(CommandTable& table) {
    table.Group("object", "single objects of the container",
                "Single objects of the container, as the plug-in stores them: written, read, deleted, listed and "
                "moved between tiers by name, with no repository and no encryption.");
    auto put = std::make_shared<ObjectOptions>();
    CLI::App* command = table.Add({"object put", "write FILE as object NAME", ""},
                                  [put](Context& context) { return RunPut(context, *put); });
    command->add_option("NAME", put->name, "the object's name")->required();
    command->add_option("FILE", put->file, "the file to write")->required();
    AddMetadataOption(command, put->metadata);
    auto get = std::make_shared<ObjectOptions>();
    command = table.Add({"object get", "read object NAME into FILE", ""},
                        [get](Context& context) { return RunGet(context, *get); });
    command->add_option("NAME", get->name, "the object's name")->required();
    command->add_option("FILE", get->file, "the file to write (replaced when it exists)")->required();
    auto remove = std::make_shared<ObjectOptions>();
    command = table.Add({"object delete", "delete object NAME", ""},
                        [remove](Context& context) { return RunDelete(context, *remove); });
    command->add_option("NAME", remove->name, "the object's name")->required();
    auto list = std::make_shared<ObjectOptions>();
    command = table.Add({"object list", "objects whose names start with PREFIX, with their metadata", ""},
                        [list](Context& context) { return RunList(context, *list); });
    command->add_option("PREFIX", list->name, "the start of the names (default: every object)");
    auto tier = std::make_shared<ObjectOptions>();
    command = table.Add({"object tier", "move object NAME to TIER",
                         "Moves object NAME to TIER: Hot, Cool, Cold or Archive; from Archive, Hot;High or Cool;High "
                         "rehydrates with high priority."},
                        [tier](Context& context) { return RunTier(context, *tier); });
    command->add_option("NAME", tier->name, "the object's name")->required();
    command->add_option("TIER", tier->tier, "Hot, Cool, Cold, Archive (;High or ;Standard: the rehydrate priority)")
        ->required();
}

}  // namespace qvhost::cli

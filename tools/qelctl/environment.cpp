// The parameters that the boot loader keeps in flash. Reading and changing single ones goes through
// the library's shared copy; the list and the check look at the flash itself.
#include <algorithm>
#include <cstdio>
#include <functional>
#include <memory>
#include <nlohmann/json.hpp>
#include <optional>

#include "qel/product.h"
#include "tools/qelctl/confirm.h"
#include "tools/qelctl/environment_block.h"
#include "tools/qelctl/exit_code.h"
#include "tools/qelctl/flash_table.h"
#include "tools/qelctl/interrupt.h"
#include "tools/qelctl/output.h"
#include "tools/qelctl/raw_flash.h"
#include "tools/qelctl/table.h"
#include "tools/qelctl/verb.h"

namespace qelctl {

namespace {

using nlohmann::ordered_json;

constexpr const char *kEnvironmentPartition = "hwid";
constexpr int kValueBytes = 255;  // the most the library hands out, with the terminator
constexpr uint64_t kMostBlockBytes = uint64_t{16} << 20;

struct EnvironmentChoice {
    std::string name;
    std::string value;
    std::optional<unsigned> channel;
    bool json = false;
    Consent consent;
};

EnvironmentBlock read_environment(const Library &library) {
    const std::vector<FlashPartition> partitions = read_partitions(library);
    const FlashPartition &partition =
        partitions[static_cast<size_t>(find_partition(partitions, kEnvironmentPartition))];
    const FlashInfo info = read_flash_info(library);
    const uint64_t good_bytes = read_blocks(library, info, partition).good.size() * uint64_t{info.eraseBytes};
    std::vector<uint8_t> content(std::min(good_bytes, kMostBlockBytes));
    if (content.empty() || !RawFlashObject(library, false).read(partition.offset, content))
        throw Failure(ExitCode::kFailed, "cannot read the partition \"hwid\"; the library's log says why.");
    return parse_environment(content);
}

void check_parameter_name(const std::string &name) {
    if (name.empty() || name.find('=') != std::string::npos)
        throw Failure(ExitCode::kUsage, "a boot parameter has a name without =.");
}

ordered_json parameter_json(const std::string &name, const std::string &value) {
    ordered_json entry;
    entry["name"] = name;
    entry["value"] = value;
    return entry;
}

void list_environment(Session &session, bool json) {
    const EnvironmentBlock block = read_environment(session.library());
    ordered_json list = ordered_json::array();
    std::string text;
    for (const auto &[name, value] : block.parameters) {
        list.push_back(parameter_json(name, value));
        text += printable(name) + "=" + printable(value) + "\n";
    }
    if (json) {
        ordered_json document;
        document["parameters"] = list;
        print_json(document);
    } else {
        print(text.empty() ? "no parameters\n" : text);
    }
    if (!block.crc_is_right())
        fputs("qelctl: the check sum is wrong: this may be no environment; see qelctl env check.\n", stderr);
}

void get_parameter(Session &session, const EnvironmentChoice &choice) {
    check_parameter_name(choice.name);
    const Library &library = session.library();
    char value[kValueBytes + 1] = {};
    const int status =
        choice.channel
            ? CALL(library, getBootParameterByChn)(*choice.channel, choice.name.c_str(), value, kValueBytes)
            : CALL(library, getBootParameter)(choice.name.c_str(), value, kValueBytes);
    if (status != 0) {
        throw Failure(ExitCode::kFailed, "no boot parameter " + printable(choice.name) +
                                             " with a value of at most 254 characters; `qelctl env list` "
                                             "lists all.");
    }
    if (choice.json) {
        print_json(parameter_json(choice.name, value));
    } else {
        print(printable(value) + "\n");
    }
}

constexpr const char *kRewrites =
    "This rewrites the boot environment. A unit whose power goes meanwhile may not start again.";

void set_parameter(Session &session, const EnvironmentChoice &choice) {
    check_parameter_name(choice.name);
    choice.consent.require(kRewrites);
    const Library &library = session.library();
    {
        const Interrupt interrupt;
        if (CALL(library, setBootParameter)(choice.name.c_str(), choice.value.c_str()) != 0) {
            throw Failure(ExitCode::kFailed,
                          "cannot set " + printable(choice.name) +
                              "; the library's output says why (OSA_LOG=info shows it).\n"
                              "Where there was no room, the old value is gone from the shared copy as well.");
        }
    }
    if (choice.json) print_json(parameter_json(choice.name, choice.value));
}

void delete_parameter(Session &session, const EnvironmentChoice &choice) {
    check_parameter_name(choice.name);
    choice.consent.require(kRewrites);
    const Library &library = session.library();
    {
        const Interrupt interrupt;
        if (CALL(library, QEL_delBootParameter)(choice.name.c_str()) != 0) {
            throw Failure(ExitCode::kFailed,
                          "cannot delete " + printable(choice.name) + "; the library's log says why.");
        }
    }
    if (!choice.json) return;
    ordered_json document;
    document["name"] = choice.name;
    document["value"] = nullptr;
    print_json(document);
}

ordered_json environment_json(const EnvironmentBlock &block) {
    ordered_json document;
    document["size_bytes"] = block.size_bytes;
    document["byte_order"] = block.other_byte_order ? "reversed" : "usual";
    document["stored_crc"] = block.stored_crc;
    document["computed_crc"] = block.computed_crc;
    document["crc_right"] = block.crc_is_right();
    document["parameters"] = block.parameters.size();
    document["used_bytes"] = block.used_bytes;
    document["free_bytes"] = block.free_bytes;
    document["ended"] = block.ended;
    document["duplicates"] = block.duplicates;
    document["nameless"] = block.nameless;
    return document;
}

std::string names_or_none(const std::vector<std::string> &names) {
    std::string text;
    for (const std::string &name : names) text += (text.empty() ? "" : ", ") + printable(name);
    return text.empty() ? "none" : text;
}

std::string environment_text(const EnvironmentBlock &block) {
    const auto line = [](const char *name, const std::string &value) {
        return named_value(name, 14, value, wants_colour());
    };
    char sums[64];
    snprintf(sums, sizeof sums, "stored %08x, computed %08x: ", block.stored_crc, block.computed_crc);
    return line("size", std::to_string(block.size_bytes) + " bytes" +
                            (block.other_byte_order ? ", words stored with their bytes reversed" : "")) +
           line("check sum", sums + std::string(block.crc_is_right() ? "right" : "WRONG")) +
           line("parameters", std::to_string(block.parameters.size())) +
           line("in use", std::to_string(block.used_bytes) + " bytes, " + std::to_string(block.free_bytes) +
                              " free" + (block.ended ? "" : ", and the list does not end")) +
           line("duplicates", names_or_none(block.duplicates)) +
           line("without =", names_or_none(block.nameless));
}

void check_environment(Session &session, bool json) {
    const EnvironmentBlock block = read_environment(session.library());
    if (json) {
        print_json(environment_json(block));
    } else {
        print(environment_text(block));
    }
    if (!block.is_sound())
        throw Failure(ExitCode::kFailed,
                      "the boot environment is not as it should be; docs/storage.md tells how to mend it.");
}

using EnvironmentChoicePtr = std::shared_ptr<EnvironmentChoice>;

CLI::App *add_environment_verb(CLI::App &parent, const char *name, const char *description,
                               const char *example, const EnvironmentChoicePtr &choice,
                               const std::function<void()> &work) {
    CLI::App *verb = parent.add_subcommand(name, description);
    verb->add_flag("--json", choice->json, "Print JSON (described by qelctl.schema.json)");
    verb->footer(std::string("Examples:\n  qelctl env ") + example);
    verb->callback(work);
    return verb;
}

}  // namespace

void add_environment(CLI::App &app, Session &session) {
    CLI::App *verb = app.add_subcommand("env", "Parameters of the boot environment");
    verb->require_subcommand(1);
    const auto choice = std::make_shared<EnvironmentChoice>();
    add_environment_verb(*verb, "list", "List all parameters, as they stand in flash", "list", choice,
                         [&session, choice] { list_environment(session, choice->json); });
    CLI::App *get = add_environment_verb(*verb, "get", "Print the value of a parameter", "get HWID", choice,
                                         [&session, choice] { get_parameter(session, *choice); });
    get->add_option("name", choice->name, "Name of the parameter")->required();
    get->add_option("--chn", choice->channel, "Of the chip that owns this logical channel")->type_name("N");
    CLI::App *set = add_environment_verb(*verb, "set", "Set a parameter", "set ipaddr 192.168.1.108 --yes",
                                         choice, [&session, choice] { set_parameter(session, *choice); });
    set->add_option("name", choice->name, "Name of the parameter")->required();
    set->add_option("value", choice->value, "Its new value")->required();
    choice->consent.add_to(*set);
    CLI::App *del = add_environment_verb(*verb, "del", "Delete a parameter", "del ipaddr --yes", choice,
                                         [&session, choice] { delete_parameter(session, *choice); });
    del->add_option("name", choice->name, "Name of the parameter")->required();
    choice->consent.add_to(*del);
    add_environment_verb(*verb, "check", "Check the block in flash: check sum, duplicates, free space",
                         "check", choice, [&session, choice] { check_environment(session, choice->json); });
    verb->footer("Examples:\n  qelctl env list\n  qelctl env get HWID");
}

}  // namespace qelctl

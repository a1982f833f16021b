// Small text files of keys and values, as modules of the library keep their settings.
#include <charconv>
#include <cstring>
#include <functional>
#include <memory>
#include <nlohmann/json.hpp>
#include <optional>

#include "qel/product.h"
#include "tools/qelctl/exit_code.h"
#include "tools/qelctl/output.h"
#include "tools/qelctl/table.h"
#include "tools/qelctl/verb.h"

namespace qelctl {

namespace {

using nlohmann::ordered_json;

constexpr const char *kSumKey = "crcSum";
constexpr int kNoFile = -2;
constexpr int kKeyTooLong = -22;

struct KeyValueChoice {
    std::string file;
    std::string key;
    std::vector<std::string> assignments;
    std::string separator = "=";
    std::optional<unsigned> section;
    std::string tag;
    unsigned count = 1;
    bool checked = false;
    bool json = false;
};

[[noreturn]] void keyvalue_says_no(int status, const KeyValueChoice &choice) {
    const std::string file = printable(choice.file);
    if (status == kNoFile) throw Failure(ExitCode::kFailed, "cannot open " + file + " on this device.");
    if (status == kKeyTooLong) throw Failure(ExitCode::kFailed, "a key has at most 127 characters.");
    throw Failure(ExitCode::kFailed, "no " + printable(choice.key) + " in " + file +
                                         (choice.checked ? ", or its check sum is wrong." : "."));
}

std::string value_text(const Library &library, const KeyValueChoice &choice) {
    char value[QEL_KEY_VALUE_TEXT_BYTES + 1] = {};
    const char *file = choice.file.c_str();
    const char *key = choice.key.c_str();
    const char separator = choice.separator[0];
    int status = 0;
    if (choice.section) {
        status = CALL(library, QEL_strGetValIdx)(file, *choice.section, key, separator, nullptr, value);
    } else if (choice.checked) {
        status = CALL(library, QEL_strGetValCheckSum)(file, key, separator, nullptr, value);
    } else {
        status = CALL(library, string_get_value)(file, key, separator, nullptr, value);
    }
    if (status != 0) keyvalue_says_no(status, choice);
    std::string text = value;
    while (!text.empty() && (text.back() == '\n' || text.back() == '\r')) text.pop_back();
    return text;
}

std::vector<int> tagged_values(const Library &library, const KeyValueChoice &choice) {
    std::vector<int> values(choice.count);
    const int status =
        choice.count == 1
            ? CALL(library, QEL_getTagKeyVal)(choice.file.c_str(), choice.tag.c_str(), choice.key.c_str(),
                                              values.data())
            : CALL(library, QEL_getGropKeyVal)(choice.file.c_str(), choice.tag.c_str(), choice.key.c_str(),
                                               values.data(), static_cast<int>(choice.count));
    if (status != 0) keyvalue_says_no(status, choice);
    return values;
}

void get_value(Session &session, const KeyValueChoice &choice) {
    const Library &library = session.library();
    ordered_json document;
    document["key"] = choice.key;
    std::string text;
    if (choice.tag.empty()) {
        text = value_text(library, choice);
        document["value"] = text;
    } else {
        const std::vector<int> values = tagged_values(library, choice);
        for (const int value : values) text += (text.empty() ? "" : ",") + std::to_string(value);
        document["values"] = values;
    }
    if (choice.json) {
        print_json(document);
    } else {
        print(printable(text) + "\n");
    }
}

KeyValueRecord parse_assignment(const std::string &text) {
    KeyValueRecord record{};
    const size_t equals = text.find('=');
    if (equals == std::string::npos || equals == 0 || equals >= sizeof record.key)
        throw Failure(ExitCode::kUsage, text + " is no KEY=NUMBER with a key of 1 to 31 characters.");
    const char *end = text.data() + text.size();
    const auto [rest, error] = std::from_chars(text.data() + equals + 1, end, record.value);
    if (error != std::errc() || rest != end)
        throw Failure(ExitCode::kUsage, text + " wants a whole number of 32 bits behind the =.");
    memcpy(record.key, text.data(), equals);
    return record;
}

void set_values(Session &session, const KeyValueChoice &choice) {
    std::vector<KeyValueRecord> records;
    for (const std::string &assignment : choice.assignments) records.push_back(parse_assignment(assignment));
    if (CALL(session.library(), QEL_saveKeysValue)(choice.file.c_str(), records.data(),
                                                   static_cast<unsigned>(records.size())) != 0) {
        throw Failure(ExitCode::kFailed,
                      "cannot save " + printable(choice.file) + "; the library's log says why.");
    }
    if (!choice.json) return;
    ordered_json document;
    document["file"] = choice.file;
    document["saved"] = ordered_json::array();
    for (const KeyValueRecord &record : records) {
        ordered_json entry;
        entry["key"] = record.key;
        entry["value"] = record.value;
        document["saved"].push_back(entry);
    }
    print_json(document);
}

void check_file(Session &session, const KeyValueChoice &choice) {
    const Library &library = session.library();
    const char *file = choice.file.c_str();
    char stored[QEL_KEY_VALUE_TEXT_BYTES + 1] = {};
    const int status = CALL(library, string_get_value)(file, kSumKey, '=', stored, nullptr);
    if (status == kNoFile) keyvalue_says_no(status, choice);
    const bool has_sum = status == 0;
    const bool right =
        has_sum && CALL(library, QEL_strGetValCheckSum)(file, kSumKey, '=', nullptr, nullptr) == 0;
    if (choice.json) {
        ordered_json document;
        document["file"] = choice.file;
        document["has_sum"] = has_sum;
        document["right"] = right;
        print_json(document);
    } else {
        print(!has_sum ? "no check sum\n" : right ? "check sum right\n" : "check sum wrong\n");
    }
    if (!right) {
        throw Failure(ExitCode::kFailed,
                      printable(choice.file) +
                          (has_sum ? " is damaged or was changed by hand." : " has no line \"crcSum\"."));
    }
}

using KeyValueChoicePtr = std::shared_ptr<KeyValueChoice>;

CLI::App *add_keyvalue_verb(CLI::App &parent, const char *name, const char *description,
                            const KeyValueChoicePtr &choice, const std::function<void()> &work) {
    CLI::App *verb = parent.add_subcommand(name, description);
    verb->add_option("file", choice->file, "A file of the device, as the library sees it")
        ->required()
        ->type_name("FILE");
    verb->add_flag("--json", choice->json, "Print JSON (described by qelctl.schema.json)");
    verb->callback(work);
    return verb;
}

void add_keyvalue_get(CLI::App &app, Session &session, const KeyValueChoicePtr &choice) {
    CLI::App *get = add_keyvalue_verb(app, "get", "Print the value of a key", choice,
                                      [&session, choice] { get_value(session, *choice); });
    get->add_option("key", choice->key, "Found wherever it stands in a line; the first line counts")
        ->required();
    CLI::Option *section = get->add_option("--section", choice->section, "In the section [cfgN] only");
    CLI::Option *tag = get->add_option("--tag", choice->tag, "In the block TEXT: ... END only; numbers");
    CLI::Option *count = get->add_option("--count", choice->count, "So many numbers behind the key");
    CLI::Option *checked = get->add_flag("--checked", choice->checked, "Refuse a file whose sum is wrong");
    CLI::Option *separator =
        get->add_option("--separator", choice->separator, "The character behind the key; = unless given");
    section->type_name("N")->excludes(tag)->excludes(checked);
    tag->type_name("TEXT")->excludes(checked);
    count->type_name("N")->needs(tag)->check(
        CLI::Range(1U, static_cast<unsigned>(QEL_MAX_GROUP_VALUES)).description(""));
    separator->type_name("CHAR")->excludes(tag)->check(CLI::Validator(
        [](const std::string &text) { return text.size() == 1 ? "" : "a separator is one character"; }, ""));
    get->footer(
        "Examples:\n"
        "  qelctl kv get /mnt/mtd/Config/lens.txt gain\n"
        "  qelctl kv get /mnt/mtd/Config/lens.txt curve --tag zoom --count 4");
}

}  // namespace

void add_keyvalue(CLI::App &app, Session &session) {
    CLI::App *verb = app.add_subcommand("kv", "Small text files of keys and values");
    verb->require_subcommand(1);
    const auto choice = std::make_shared<KeyValueChoice>();
    add_keyvalue_get(*verb, session, choice);
    CLI::App *set = add_keyvalue_verb(*verb, "set", "Put whole numbers into a file, and its check sum",
                                      choice, [&session, choice] { set_values(session, *choice); });
    set->add_option("assignment", choice->assignments, "KEY=NUMBER, any number of them")->required();
    set->footer("Examples:\n  qelctl kv set /mnt/mtd/Config/lens.txt gain=5 offset=-3");
    add_keyvalue_verb(*verb, "check", "Compare a file with its check sum", choice, [&session, choice] {
        check_file(session, *choice);
    })->footer("Examples:\n  qelctl kv check /mnt/mtd/Config/lens.txt");
    verb->footer("Examples:\n  qelctl kv get /mnt/mtd/Config/lens.txt gain");
}

}  // namespace qelctl

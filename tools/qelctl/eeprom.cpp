// The files on the serial EEPROM. Looking works on one chip through its file system; what changes a
// chip goes through the raw EEPROM objects, which lay files out anew where they must.
#include "qel/eeprom.h"

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <ctime>
#include <functional>
#include <memory>
#include <nlohmann/json.hpp>

#include "tools/qelctl/byte_text.h"
#include "tools/qelctl/confirm.h"
#include "tools/qelctl/exit_code.h"
#include "tools/qelctl/host_file.h"
#include "tools/qelctl/interrupt.h"
#include "tools/qelctl/output.h"
#include "tools/qelctl/table.h"
#include "tools/qelctl/verb.h"

namespace qelctl {

namespace {

using nlohmann::ordered_json;

constexpr uint32_t kMostEepromBytes = 1 << 20;

struct EepromChoice {
    unsigned chip = 0;
    bool json = false;
    std::string name;
    std::string file = "-";
    Consent consent;
};

struct EepromFile {
    std::string name;
    unsigned bytes;
    unsigned room_bytes;
    unsigned changed_s;
};

[[noreturn]] void eeprom_says_no(unsigned chip, const std::string &what) {
    throw Failure(ExitCode::kFailed,
                  what + " EEPROM chip " + std::to_string(chip) + "; the library's log says why.");
}

// A chip's file system for looking.
class EepromView {
public:
    EepromView(const Library &library, unsigned chip) : library_(library), chip_(chip) {
        if (CALL(library_, EEFS_MultLibInit)(&attributes_, chip_) != 0)
            eeprom_says_no(chip_, "cannot open the file system of");
    }
    ~EepromView() { CALL(library_, EEFS_MultLibExit)(chip_); }
    EepromView(const EepromView &) = delete;
    EepromView &operator=(const EepromView &) = delete;

    std::vector<EepromFile> files() const {
        unsigned count = 0;
        if (CALL(library_, EEFS_MultLibGetFileCount)(&count, chip_) != 0)
            eeprom_says_no(chip_, "cannot count the files of");
        std::vector<EepromFile> found;
        for (unsigned n = 0; n < count; ++n) {
            char name[EEFS_NAME_BYTES] = {};
            // Files that are not in use count, too, but are not listed.
            if (CALL(library_, EEFS_MultLibGetFileInfo)(n, name, nullptr, chip_) != 0) break;
            found.push_back(file(name));
        }
        return found;
    }

    EepromFile file(const std::string &name) const {
        EepromFile found{name, 0, 0, 0};
        if (CALL(library_, EEFS_MultLibFindFile)(name.c_str(), chip_) == EEFS_NOT_FOUND) {
            throw Failure(ExitCode::kFailed, "EEPROM chip " + std::to_string(chip_) + " has no file " +
                                                 printable(name) + "; `qelctl eeprom ls` lists them.");
        }
        if (CALL(library_, EEFS_MultLibStat)(name.c_str(), &found.bytes, &found.changed_s, chip_) != 0 ||
            CALL(library_, EEFS_MultLibFileSpace)(name.c_str(), &found.room_bytes, chip_) != 0) {
            eeprom_says_no(chip_, "cannot look at " + printable(name) + " on");
        }
        return found;
    }

    std::vector<uint8_t> content(const EepromFile &file) const {
        const int index = CALL(library_, EEFS_MultLibOpen)(file.name.c_str(), chip_);
        std::vector<uint8_t> bytes(std::min(file.bytes, attributes_.capacity_bytes));
        unsigned done = 0;
        const bool is_read =
            bytes.empty() || CALL(library_, EEFS_MultLibRead)(
                                 index, bytes.data(), static_cast<unsigned>(bytes.size()), &done, chip_) == 0;
        CALL(library_, EEFS_MultLibClose)(index, chip_);
        if (index < 0 || !is_read) eeprom_says_no(chip_, "cannot read " + printable(file.name) + " on");
        bytes.resize(done);
        return bytes;
    }

    unsigned free_bytes() const { return CALL(library_, EEFS_MultLibFreeChip)(chip_); }
    const EefsChipAttr &attributes() const { return attributes_; }
    void dump() const {
        if (CALL(library_, EEFS_MultLibDump)(chip_) != 0) eeprom_says_no(chip_, "cannot dump");
    }

private:
    const Library &library_;
    unsigned chip_;
    EefsChipAttr attributes_{};
};

// A chip's raw object for changes. Chip 0 has one also where the number of chips is not known.
class EepromObject {
public:
    EepromObject(const Library &library, unsigned chip) : chip_(chip) {
        const int made = chip == 0 ? CALL(library, createRawEeprom)(nullptr, &single_)
                                   : CALL(library, createRawMultEeprom)(nullptr, &multiple_);
        if (made != 0) eeprom_says_no(chip, "cannot open the file system of");
    }
    ~EepromObject() { chip_ == 0 ? single_->release(single_) : multiple_->release(multiple_); }
    EepromObject(const EepromObject &) = delete;
    EepromObject &operator=(const EepromObject &) = delete;

    bool store(const std::string &name, const std::vector<uint8_t> &bytes) const {
        const auto size = static_cast<unsigned>(bytes.size());
        return (chip_ == 0 ? single_->write(single_, name.c_str(), bytes.data(), size)
                           : multiple_->write(multiple_, name.c_str(), bytes.data(), size, chip_)) == 0;
    }
    bool export_to(const std::string &directory) const {
        return (chip_ == 0 ? single_->read(single_, directory.c_str())
                           : multiple_->read(multiple_, directory.c_str(), chip_)) == 0;
    }
    bool erase() const {
        return (chip_ == 0 ? single_->eraseChip(single_) : multiple_->eraseChip(multiple_, chip_)) == 0;
    }

private:
    unsigned chip_;
    RawEeprom *single_ = nullptr;
    RawMultEeprom *multiple_ = nullptr;
};

std::string local_time(unsigned seconds) {
    const time_t moment = seconds;
    struct tm parts = {};
    char text[32];
    localtime_r(&moment, &parts);
    strftime(text, sizeof text, "%Y-%m-%d %H:%M:%S", &parts);
    return text;
}

ordered_json file_json(const EepromFile &file) {
    ordered_json entry;
    entry["name"] = file.name;
    entry["bytes"] = file.bytes;
    entry["room_bytes"] = file.room_bytes;
    entry["changed_s"] = file.changed_s;
    return entry;
}

void list_eeprom(const EepromView &view, const EepromChoice &choice) {
    const std::vector<EepromFile> files = view.files();
    if (choice.json) {
        ordered_json document;
        document["chip"] = choice.chip;
        document["capacity_bytes"] = view.attributes().capacity_bytes;
        document["page_bytes"] = view.attributes().page_bytes;
        document["free_bytes"] = view.free_bytes();
        document["files"] = ordered_json::array();
        for (const EepromFile &file : files) document["files"].push_back(file_json(file));
        print_json(document);
        return;
    }
    Table table({"name", "bytes", "room", "changed"});
    for (const EepromFile &file : files) {
        table.add({printable(file.name), std::to_string(file.bytes), std::to_string(file.room_bytes),
                   local_time(file.changed_s)});
    }
    print((files.empty() ? "no files\n" : table.text(wants_colour())) + "\n" +
          std::to_string(view.free_bytes()) + " of " + std::to_string(view.attributes().capacity_bytes) +
          " bytes free\n");
}

void get_from_eeprom(Session &session, const EepromChoice &choice) {
    const EepromView view(session.library(), choice.chip);
    const EepromFile file = view.file(choice.name);
    const std::vector<uint8_t> bytes = view.content(file);
    if (!choice.json) {
        write_host_file(choice.file, bytes);
        return;
    }
    ordered_json document = file_json(file);
    document["content"] = hex_text(bytes.data(), bytes.size());
    print_json(document);
}

// A change to the chip, which Ctrl-C does not cut in two.
bool change_eeprom(const Library &library, unsigned chip,
                   const std::function<bool(const EepromObject &)> &change) {
    const EepromObject object(library, chip);
    const Interrupt interrupt;
    return change(object);
}

void put_into_eeprom(Session &session, const EepromChoice &choice) {
    const std::string name = choice.name.empty() ? last_part(choice.file) : choice.name;
    if (name.empty() || name.size() >= EEFS_NAME_BYTES || name.find('/') != std::string::npos)
        throw Failure(ExitCode::kUsage, "a file on the EEPROM has a name of 1 to 39 characters without /.");
    if (choice.file == "-" && choice.name.empty())
        throw Failure(ExitCode::kUsage, "what comes from standard input needs a --name.");
    const std::vector<uint8_t> bytes = read_host_file(choice.file, kMostEepromBytes);
    if (!change_eeprom(session.library(), choice.chip,
                       [&](const EepromObject &chip) { return chip.store(name, bytes); }))
        eeprom_says_no(choice.chip, "cannot store " + printable(name) + " on");
    const EepromFile stored = EepromView(session.library(), choice.chip).file(name);
    if (stored.bytes > bytes.size()) {
        fprintf(stderr, "qelctl: %s was longer before and keeps its end: %zu new bytes, then %zu old ones.\n",
                printable(name).c_str(), bytes.size(), stored.bytes - bytes.size());
    }
    if (choice.json) print_json(file_json(stored));
}

void export_eeprom(Session &session, const EepromChoice &choice) {
    const Library &library = session.library();
    const std::vector<EepromFile> files = EepromView(library, choice.chip).files();
    if (!files.empty() && !EepromObject(library, choice.chip).export_to(choice.file))
        eeprom_says_no(choice.chip, "cannot export all files of");
    if (choice.json) {
        ordered_json document;
        document["directory"] = choice.file;
        document["files"] = ordered_json::array();
        for (const EepromFile &file : files) document["files"].push_back(file_json(file));
        print_json(document);
    } else if (files.empty()) {
        print("no files\n");
    }
}

void erase_eeprom(Session &session, const EepromChoice &choice) {
    choice.consent.require("This writes zeros over all of EEPROM chip " + std::to_string(choice.chip) +
                           "; every file on it is lost.");
    if (!change_eeprom(session.library(), choice.chip, [](const EepromObject &chip) { return chip.erase(); }))
        eeprom_says_no(choice.chip, "cannot erase");
    if (!choice.json) return;
    ordered_json document;
    document["chip"] = choice.chip;
    document["erased"] = true;
    print_json(document);
}

void dump_eeprom(Session &session, const EepromChoice &choice) {
    // The table goes to the log as information, which nobody sees unless it is asked for.
    setenv("OSA_LOG", "info", 0);
    const EepromView view(session.library(), choice.chip);
    view.dump();
    if (choice.json) list_eeprom(view, choice);
}

using EepromChoicePtr = std::shared_ptr<EepromChoice>;

CLI::App *add_eeprom_verb(CLI::App &parent, const char *name, const char *description,
                          const EepromChoicePtr &choice, const std::function<void()> &work) {
    CLI::App *verb = parent.add_subcommand(name, description);
    verb->add_option("--chip", choice->chip, "EEPROM chip, 0 = the first; 0 unless given")
        ->type_name("N")
        ->check(CLI::Range(0U, QEL_EEPROM_CHIPS_MAX - 1U).description(""));
    verb->add_flag("--json", choice->json, "Print JSON (described by qelctl.schema.json)");
    verb->callback(work);
    return verb;
}

void add_eeprom_looks(CLI::App &app, Session &session, const EepromChoicePtr &choice) {
    add_eeprom_verb(app, "ls", "List the files: name, bytes, room, time of the last change", choice,
                    [&session, choice] { list_eeprom(EepromView(session.library(), choice->chip), *choice); })
        ->footer("Examples:\n  qelctl eeprom ls\n  qelctl eeprom ls --chip 1 --json");

    CLI::App *get = add_eeprom_verb(app, "get", "Copy a file out", choice,
                                    [&session, choice] { get_from_eeprom(session, *choice); });
    get->add_option("name", choice->name, "Name of the file on the EEPROM")->required();
    get->add_option("-o,--output", choice->file, "Write it here; standard output unless given")
        ->type_name("FILE");
    get->footer("Examples:\n  qelctl eeprom get net.conf\n  qelctl eeprom get net.conf -o net.conf");

    CLI::App *all = add_eeprom_verb(app, "export", "Copy every file into a directory of the device", choice,
                                    [&session, choice] { export_eeprom(session, *choice); });
    all->add_option("directory", choice->file, "An existing directory, as the library sees it")->required();
    all->footer("Examples:\n  qelctl eeprom export /tmp");

    add_eeprom_verb(app, "dump", "Have the library log its table of files, on standard error", choice,
                    [&session, choice] { dump_eeprom(session, *choice); })
        ->footer("Examples:\n  qelctl eeprom dump");
}

void add_eeprom_changes(CLI::App &app, Session &session, const EepromChoicePtr &choice) {
    CLI::App *put = add_eeprom_verb(app, "put", "Store a file as a whole", choice,
                                    [&session, choice] { put_into_eeprom(session, *choice); });
    put->add_option("file", choice->file, "What to store; - is standard input")
        ->required()
        ->type_name("FILE");
    put->add_option("--name", choice->name, "Store it under this name; the file's own unless given")
        ->type_name("TEXT");
    put->footer(
        "Examples:\n"
        "  qelctl eeprom put net.conf\n"
        "  qelctl eeprom put - --name serial --chip 1");

    CLI::App *erase = add_eeprom_verb(app, "erase", "Write zeros over the whole chip", choice,
                                      [&session, choice] { erase_eeprom(session, *choice); });
    choice->consent.add_to(*erase);
    erase->footer("Examples:\n  qelctl eeprom erase --chip 2 --yes");
}

}  // namespace

void add_eeprom(CLI::App &app, Session &session) {
    CLI::App *verb = app.add_subcommand("eeprom", "Files on the serial EEPROM");
    verb->require_subcommand(1);
    const auto choice = std::make_shared<EepromChoice>();
    add_eeprom_looks(*verb, session, choice);
    add_eeprom_changes(*verb, session, choice);
    verb->footer(
        "Examples:\n"
        "  qelctl eeprom ls\n"
        "  qelctl eeprom put net.conf");
}

}  // namespace qelctl

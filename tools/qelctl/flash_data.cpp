#include "tools/qelctl/flash_data.h"

#include <algorithm>
#include <cstdio>
#include <cstring>
#include <functional>
#include <memory>
#include <nlohmann/json.hpp>
#include <optional>

#include "qel/rawflash.h"
#include "tools/qelctl/confirm.h"
#include "tools/qelctl/exit_code.h"
#include "tools/qelctl/flash_table.h"
#include "tools/qelctl/host_file.h"
#include "tools/qelctl/interrupt.h"
#include "tools/qelctl/output.h"
#include "tools/qelctl/progress.h"
#include "tools/qelctl/raw_flash.h"
#include "tools/qelctl/table.h"

namespace qelctl {

namespace {

using nlohmann::ordered_json;

constexpr uint8_t kErased = 0xFF;
constexpr size_t kMapWidth = 64;
constexpr size_t kMostMarks = 16 * kMapWidth;  // of a partition, for people

struct DataChoice {
    std::vector<std::string> names;
    std::string name;
    std::string file = "-";
    uint64_t offset = 0;
    std::optional<uint64_t> bytes;
    bool every_chip = false;
    bool json = false;
    Consent consent;
    ProgressChoice progress;
};

struct Target {
    std::string name;
    FlashPartition partition;
    FlashInfo info;
    BlockList blocks;
    uint64_t usable_bytes() const { return blocks.good.size() * uint64_t{info.eraseBytes}; }
};

Target find_target(const Library &library, const std::string &name) {
    const std::vector<FlashPartition> partitions = read_partitions(library);
    const FlashPartition &partition = partitions[static_cast<size_t>(find_partition(partitions, name))];
    const FlashInfo info = read_flash_info(library);
    Target target{name, partition, info, read_blocks(library, info, partition)};
    return target;
}

[[noreturn]] void flash_says_no(const std::string &what, const std::string &name) {
    throw Failure(ExitCode::kFailed, what + " " + printable(name) + "; the library's log says why.");
}

// ---- blocks ----

// '.' erased, '#' written, 'B' bad, '?' cannot be read; by place in the partition.
std::string block_map(const RawFlashObject &flash, const Target &target, Progress &progress,
                      uint64_t &done_bytes) {
    const uint32_t erase_bytes = target.info.eraseBytes;
    std::string map((target.partition.size + erase_bytes - 1) / erase_bytes, '.');
    for (const uint64_t offset : target.blocks.bad) map[offset / erase_bytes] = 'B';
    std::vector<uint8_t> block(erase_bytes);
    for (size_t i = 0; i < target.blocks.good.size(); ++i) {
        char &mark = map[target.blocks.good[i] / erase_bytes];
        if (!flash.read(target.partition.offset + i * uint64_t{erase_bytes}, block)) {
            mark = '?';
        } else if (std::any_of(block.begin(), block.end(), [](uint8_t byte) { return byte != kErased; })) {
            mark = '#';
        }
        progress.at(done_bytes += erase_bytes);
    }
    return map;
}

ordered_json blocks_json(const Target &target, const std::string &map) {
    ordered_json entry;
    entry["name"] = target.name;
    entry["blocks"] = map.size();
    entry["bad"] = ordered_json::array();
    for (const uint64_t offset : target.blocks.bad) entry["bad"].push_back(offset / target.info.eraseBytes);
    entry["written"] = std::count(map.begin(), map.end(), '#');
    entry["map"] = map;
    return entry;
}

// One mark for so many blocks: the most telling one of them.
std::string condensed(const std::string &map, size_t blocks_per_mark) {
    std::string drawn;
    for (size_t at = 0; at < map.size(); at += blocks_per_mark) {
        const std::string part = map.substr(at, blocks_per_mark);
        char mark = '.';
        for (const char candidate : {'#', 'B', '?'}) {
            if (part.find(candidate) != std::string::npos) mark = candidate;
        }
        drawn += mark;
    }
    return drawn;
}

std::string blocks_text(const Target &target, const std::string &map) {
    const auto count = [&map](char mark) { return std::to_string(std::count(map.begin(), map.end(), mark)); };
    std::string text = bold(printable(target.name), wants_colour()) + "  " + std::to_string(map.size()) +
                       " blocks, " + count('#') + " written, " + count('.') + " erased, " + count('B') +
                       " bad" +
                       (map.find('?') == std::string::npos ? "" : ", " + count('?') + " unreadable") + "\n";
    const size_t blocks_per_mark = (map.size() + kMostMarks - 1) / kMostMarks;
    const std::string drawn = blocks_per_mark < 2 ? map : condensed(map, blocks_per_mark);
    if (blocks_per_mark > 1) text += "  " + std::to_string(blocks_per_mark) + " blocks to a mark\n";
    for (size_t at = 0; at < drawn.size(); at += kMapWidth) text += "  " + drawn.substr(at, kMapWidth) + "\n";
    return text;
}

void show_blocks(Session &session, const DataChoice &choice) {
    const Library &library = session.library();
    const FlashInfo info = read_flash_info(library);
    std::vector<std::string> names = choice.names;
    if (names.empty()) {
        for (const FlashPartition &partition : read_partitions(library))
            names.emplace_back(partition.name, strnlen(partition.name, sizeof partition.name));
    }
    std::vector<Target> targets;
    uint64_t total_bytes = 0;
    for (const std::string &name : names) {
        targets.push_back(find_target(library, name));
        total_bytes += targets.back().usable_bytes();
    }
    const RawFlashObject flash(library, false);
    ordered_json list = ordered_json::array();
    std::string text;
    {
        Progress progress(choice.progress, "looking at blocks", total_bytes);
        uint64_t done_bytes = 0;
        for (const Target &target : targets) {
            const std::string map = block_map(flash, target, progress, done_bytes);
            list.push_back(blocks_json(target, map));
            text += blocks_text(target, map);
        }
    }
    if (!choice.json) {
        print(text + "# written  . erased  B bad; " + std::to_string(info.eraseBytes) + " bytes each\n");
        return;
    }
    ordered_json document;
    document["erase_bytes"] = info.eraseBytes;
    document["partitions"] = list;
    print_json(document);
}

// ---- read ----

void read_flash(Session &session, const DataChoice &choice) {
    if (choice.json && choice.file == "-")
        throw Failure(ExitCode::kUsage, "with --json, name a file for what is read.");
    const Library &library = session.library();
    const Target target = find_target(library, choice.name);
    const uint64_t usable = target.usable_bytes();
    if (choice.offset > usable || choice.bytes.value_or(0) > usable - choice.offset) {
        throw Failure(ExitCode::kFailed, printable(choice.name) + " has " + std::to_string(usable) +
                                             " bytes in good blocks; what you ask for ends behind them.");
    }
    const uint64_t bytes = choice.bytes.value_or(usable - choice.offset);
    const RawFlashObject flash(library, false);
    HostFileWriter file(choice.file);
    {
        Progress progress(choice.progress, "reading " + printable(choice.name), bytes);
        std::vector<uint8_t> piece;
        for (uint64_t done = 0; done < bytes; done += piece.size()) {
            piece.resize(std::min<uint64_t>(target.info.eraseBytes, bytes - done));
            if (!flash.read(target.partition.offset + choice.offset + done, piece))
                flash_says_no("cannot read", choice.name);
            file.append(piece);
            progress.at(done + piece.size());
        }
    }
    file.finish();
    if (!choice.json) return;
    ordered_json document;
    document["name"] = choice.name;
    document["offset"] = choice.offset;
    document["bytes"] = bytes;
    document["file"] = choice.file;
    print_json(document);
}

// ---- write and erase ----

// Runs a request that Ctrl-C ends between two blocks.
void run_request(const RawFlashObject &flash, const DataChoice &choice, const std::string &doing,
                 uint64_t total_bytes, const std::function<bool()> &request) {
    Progress progress(choice.progress, doing + " " + printable(choice.name), total_bytes);
    const Interrupt interrupt;
    uint64_t done_bytes = 0;
    flash.on_progress([&](uint64_t done) {
        done_bytes = done;
        progress.at(done);
        if (Interrupt::happened()) flash.abort();
    });
    const bool worked = request();
    flash.on_progress({});
    if (worked) return;
    const std::string name = printable(choice.name);
    if (Interrupt::happened()) {
        throw Failure(
            ExitCode::kInterrupted,
            doing + " " + name + " ended after " + std::to_string(done_bytes) + " of " +
                std::to_string(total_bytes) +
                " bytes, between two blocks.\nWhat lies behind is as it was; do it again, or see `qelctl "
                "flash blocks " +
                name + "`.");
    }
    throw Failure(ExitCode::kFailed, doing + " " + name + " failed after " + std::to_string(done_bytes) +
                                         " of " + std::to_string(total_bytes) +
                                         " bytes; the library's log says why.");
}

void print_change(const DataChoice &choice, const char *what, uint64_t bytes) {
    if (!choice.json) return;
    ordered_json document;
    document["name"] = choice.name;
    document["offset"] = choice.offset;
    document[what] = bytes;
    print_json(document);
}

void write_flash(Session &session, const DataChoice &choice) {
    choice.consent.require("This overwrites partition " + printable(choice.name) + " with " +
                           printable(choice.file) + (choice.every_chip ? " on every chip." : "."));
    const Library &library = session.library();
    const Target target = find_target(library, choice.name);
    const uint64_t usable = target.usable_bytes();
    const std::vector<uint8_t> data = read_host_file(choice.file, UINT32_MAX);
    if (choice.offset > usable || data.size() > usable - choice.offset) {
        throw Failure(ExitCode::kFailed, printable(choice.file) + " has " + std::to_string(data.size()) +
                                             " bytes and does not fit; " + printable(choice.name) + " has " +
                                             std::to_string(usable) + " in good blocks.");
    }
    if (data.empty()) throw Failure(ExitCode::kFailed, printable(choice.file) + " is empty.");
    const RawFlashObject flash(library, choice.every_chip);
    run_request(flash, choice, "writing", data.size(), [&] {
        return choice.offset == 0 ? flash.write_partition(choice.name, data)
                                  : flash.write(target.partition.offset + choice.offset, data);
    });
    print_change(choice, "written_bytes", data.size());
}

void erase_flash(Session &session, const DataChoice &choice) {
    choice.consent.require("This erases partition " + printable(choice.name) +
                           (choice.every_chip ? " on every chip." : "."));
    const Library &library = session.library();
    const Target target = find_target(library, choice.name);
    const RawFlashObject flash(library, choice.every_chip);
    run_request(flash, choice, "erasing", target.partition.size,
                [&] { return flash.erase(target.partition.offset, target.partition.size); });
    print_change(choice, "erased_bytes", target.partition.size);
}

// ---- the verbs ----

using DataChoicePtr = std::shared_ptr<DataChoice>;

CLI::App *add_data_verb(CLI::App &parent, const char *name, const char *description,
                        const DataChoicePtr &choice, const std::function<void()> &work) {
    CLI::App *verb = parent.add_subcommand(name, description);
    verb->add_flag("--json", choice->json, "Print JSON (described by qelctl.schema.json)");
    choice->progress.add_to(*verb);
    verb->callback(work);
    return verb;
}

void add_partition(CLI::App &verb, const DataChoicePtr &choice) {
    verb.add_option("partition", choice->name, "Name of the partition")->required();
}

void add_flash_changes(CLI::App &flash, Session &session, const DataChoicePtr &choice) {
    const auto add_common = [&choice](CLI::App &verb) {
        verb.add_flag("--every-chip", choice->every_chip,
                      "Unmount what is mounted from flash, and do it on every chip of the unit");
        choice->consent.add_to(verb);
    };
    CLI::App *write = add_data_verb(flash, "write", "Write a file into a partition, verified", choice,
                                    [&session, choice] { write_flash(session, *choice); });
    add_partition(*write, choice);
    write->add_option("file", choice->file, "What to write; - is standard input")
        ->required()
        ->type_name("FILE");
    write
        ->add_option("--offset", choice->offset, "From here on, a multiple of the erase size; 0 unless given")
        ->type_name("N");
    add_common(*write);
    write->footer("Examples:\n  qelctl flash write romfs romfs.img --yes");

    CLI::App *erase = add_data_verb(flash, "erase", "Erase a partition", choice,
                                    [&session, choice] { erase_flash(session, *choice); });
    add_partition(*erase, choice);
    add_common(*erase);
    erase->footer("Examples:\n  qelctl flash erase config --yes");
}

}  // namespace

void add_flash_data(CLI::App &flash, Session &session) {
    const auto choice = std::make_shared<DataChoice>();
    CLI::App *blocks = add_data_verb(flash, "blocks", "Show which blocks are good, bad, erased, written",
                                     choice, [&session, choice] { show_blocks(session, *choice); });
    blocks->add_option("partition", choice->names, "Of these partitions only");
    blocks->footer("Examples:\n  qelctl flash blocks\n  qelctl flash blocks hwid --json");

    CLI::App *read = add_data_verb(flash, "read", "Copy a partition into a file; bad blocks are left out",
                                   choice, [&session, choice] { read_flash(session, *choice); });
    add_partition(*read, choice);
    read->add_option("file", choice->file, "Where to; standard output unless given")->type_name("FILE");
    read->add_option("--offset", choice->offset, "From here on, in good blocks; 0 unless given")
        ->type_name("N");
    read->add_option("--bytes", choice->bytes, "So many; all unless given")->type_name("N");
    read->footer(
        "Examples:\n"
        "  qelctl flash read hwid hwid.bin\n"
        "  qelctl flash read hwid --offset 4 --bytes 64");
    add_flash_changes(flash, session, choice);
}

}  // namespace qelctl

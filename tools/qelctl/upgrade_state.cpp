// What an upgrade leaves in the partition "updateflag" and in the files under /tmp.
#include <functional>
#include <memory>
#include <nlohmann/json.hpp>
#include <optional>

#include "qel/storage.h"
#include "tools/qelctl/confirm.h"
#include "tools/qelctl/exit_code.h"
#include "tools/qelctl/flash_table.h"
#include "tools/qelctl/interrupt.h"
#include "tools/qelctl/output.h"
#include "tools/qelctl/table.h"
#include "tools/qelctl/verb.h"

namespace qelctl {

namespace {

using nlohmann::ordered_json;

constexpr const char *kFlagPartition = "updateflag";
constexpr int kNothingYet = 0xFF;
constexpr uint32_t kWaitPage = 3;
constexpr int kWaitMark = 0x6A;

struct StateName {
    int value;
    const char *meaning;
};

constexpr StateName kStateNames[] = {
    {kNothingYet, "idle"},
    {0x55, "started"},
    {0xAA, "main copy written"},
    {0x5A, "backup copy refreshed"},
    {kWaitMark, "waiting for the backup"},
    {0x75, "started, marks per partition"},
    {0x77, "kernel and root image under way"},
    {0x7A, "remaining partitions under way"},
};

constexpr const char *kKindNames[] = {"none", "in progress", "in progress, no backup bookkeeping"};

// What stands in "updateflag".
struct UpgradeFlags {
    int state;
    bool waits;  // for the backup: upgrades are refused
    bool system_normal;
    bool from_backup;
    std::optional<unsigned> error_count;
    std::optional<unsigned> boot_version;
};

struct UpgradeState {
    std::optional<UpgradeFlags> flags;  // none: the device keeps no backup copies
    int kind;
    std::optional<unsigned> backup_version;
};

struct UpgradeChoice {
    std::optional<unsigned> kind;
    std::optional<unsigned> backup_version;
    std::vector<unsigned> flag;  // block, page, byte, value
    std::string what = "state";
    bool json = false;
    Consent consent;
};

[[noreturn]] void upgrade_says_no(const std::string &what) {
    throw Failure(ExitCode::kFailed, what + "; the library's log says why.");
}

const char *state_name(int state) {
    for (const StateName &known : kStateNames) {
        if (known.value == state) return known.meaning;
    }
    return "unknown";
}

UpgradeFlags read_upgrade_flags(const Library &library) {
    UpgradeFlags flags{};
    uint8_t byte = 0;
    flags.state = CALL(library, QEL_getUpdateState)();
    if (flags.state < 0) upgrade_says_no("cannot read how far the upgrade has come");
    flags.waits = CALL(library, QEL_flashReadBackUpFlag)(0, kWaitPage, 0, &byte) == 0 && byte == kWaitMark;
    flags.system_normal = CALL(library, QEL_readSysState)() == 0;
    flags.from_backup = CALL(library, QEL_bootFromBackupPart)(&byte) == 0 && byte == 1;
    if (CALL(library, QEL_readErrCount)(&byte) == 0) flags.error_count = byte;
    if (CALL(library, QEL_readBootBackupVer)(&byte) == 0) flags.boot_version = byte;
    return flags;
}

UpgradeState read_upgrade_state(const Library &library) {
    UpgradeState state{};
    if (has_partition(library, kFlagPartition)) state.flags = read_upgrade_flags(library);
    state.kind = CALL(library, QEL_checkUpgradeMap)();
    if (state.kind < 0) upgrade_says_no("cannot read which upgrade is in progress");
    uint8_t version = 0;
    if (CALL(library, QEL_readBackupVer)(&version) == 0) state.backup_version = version;
    return state;
}

ordered_json number_or_null(const std::optional<unsigned> &value) {
    return value ? ordered_json(*value) : ordered_json();
}

std::string number_or_dash(const std::optional<unsigned> &value) {
    return value ? std::to_string(*value) : "-";
}

std::string kind_name(int kind) { return kind < 3 ? kKindNames[kind] : "unknown"; }

ordered_json flags_json(const UpgradeFlags &flags) {
    ordered_json document;
    document["state"] = flags.state;
    document["state_name"] = state_name(flags.state);
    document["waits_for_backup"] = flags.waits;
    document["system_normal"] = flags.system_normal;
    document["error_count"] = number_or_null(flags.error_count);
    document["boot_version"] = number_or_null(flags.boot_version);
    document["from_backup"] = flags.from_backup;
    return document;
}

ordered_json upgrade_json(const UpgradeState &state) {
    ordered_json document;
    document["kind"] = state.kind;
    document["backup_version"] = number_or_null(state.backup_version);
    document["flags"] = state.flags ? flags_json(*state.flags) : ordered_json();
    return document;
}

std::string upgrade_text(const UpgradeState &state, bool colour) {
    const auto line = [colour](const char *name, const std::string &value) {
        return named_value(name, 16, value, colour);
    };
    std::string text;
    if (state.flags) {
        text += line("state", state_name(state.flags->state));
        text += line("upgrades", state.flags->waits ? "refused: waiting for the backup" : "allowed");
        text += line("system", state.flags->system_normal ? "normal" : "not normal");
        text += line("error count", number_or_dash(state.flags->error_count));
        text += line("boot version", number_or_dash(state.flags->boot_version));
        text += line("runs from", state.flags->from_backup ? "backup copy" : "main copy");
    } else {
        text += "This device keeps no backup copies: it has no partition \"updateflag\".\n";
    }
    text += line("upgrade", kind_name(state.kind));
    return text + line("backup version", number_or_dash(state.backup_version));
}

void show_upgrade_state(const Library &library, bool json) {
    const UpgradeState state = read_upgrade_state(library);
    if (json) {
        print_json(upgrade_json(state));
    } else {
        print(upgrade_text(state, wants_colour()));
    }
}

void require_flags(const Library &library) {
    if (has_partition(library, kFlagPartition)) return;
    throw Failure(ExitCode::kFailed,
                  "this device keeps no backup copies: it has no partition \"updateflag\".");
}

void set_upgrade_state(Session &session, const UpgradeChoice &choice) {
    if (!choice.kind && !choice.backup_version && choice.flag.empty())
        throw Failure(ExitCode::kUsage, "set what? Give --kind, --backup-version or --flag.");
    choice.consent.require("This changes what the unit believes of an upgrade.");
    const Library &library = session.library();
    if (!choice.flag.empty()) require_flags(library);
    const Interrupt interrupt;
    if (choice.kind && CALL(library, Flash_writeUpgradeFlag)(*choice.kind) != 0)
        upgrade_says_no("cannot write the kind of the upgrade");
    if (choice.backup_version && CALL(library, QEL_writeBackupVer)(*choice.backup_version) != 0)
        upgrade_says_no("cannot write the backup version");
    const std::vector<unsigned> &flag = choice.flag;
    if (!flag.empty() && CALL(library, QEL_flashWriteBackUpFlag)(flag[0], flag[1], flag[2],
                                                                 static_cast<uint8_t>(flag[3])) != 0) {
        upgrade_says_no("cannot write the flag; a page is written once per erase of its block");
    }
    if (choice.json) show_upgrade_state(library, true);
}

struct Clearing {
    const char *word;
    const char *warning;
    int (*run)(const Library &library);
};

constexpr Clearing kClearings[] = {
    {"state", "This forgets how far an upgrade has come (block 0 of \"updateflag\").",
     [](const Library &library) { return CALL(library, QEL_gotoStateInit)(); }},
    {"errors", "This sets the error count to 0 (erases block 1 of \"updateflag\").",
     [](const Library &library) { return CALL(library, QEL_clearResetCount)(); }},
    {"crc", "This forgets the check sums of the partitions (erases block 2 of \"updateflag\").",
     [](const Library &library) { return CALL(library, QEL_flashClearCrc)(); }},
};

void clear_upgrade_state(Session &session, const UpgradeChoice &choice) {
    for (const Clearing &clearing : kClearings) {
        if (choice.what != clearing.word) continue;
        choice.consent.require(clearing.warning);
        const Library &library = session.library();
        require_flags(library);
        const Interrupt interrupt;
        if (clearing.run(library) != 0) upgrade_says_no("cannot clear it");
        if (choice.json) show_upgrade_state(library, true);
    }
}

void wait_for_backup(Session &session, const UpgradeChoice &choice) {
    choice.consent.require("From now on upgrades are refused until the backup copy is refreshed.");
    const Library &library = session.library();
    require_flags(library);
    const Interrupt interrupt;
    if (CALL(library, QEL_gotoStateWaitbackup)() != 0) upgrade_says_no("cannot write the wait mark");
    if (choice.json) show_upgrade_state(library, true);
}

using UpgradeChoicePtr = std::shared_ptr<UpgradeChoice>;

CLI::App *add_upgrade_verb(CLI::App &parent, const char *name, const char *description,
                           const UpgradeChoicePtr &choice, const std::function<void()> &work) {
    CLI::App *verb = parent.add_subcommand(name, description);
    verb->add_flag("--json", choice->json, "Print the state as JSON (described by qelctl.schema.json)");
    verb->callback(work);
    return verb;
}

void add_upgrade_changes(CLI::App &app, Session &session, const UpgradeChoicePtr &choice) {
    CLI::App *set = add_upgrade_verb(app, "set", "Set single facts of the upgrade state", choice,
                                     [&session, choice] { set_upgrade_state(session, *choice); });
    set->add_option("--kind", choice->kind,
                    "Upgrade in progress: 0 none, 1 yes, 2 yes and without backup bookkeeping")
        ->type_name("N")
        ->check(CLI::Range(0U, 2U).description(""));
    set->add_option("--backup-version", choice->backup_version, "Version of the backup copy, 0 to 255")
        ->type_name("N")
        ->check(CLI::Range(0U, 255U).description(""));
    set->add_option("--flag", choice->flag, "One flag byte: block, page, byte in the page, value")
        ->type_name("N")
        ->expected(4);
    choice->consent.add_to(*set);
    set->footer(
        "Examples:\n"
        "  qelctl upgrade-state set --backup-version 2 --yes\n"
        "  qelctl upgrade-state set --flag 0 2 0 90 --yes");

    CLI::App *clear = add_upgrade_verb(app, "clear", "Erase one kind of flags", choice,
                                       [&session, choice] { clear_upgrade_state(session, *choice); });
    clear->add_option("what", choice->what, "Which; the state unless given")
        ->check(CLI::IsMember({"state", "errors", "crc"}));
    choice->consent.add_to(*clear);
    clear->footer("Examples:\n  qelctl upgrade-state clear --yes\n  qelctl upgrade-state clear errors --yes");

    CLI::App *wait = add_upgrade_verb(app, "wait", "Refuse upgrades until the backup copy is refreshed",
                                      choice, [&session, choice] { wait_for_backup(session, *choice); });
    choice->consent.add_to(*wait);
    wait->footer("Examples:\n  qelctl upgrade-state wait --yes");
}

}  // namespace

void add_upgrade_state(CLI::App &app, Session &session) {
    CLI::App *verb = app.add_subcommand("upgrade-state", "How far an upgrade has come, and its flags");
    verb->require_subcommand(1);
    const auto choice = std::make_shared<UpgradeChoice>();
    add_upgrade_verb(*verb, "show", "Print how far an upgrade has come", choice, [&session, choice] {
        show_upgrade_state(session.library(), choice->json);
    })->footer("Examples:\n  qelctl upgrade-state show\n  qelctl upgrade-state show --json");
    add_upgrade_changes(*verb, session, choice);
    verb->footer("Examples:\n  qelctl upgrade-state show");
}

}  // namespace qelctl

// eeprom.cpp - the raw EEPROM objects, of one chip and of several, and the board's number of chips.
#include "storage/eeprom_store.h"

#include <fcntl.h>
#include <cstring>

#include "os/os.h"
#include "qel/misc_driver.h"

namespace {

using qel::eefs::Operation;
namespace eefs = qel::eefs;
namespace eeprom = qel::eeprom;

static_assert(sizeof(void *) != 4 || sizeof(RawEeprom) == 32);
static_assert(sizeof(RawEepromInfo) == 20 && sizeof(RawEepromCaps) == 12);

struct State {
    RawEepromInfo single;
    RawEepromInfo chips[QEL_EEPROM_CHIPS_MAX];
};
State g_state;

struct MultObject {
    RawMultEeprom face;  // first: the object handed out
    unsigned chips;
};

// ---- what both kinds of object do; they log as `caller` ----

// False, with a line in the log, where there is no object.
bool is_object(const void *thiz, const char *caller) {
    if (thiz == nullptr) QEL_ERROR_AS(caller, "para:thiz is NULL\n");
    return thiz != nullptr;
}

void share(RawEepromInfo &info, const EefsChipAttr &chip) {
    info = {info.references + 1, chip.chip, chip.page_bytes, chip.word2, chip.capacity_bytes};
}

void unshare(RawEepromInfo &info, eefs::Operation &&exit, const char *caller) {
    if (info.references < 1) QEL_ERROR_AS(caller, "No more eeprom to release(ref=%d)!\n", info.references);
    if (exit.ready()) eefs::exit(exit);
    info = RawEepromInfo{};
}

int get_caps(const RawEepromInfo &info, RawEepromCaps *out, const char *caller) {
    if (out == nullptr) {
        QEL_ERROR_AS(caller, "para:pEepromInfo is NULL\n");
        return OSA_EFAIL;
    }
    *out = {info.chip, info.capacity_bytes, info.page_bytes};
    return 0;
}

int write_path(Operation &&op, const char *path, const void *buffer, unsigned size) {
    if (path == nullptr || buffer == nullptr) {
        QEL_ERROR_AS(op.caller, "param is NULL!\n");
        return OSA_EFAIL;
    }
    if (!op.ready()) return OSA_EFAIL;
    const char *slash = strrchr(path, '/');
    const char *name = slash != nullptr ? slash + 1 : path;
    if (*name == '\0') {
        QEL_ERROR_AS(op.caller, "invaild file name %s\n", path);
        return OSA_EFAIL;
    }
    return eeprom::store_file(op, name, buffer, size);
}

int erase(Operation &&op) {
    if (op.ready() && eefs::erase_chip(op) == 0) return 0;
    QEL_ERROR_AS(op.caller, "Fail to erase eepromChip!\n");
    return OSA_EFAIL;
}

int read_all(Operation &&op, const char *directory) {
    return op.ready() ? eeprom::export_all(op, directory) : OSA_EFAIL;
}

int read_one(Operation &&op, unsigned n, const char *directory) {
    return op.ready() ? eeprom::export_file(op, n, directory) : OSA_EFAIL;
}

int log_table(Operation &&op) { return op.ready() ? eefs::dump(op) : OSA_EFAIL; }

// ---- several chips ----

// The chip's number is one of the object's chips.
bool is_object(const RawMultEeprom *thiz, unsigned chip, const char *caller) {
    if (!is_object(thiz, caller)) return false;
    const unsigned chips = reinterpret_cast<const MultObject *>(thiz)->chips;
    if (chip >= chips) QEL_ERROR_AS(caller, "no chip %u of %u\n", chip, chips);
    return chip < chips;
}

Operation on_chip(unsigned chip, const char *caller) { return {eefs::chip_context(chip), caller}; }
Operation on_single(const char *caller) { return {eefs::single_context(), caller}; }

int mult_add_ref(RawMultEeprom *thiz) {
    if (!is_object(thiz, "Eeprom_MultAddref")) return OSA_EFAIL;
    for (unsigned chip = 0; chip < reinterpret_cast<MultObject *>(thiz)->chips; ++chip)
        ++g_state.chips[chip].references;
    return 0;
}

int mult_release(RawMultEeprom *thiz) {
    constexpr const char *kName = "Eeprom_MultRelease";
    if (!is_object(thiz, kName)) return OSA_EFAIL;
    auto *object = reinterpret_cast<MultObject *>(thiz);
    for (unsigned chip = 0; chip < object->chips; ++chip)
        unshare(g_state.chips[chip], on_chip(chip, "EEFS_MultLibExit"), kName);
    OSA_memFree(object);
    return 0;
}

int mult_get_caps(RawMultEeprom *thiz, RawEepromCaps *out, unsigned chip) {
    constexpr const char *kName = "Eeprom_MultGetcaps";
    return is_object(thiz, chip, kName) ? get_caps(g_state.chips[chip], out, kName) : OSA_EFAIL;
}

int mult_read(RawMultEeprom *thiz, const char *directory, unsigned chip) {
    constexpr const char *kName = "Eeprom_MultRead";
    return is_object(thiz, chip, kName) ? read_all(on_chip(chip, kName), directory) : OSA_EFAIL;
}

int mult_write(RawMultEeprom *thiz, const char *path, const void *buffer, unsigned size, unsigned chip) {
    constexpr const char *kName = "Eeprom_MultWrite";
    return is_object(thiz, chip, kName) ? write_path(on_chip(chip, kName), path, buffer, size) : OSA_EFAIL;
}

int mult_erase_chip(RawMultEeprom *thiz, unsigned chip) {
    constexpr const char *kName = "Eeprom_MultEarseChip";
    return is_object(thiz, chip, kName) ? erase(on_chip(chip, kName)) : OSA_EFAIL;
}

int mult_dump(RawMultEeprom *thiz, unsigned chip) {
    constexpr const char *kName = "Eeprom_MultDump";
    return is_object(thiz, chip, kName) ? log_table(on_chip(chip, kName)) : OSA_EFAIL;
}

// Initialises every chip or none: those that were before stay so.
int init_chips(unsigned chips) {
    bool was_ready[QEL_EEPROM_CHIPS_MAX];
    for (unsigned chip = 0; chip < chips; ++chip) {
        Operation op(eefs::chip_context(chip), "EEFS_MultLibInit");
        was_ready[chip] = op.context.initialised;
        EefsChipAttr attributes;
        if (eefs::init(op, chip, true, &attributes) == 0) continue;
        while (chip-- > 0) {
            Operation undo(eefs::chip_context(chip), "EEFS_MultLibExit");
            if (!was_ready[chip]) eefs::exit(undo);
        }
        return OSA_EFAIL;
    }
    for (unsigned chip = 0; chip < chips; ++chip)
        share(g_state.chips[chip], eefs::chip_context(chip).attributes);
    return 0;
}

}  // namespace

extern "C" {

int getEepromInfo(unsigned *count) {
    uint32_t chips = 0;
    const qel::os::Fd misc(qel::os::open(QEL_MISC_DEVICE, O_RDWR));
    if (count == nullptr || !misc.is_open() ||
        qel::os::ioctl(misc.get(), QEL_MISC_GET_EEPROM_COUNT, &chips) < 0 || chips == 0 ||
        chips > QEL_EEPROM_CHIPS_MAX) {
        QEL_ERROR("get EEPROM NUM failed\n");
        return OSA_EFAIL;
    }
    *count = chips;
    return 0;
}

int Eeprom_addref(RawEeprom *thiz) {
    if (!is_object(thiz, __func__)) return OSA_EFAIL;
    ++g_state.single.references;
    return 0;
}

int Eeprom_Release(RawEeprom *thiz) {
    if (!is_object(thiz, __func__)) return OSA_EFAIL;
    unshare(g_state.single, on_single("EEFS_LibExit"), __func__);
    OSA_memFree(thiz);
    return 0;
}

int Eeprom_Getcaps(RawEeprom *thiz, RawEepromCaps *out) {
    return is_object(thiz, __func__) ? get_caps(g_state.single, out, __func__) : OSA_EFAIL;
}

int Eeprom_Read(RawEeprom *thiz, const char *directory) {
    return is_object(thiz, __func__) ? read_all(on_single(__func__), directory) : OSA_EFAIL;
}

int Eeprom_Write(RawEeprom *thiz, const char *path, const void *buffer, unsigned size) {
    return is_object(thiz, __func__) ? write_path(on_single(__func__), path, buffer, size) : OSA_EFAIL;
}

int Eeprom_EarseChip(RawEeprom *thiz) {
    return is_object(thiz, __func__) ? erase(on_single(__func__)) : OSA_EFAIL;
}

int Eeprom_Dump(RawEeprom *thiz) {
    return is_object(thiz, __func__) ? log_table(on_single(__func__)) : OSA_EFAIL;
}

int Eeprom_writeFile(const char *name, const void *buffer, unsigned size) {
    Operation op = on_single(__func__);
    return op.ready() && buffer != nullptr ? eeprom::store_in_place(op, name, buffer, size) : OSA_EFAIL;
}

int Eeprom_reloadAllFile_new(const char *name, const void *buffer, unsigned size) {
    Operation op = on_single(__func__);
    return op.ready() && buffer != nullptr ? eeprom::store_anew(op, name, buffer, size) : OSA_EFAIL;
}

int QEL_RawEepromRdById(void *, unsigned n, const char *directory) {
    return read_one(on_single(__func__), n, directory);
}

int QEL_MultRawEepromRdById(void *, unsigned n, const char *directory, unsigned chip) {
    return read_one(on_chip(chip, __func__), n, directory);
}

int createRawEeprom(void *, RawEeprom **out) {
    if (out == nullptr) {
        QEL_ERROR("param is NULL!\n");
        return OSA_EFAIL;
    }
    *out = static_cast<RawEeprom *>(OSA_memCalloc(sizeof(RawEeprom)));
    if (*out == nullptr) {
        QEL_ERROR("OSA_memCalloc( sizeof(RawFlash) ) failed!");
        return OSA_EFAIL;
    }
    Operation init(eefs::single_context(), "EEFS_LibInit");
    EefsChipAttr attributes;
    if (eefs::init(init, 0, false, &attributes) != 0) {
        OSA_memFree(*out);
        *out = nullptr;
        return OSA_EFAIL;
    }
    share(g_state.single, attributes);
    **out = {&g_state.single, Eeprom_addref, Eeprom_Release,   Eeprom_Getcaps,
             Eeprom_Read,     Eeprom_Write,  Eeprom_EarseChip, Eeprom_Dump};
    return 0;
}

int createRawMultEeprom(void *, RawMultEeprom **out) {
    if (out == nullptr) {
        QEL_ERROR("param is NULL!\n");
        return OSA_EFAIL;
    }
    *out = nullptr;
    unsigned chips = 0;
    if (getEepromInfo(&chips) != 0) {
        QEL_ERROR("Fail to get EEPROM number\n");
        return OSA_EFAIL;
    }
    auto *object = static_cast<MultObject *>(OSA_memCalloc(sizeof(MultObject)));
    if (object == nullptr) {
        QEL_ERROR("OSA_memCalloc( sizeof(RawFlash) ) failed!");
        return OSA_EFAIL;
    }
    if (init_chips(chips) != 0) {
        OSA_memFree(object);
        return OSA_EFAIL;
    }
    object->chips = chips;
    object->face = {g_state.chips, mult_add_ref, mult_release,    mult_get_caps,
                    mult_read,     mult_write,   mult_erase_chip, mult_dump};
    *out = &object->face;
    return 0;
}

}  // extern "C"

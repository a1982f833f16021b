// tour.cpp - what the library knows of a unit, and a call to another chip and back.
//
//     OSA_LOG=info qelboard run twin --as vesta -- qel-tour
//
// The library starts up before main; OSA_LOG=info shows it at work. On a unit of several chips the
// channels between them belong to a process name, here that of the camera's main application.
// Ends with 0 when everything was as it should be.
#include <qel/qel.h>

#include <cstdio>
#include <string>

namespace {

// Where the record of a chip, as another chip hands it over, holds what the look-ups answer.
constexpr size_t kChipNumberAt = 38;
constexpr size_t kCategoryAt = 146;
constexpr size_t kBoardTypeAt = 152;

constexpr int kAnswerTimeout_ms = 10000;

int passed = 0;
int failed = 0;

void check(bool good, const std::string &what) {
    printf("%s  %s\n", good ? "PASS" : "FAIL", what.c_str());
    ++(good ? passed : failed);
}

bool is_property(int id) { return id != 2 && id != 7 && id != 10 && id != 17; }

void show_unit() {
    const char *name = nullptr;
    unsigned char info[2] = {};
    const bool known = QEL_productGetName(&name) == 0 && QEL_getChipInfo(info) == 0;
    printf("Unit\n");
    if (known) {
        printf("  product       %.*s\n", QEL_PRODUCT_NAME_BYTES, name);
        printf("  chips         %d, this is chip %d\n", info[0], info[1]);
        printf("  board type    %d\n", QEL_productGetHwidInfo(QEL_PROPERTY_BOARD_TYPE));
        printf("  category      %d\n\n", QEL_productGetHwidInfo(QEL_PROPERTY_CATEGORY));
    }
    check(known && name[0] != '\0', "the library knows the unit by name and number of chips");
}

void show_properties(int chips) {
    int missing = 0;
    printf("\nNumbered properties\n  id ");
    for (int chip = 0; chip < chips; ++chip) printf("  chip %d", chip);
    for (int id = 1; id <= QEL_PROPERTY_LAST; ++id) {
        if (!is_property(id)) continue;
        printf("\n  %2d ", id);
        for (int chip = 0; chip < chips; ++chip) {
            const int value = QEL_productGetHwidInfoByChip(static_cast<unsigned>(chip), id);
            printf("  %6d", value);
            missing += value < 0 ? 1 : 0;
        }
    }
    printf("\n\n");
    check(missing == 0, "every numbered property has a value on every chip");
}

void show_channels() {
    const int total = QEL_chnMapGetTotalNum();
    int found = 0;
    int local = 0;
    printf("\nChannel map\n  channel  chip  channel there  board type  category\n");
    for (unsigned channel = 0; channel < 256; ++channel) {
        unsigned char info[QEL_CHANNEL_INFO_BYTES] = {};
        if (QEL_chnMapGetInfo(channel, info) != 0) continue;
        printf("  %7u  %4d  %13d  %10d  %8d\n", channel, info[0], info[2], info[1], info[3]);
        ++found;
        local += info[0] == 0 ? 1 : 0;
    }
    printf("\n");
    check(total > 0 && found == total && local == QEL_chnMapGetLocalNum(),
          "the channel map holds " + std::to_string(total) + " channels, " + std::to_string(local) +
              " of them on chip 0");
}

unsigned get_u16(const uint8_t *bytes) { return bytes[0] | unsigned{bytes[1]} << 8; }

// Asks the library on another chip for that chip's record and compares it with what our own library
// learnt from there while it started.
void call_chip(unsigned chip) {
    struct {
        AdapterMsg header;
        uint8_t record[QEL_HWID_BYTES];
    } request = {};
    request.header.chip = chip;
    request.header.timeout = kAnswerTimeout_ms;
    request.header.needReply = 1;
    request.header.module = QEL_MODULE_PRODUCT;
    request.header.cmd = 0;  // the chip's own hardware-id record
    request.header.length = sizeof request.record;

    const std::string other = "chip " + std::to_string(chip);
    const int status = QEL_adapterMasterProc(&request.header);
    check(status == 0 && request.header.replied == 1, "a call to " + other + " came back with an answer");
    if (status != 0) return;

    const uint8_t *record = request.record;
    const auto property = [chip](int id) {
        return static_cast<unsigned>(QEL_productGetHwidInfoByChip(chip, id));
    };
    printf("  %s answers: board type %u, category %u\n", other.c_str(), get_u16(record + kBoardTypeAt),
           get_u16(record + kCategoryAt));
    check(record[kChipNumberAt] == chip &&
              get_u16(record + kBoardTypeAt) == property(QEL_PROPERTY_BOARD_TYPE) &&
              get_u16(record + kCategoryAt) == property(QEL_PROPERTY_CATEGORY),
          "the answer is that chip's own record");
}

void call_other_chips() {
    unsigned char info[2] = {};
    QEL_getChipInfo(info);
    if (info[0] < 2 || info[1] != 0) return;
    printf("\nCalls to the other chips\n");
    for (unsigned chip = 1; chip < info[0]; ++chip) call_chip(chip);
}

}  // namespace

int main() {
    setvbuf(stdout, nullptr, _IOLBF, 0);  // in step with the library's log
    const int chips = QEL_productGetCfgNum();
    if (chips < 1) {
        printf("FAIL  the library could not read this board's hardware id; OSA_LOG=info shows why\n");
        return 1;
    }
    show_unit();
    show_properties(chips);
    show_channels();
    call_other_chips();
    printf("\n%d checks passed, %d failed\n", passed, failed);
    return failed == 0 ? 0 : 1;
}

// keyvalue.cpp - key-value text files: five readers and one writer. No file stays open between calls.
#include <fcntl.h>
#include <algorithm>
#include <atomic>
#include <cerrno>
#include <cstring>

#include "frame/log.h"
#include "frame/unload.h"
#include "os/os.h"
#include "product/keyvalue_text.h"
#include "qel/product.h"

namespace qel::keyvalue {

namespace {

static_assert(sizeof(KeyValueRecord) == 36);

constexpr unsigned kFileMode = 0644;
constexpr int kNoFile = -2;
constexpr const char *kPlainReader = "string_get_value";

// One text at a time: the byte sum's and the writer's.
struct State {
    std::atomic<OSA_MutexHandle> mutex{nullptr};
    CheckedText text = {};
};
constinit State state;

// Made by whoever comes first.
int create_mutex() {
    if (state.mutex.load() != nullptr) return 0;
    OSA_MutexHandle fresh = nullptr;
    if (OSA_mutexCreate(&fresh) != 0) return OSA_EFAIL;
    OSA_MutexHandle none = nullptr;
    if (!state.mutex.compare_exchange_strong(none, fresh)) return OSA_mutexDelete(&fresh);
    gIsMutexCreate = 1;
    return 0;
}

class TextLock {
public:
    TextLock() { OSA_mutexLock(state.mutex); }
    ~TextLock() { OSA_mutexUnlock(state.mutex); }
    TextLock(const TextLock &) = delete;
    TextLock &operator=(const TextLock &) = delete;
};

QEL_AT_UNLOAD void delete_mutex_at_unload() {
    OSA_MutexHandle mutex = state.mutex.exchange(nullptr);
    if (mutex != nullptr) OSA_mutexDelete(&mutex);
}

class File {
public:
    explicit File(const char *path) : fd_(os::open(path, O_RDONLY)) {}
    bool is_open() const { return fd_.is_open(); }
    Lines lines() {
        const auto fill = [](void *fd, void *buffer, size_t bytes) {
            return os::read(static_cast<os::Fd *>(fd)->get(), buffer, bytes);
        };
        return {fill, &fd_};
    }

private:
    os::Fd fd_;
};

// 0, or -1 after a line in the log under the name `function`.
int check_arguments(const char *function, std::initializer_list<const void *> needed, const char *key) {
    for (const void *argument : needed) {
        if (argument != nullptr) continue;
        QEL_ERROR_AS(function, "bad argument\n");
        return OSA_EFAIL;
    }
    const size_t length = strlen(key);
    if (length < QEL_KEY_VALUE_TEXT_BYTES) return 0;
    QEL_ERROR_AS(function, "OSA_strlen=%u\n", static_cast<unsigned>(length));
    return -EINVAL;
}

void hand_out(const Value &value, char *word, char *text) {
    if (text != nullptr) memcpy(text, value.text, strlen(value.text) + 1);
    if (word != nullptr) copy_word(value.text, word);
}

int get_plain(const char *path, const char *key, char separator, char *word, char *text) {
    File file(path);
    if (!file.is_open()) {
        QEL_INFO("open %s failed\n", path);
        return kNoFile;
    }
    Lines lines = file.lines();
    Value value;
    if (find(lines, key, separator, &value) != Result::kFound) return OSA_EFAIL;
    hand_out(value, word, text);
    return 0;
}

int check_sum_of(const char *function, const char *path) {
    File file(path);
    if (!file.is_open()) return 0;
    Lines lines = file.lines();
    const TextLock lock;
    read_checked(lines, &state.text);
    const int sum = byte_sum(state.text);
    if (sum == state.text.stored_sum) return 0;
    QEL_ERROR_AS(function, "fileCrcSum = %d,calCrcSum = %d\n", state.text.stored_sum, sum);
    return OSA_EFAIL;
}

// The key's line of a tag block; its value in *out.
int get_from_block(const char *function, const char *path, const char *tag, const char *key, Value *out) {
    File file(path);
    if (!file.is_open()) {
        QEL_ERROR_AS(function, "open %s failed\n", path);
        return OSA_EFAIL;
    }
    Lines lines = file.lines();
    const Result result = find_in_block(lines, tag, key, out);
    if (result == Result::kFound) return 0;
    if (result == Result::kEndOfGroup) QEL_INFO("%s is not found in %s\n", key, tag);
    return OSA_EFAIL;
}

// Writes the lines of the shared text and their sum.
int write_text(const char *function, const char *path) {
    const os::Fd file(os::open(path, O_WRONLY | O_CREAT | O_TRUNC, kFileMode));
    if (!file.is_open()) {
        QEL_ERROR_AS(function, "Open and create failed\n");
        return OSA_EFAIL;
    }
    char sum_line[kCheckedLineBytes];
    const int sum_length = snprintf(sum_line, sizeof sum_line, "\tcrcSum=%d\n", byte_sum(state.text));
    const size_t length = join_lines(&state.text);
    ssize_t status = os::write_full(file.get(), state.text.lines[0], length);
    if (status >= 0) status = os::write_full(file.get(), sum_line, static_cast<size_t>(sum_length));
    if (status >= 0) status = os::sync(file.get());
    if (status >= 0) return 0;
    QEL_ERROR_AS(function, "write %s failed\n", path);
    return OSA_EFAIL;
}

int save(const char *function, const char *path, std::span<const KeyValueRecord> records) {
    const TextLock lock;
    state.text = {};
    state.text.complete = true;
    if (File file(path); file.is_open()) {
        Lines lines = file.lines();
        read_checked(lines, &state.text);
    } else {
        QEL_INFO("open file falied\n");
    }
    switch (put_records(records, &state.text)) {
        case Update::kNone:
            return 0;
        case Update::kTooLong:
            QEL_ERROR_AS(function, "line num out of limit\n");
            return OSA_EFAIL;
        case Update::kChanged:
            break;
    }
    return write_text(function, path);
}

}  // namespace

}  // namespace qel::keyvalue

using namespace qel;
using namespace qel::keyvalue;

extern "C" {

int gIsMutexCreate = 0;

int string_get_value(const char *path, const char *key, char separator, char *scanOut, char *copyOut) {
    const int bad = check_arguments(kPlainReader, {path, key}, key);
    return bad != 0 ? bad : get_plain(path, key, separator, scanOut, copyOut);
}

int QEL_strGetValCheckSum(const char *path, const char *key, char separator, char *scanOut, char *copyOut) {
    if (create_mutex() != 0) {
        QEL_ERROR("OSA_mutexCreate failed\n");
        return OSA_EFAIL;
    }
    if (path != nullptr && check_sum_of(__func__, path) != 0) return OSA_EFAIL;
    const int bad = check_arguments(kPlainReader, {path, key}, key);
    return bad != 0 ? bad : get_plain(path, key, separator, scanOut, copyOut);
}

int QEL_strGetValIdx(const char *path, unsigned section, const char *key, char separator, char *scanOut,
                     char *copyOut) {
    if (check_arguments(__func__, {path, key}, key) != 0) return OSA_EFAIL;
    File file(path);
    if (!file.is_open()) {
        QEL_ERROR("open %s failed\n", path);
        return OSA_EFAIL;
    }
    Lines lines = file.lines();
    Value value;
    const Result result = find_in_section(lines, section, key, separator, &value);
    if (result == Result::kEndOfGroup) {
        QEL_INFO("%s is not found in [cfg%d]\n", key, static_cast<int>(section));
    }
    if (result != Result::kFound) return OSA_EFAIL;
    hand_out(value, scanOut, copyOut);
    return 0;
}

int QEL_getTagKeyVal(const char *path, const char *tag, const char *key, int *value) {
    if (check_arguments(__func__, {path, tag, key, value}, key) != 0) return OSA_EFAIL;
    Value found;
    if (get_from_block(__func__, path, tag, key, &found) != 0) return OSA_EFAIL;
    *value = number_of(found.text);
    return 0;
}

int QEL_getGropKeyVal(const char *path, const char *tag, const char *key, int *values, int count) {
    if (check_arguments(__func__, {path, tag, key, values}, key) != 0) return OSA_EFAIL;
    Value found;
    if (get_from_block(__func__, path, tag, key, &found) != 0) return OSA_EFAIL;
    const int wanted = std::clamp(count, 0, QEL_MAX_GROUP_VALUES);
    read_numbers(found.text, {values, static_cast<size_t>(wanted)});
    return 0;
}

int QEL_saveKeysValue(const char *path, const KeyValueRecord *records, unsigned count) {
    if (count == 0) return 0;
    if (path == nullptr || records == nullptr || !std::all_of(records, records + count, is_key)) {
        QEL_ERROR("bad argument\n");
        return OSA_EFAIL;
    }
    if (create_mutex() != 0) {
        QEL_ERROR("OSA_mutexCreate failed\n");
        return OSA_EFAIL;
    }
    return save(__func__, path, {records, count});
}

}  // extern "C"

// upgrade_files.h - words that processes share during one power cycle, in files under /tmp.
#pragma once

#include <cstdint>

namespace qel::upgrade_files {

enum class Word { kUpgradeKind, kBackupVersion };

enum class Found { kValue, kNoFile, kError };

// A file that is too short counts as 0. The descriptor stays open for later calls.
Found read(Word word, uint32_t *out);
// Makes the file where there is none, readable and writable for everybody.
int write(Word word, uint32_t value, const char *function);

void close_all();

}  // namespace qel::upgrade_files

// Partition descriptions of any content: the first byte chooses the version, the rest is the text.
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <string>

#include "platform/include/osa.h"
#include "storage/partition_description.h"

extern "C" int OSA_logWrite(int, int, const char *, ...) { return 0; }  // quiet and fast

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
    using namespace qel::description;
    if (size == 0 || size > QEL_DESCRIPTION_BYTES) return 0;
    std::string text(reinterpret_cast<const char *>(data) + 1, size - 1);
    const uint32_t version = kFirstVersion + data[0] % kLastVersion;
    PartitionDescription records[QEL_MAX_DESCRIPTIONS];
    uint32_t count = QEL_MAX_DESCRIPTIONS;
    parse(text.data(), version, records, &count);
    if (count > QEL_MAX_DESCRIPTIONS) abort();
    for (uint32_t i = 0; i < count; ++i) {
        const PartitionDescription &record = records[i];
        const size_t length = strnlen(record.name, sizeof record.name);
        if (length == 0 || length == sizeof record.name || record.fsType > 5) abort();
        if (version == kFirstVersion && record.backupOffset != QEL_NO_BACKUP) abort();
    }
    return 0;
}

// Upgrade images of any content: reading the description ends, stays inside the image and the buffer.
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <vector>

#include "storage/cramfs.h"

using namespace qel::cramfs;

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
    static std::vector<uint8_t> buffer(0x20000 - 1);
    Image image;
    if (open({data, size}, &image) != Result::kOk) return 0;
    for (const char *name : {"partitionV3.txt", "partitionV2.txt", "partition.txt"}) {
        File file;
        if (find(image, name, &file) != Result::kOk) continue;
        if (read(image, file, buffer) == Result::kOk && file.bytes > buffer.size()) abort();
    }
    return 0;
}

// channel_map.cpp - "/dev/qecChnMap": which chip and which channel there a logical channel is.
#include <array>
#include <vector>

#include "board/core/chip.h"
#include "board/core/description.h"
#include "board/core/report.h"
#include "board/model/hwid.h"
#include "board/model/records.h"

namespace qel::board {

namespace {

constexpr const char *kNode = "/dev/qecChnMap";
constexpr uint32_t kGetTotal = 0xC0044300;
constexpr uint32_t kGetTable = 0xC0044301;

constexpr size_t kEntryBytes = 16;
constexpr unsigned kBoardType = 5;  // board properties that stand in every entry
constexpr unsigned kCategory = 19;

constexpr RequestSpec kRequests[] = {
    {kGetTotal, "GET_TOTAL", 0, 4},
    // The argument is the table itself: as many entries as GET_TOTAL answered.
    {kGetTable, "GET_TABLE", 0, kAllBytes},
};

struct Channel {
    uint8_t logical;
    uint8_t chip;
    int type;  // -1: property 5 of that chip
    uint8_t channel;
    int category;  // -1: property 19 of that chip
};

class ChannelMap final : public Device {
public:
    ChannelMap(Chip &chip, const Description &description);
    Answer ioctl(Handle &handle, uint32_t request, Bytes in) override;
    void show(Report &report) const override;

private:
    Buffer table() const;
    uint8_t property(const Channel &channel, int described, unsigned number) const;

    uint32_t total_;
    std::vector<Channel> channels_;
};

ChannelMap::ChannelMap(Chip &chip, const Description &description) : Device(chip) {
    for (const Description &table : description.tables("channel")) {
        const auto byte = [&](const char *key, int64_t otherwise) {
            return table.number(key, 0, 255, otherwise);
        };
        channels_.push_back(
            {.logical = static_cast<uint8_t>(byte("logical", static_cast<int64_t>(channels_.size()))),
             .chip = static_cast<uint8_t>(byte("chip", 0)),
             .type = static_cast<int>(byte("type", -1)),
             .channel = static_cast<uint8_t>(byte("channel", 0)),
             .category = static_cast<int>(byte("category", -1))});
    }
    // A driver may claim more or fewer channels than its table has.
    total_ = static_cast<uint32_t>(
        description.number("total", 0, UINT32_MAX, static_cast<int64_t>(channels_.size())));
}

uint8_t ChannelMap::property(const Channel &channel, int described, unsigned number) const {
    if (described >= 0) return static_cast<uint8_t>(described);
    // Chips count from this one: 0 is always the chip that asks.
    const Chip *owner = channel.chip == 0 ? &chip() : chip().other(channel.chip);
    return static_cast<uint8_t>(board_property(owner, number));
}

Buffer ChannelMap::table() const {
    Buffer out(channels_.size() * kEntryBytes);
    for (size_t i = 0; i < channels_.size(); ++i) {
        const Channel &channel = channels_[i];
        const std::array<uint8_t, 5> entry = {channel.logical, channel.chip,
                                              property(channel, channel.type, kBoardType), channel.channel,
                                              property(channel, channel.category, kCategory)};
        std::copy(entry.begin(), entry.end(), out.begin() + static_cast<ptrdiff_t>(i * kEntryBytes));
    }
    out.resize(std::min<size_t>(out.size(), size_t{total_} * kEntryBytes));
    return out;
}

Answer ChannelMap::ioctl(Handle &, uint32_t request, Bytes) {
    if (request == kGetTotal) return Answer::ok(0, u32_record(total_));
    if (request == kGetTable) return Answer::ok(0, table());
    return Answer::fail(ENOTTY);
}

void ChannelMap::show(Report &report) const {
    report.value("total", int64_t{total_});
    report.table("channels", {"logical", "chip", "type", "channel", "category"});
    const Buffer all = table();
    for (size_t at = 0; at < all.size(); at += kEntryBytes)
        report.row({int64_t{all[at]}, int64_t{all[at + 1]}, int64_t{all[at + 2]}, int64_t{all[at + 3]},
                    int64_t{all[at + 4]}});
}

void build(Chip &chip, const Description &description) {
    chip.add(kNode, std::make_unique<ChannelMap>(chip, description));
}

}  // namespace

extern const DeviceClass kChannelMapClass = {"channel_map", "channel map", kRequests, build};

}  // namespace qel::board

// The look-ups of the product module that need no device.
#include <gtest/gtest.h>

#include <numeric>
#include <string>
#include <vector>

#include "frame/adapter.h"
#include "product/channel_table.h"
#include "product/hwid_ex.h"
#include "product/product_data.h"
#include "product/properties.h"

namespace qel::product {
namespace {

using hwid::HwidRecord;

// Every byte tells its own place, so that a value shows where it was read.
HwidRecord numbered_record() {
    HwidRecord record{};
    auto *bytes = reinterpret_cast<uint8_t *>(&record);
    for (size_t i = 0; i < 256; ++i) bytes[i] = static_cast<uint8_t>(i);
    return record;
}

TEST(Properties, AreReadLittleEndianFromTheirPlaces) {
    const HwidRecord record = numbered_record();
    constexpr int kPlaces[][2] = {{1, 156},  {3, 184},  {4, 150},  {5, 152},  {6, 158},  {8, 154},  {9, 164},
                                  {11, 186}, {12, 188}, {13, 196}, {14, 190}, {15, 192}, {16, 194}, {18, 144},
                                  {19, 146}, {20, 148}, {21, 160}, {22, 162}, {23, 166}, {24, 198}, {25, 168},
                                  {26, 0},   {27, 2},   {28, 200}, {29, 202}};
    for (const auto &[number, offset] : kPlaces) {
        EXPECT_EQ(property_of(record, number), offset | (offset + 1) << 8) << "property " << number;
    }
    for (const int number : {-1, 0, 2, 7, 10, 17, 30, INT32_MAX, INT32_MIN})
        EXPECT_EQ(property_of(record, number), -1) << "there is no property " << number;
}

TEST(ExtendedId, IsReadAsHexadecimalNumbersBetweenColons) {
    const std::string sixteen = "0:1:2:3:4:5:6:7:8:9:a:b:c:d:e:f";
    std::vector<int> counted(16);
    std::iota(counted.begin(), counted.end(), 0);
    const std::tuple<std::string, std::vector<int>, bool> cases[] = {
        {"", {}, false},
        {"ff:100:1fe:a:B", {255, 0, 254, 10, 11}, false},
        {"1::3", {1, 0, 3}, false},
        {":5", {0, 5}, false},
        {"zz:7", {0, 7}, false},
        {sixteen + ":", counted, false},
        {sixteen + ":10:11", counted, true},
    };
    for (const auto &[text, bytes, has_more] : cases) {
        const HwidEx id = parse_hwid_ex(text.c_str());
        EXPECT_EQ(id.has_more, has_more) << text;
        std::vector<int> wanted = bytes;
        wanted.resize(16);
        EXPECT_EQ(std::vector<int>(id.bytes.begin(), id.bytes.end()), wanted) << text;
    }
}

TEST(ChannelTable, FindsTheFirstEntryOfAChannel) {
    const ChannelEntry table[] = {{3, 1, 16, 0, 1, {}}, {0, 0, 5, 0, 2, {}}, {3, 0, 5, 1, 2, {}}};
    EXPECT_EQ(find_channel(table, 3), &table[0]);
    EXPECT_EQ(find_channel(table, 0), &table[1]);
    EXPECT_EQ(find_channel(table, 1), nullptr);
    EXPECT_EQ(find_channel(table, 256 + 3), nullptr);
    EXPECT_EQ(count_on_chip(table, 0), 2u);
}

TEST(ProductData, IsThatOfTheFirstRuleThatFitsTheBeginningOfTheName) {
    constexpr LineRule kLines[] = {{"DOME-2", 1, FixedLine::kRs485}, {"DOME", 1, FixedLine::kRs232}};
    EXPECT_EQ(fixed_line_of(kLines, "DOME-2M", 1), FixedLine::kRs485);
    EXPECT_EQ(fixed_line_of(kLines, "DOME-3M", 1), FixedLine::kRs232);
    EXPECT_EQ(fixed_line_of(kLines, "DOME-2M", 2), FixedLine::kUnknown);
    EXPECT_EQ(fixed_line_of(kLines, "DOM", 1), FixedLine::kUnknown);
    constexpr FamilyRule kFamilies[] = {{Family::kMicrocontrollerClock, "DOME-2"}};
    EXPECT_TRUE(is_of_family(kFamilies, "DOME-2M", Family::kMicrocontrollerClock));
    EXPECT_FALSE(is_of_family(kFamilies, "DOME-3M", Family::kMicrocontrollerClock));
    EXPECT_FALSE(is_of_family(kFamilies, "DOME-2M", Family::kHardwareRs485Direction));
}

}  // namespace
}  // namespace qel::product

namespace qel::adapter {
namespace {

TEST(ForwardingMessage, PayloadMustLieWithinWhatArrived) {
    constexpr uint32_t kMost = QEL_ADAPTER_MAX_PAYLOAD;
    for (const auto &[payload, message] : {std::pair(0u, 32u), {304, 336}, {kMost, 1 << 20}})
        EXPECT_TRUE(payload_fits(payload, message)) << payload << " in " << message;
    for (const auto &[payload, message] : {std::pair(0u, 31u),
                                           {0, 0},
                                           {1, 32},
                                           {305, 336},
                                           {~0u, 1 << 20},
                                           {~0u - 31, 31},
                                           {kMost + 1, 1 << 20}})
        EXPECT_FALSE(payload_fits(payload, message)) << payload << " in " << message;
}

TEST(ForwardingMessage, AnswerMustBeToTheRequest) {
    constexpr AdapterMsg kRequest = request_header(1, 8, 1, 304);
    AdapterMsg answer = kRequest;
    EXPECT_FALSE(is_answer(kRequest, answer));  // the request itself, come back
    answer.needReply = 0;
    answer.replied = 1;
    EXPECT_TRUE(is_answer(kRequest, answer));
    for (uint32_t AdapterMsg::*field : {&AdapterMsg::chip, &AdapterMsg::needReply, &AdapterMsg::replied,
                                        &AdapterMsg::module, &AdapterMsg::cmd}) {
        AdapterMsg other = answer;
        other.*field += 2;
        EXPECT_FALSE(is_answer(kRequest, other));
    }
}

}  // namespace
}  // namespace qel::adapter

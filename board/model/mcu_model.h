// mcu_model.h - the microcontroller behind "/dev/qecMcu": a front panel (LCD, keys), power switches, card
// readers, radar, analogue inputs and the serial lines it carries, as qel/mcu_driver.h states its driver.
#pragma once

#include <array>
#include <deque>
#include <map>
#include <memory>

#include "board/model/port_map.h"
#include "board/model/serial_fifo.h"
#include "qel/mcu_driver.h"

namespace qel::board {

constexpr uint32_t kMcuModules = 4;
constexpr uint32_t kAllMcuReaders = 3;  // a bit each

// The events that one opener has not read yet.
struct McuEvents final : HandleState {
    std::deque<Buffer> kept;
};

// One of the serial lines that the microcontroller carries.
struct McuChannel {
    McuChannel(Device &owner, const std::string &name, const Description &table)
        : fifo(owner, name), line(owner.chip(), fifo, table) {}
    SerialFifo fifo;
    SerialLine line;
};

class Mcu final : public Device, public LineOwner {
public:
    Mcu(Chip &chip, const Description &table);

    int open(Handle &handle) override;
    void close(Handle &handle) override;
    Answer read(Handle &handle, uint32_t bytes) override;
    Answer ioctl(Handle &handle, uint32_t request, Bytes in) override;
    bool readable(const Handle &handle) const override;
    void power_on() override;
    void show(Report &report) const override;
    Answer poke(const std::vector<std::string> &words) override;
    SerialLine &line() override { return raw_.line; }
    uint32_t caps_word() const { return caps_word_; }

private:
    Answer act(uint32_t request, Bytes in);
    Answer set(uint32_t request, uint32_t value);
    Answer fetch(uint32_t request, Bytes in);
    Answer fetch_word(uint32_t request) const;
    Answer set_time(Bytes in);
    Answer switch_power(Bytes in);
    Answer power_state(Bytes in) const;
    Answer module(uint32_t request, Bytes in) const;
    Answer uart_config(Bytes in);
    Answer uart_send(Bytes in);
    Answer uart_get(const Handle &handle, Bytes in);
    Answer raw_read(Bytes in);
    Answer raw_write(const Handle &handle, Bytes in);
    void hear_rfid(Bytes bytes);
    Answer rfid_send(Bytes in);
    Answer radar_read(size_t room);
    Answer upgrade(uint32_t request, Bytes in);
    McuChannel *channel(uint32_t number);
    void tell(uint32_t type, const Buffer &data);
    void put_card(const std::string &number);
    Answer poke_words(const std::vector<std::string> &words);
    Answer poke_numbers(const std::string &what, const std::vector<uint32_t> &numbers);
    Answer poke_bytes(const std::vector<std::string> &words);

    // As described.
    std::array<std::string, kMcuModules> versions_;
    std::array<std::string, kMcuModules> module_texts_;
    Buffer crypt_number_;
    Buffer caps_;
    uint32_t caps_word_;
    Buffer rfid_reply_;
    std::vector<int64_t> loops_ua_;
    std::vector<int64_t> supply_;
    std::vector<int64_t> battery_;
    McuChannel raw_;
    std::map<uint32_t, std::unique_ptr<McuChannel>> channels_;

    // As it is.
    std::map<uint32_t, McuEvents *> opens_;
    std::string lcd_;
    std::string time_;
    uint32_t heating_ = 0, acknowledged_ = 0, readers_ = kAllMcuReaders, card_status_ = 0;
    uint32_t outputs_ = 0, keys_ = 0, address_key_ = 0, panel_ = 1, net_ = 1;
    uint8_t last_key_ = 0;
    std::string card_;
    std::deque<uint8_t> rfid_;
    std::deque<Buffer> radar_;
    std::deque<Buffer> can_;
    int64_t can_sent_ = 0;
    bool upgrading_ = false;
    uint32_t firmware_expected_ = 0, firmware_taken_ = 0;
    int64_t wireless_bytes_ = 0;
    bool closed_ = false;
    bool silent_ = false;
};

}  // namespace qel::board

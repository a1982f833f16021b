// A port of the board for other programs of the host.
#include <atomic>
#include <cstdio>
#include <functional>
#include <memory>
#include <nlohmann/json.hpp>
#include <optional>
#include <thread>
#include <vector>

#include "tools/qelctl/exit_code.h"
#include "tools/qelctl/host_endpoint.h"
#include "tools/qelctl/live.h"
#include "tools/qelctl/output.h"
#include "tools/qelctl/serial_line.h"
#include "tools/qelctl/serial_verbs.h"

namespace qelctl {

namespace {

struct BridgeChoice {
    LineChoice line;
    LiveChoice live;
    std::optional<uint16_t> tcp;
    bool pty = false;
    std::string link;
    bool once = false;
    bool json = false;
};

struct BridgeCount {
    std::atomic<uint64_t> in{0};    // from the port to the user
    std::atomic<uint64_t> lost{0};  // came from the port when nobody was there
    uint64_t out = 0;
    uint64_t refused = 0;  // by the port
};

// Carries what the port receives to the user, on a thread, from its making to its end.
class BridgeReader {
public:
    BridgeReader(const SerialLine &line, HostEndpoint &endpoint, BridgeCount &count)
        : thread_([this, &line, &endpoint, &count] { carry(line, endpoint, count); }) {}
    ~BridgeReader() {
        stopped_ = true;
        thread_.join();
    }
    BridgeReader(const BridgeReader &) = delete;
    BridgeReader &operator=(const BridgeReader &) = delete;

    bool line_gone() const { return line_gone_; }

private:
    void carry(const SerialLine &line, HostEndpoint &endpoint, BridgeCount &count) {
        std::vector<uint8_t> bytes;
        while (!stopped_) {
            if (!line.read(bytes)) {
                line_gone_ = true;
                return;
            }
            const size_t given = endpoint.give(bytes, [this] { return !stopped_; });
            count.in += given;
            count.lost += bytes.size() - given;
        }
    }

    std::atomic<bool> stopped_{false};
    std::atomic<bool> line_gone_{false};
    std::thread thread_;
};

void tell_address(const BridgeChoice &choice, const HostEndpoint &endpoint) {
    if (!choice.json) {
        print("port " + std::to_string(choice.line.port) + " is at " + endpoint.address() + "\n");
        return;
    }
    nlohmann::ordered_json document;
    document["port"] = choice.line.port;
    document["address"] = endpoint.address();
    print_json_line(document);
}

// Says who comes and who goes.
class UserNews {
public:
    void look(const HostEndpoint &endpoint) {
        const unsigned gone = endpoint.past_users();
        const bool here = endpoint.has_user();
        if (gone != gone_) fprintf(stderr, "qelctl: the user has gone\n");
        if (here && (!here_ || gone != gone_)) fprintf(stderr, "qelctl: a user has come\n");
        gone_ = gone;
        here_ = here;
    }

private:
    unsigned gone_ = 0;
    bool here_ = false;
};

void tell_count(const BridgeCount &count) {
    const auto number = [](uint64_t bytes) { return std::to_string(bytes) + " bytes "; };
    std::string text = number(count.out) + "to the port, " + number(count.in) + "from it";
    if (count.lost != 0) text += ", " + number(count.lost) + "from it while nobody was there";
    if (count.refused != 0) text += ", " + number(count.refused) + "that the port did not take";
    fprintf(stderr, "qelctl: %s\n", text.c_str());
}

void bridge_port(const Library &library, const BridgeChoice &choice) {
    LiveRun run(choice.live);
    BridgeCount count;
    bool line_gone = false;
    {
        const SerialLine line(library, choice.line);
        const std::unique_ptr<HostEndpoint> endpoint =
            choice.tcp ? listen_on_loopback(*choice.tcp) : make_pseudo_terminal(choice.link);
        tell_address(choice, *endpoint);
        const BridgeReader reader(line, *endpoint, count);
        UserNews news;
        while (run.goes_on() && !line_gone && !(choice.once && endpoint->past_users() != 0)) {
            const std::vector<uint8_t> bytes = endpoint->take();
            news.look(*endpoint);
            const size_t written = line.write(bytes.data(), bytes.size());
            count.out += written;
            count.refused += bytes.size() - written;
            line_gone = reader.line_gone();
        }
    }
    tell_count(count);
    if (line_gone) line_ended();
}

}  // namespace

void add_serial_bridge(CLI::App &serial, Session &session) {
    CLI::App *verb = serial.add_subcommand(
        "bridge", "Connect a port to a TCP port on loopback or to a pseudo-terminal, until Ctrl-C");
    const auto choice = std::make_shared<BridgeChoice>();
    choice->line.add_to(*verb);
    CLI::Option *tcp = verb->add_option("--tcp", choice->tcp, "A TCP port on 127.0.0.1, 0 = any that is free")
                           ->type_name("N")
                           ->check(CLI::Range(0, UINT16_MAX).description(""));
    verb->add_flag("--pty", choice->pty, "A pseudo-terminal; so unless --tcp is given")->excludes(tcp);
    verb->add_option("--link", choice->link, "Call the pseudo-terminal so as long as it is there")
        ->type_name("FILE")
        ->excludes(tcp);
    verb->add_flag("--once", choice->once, "End when the first user has gone");
    choice->live.add_to(*verb);
    verb->add_flag("--json", choice->json, "Print the address as JSON (described by qelctl.schema.json)");
    verb->footer(
        "Examples:\n"
        "  qelctl serial bridge 1 --pty --link /tmp/port1\n"
        "  qelctl serial bridge 2 --tcp 4002 --line 2400-8N1");
    verb->callback([&session, choice] { bridge_port(session.library(), *choice); });
}

}  // namespace qelctl

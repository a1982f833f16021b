#include "board/core/trace.h"

#include <algorithm>
#include <cinttypes>
#include <nlohmann/json.hpp>

#include "board/core/errors.h"

namespace qel::board {

namespace {

std::string code_text(uint32_t code) {
    char text[16];
    snprintf(text, sizeof(text), "0x%08" PRIX32, code);
    return text;
}

std::string first_bytes(const Buffer &bytes) {
    return to_hex(bytes.data(), std::min(bytes.size(), kTraceDataBytes));
}

constexpr const char *kRowFormat = "%12s  %4s  %-12.12s  %-24s  %-6s  %-16s  %6s %6s  %-10s  %s";

std::string format_row(const char *time, const char *chip, const char *process, const char *node,
                       const char *operation, const char *request, const char *in, const char *out,
                       const char *result, const char *data) {
    char row[512];
    snprintf(row, sizeof(row), kRowFormat, time, chip, process, node, operation, request, in, out, result,
             data);
    std::string text = row;
    text.erase(text.find_last_not_of(' ') + 1);
    return text;
}

std::string member(const nlohmann::json &object, const char *name) {
    const auto found = object.find(name);
    if (found == object.end()) return "";
    return found->is_string() ? found->get<std::string>() : found->dump();
}

std::string seconds_text(const nlohmann::json &object) {
    char text[32];
    snprintf(text, sizeof(text), "%.6f", static_cast<double>(object.value("t_us", int64_t{0})) / 1e6);
    return text;
}

}  // namespace

std::string trace_of_line(const LineEntry &entry, std::span<const uint8_t> bytes) {
    nlohmann::ordered_json line;
    line["t_us"] = entry.time_us;
    line["chip"] = entry.chip;
    line["node"] = entry.line;
    line["op"] = "line";
    line["direction"] = entry.to_host ? "in" : "out";
    line[entry.to_host ? "out" : "in"] = bytes.size();
    line["data"] = to_hex(bytes.data(), bytes.size());
    return line.dump();
}

std::string trace_of_request(const TraceEntry &entry, const Request &request, const Reply &reply) {
    nlohmann::ordered_json line;
    line["t_us"] = entry.time_us;
    line["chip"] = entry.chip;
    line["pid"] = entry.pid;
    line["process"] = entry.process;
    line["node"] = entry.node;
    line["op"] = entry.operation;
    if (request.op == Op::kIoctl || request.op == Op::kTerm) line["request"] = entry.request_name;
    if (request.op == Op::kIoctl) line["code"] = code_text(request.code);
    line["in"] = request.in.size();
    line["out"] = reply.out.size();
    const Buffer &shown = request.in.empty() ? reply.out : request.in;
    if (!shown.empty()) line["data"] = first_bytes(shown);
    line["result"] = reply.value;
    if (reply.value < 0) line["error"] = error_name(static_cast<int>(-reply.value));
    return line.dump(-1, ' ', false, nlohmann::json::error_handler_t::replace);
}

std::string trace_row(const std::string &json_line) {
    if (json_line.empty())
        return format_row("seconds", "chip", "process", "node", "op", "request", "in", "out", "result",
                          "data");
    const auto line = nlohmann::json::parse(json_line, nullptr, false);
    if (!line.is_object() || !line.contains("op")) return json_line;
    std::string request = member(line, "request");
    for (const char *otherwise : {"code", "direction"}) {
        if (request.empty()) request = member(line, otherwise);
    }
    const std::string result = line.contains("error") ? member(line, "error") : member(line, "result");
    return format_row(seconds_text(line).c_str(), member(line, "chip").c_str(),
                      member(line, "process").c_str(), member(line, "node").c_str(),
                      member(line, "op").c_str(), request.c_str(), member(line, "in").c_str(),
                      member(line, "out").c_str(), result.c_str(),
                      member(line, "data").substr(0, 2 * kTraceDataBytes).c_str());
}

}  // namespace qel::board

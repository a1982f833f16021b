#include "board/core/description.h"

#include <toml++/toml.h>
#include <set>

#include "board/core/errors.h"

namespace qel::board {

namespace {

std::string message(int line, const std::string &key, const std::string &what) {
    std::string text = line > 0 ? "line " + std::to_string(line) + ": " : "";
    if (!key.empty()) text += key + ": ";
    return text + what;
}

int line_of(const toml::node &node) { return static_cast<int>(node.source().begin.line); }

std::string range_text(int64_t least, int64_t most) {
    return "must be a number from " + std::to_string(least) + " to " + std::to_string(most);
}

}  // namespace

DescriptionError::DescriptionError(int line, const std::string &key, const std::string &what)
    : std::runtime_error(message(line, key, what)), line_(line), key_(key) {}

struct Description::Document {
    toml::table root;
    std::set<const toml::node *> read;

    void check(const toml::table &table, const std::string &path) const;
    void check(const toml::array &array, const std::string &path) const;
};

namespace {

const toml::table &as_table(const void *table) { return *static_cast<const toml::table *>(table); }

// The value of a key, marked as read; nullptr when it is missing.
const toml::node *find(const void *table, std::set<const toml::node *> &read, const std::string &key) {
    const toml::node *node = as_table(table).get(key);
    if (node != nullptr) read.insert(node);
    return node;
}

}  // namespace

void Description::Document::check(const toml::table &table, const std::string &path) const {
    for (const auto &[key, node] : table) {
        const std::string name = path + std::string(key.str());
        if (read.count(&node) == 0) throw DescriptionError(line_of(node), name, "is not a known key");
        if (const auto *below = node.as_table()) check(*below, name + ".");
        if (const auto *array = node.as_array()) check(*array, name + ".");
    }
}

void Description::Document::check(const toml::array &array, const std::string &path) const {
    for (const auto &node : array) {
        if (const auto *below = node.as_table()) check(*below, path);
    }
}

Description::Description(std::shared_ptr<Document> document, const void *table, std::string path)
    : document_(std::move(document)), table_(table), path_(std::move(path)) {}

Description Description::parse(const std::string &text) {
    auto document = std::make_shared<Document>();
    try {
        document->root = toml::parse(text);
    } catch (const toml::parse_error &error) {
        throw DescriptionError(static_cast<int>(error.source().begin.line), "",
                               std::string(error.description()));
    }
    const void *root = &document->root;
    return {std::move(document), root, ""};
}

bool Description::has(const std::string &key) const { return as_table(table_).contains(key); }

std::string Description::text(const std::string &key, const std::string &otherwise) const {
    const toml::node *node = find(table_, document_->read, key);
    if (node == nullptr) return otherwise;
    const auto *value = node->as_string();
    if (value == nullptr) fail(key, "must be a text");
    return value->get();
}

std::string Description::required_text(const std::string &key) const {
    if (!has(key)) fail(key, "is missing");
    return text(key, "");
}

int64_t Description::number(const std::string &key, int64_t least, int64_t most, int64_t otherwise) const {
    const toml::node *node = find(table_, document_->read, key);
    if (node == nullptr) return otherwise;
    const auto *value = node->as_integer();
    if (value == nullptr || value->get() < least || value->get() > most) fail(key, range_text(least, most));
    return value->get();
}

bool Description::flag(const std::string &key, bool otherwise) const {
    const toml::node *node = find(table_, document_->read, key);
    if (node == nullptr) return otherwise;
    const auto *value = node->as_boolean();
    if (value == nullptr) fail(key, "must be true or false");
    return value->get();
}

std::vector<int64_t> Description::numbers(const std::string &key, int64_t least, int64_t most) const {
    std::vector<int64_t> all;
    const toml::node *node = find(table_, document_->read, key);
    if (node == nullptr) return all;
    const auto *array = node->as_array();
    if (array == nullptr) fail(key, "must be a list of numbers");
    for (const auto &element : *array) {
        const auto *value = element.as_integer();
        if (value == nullptr || value->get() < least || value->get() > most)
            fail(key, "every element " + range_text(least, most));
        all.push_back(value->get());
    }
    return all;
}

std::vector<std::string> Description::texts(const std::string &key) const {
    std::vector<std::string> all;
    const toml::node *node = find(table_, document_->read, key);
    if (node == nullptr) return all;
    const auto *array = node->as_array();
    if (array == nullptr) fail(key, "must be a list of texts");
    for (const auto &element : *array) {
        const auto *value = element.as_string();
        if (value == nullptr) fail(key, "every element must be a text");
        all.push_back(value->get());
    }
    return all;
}

std::vector<uint8_t> Description::bytes(const std::string &key, size_t most) const {
    std::vector<uint8_t> all;
    if (!parse_hex(text(key, ""), all)) fail(key, "must be hexadecimal digits, two per byte");
    if (all.size() > most) fail(key, "holds more than " + std::to_string(most) + " bytes");
    return all;
}

int Description::error_number(const std::string &key, int otherwise) const {
    if (!has(key)) return otherwise;
    const int error = error_by_name(text(key, ""));
    if (error < 0) fail(key, "must be \"OK\" or the name of an error (\"EIO\")");
    return error;
}

std::vector<Description> Description::tables(const std::string &key) const {
    std::vector<Description> all;
    const toml::node *node = find(table_, document_->read, key);
    if (node == nullptr) return all;
    const std::string below = path_ + key + ".";
    if (const auto *table = node->as_table()) {
        all.push_back(Description(document_, table, below));
    } else if (const auto *array = node->as_array(); array != nullptr && array->is_array_of_tables()) {
        for (const auto &element : *array) all.push_back(Description(document_, element.as_table(), below));
    } else {
        fail(key, "must be a table");
    }
    return all;
}

std::vector<std::string> Description::keys() const {
    std::vector<std::string> all;
    for (const auto &[key, node] : as_table(table_)) all.emplace_back(key.str());
    return all;
}

void Description::fail(const std::string &key, const std::string &what) const {
    const toml::table &table = as_table(table_);
    const toml::node *node = table.get(key);
    std::string name = path_ + key;
    if (!name.empty() && name.back() == '.') name.pop_back();  // the table itself
    throw DescriptionError(line_of(node != nullptr ? *node : table), name, what);
}

void Description::reject_unknown() const { document_->check(document_->root, ""); }

}  // namespace qel::board

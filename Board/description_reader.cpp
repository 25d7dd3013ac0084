#include "description_reader.h"

#include <libxml/parser.h>
#include <libxml/tree.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <initializer_list>
#include <set>
#include <sstream>
#include <string_view>

#include "common/owner.h"
#include "number.h"

namespace kivboard
{
namespace
{

using namespace std::string_literals;

constexpr std::uint32_t highest_bus = 9;
constexpr std::uint32_t highest_pin = 99'999;
constexpr std::uint32_t most_unanswered = 1'000;
constexpr std::uint32_t longest_delay_us = 10'000'000;

void free_text(xmlChar *text) noexcept
{
    xmlFree(text);
}

std::string to_string(const xmlChar *text)
{
    return text != nullptr ? reinterpret_cast<const char *>(text) : "";
}

// Reads one file, and keeps the first mistake that it meets.
class reader
{
public:
    explicit reader(std::string path) : path_(std::move(path)) {}

    std::optional<board_description> read();
    [[nodiscard]] const std::string &error() const { return error_; }

private:
    using names = std::initializer_list<std::string_view>;

    // The parser's handler takes a pointer to const since libxml2 2.12.
    template <typename Error>
    static void note_parser_error(void *self, Error *error)
    {
        static_cast<reader *>(self)->complain_of_parser(*error);
    }
    void complain_of_parser(const xmlError &error);
    void complain(const xmlNode *where, const std::string &what);
    void complain_of_line(long line, const std::string &what);
    void check_names(const xmlNode *element, names attributes, names children);
    std::optional<std::string> attribute(const xmlNode *element, const char *name);
    std::uint32_t number(const xmlNode *element, const char *name, std::uint32_t lowest,
                         std::uint32_t highest, std::optional<std::uint32_t> otherwise = std::nullopt);
    std::vector<std::uint8_t> bytes(const xmlNode *element);
    template <typename enumeration, std::size_t count>
    enumeration choice(const xmlNode *element, const char *name, const std::string_view (&names)[count],
                       std::optional<enumeration> otherwise = std::nullopt);

    unsigned width(const xmlNode *element, const char *name, const char *meaning);
    std::uint32_t read_widths(const xmlNode *element, device_description &device);
    bus_description read_bus(const xmlNode *element);
    device_description read_device(const xmlNode *element);
    register_content read_content(const xmlNode *element, const device_description &device);
    pin_failure read_failure(const xmlNode *element);
    pin_description read_pin(const xmlNode *element);
    void read_buses(const xmlNode *root, board_description &board);
    void read_pins(const xmlNode *root, board_description &board);

    static std::vector<const xmlNode *> elements_of(const xmlNode *parent, std::string_view name = "");

    std::string path_;
    std::string error_;
};

// Reading goes on after a mistake, with a valid value, so that no caller has to look for it. The mistakes that
// follow from the first are not shown.
void reader::complain_of_line(long line, const std::string &what)
{
    if (error_.empty()) {
        error_ = path_ + ":" + std::to_string(line) + ": " + what;
    }
}

void reader::complain(const xmlNode *where, const std::string &what)
{
    complain_of_line(xmlGetLineNo(where), what);
}

void reader::complain_of_parser(const xmlError &error)
{
    const std::string message = error.message != nullptr ? error.message : "cannot be read";
    complain_of_line(error.line, message.substr(0, message.find('\n')));
}

// The children that are elements: all, or those of one name.
std::vector<const xmlNode *> reader::elements_of(const xmlNode *parent, std::string_view name)
{
    std::vector<const xmlNode *> elements;
    for (const xmlNode *child = parent->children; child != nullptr; child = child->next) {
        if (child->type == XML_ELEMENT_NODE && (name.empty() || to_string(child->name) == name)) {
            elements.push_back(child);
        }
    }
    return elements;
}

void reader::check_names(const xmlNode *element, names attributes, names children)
{
    const auto has = [](names allowed, const xmlChar *name) {
        return std::find(allowed.begin(), allowed.end(), to_string(name)) != allowed.end();
    };
    for (const xmlAttr *attribute = element->properties; attribute != nullptr; attribute = attribute->next) {
        if (!has(attributes, attribute->name)) {
            complain(element, "<" + to_string(element->name) + "> has no attribute \"" +
                                  to_string(attribute->name) + "\"");
        }
    }
    for (const xmlNode *const child : elements_of(element)) {
        if (!has(children, child->name)) {
            complain(child, "<" + to_string(element->name) + "> holds no <" + to_string(child->name) + ">");
        }
    }
}

std::optional<std::string> reader::attribute(const xmlNode *element, const char *name)
{
    const kiv::owner<xmlChar, free_text> value(xmlGetProp(element, reinterpret_cast<const xmlChar *>(name)));
    if (value == nullptr) {
        return std::nullopt;
    }
    return to_string(value.get());
}

std::uint32_t reader::number(const xmlNode *element, const char *name, std::uint32_t lowest,
                             std::uint32_t highest, std::optional<std::uint32_t> otherwise)
{
    const std::optional<std::string> text = attribute(element, name);
    if (!text && otherwise) {
        return *otherwise;
    }
    if (!text) {
        complain(element, "<" + to_string(element->name) + "> needs the attribute \"" + name + "\"");
        return lowest;
    }
    const std::optional<std::uint32_t> value = parse_number(*text);
    if (!value || *value < lowest || *value > highest) {
        complain(element, name + " is \""s + *text + "\", but must be a number from " +
                              std::to_string(lowest) + " to " + std::to_string(highest));
        return lowest;
    }
    return *value;
}

std::vector<std::uint8_t> reader::bytes(const xmlNode *element)
{
    std::vector<std::uint8_t> values;
    std::istringstream words(attribute(element, "bytes").value_or(""));
    for (std::string word; words >> word;) {
        const std::optional<std::uint32_t> value = parse_number(word, 16);
        if (!value || *value > 0xff || word.size() > 2) {
            complain(element, "\"" + word + "\" is no byte; bytes are written like \"0f a5\"");
            return {};
        }
        values.push_back(static_cast<std::uint8_t>(*value));
    }
    if (values.empty()) {
        complain(element, "<at> needs the attribute \"bytes\" with at least one byte");
    }
    return values;
}

template <typename enumeration, std::size_t count>
enumeration reader::choice(const xmlNode *element, const char *name, const std::string_view (&table)[count],
                           std::optional<enumeration> otherwise)
{
    const std::optional<std::string> given = attribute(element, name);
    if (!given && otherwise) {
        return *otherwise;
    }
    const std::string text = given.value_or("");
    const std::optional<enumeration> found = find_name<enumeration>(table, text);
    if (!found) {
        complain(element, name + " is \""s + text + "\", but must be " + join_names(table));
    }
    return found.value_or(enumeration{});
}

unsigned reader::width(const xmlNode *element, const char *name, const char *meaning)
{
    const std::uint32_t bits = number(element, name, 8, 16, 8);
    if (bits != 8 && bits != 16) {
        complain(element, name + " must be 8 or 16, the width of "s + meaning + " in bits");
    }
    return bits;
}

register_content reader::read_content(const xmlNode *element, const device_description &device)
{
    check_names(element, {"register", "bytes", "mask", "on_read"}, {});
    const bool has_bytes = attribute(element, "bytes").has_value();
    const bool behaves = attribute(element, "mask").has_value() || attribute(element, "on_read").has_value();
    const std::size_t value_bytes = device.value_bits / 8;
    register_content content{number(element, "register", 0, device.size - 1), {}};
    if (has_bytes || !behaves) {
        content.bytes = bytes(element);
    }
    content.fixed = static_cast<std::uint16_t>(number(element, "mask", 0, (1U << device.value_bits) - 1, 0));
    if (const auto on_read = attribute(element, "on_read"); on_read && *on_read != "clear") {
        complain(element, "on_read is \"" + *on_read + "\", but must be clear");
    }
    content.clears_on_read = attribute(element, "on_read").has_value();
    if (content.bytes.size() % value_bytes != 0) {
        complain(element, "the registers of " + device.name + " have two bytes each");
    }
    if (content.at + content.registers(value_bytes) > device.size) {
        complain(element, "the bytes reach beyond the last register of " + device.name);
    }
    return content;
}

// @return The number of registers that the register address can tell apart.
std::uint32_t reader::read_widths(const xmlNode *element, device_description &device)
{
    device.register_bits = width(element, "registers", "a register address");
    device.value_bits = width(element, "values", "a register");
    device.increments = choice<increment>(element, "increments", increment_names, increment::always);
    if (device.increments == increment::bit7 && device.register_bits != 8) {
        complain(element, "increments is \"bit7\", which needs 8-bit register addresses");
    }
    return device.register_bits != 8 ? 0x10000 : device.increments == increment::bit7 ? 0x80 : 0x100;
}

device_description reader::read_device(const xmlNode *element)
{
    check_names(element,
                {"name", "address", "registers", "values", "size", "increments", "refuses", "fails_after",
                 "answers_every", "delay_us"},
                {"at"});
    device_description device;
    device.address = static_cast<std::uint16_t>(number(element, "address", 0x03, 0x77));
    device.name = attribute(element, "name").value_or("device");
    const std::uint32_t space = read_widths(element, device);
    device.size = number(element, "size", 1, space, space);
    device.refuses = choice<refusal>(element, "refuses", refusal_names, refusal::nothing);
    if (attribute(element, "fails_after")) {
        device.fails_after = number(element, "fails_after", 0, 1'000'000'000);
    }
    device.answers_every = number(element, "answers_every", 1, most_unanswered, 1);
    device.delay = std::chrono::microseconds(number(element, "delay_us", 0, longest_delay_us, 0));
    for (const xmlNode *const child : elements_of(element)) {
        device.contents.push_back(read_content(child, device));
    }
    return device;
}

bus_description reader::read_bus(const xmlNode *element)
{
    check_names(element, {"number", "node"}, {"device"});
    bus_description bus;
    bus.place = path_ + ":" + std::to_string(xmlGetLineNo(element));
    bus.node = attribute(element, "node").value_or("");
    if (attribute(element, "node") && (bus.node.empty() || !elements_of(element).empty())) {
        complain(element, "a bus with a node has the path of the node, and no devices");
    }
    bus.number = number(element, "number", 0, highest_bus);
    std::set<std::uint16_t> addresses;
    for (const xmlNode *const child : elements_of(element)) {
        bus.devices.push_back(read_device(child));
        if (!addresses.insert(bus.devices.back().address).second) {
            complain(child, "there is another device at this address on bus " + std::to_string(bus.number));
        }
    }
    return bus;
}

pin_failure reader::read_failure(const xmlNode *element)
{
    check_names(element, {"node", "operation"}, {});
    return {choice<gpio_attribute>(element, "node", gpio_attribute_names),
            choice<gpio_operation>(element, "operation", gpio_operation_names)};
}

// The common part of <pin> and <pins>.
pin_description reader::read_pin(const xmlNode *element)
{
    pin_description pin;
    pin.level = number(element, "level", 0, 1, 0) != 0;
    for (const xmlNode *const child : elements_of(element)) {
        pin.failures.push_back(read_failure(child));
    }
    return pin;
}

void reader::read_buses(const xmlNode *root, board_description &board)
{
    std::set<unsigned> numbers;
    for (const xmlNode *const child : elements_of(root, "bus")) {
        board.buses.push_back(read_bus(child));
        if (!numbers.insert(board.buses.back().number).second) {
            complain(child, "there is another bus of this number");
        }
    }
}

void reader::read_pins(const xmlNode *root, board_description &board)
{
    std::set<std::uint32_t> numbers;
    const auto add = [&](const xmlNode *element, std::uint32_t first, std::uint32_t last) {
        pin_description pin = read_pin(element);
        for (pin.number = first; pin.number <= last; ++pin.number) {
            board.pins.push_back(pin);
            if (!numbers.insert(pin.number).second) {
                complain(element, "there is another pin " + std::to_string(pin.number));
            }
        }
    };
    for (const xmlNode *const child : elements_of(root, "pin")) {
        check_names(child, {"number", "level"}, {"fails"});
        const std::uint32_t pin = number(child, "number", 0, highest_pin);
        add(child, pin, pin);
    }
    for (const xmlNode *const child : elements_of(root, "pins")) {
        check_names(child, {"first", "last", "level"}, {"fails"});
        const std::uint32_t first = number(child, "first", 0, highest_pin);
        add(child, first, number(child, "last", first, highest_pin));
    }
}

std::optional<board_description> reader::read()
{
    if (access(path_.c_str(), R_OK) != 0) { // the parser would not tell the reason
        error_ = "can't read " + path_ + ": " + std::strerror(errno);
        return std::nullopt;
    }
    xmlSetStructuredErrorFunc(this, note_parser_error);
    const kiv::owner<xmlDoc, xmlFreeDoc> doc(xmlReadFile(path_.c_str(), nullptr, XML_PARSE_NONET));
    xmlSetStructuredErrorFunc(nullptr, nullptr);
    if (doc == nullptr || !error_.empty()) {
        return std::nullopt;
    }
    const xmlNode *const root = xmlDocGetRootElement(doc.get());
    board_description board;
    if (to_string(root->name) != "board") {
        complain(root, "the root element is <" + to_string(root->name) + ">, but must be <board>");
        return std::nullopt;
    }
    check_names(root, {}, {"bus", "pin", "pins"});
    read_buses(root, board);
    read_pins(root, board);
    return error_.empty() ? std::optional(board) : std::nullopt;
}

} // namespace

std::optional<board_description> read_description(const std::string &path, std::string &error)
{
    reader file(path);
    std::optional<board_description> board = file.read();
    error = file.error();
    return board;
}

} // namespace kivboard

#include "board_file.h"

#include <libxml/parser.h>
#include <libxml/tree.h>

#include <algorithm>
#include <initializer_list>
#include <memory>
#include <set>
#include <sstream>
#include <string_view>

#include "number.h"

namespace kivboard
{
namespace
{

using namespace std::string_literals;

constexpr std::uint32_t highest_bus = 9;
constexpr std::uint32_t highest_pin = 99'999;

struct document_deleter {
    void operator()(xmlDoc *doc) const noexcept { xmlFreeDoc(doc); }
};

struct text_deleter {
    void operator()(xmlChar *text) const noexcept { xmlFree(text); }
};

std::string to_string(const xmlChar *text)
{
    return text != nullptr ? reinterpret_cast<const char *>(text) : "";
}

// Reads the elements of one file, and keeps the first mistake that it meets.
class reader
{
public:
    explicit reader(std::string path) : path_(std::move(path)) {}

    std::optional<board_description> read();
    [[nodiscard]] const std::string &error() const { return error_; }

private:
    using names = std::initializer_list<std::string_view>;

    static void note_parser_error(void *self, xmlError *error);
    void complain(const xmlNode *where, const std::string &what);
    void complain_of_line(long line, const std::string &what);
    void check_names(const xmlNode *element, names attributes, names children);
    std::optional<std::string> attribute(const xmlNode *element, const char *name);
    std::uint32_t number(const xmlNode *element, const char *name, std::uint32_t lowest,
                         std::uint32_t highest, std::optional<std::uint32_t> otherwise = std::nullopt);
    std::vector<std::uint8_t> bytes(const xmlNode *element);
    refusal read_refusal(const xmlNode *element);
    template <typename enumeration, std::size_t count>
    enumeration choice(const xmlNode *element, const char *name, const std::string_view (&names)[count]);

    bus_description read_bus(const xmlNode *element);
    device_description read_device(const xmlNode *element);
    initial_content read_content(const xmlNode *element, const device_description &device);
    pin_failure read_failure(const xmlNode *element);
    pin_description read_pin(const xmlNode *element);
    void read_buses(const xmlNode *root, board_description &board);
    void read_pins(const xmlNode *root, board_description &board);

    static std::vector<const xmlNode *> elements_of(const xmlNode *parent, std::string_view name = "");

    std::string path_;
    std::string error_;
};

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

void reader::note_parser_error(void *self, xmlError *error)
{
    const std::string message = error->message != nullptr ? error->message : "cannot be read";
    static_cast<reader *>(self)->complain_of_line(error->line, message.substr(0, message.find('\n')));
}

// All elements, or those of one name.
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
    const auto known = [](names list, const xmlChar *name) {
        return std::find(list.begin(), list.end(), to_string(name)) != list.end();
    };
    for (const xmlAttr *attribute = element->properties; attribute != nullptr; attribute = attribute->next) {
        if (!known(attributes, attribute->name)) {
            complain(element, "<" + to_string(element->name) + "> has no attribute \"" +
                                  to_string(attribute->name) + "\"");
        }
    }
    for (const xmlNode *const child : elements_of(element)) {
        if (!known(children, child->name)) {
            complain(child, "<" + to_string(element->name) + "> holds no <" + to_string(child->name) + ">");
        }
    }
}

std::optional<std::string> reader::attribute(const xmlNode *element, const char *name)
{
    const std::unique_ptr<xmlChar, text_deleter> value(
        xmlGetProp(element, reinterpret_cast<const xmlChar *>(name)));
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

refusal reader::read_refusal(const xmlNode *element)
{
    static constexpr struct {
        std::string_view name;
        refusal value;
    } refusals[] = {{"", refusal::nothing},
                    {"all", refusal::all},
                    {"reads", refusal::reads},
                    {"writes", refusal::writes}};
    const std::string text = attribute(element, "refuses").value_or("");
    for (const auto &[name, value] : refusals) {
        if (text == name) {
            return value;
        }
    }
    complain(element, "refuses is \"" + text + "\", but must be all, reads or writes");
    return refusal::nothing;
}

template <typename enumeration, std::size_t count>
enumeration reader::choice(const xmlNode *element, const char *name, const std::string_view (&table)[count])
{
    const std::string text = attribute(element, name).value_or("");
    const std::optional<enumeration> found = find_name<enumeration>(table, text);
    if (!found) {
        complain(element, name + " is \""s + text + "\", but must be " + list_names(table));
    }
    return found.value_or(enumeration{});
}

initial_content reader::read_content(const xmlNode *element, const device_description &device)
{
    check_names(element, {"register", "bytes"}, {});
    initial_content content{number(element, "register", 0, device.size - 1), bytes(element)};
    if (content.at + content.bytes.size() > device.size) {
        complain(element, "the bytes reach beyond the last register of " + device.name);
    }
    return content;
}

device_description reader::read_device(const xmlNode *element)
{
    check_names(element, {"name", "address", "registers", "size", "refuses", "fails_after"}, {"at"});
    device_description device;
    device.address = static_cast<std::uint16_t>(number(element, "address", 0x03, 0x77));
    device.name = attribute(element, "name").value_or("device");
    device.register_bits = number(element, "registers", 8, 16, 8);
    if (device.register_bits != 8 && device.register_bits != 16) {
        complain(element, "registers must be 8 or 16, the width of a register address in bits");
    }
    const std::uint32_t space = device.register_bits == 8 ? 0x100 : 0x10000;
    device.size = number(element, "size", 1, space, space);
    device.refuses = read_refusal(element);
    if (attribute(element, "fails_after")) {
        device.fails_after = number(element, "fails_after", 0, 1'000'000'000);
    }
    for (const xmlNode *const child : elements_of(element)) {
        device.contents.push_back(read_content(child, device));
    }
    return device;
}

bus_description reader::read_bus(const xmlNode *element)
{
    check_names(element, {"number"}, {"device"});
    bus_description bus;
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

// What <pin> and <pins> have in common.
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
    xmlSetStructuredErrorFunc(this, note_parser_error);
    const std::unique_ptr<xmlDoc, document_deleter> doc(xmlReadFile(path_.c_str(), nullptr, XML_PARSE_NONET));
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

std::optional<board_description> read_board_file(const std::string &path, std::string &error)
{
    reader file(path);
    std::optional<board_description> board = file.read();
    error = file.error();
    return board;
}

} // namespace kivboard

#include "gpio_node.h"

#include <cerrno>
#include <iterator>
#include <optional>

#include "number.h"

namespace kivboard
{
namespace
{

// A row per attribute: how it is read and written, and the numbers that it accepts. Reading irq takes the
// pending interrupts; it cannot be written.
constexpr struct {
    std::uint32_t (*show)(gpio_pin &pin);
    void (*store)(gpio_pin &pin, std::uint32_t value);
    std::uint32_t lowest;
    std::uint32_t highest;
} attributes[] = {
    {[](gpio_pin &pin) { return std::uint32_t{pin.level()}; },
     [](gpio_pin &pin, std::uint32_t value) { pin.drive(value != 0); }, 0, 1},
    {[](gpio_pin &pin) { return pin.take(); }, nullptr, 0, 0},
    {[](gpio_pin &pin) { return std::uint32_t{pin.is_masked()}; },
     [](gpio_pin &pin, std::uint32_t value) { pin.mask(value != 0); }, 0, 1},
    {[](gpio_pin &pin) { return std::uint32_t{pin.is_requested()}; },
     [](gpio_pin &pin, std::uint32_t value) { pin.request(value != 0); }, 0, 1},
    {[](gpio_pin &pin) { return static_cast<std::uint32_t>(pin.kind()); },
     [](gpio_pin &pin, std::uint32_t value) { pin.configure(static_cast<gpio_pin::trigger>(value)); }, 1, 2},
};
static_assert(std::size(attributes) == std::size(gpio_attribute_names));

// Parses a number that may be followed by a line end and by zero bytes. Other bytes after it are an error, as
// they come from a buffer that the caller did not clear.
std::optional<std::uint32_t> parse_text(std::string_view data)
{
    std::string_view text = data.substr(0, data.find('\0'));
    if (data.find_first_not_of('\0', text.size()) != std::string_view::npos) {
        return std::nullopt;
    }
    if (text.ends_with('\n')) {
        text.remove_suffix(1);
    }
    return parse_number(text, 10);
}

// The written text, cut to the room in a line of the journal.
std::string printable(std::string_view data)
{
    constexpr std::size_t shown = 32;
    data = data.substr(0, data.find_last_not_of('\0') + 1);
    data.remove_suffix(data.ends_with('\n') ? 1 : 0);
    std::string text;
    for (const char character : data.substr(0, shown)) {
        text += character >= ' ' && character <= '~' ? character : '.';
    }
    return data.size() > shown ? text + " ..." : text;
}

} // namespace

bool gpio_node::fails(gpio_operation operation) const
{
    return (failing_ >> static_cast<unsigned>(operation) & 1U) != 0;
}

void gpio_node::set_failing(gpio_operation operation, bool failing)
{
    const unsigned bit = 1U << static_cast<unsigned>(operation);
    failing_ = failing ? failing_ | bit : failing_ & ~bit;
    wake(); // those who poll must see the error, or its end
}

void gpio_node::note(const std::string &access, int result)
{
    const std::string_view name = gpio_attribute_names[static_cast<std::size_t>(attribute_)];
    journal_.add(label_ + " " + std::string(name) + " " + access + " " +
                     (result == 0 ? "ok" : "errno " + std::to_string(result)),
                 {{}, result});
}

int gpio_node::open()
{
    return fails(gpio_operation::open) ? -EIO : 0;
}

int gpio_node::read(std::string &text)
{
    if (fails(gpio_operation::read)) {
        return -EIO;
    }
    const std::uint32_t value = attributes[static_cast<std::size_t>(attribute_)].show(pin_);
    text = std::to_string(value) + "\n";
    if (attribute_ == gpio_attribute::irq && value > 0) {
        note("R[" + std::to_string(value) + "]", 0);
    }
    return 0;
}

int gpio_node::store(std::string_view data)
{
    const auto &attribute = attributes[static_cast<std::size_t>(attribute_)];
    if (fails(gpio_operation::write)) {
        return EIO;
    }
    if (attribute.store == nullptr) {
        return EACCES;
    }
    const std::optional<std::uint32_t> value = parse_text(data);
    if (!value || *value < attribute.lowest || *value > attribute.highest) {
        return EINVAL;
    }
    attribute.store(pin_, *value);
    return 0;
}

int gpio_node::write(std::string_view data)
{
    const int error = store(data);
    note("W[" + printable(data) + "]", error);
    return error != 0 ? -error : static_cast<int>(data.size());
}

unsigned gpio_node::poll()
{
    if (fails(gpio_operation::poll)) {
        return POLLERR;
    }
    if (attribute_ != gpio_attribute::irq) {
        return device_file::poll();
    }
    return pin_.pending() > 0 ? POLLPRI : 0;
}

} // namespace kivboard

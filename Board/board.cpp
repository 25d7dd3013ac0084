#include "board.h"

#include <poll.h>
#include <sys/signalfd.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <csignal>
#include <cstdio>
#include <iterator>
#include <optional>

#include "i2c_node.h"
#include "number.h"
#include "requests.h"

namespace kivboard
{
namespace
{

std::string node_name(unsigned bus)
{
    return "i2c-" + std::to_string(bus);
}

control_reply refused(const std::string &why)
{
    return {false, why + "\n", false};
}

// "0x2a"
std::string prefixed(std::uint32_t value)
{
    char text[16];
    std::snprintf(text, sizeof text, "0x%02x", value);
    return text;
}

// "2a 00 01", or "0x2a 0x00 0x01"
std::string list(const std::vector<std::uint8_t> &bytes, bool with_prefix)
{
    std::string text;
    for (const std::uint8_t byte : bytes) {
        text += (text.empty() ? "" : " ") + prefixed(byte).substr(with_prefix ? 0 : 2);
    }
    return text;
}

std::string beyond(const i2c_device &device)
{
    return "the device has the registers 0 to " + prefixed(static_cast<std::uint32_t>(device.size() - 1));
}

// Signals from the terminal reach COMMAND by themselves; what somebody sends to kivboard is meant for it too.
void pass_on(const signalfd_siginfo &signal, pid_t command)
{
    if (signal.ssi_code != SI_KERNEL) {
        kill(command, static_cast<int>(signal.ssi_signo));
    }
}

bool has_ended(pid_t command, int signal_fd, int &status)
{
    signalfd_siginfo signal = {};
    if (read(signal_fd, &signal, sizeof signal) == static_cast<ssize_t>(sizeof signal) &&
        signal.ssi_signo != SIGCHLD) {
        pass_on(signal, command);
    }
    return waitpid(command, &status, WNOHANG) == command;
}

} // namespace

running_board::running_board(const board_description &description)
    : pins_(description.pins, files_, journal_),
      control_([this](const std::vector<std::string> &words) { return answer(words); })
{
    for (const bus_description &bus : description.buses) {
        i2c_bus &added = buses_.emplace(bus.number, i2c_bus(bus)).first->second;
        files_.add(node_name(bus.number), std::make_unique<i2c_node>(bus.number, added, journal_));
    }
}

std::vector<bind_graft> running_board::grafts() const
{
    std::vector<bind_graft> grafts;
    for (const auto &[number, bus] : buses_) {
        grafts.push_back({node_name(number), "/dev/" + node_name(number)});
    }
    if (!pins_.is_empty()) {
        grafts.push_back({gpio_bank::source_root, gpio_bank::target_root});
    }
    return grafts;
}

int running_board::serve(pid_t command, int fuse_fd, int signal_fd)
{
    bool mounted = true;
    for (;;) {
        std::vector<pollfd> descriptors = {
            {signal_fd, POLLIN, 0}, {mounted ? fuse_fd : -1, POLLIN, 0}, {control_.fd(), POLLIN, 0}};
        for (const control_server::interest &client : control_.interests()) {
            descriptors.push_back({client.fd, client.events, 0});
        }
        if (poll(descriptors.data(), descriptors.size(), -1) < 0 && errno != EINTR) {
            std::perror("kivboard: poll");
        }
        if (int status = 0; descriptors[0].revents != 0 && has_ended(command, signal_fd, status)) {
            return status;
        }
        if (descriptors[1].revents != 0) {
            mounted = files_.serve_one();
        }
        for (std::size_t i = 3; i < descriptors.size(); ++i) {
            if (descriptors[i].revents != 0) {
                control_.serve(descriptors[i].fd);
            }
        }
        if (descriptors[2].revents != 0) {
            control_.accept();
        }
        tell_followers();
    }
}

void running_board::tell_followers()
{
    if (followed_ != journal_.next_number() && control_.has_followers()) {
        control_.follow(journal_.from(followed_));
    }
    followed_ = journal_.next_number();
}

struct running_board::request {
    const char *name;
    control_reply (*handle)(running_board &board, const std::vector<std::string> &words);
};

control_reply running_board::answer(const std::vector<std::string> &line)
{
    using word_list = std::vector<std::string>;
    static constexpr request requests[] = {
        {"raise", [](running_board &board, const word_list &words) { return board.pins_.raise(words); }},
        {"level", [](running_board &board, const word_list &words) { return board.pins_.level(words); }},
        {"fail", [](running_board &board, const word_list &words) { return board.pins_.fail(words); }},
        {"mend", [](running_board &board, const word_list &words) { return board.pins_.mend(words); }},
        {"peek", [](running_board &board, const word_list &words) { return board.peek(words); }},
        {"poke", [](running_board &board, const word_list &words) { return board.poke(words); }},
        {"journal", [](running_board &board, const word_list &words) { return board.show_journal(words); }},
    };
    static_assert(std::size(requests) == std::size(request_forms));
    const request_form *const form = !line.empty() ? find_request(line[0]) : nullptr;
    const auto *const found =
        std::find_if(std::begin(requests), std::end(requests), [form](const request &each) {
            return form != nullptr && std::string_view(form->name) == each.name;
        });
    if (found == std::end(requests)) {
        return refused("the board does not know this request");
    }
    const std::string problem = misuse(*form, line);
    return problem.empty() ? found->handle(*this, line) : refused(problem);
}

i2c_device *running_board::find_device(const std::vector<std::string> &words, std::string &error)
{
    const std::optional<std::uint32_t> bus = parse_number(words[1]);
    const std::optional<std::uint32_t> address = parse_number(words[2]);
    const auto found = bus ? buses_.find(*bus) : buses_.end();
    if (found == buses_.end()) {
        error = "there is no bus " + words[1];
        return nullptr;
    }
    i2c_device *const device =
        address && *address <= 0x7f ? found->second.find(static_cast<std::uint16_t>(*address)) : nullptr;
    if (device == nullptr) {
        error = "there is no device " + words[2] + " on bus " + words[1];
    }
    return device;
}

control_reply running_board::peek(const std::vector<std::string> &words)
{
    std::string error;
    const i2c_device *const device = find_device(words, error);
    if (device == nullptr) {
        return refused(error);
    }
    const std::optional<std::uint32_t> at = parse_number(words[3]);
    const std::optional<std::uint32_t> count = words.size() == 5 ? parse_number(words[4]) : 1;
    if (!at || !count || *count == 0 || *at >= device->size() || *count > device->size() - *at) {
        return refused(beyond(*device));
    }
    std::vector<std::uint8_t> values;
    for (std::uint32_t i = 0; i < *count; ++i) {
        values.push_back(device->peek(*at + i));
    }
    return {true, list(values, true) + "\n", false};
}

control_reply running_board::poke(const std::vector<std::string> &words)
{
    std::string error;
    i2c_device *const device = find_device(words, error);
    if (device == nullptr) {
        return refused(error);
    }
    const std::optional<std::uint32_t> at = parse_number(words[3]);
    if (!at || *at >= device->size() || words.size() - 4 > device->size() - *at) {
        return refused(beyond(*device));
    }
    std::vector<std::uint8_t> values;
    for (std::size_t i = 4; i < words.size(); ++i) {
        const std::optional<std::uint32_t> value = parse_number(words[i]);
        if (!value || *value > 0xff) {
            return refused(words[i] + " is no byte");
        }
        values.push_back(static_cast<std::uint8_t>(*value));
    }
    for (std::size_t i = 0; i < values.size(); ++i) {
        device->poke(*at + i, values[i]);
    }
    journal_.add(node_name(*parse_number(words[1])) + " " + prefixed(*parse_number(words[2])) + " poke " +
                 prefixed(*at) + "=[" + list(values, false) + "]");
    return {};
}

control_reply running_board::show_journal(const std::vector<std::string> &words)
{
    const bool follow = words.size() == 2 && words[1] == "--follow";
    if (words.size() > 1 && !follow) {
        return refused("journal knows --follow only");
    }
    return {true, journal_.from(1), follow};
}

} // namespace kivboard

#include "output.h"

#include <fcntl.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <cstring>

namespace zol_tool
{

namespace
{

bool has_colours(int descriptor)
{
    const char *const no_color = std::getenv("NO_COLOR");
    const char *const terminal = std::getenv("TERM");
    return isatty(descriptor) == 1 && (no_color == nullptr || *no_color == '\0') &&
           (terminal == nullptr || std::string_view(terminal) != "dumb");
}

// The length of the UTF-8 sequence at the beginning of a text; 0 if there is none. Overlong forms, surrogates and numbers
// above 0x10ffff are none.
std::size_t sequence_length(std::string_view text)
{
    constexpr struct {
        unsigned char first, last, lowest_second, highest_second;
        std::size_t length;
    } forms[] = {{0x00, 0x7f, 0x00, 0xff, 1}, {0xc2, 0xdf, 0x80, 0xbf, 2}, {0xe0, 0xe0, 0xa0, 0xbf, 3},
                 {0xe1, 0xec, 0x80, 0xbf, 3}, {0xed, 0xed, 0x80, 0x9f, 3}, {0xee, 0xef, 0x80, 0xbf, 3},
                 {0xf0, 0xf0, 0x90, 0xbf, 4}, {0xf1, 0xf3, 0x80, 0xbf, 4}, {0xf4, 0xf4, 0x80, 0x8f, 4}};
    const auto byte = [text](std::size_t at) { return static_cast<unsigned char>(text[at]); };
    for (const auto &form : forms) {
        if (byte(0) < form.first || byte(0) > form.last || text.size() < form.length) {
            continue;
        }
        bool is_whole = form.length < 2 || (byte(1) >= form.lowest_second && byte(1) <= form.highest_second);
        for (std::size_t i = 2; i < form.length; ++i) {
            is_whole = is_whole && (byte(i) & 0xc0) == 0x80;
        }
        return is_whole ? form.length : 0;
    }
    return 0;
}

// A character of a JSON string, as it is written.
std::string escaped(std::string_view character)
{
    constexpr std::pair<char, const char *> short_forms[] = {
        {'"', "\\\""}, {'\\', "\\\\"}, {'\n', "\\n"}, {'\r', "\\r"}, {'\t', "\\t"}};
    for (const auto &[plain, form] : short_forms) {
        if (character.front() == plain) {
            return form;
        }
    }
    const auto byte = static_cast<unsigned char>(character.front());
    if (byte >= 0x20 && byte != 0x7f) {
        return std::string(character);
    }
    char form[8];
    std::snprintf(form, sizeof form, "\\u%04x", byte);
    return form;
}

// A standard output that is closed is read-only by now. An answer to it fails as one to a full disk does.
std::FILE *copy_of_output()
{
    std::FILE *const copy = fdopen(fcntl(STDOUT_FILENO, F_DUPFD_CLOEXEC, 3), "w");
    return copy != nullptr ? copy : std::fopen("/dev/full", "we");
}

} // namespace

json::json(std::string_view value) : text_("\"")
{
    while (!value.empty()) {
        const std::size_t length = sequence_length(value);
        text_ += length > 0 ? escaped(value.substr(0, length)) : "\\ufffd";
        value.remove_prefix(length > 0 ? length : 1);
    }
    text_ += '"';
}

json::json(double value)
{
    char digits[32];
    std::snprintf(digits, sizeof digits, "%.16g", value);
    text_ = digits;
}

json::json(const std::vector<json> &values) : text_("[")
{
    for (const json &value : values) {
        text_ += (text_.size() > 1 ? ", " : "") + value.text();
    }
    text_ += ']';
}

json json::object(const std::vector<member> &members)
{
    std::string text = "{";
    for (const auto &[key, value] : members) {
        text += (text.size() > 1 ? ", " : "") + json(key).text() + ": " + value.text();
    }
    return json(raw_text{text + "}"});
}

output::output()
    : answers_(copy_of_output()), errors_(fcntl(STDERR_FILENO, F_DUPFD_CLOEXEC, 3)),
      answers_have_colours_(has_colours(STDOUT_FILENO)), errors_have_colours_(has_colours(STDERR_FILENO))
{
    if (answers_ == nullptr) {
        std::perror("zol: no copy of the standard output");
        std::exit(1);
    }
}

output::~output()
{
    std::fclose(answers_);
    close(errors_);
}

void output::line(std::string_view text)
{
    raw(text);
    raw("\n");
    flush();
}

void output::raw(std::string_view text)
{
    std::fwrite(text.data(), 1, text.size(), answers_);
}

void output::flush()
{
    std::fflush(answers_);
}

void output::error(std::string_view text)
{
    const std::string name = errors_have_colours_ ? "\033[31mzol:\033[0m " : "zol: ";
    diagnose(name + std::string(text) + "\n");
}

void output::diagnose(std::string_view text)
{
    while (!text.empty()) {
        const ssize_t written = write(errors_, text.data(), text.size());
        if (written < 0 && errno != EINTR) {
            return; // there is no other place to report it
        }
        text.remove_prefix(written > 0 ? static_cast<std::size_t>(written) : 0);
    }
}

std::string output::coloured(colour which, std::string_view text) const
{
    const std::string plain(text);
    return answers_have_colours_ ? "\033[" + std::to_string(static_cast<int>(which)) + "m" + plain + "\033[0m"
                                 : plain;
}

bool output::is_good() const
{
    return std::ferror(answers_) == 0;
}

int output::finish(int status)
{
    errno = 0;
    if (std::fflush(answers_) == 0 && is_good()) {
        return status;
    }
    error("the standard output could not be written");
    return status != 0 ? status : 1;
}

} // namespace zol_tool

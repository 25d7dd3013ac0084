// The commands about tokens.

#include <algorithm>
#include <cctype>
#include <cerrno>
#include <cstring>
#include <filesystem>
#include <memory>
#include <new>

#include "command.h"

namespace zol_tool
{
namespace
{

namespace fs = std::filesystem;

constexpr std::size_t bytes_of_a_line = 16;

struct token {
    std::string name;
    std::uint32_t size;
};

// The names in the token directory, but those of directories. @return "" or the reason why there are none.
std::string find_names(words &names)
{
    std::error_code error;
    for (fs::directory_iterator entry(*g_tokensPath != '\0' ? g_tokensPath : "/", error), end;
         !error && entry != end; entry.increment(error)) {
        std::error_code ignored;
        if (!entry->is_directory(ignored)) {
            names.push_back(entry->path().filename());
        }
    }
    std::ranges::sort(names);
    return error ? std::string(g_tokensPath) + ": " + error.message() : "";
}

// Reports the names that the library cannot open.
std::vector<token> measure(context &with, const words &names)
{
    std::vector<token> tokens;
    for (const std::string &name : names) {
        if (const auto size = zol::token_size(name.c_str())) {
            tokens.push_back({name, *size});
        } else {
            refuse(with, std::string(g_tokensPath) + "/" + name + " cannot be read");
        }
    }
    return tokens;
}

void print_tokens(output &out, const std::vector<token> &tokens)
{
    std::size_t width = 0;
    for (const token &each : tokens) {
        width = std::max(width, each.name.size());
    }
    for (const token &each : tokens) {
        out.line(each.name + std::string(width - each.name.size() + 2, ' ') + std::to_string(each.size));
    }
}

json as_json(const std::vector<token> &tokens)
{
    std::vector<json> list;
    list.reserve(tokens.size());
    for (const token &each : tokens) {
        list.push_back(json::object({{"name", each.name}, {"size", each.size}}));
    }
    return json::object({{"directory", g_tokensPath}, {"tokens", list}});
}

// Control characters other than blanks do not belong to a text.
bool is_text(std::string_view bytes)
{
    return std::ranges::all_of(bytes, [](char c) {
        const auto byte = static_cast<unsigned char>(c);
        return byte >= ' ' ? byte != 0x7f : std::strchr("\t\n\r\f", c) != nullptr && c != '\0';
    });
}

std::string as_hex(std::string_view bytes)
{
    std::string text;
    for (const char byte : bytes) {
        char digits[4];
        std::snprintf(digits, sizeof digits, "%02x", static_cast<unsigned char>(byte));
        text += (text.empty() ? "" : " ") + std::string(digits);
    }
    return text;
}

std::string printable(std::string_view bytes)
{
    std::string text(bytes);
    std::ranges::replace_if(
        text, [](char c) { return c < ' ' || c > '~'; }, '.');
    return text;
}

void print_bytes(output &out, std::string_view bytes)
{
    for (std::size_t at = 0; at < bytes.size(); at += bytes_of_a_line) {
        const std::string_view some = bytes.substr(at, bytes_of_a_line);
        char place[24];
        std::snprintf(place, sizeof place, "%04zx  ", at);
        std::string hex = as_hex(some);
        hex.resize(3 * bytes_of_a_line + 1, ' ');
        out.line(place + hex + printable(some));
    }
}

void print_text(output &out, std::string_view text)
{
    out.raw(text);
    if (!text.ends_with('\n')) {
        out.raw("\n");
    }
}

void print_token(output &out, const std::string &name, std::string_view bytes)
{
    out.line(name + ": " + std::to_string(bytes.size()) + " bytes");
    if (is_text(bytes)) {
        print_text(out, bytes);
    } else {
        print_bytes(out, bytes);
    }
}

json as_json(const std::string &name, std::string_view bytes)
{
    const json::member content =
        is_text(bytes) ? json::member{"text", bytes} : json::member{"hex", as_hex(bytes)};
    return json::object({{"name", name}, {"size", bytes.size()}, content});
}

int answer(context &with, const std::string &name, std::string_view bytes)
{
    if (with.json) {
        with.out.answer(as_json(name, bytes));
    } else if (with.has("--raw")) {
        with.out.raw(bytes);
    } else {
        print_token(with.out, name, bytes);
    }
    return done;
}

} // namespace

int token_list(context &with)
{
    const auto library = start(with);
    if (!library) {
        return not_started;
    }
    words names;
    if (const std::string problem = find_names(names); !problem.empty()) {
        return refuse(with, problem);
    }
    const std::vector<token> tokens = measure(with, names);
    if (with.json) {
        with.out.answer(as_json(tokens));
    } else {
        print_tokens(with.out, tokens);
    }
    return tokens.size() == names.size() ? done : refused;
}

int token_show(context &with)
{
    if (with.operands.size() != 1) {
        return usage_error(with, "token show takes the name of one token");
    }
    const auto library = start(with);
    if (!library) {
        return not_started;
    }
    const std::string &name = with.operands.front();
    const auto size = zol::token_size(name.c_str());
    if (!size) {
        return refuse(with, "no token " + name + " in " + g_tokensPath);
    }
    const std::unique_ptr<std::byte[]> buffer(new (std::nothrow) std::byte[*size]);
    if (buffer == nullptr) {
        return refuse(with, "no memory for the " + std::to_string(*size) + " bytes of the token " + name);
    }
    const auto read = zol::read_token(name.c_str(), std::span(buffer.get(), *size));
    if (!read) {
        return refuse(with, "the token " + name + " cannot be read");
    }
    return answer(with, name, {reinterpret_cast<const char *>(read->data()), read->size()});
}

} // namespace zol_tool

#include "timing_text.h"

#include <algorithm>
#include <array>
#include <cstdint>
#include <cstdio>

namespace zol_tools
{
namespace
{

// The smallest code point for each size of a sequence. A smaller one would be an overlong form, which is invalid.
constexpr std::array<std::uint32_t, 5> smallest = {0, 0, 0x80, 0x800, 0x10000};

bool is_xml_character(std::uint32_t code)
{
    const bool is_surrogate = code >= 0xD800 && code <= 0xDFFF;
    return !is_surrogate && code != 0xFFFE && code != 0xFFFF && code <= 0x10FFFF;
}

// @return The size of the UTF-8 character at the head of a text; 0 when it is invalid, or not allowed in XML.
std::size_t character_size(std::string_view text)
{
    const auto first = static_cast<unsigned char>(text[0]);
    const std::size_t size = first < 0x80 ? 1 : first >= 0xF0 ? 4 : first >= 0xE0 ? 3 : 2;
    std::uint32_t code = size == 1 ? first : first & (0x7FU >> size);
    for (std::size_t i = 1; i < size; ++i) {
        if (i >= text.size() || (static_cast<unsigned char>(text[i]) & 0xC0) != 0x80) {
            return 0;
        }
        code = code << 6 | (static_cast<unsigned char>(text[i]) & 0x3FU);
    }
    const bool is_lead = first < 0x80 || (first >= 0xC2 && first < 0xF8);
    return is_lead && code >= smallest[size] && is_xml_character(code) ? size : 0;
}

bool is_control(std::string_view character)
{
    return static_cast<unsigned char>(character[0]) < 0x20;
}

std::string escape_xml_character(std::string_view character)
{
    switch (character[0]) {
    case '&':
        return "&amp;";
    case '<':
        return "&lt;";
    case '>':
        return "&gt;";
    default:
        return is_control(character) ? " " : std::string(character);
    }
}

std::string escape_json_character(std::string_view character)
{
    if (character[0] == '"' || character[0] == '\\') {
        return "\\" + std::string(character);
    }
    char code[8];
    std::snprintf(code, sizeof code, "\\u%04x",
                  static_cast<unsigned>(static_cast<unsigned char>(character[0])));
    return is_control(character) ? code : std::string(character);
}

} // namespace

std::string escape(std::string_view text, escape_character escape_one)
{
    std::string escaped;
    while (!text.empty()) {
        const std::size_t size = character_size(text);
        escaped += size > 0 ? escape_one(text.substr(0, size)) : "\xEF\xBF\xBD";
        text.remove_prefix(std::max<std::size_t>(size, 1));
    }
    return escaped;
}

std::string escape_xml(std::string_view text)
{
    return escape(text, escape_xml_character);
}

std::string quote_json(std::string_view text)
{
    return "\"" + escape(text, escape_json_character) + "\"";
}

} // namespace zol_tools

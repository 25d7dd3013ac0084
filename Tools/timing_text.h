// Texts of logs, which may hold any bytes, in formats that must be UTF-8.
#pragma once

#include <string>
#include <string_view>

namespace zol_tools
{

/// Escapes a character: one of ASCII, or a whole one of UTF-8.
using escape_character = std::string (*)(std::string_view character);

/// Shows an invalid byte as U+FFFD, because parsers reject a file that is not UTF-8.
std::string escape(std::string_view text, escape_character escape_one);

/// For the text of an XML element.
std::string escape_xml(std::string_view text);

/// A string of JSON, in quotes.
std::string quote_json(std::string_view text);

} // namespace zol_tools

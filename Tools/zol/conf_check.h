// Finds the mistakes of a configuration file, and says what to do about them.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "conf_file.h"
#include "keys.h"

namespace zol_tool
{

enum class weight {
    error,   // the library does not start, or what the key asks for does not happen
    warning, // it works, but probably not as it is meant
    note,
};

struct finding {
    weight how_bad;
    int line; // 0: of no line
    std::string key;
    std::string what;
    std::string remedy; // "": it is obvious
};

/// The findings of one check, and the file that they are about.
class conf_report
{
public:
    explicit conf_report(const conf_file &file) noexcept : file_(file) {}

    [[nodiscard]] const conf_file &file() const noexcept { return file_; }
    [[nodiscard]] const std::vector<finding> &findings() const noexcept { return findings_; }

    /// Adds a finding about a key, at the line where the file sets it.
    void add(weight how_bad, const std::string &key, std::string what, std::string remedy = "");
    void add_at(int line, weight how_bad, const std::string &key, std::string what, std::string remedy = "");

    /// The value of a key as the library uses it: cut, or the fallback. None: it has no value.
    [[nodiscard]] std::optional<std::string> text(const known_key &key, const std::string &name) const;
    /// None when there is no number within the key's range.
    [[nodiscard]] std::optional<std::int32_t> number(const known_key &key, const std::string &name) const;

    /// By their lines; at last those of no line.
    void sort();

private:
    const conf_file &file_;
    std::vector<finding> findings_;
};

/// The buses or chips that the library sets up; 0 for a key of pins.
int numbers_set_up(const conf_report &report, const known_key &key);

/// A value on one line.
std::string shown(const std::string &value);

/// Checks the document and every key by itself.
void check_keys(conf_report &report);

/// Checks the nodes and directories that the keys name. Opens nodes, but transfers and changes nothing.
void check_tokens(conf_report &report);
void check_buses(conf_report &report);
void check_chips(conf_report &report);

} // namespace zol_tool

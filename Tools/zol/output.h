// Answers on the standard output, errors on the standard error output.
#pragma once

#include <concepts>
#include <cstdio>
#include <initializer_list>
#include <string>
#include <string_view>
#include <type_traits>
#include <utility>
#include <vector>

namespace zol_tool
{

/// A JSON value, as text. Bytes that are no UTF-8 become U+FFFD.
class json
{
public:
    json(std::string_view value);
    json(const std::string &value) : json(std::string_view(value)) {}
    json(const char *value) : json(std::string_view(value)) {}
    template <typename T>
    requires std::integral<T> json(T value)
        : text_(std::same_as<T, bool> ? (value ? "true" : "false") : std::to_string(value))
    {
    }
    json(double value);
    json(const std::vector<json> &values);

    using member = std::pair<const char *, json>;
    static json null() { return json(raw_text{"null"}); }
    static json object(const std::vector<member> &members);

    [[nodiscard]] const std::string &text() const { return text_; }

private:
    struct raw_text {
        std::string text;
    };
    explicit json(const raw_text &raw) : text_(raw.text) {}

    std::string text_;
};

enum class colour { red = 31, green = 32, yellow = 33 };

/// The streams of the user. The tool leaves the descriptors 1 and 2 to the log of the library, so it keeps copies.
class output
{
public:
    output();
    ~output();
    output(const output &) = delete;
    output &operator=(const output &) = delete;

    /// An answer: one line, which is written at once.
    void line(std::string_view text);
    void answer(const json &value) { line(value.text()); }
    /// Text as it is: no line end is added, and it waits for flush().
    void raw(std::string_view text);
    void flush();

    /// "zol: TEXT" on the standard error output.
    void error(std::string_view text);
    /// Text as it is on the standard error output.
    void diagnose(std::string_view text);

    /// A text in a colour, on a terminal and without NO_COLOR; otherwise the text.
    [[nodiscard]] std::string coloured(colour which, std::string_view text) const;
    /// The same for the standard error output.
    [[nodiscard]] bool errors_have_colours() const { return errors_have_colours_; }

    /// False after an answer that could not be written.
    [[nodiscard]] bool is_good() const;
    /// The descriptor of the answers.
    [[nodiscard]] int descriptor() const { return fileno(answers_); }
    /// @return The exit status: not 0 if an answer could not be written, which is reported.
    int finish(int status);

private:
    std::FILE *answers_;
    int errors_;
    bool answers_have_colours_;
    bool errors_have_colours_;
};

} // namespace zol_tool

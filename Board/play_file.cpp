#include "play_file.h"

#include <algorithm>
#include <charconv>
#include <cmath>
#include <iterator>
#include <optional>
#include <sstream>

#include "number.h"
#include "requests.h"

namespace kivboard
{
namespace
{

using words = std::vector<std::string>;

constexpr std::uint32_t most_times = 1'000'000;
constexpr char default_limit[] = " within 10s"; // of a wait

// Reads the words of one line into a step, and keeps the first mistake that it meets.
class step_reader
{
public:
    step_reader(words line, play_step &into) : step(into), words_(std::move(line)) {}

    play_step &step;

    [[nodiscard]] const std::string &problem() const { return problem_; }
    void complain(const std::string &what) { problem_ = problem_.empty() ? what : problem_; }

    // The next word; "" at the end.
    [[nodiscard]] std::string next() const { return at_ < words_.size() ? words_[at_] : ""; }
    std::string take()
    {
        std::string word = next();
        ++at_;
        return word;
    }
    [[nodiscard]] words rest() const
    {
        const auto taken = static_cast<std::ptrdiff_t>(std::min(at_, words_.size()));
        return words(words_.begin() + taken, words_.end());
    }

    std::uint32_t number(const std::string &word, const char *kind, std::uint32_t lowest,
                         std::uint32_t highest)
    {
        const std::optional<std::uint32_t> value = parse_number(word);
        if (!value || *value < lowest || *value > highest) {
            complain((word.empty() ? "nothing" : word) + " is no " + kind + "; use " +
                     std::to_string(lowest) + " to " + std::to_string(highest));
        }
        return value.value_or(lowest);
    }

    // @param word  As it is in the file, with a mark before the time. @param mark  Its length.
    duration time(const std::string &word, std::size_t mark = 0)
    {
        const std::optional<duration> value = parse_duration(std::string_view(word).substr(mark));
        if (!value) {
            complain((word.empty() ? "nothing" : word) + " is no time; use " + duration_range);
        }
        return value.value_or(duration::zero());
    }

private:
    words words_;
    std::size_t at_ = 0;
    std::string problem_;
};

std::string join(const words &parts)
{
    std::string line;
    for (const std::string &part : parts) {
        line += (line.empty() ? "" : " ") + part;
    }
    return line;
}

// Sets the request to the board, if the board will understand it.
std::optional<request> set_request(step_reader &reader, const words &request_words)
{
    std::string problem;
    std::optional<request> parsed = parse_request(request_words, problem);
    reader.step.request = join(request_words);
    if (!parsed) {
        reader.complain(problem);
    } else if (reader.step.request.size() >= longest_request) {
        reader.complain("the line is too long; use up to " + std::to_string(longest_request) + " characters");
    }
    return parsed;
}

void parse_plain(step_reader &reader)
{
    set_request(reader, reader.rest());
}

void parse_wait(step_reader &reader)
{
    const std::optional<request> parsed = set_request(reader, reader.rest());
    reader.step.is_wait = true;
    if (parsed && !std::get<wait_request>(*parsed).timeout) {
        reader.step.request += default_limit;
    }
}

// The things that can be expected: the words before the sign, and the request that asks for the numbers.
constexpr struct {
    const char *name;
    std::size_t words;
    const char *request;
    bool is_counted; // the last argument of the request is the count of the numbers
    std::uint32_t highest;
} subjects[] = {{"reg", 4, "peek", true, 0xffff}, {"pin", 2, "level", false, 1}};

// expect reg BUS ADDRESS REGISTER = VALUE... | expect pin PIN is VALUE
void parse_expect(step_reader &reader)
{
    reader.take();
    const words rest = reader.rest();
    const auto sign = std::find_if(rest.begin(), rest.end(),
                                   [](const std::string &word) { return word == "=" || word == "is"; });
    words asked(rest.begin(), sign);
    const auto *const subject =
        std::find_if(std::begin(subjects), std::end(subjects), [&asked](const auto &each) {
            return asked.size() == each.words && asked[0] == each.name;
        });
    if (rest.end() - sign < 2 || subject == std::end(subjects)) {
        reader.complain("expect needs reg BUS ADDRESS REGISTER = VALUE... or pin PIN is VALUE");
        return;
    }
    for (const std::string &word : words(sign + 1, rest.end())) {
        reader.step.expected.push_back(reader.number(word, "value", 0, subject->highest));
    }
    if (subject->is_counted) {
        asked.push_back(std::to_string(reader.step.expected.size()));
    }
    asked[0] = subject->request;
    set_request(reader, asked);
}

void parse_repeat(step_reader &reader);

constexpr struct {
    const char *name;
    void (*parse)(step_reader &);
} actions[] = {{"raise", parse_plain}, {"level", parse_plain},   {"fail", parse_plain},
               {"mend", parse_plain},  {"poke", parse_plain},    {"peek", parse_plain},
               {"wait", parse_wait},   {"expect", parse_expect}, {"repeat", parse_repeat}};

void parse_action(step_reader &reader)
{
    const std::string name = reader.next();
    std::string names;
    for (const auto &action : actions) {
        if (name == action.name) {
            action.parse(reader);
            return;
        }
        names += (names.empty() ? "" : ", ") + std::string(action.name);
    }
    reader.complain((name.empty() ? "nothing" : name) + " is no command; use " + names);
}

// repeat COUNT every TIME COMMAND...
void parse_repeat(step_reader &reader)
{
    reader.take();
    reader.step.is_timed = true;
    reader.step.times = reader.number(reader.take(), "count", 1, most_times);
    if (reader.take() != "every") {
        reader.complain("repeat needs COUNT every TIME COMMAND...");
    }
    reader.step.period = reader.time(reader.take());
    if (reader.next() == "repeat" || reader.next() == "wait") {
        reader.complain(reader.next() + " cannot be repeated");
    } else if (reader.problem().empty()) {
        parse_action(reader);
    }
}

// [+TIME | @TIME] COMMAND...
void parse_line(step_reader &reader)
{
    const std::string first = reader.next();
    if (!first.empty() && (first[0] == '+' || first[0] == '@')) {
        reader.step.is_timed = true;
        reader.step.is_absolute = first[0] == '@';
        reader.step.time = reader.time(reader.take(), 1);
    }
    parse_action(reader);
}

// A value of an object in one line, without quotes. Stimuli and numbers contain no quotes of their own.
std::optional<std::string> find_value(const std::string &object, const std::string &name)
{
    const std::string key = "\"" + name + "\"";
    std::size_t at = object.find(key);
    at = at == std::string::npos ? at : object.find_first_not_of(" :", at + key.size());
    if (at == std::string::npos) {
        return std::nullopt;
    }
    const bool is_text = object[at] == '"';
    at += is_text ? 1 : 0;
    return object.substr(at, object.find_first_of(is_text ? "\"" : ",} ", at) - at);
}

// The time of a recorded event since the start of its board, which may have run for years.
std::optional<duration> recorded_time(const std::string &object)
{
    constexpr double longest = 1e9;
    const std::string text = find_value(object, "time").value_or("");
    double seconds = -1;
    std::from_chars(text.data(), text.data() + text.size(), seconds, std::chars_format::fixed);
    return seconds >= 0 && seconds <= longest ? std::optional(duration(std::llround(seconds * 1e9)))
                                              : std::nullopt;
}

words split(const std::string &line)
{
    std::istringstream text(line);
    return {std::istream_iterator<std::string>(text), {}};
}

words without_comment(words line)
{
    const auto comment =
        std::find_if(line.begin(), line.end(), [](const std::string &word) { return word.starts_with('#'); });
    line.erase(comment, line.end());
    return line;
}

class file_reader
{
public:
    explicit file_reader(const std::string &name) : name_(name) {}

    void add(const std::string &line);
    play_file finish();

private:
    void add_recorded(const std::string &object);
    void parse_recorded(step_reader &reader, const std::string &object);
    void add(step_reader &reader);
    void check_time(step_reader &reader);

    const std::string &name_;
    play_file file_;
    std::size_t line_ = 0;
    duration earliest_ = duration::zero();  // the next step cannot be earlier
    std::optional<duration> recorded_ = {}; // the time of the last recorded stimulus
};

// The waits may take no time, so this is the earliest time of each step.
void file_reader::check_time(step_reader &reader)
{
    const play_step &step = reader.step;
    const duration start = step.is_absolute ? step.time : earliest_ + step.time;
    if (start < earliest_) {
        reader.complain("the time goes back: " + describe(start) + " is before " + describe(earliest_) +
                        "; use @" + describe(earliest_) + " to @24h");
    }
    const duration end = start + step.period * (step.times - 1);
    if (end > longest_duration) {
        reader.complain("the line ends " + describe(end) + " after the start; use up to 24h");
    }
    earliest_ = reader.problem().empty() ? end : earliest_;
}

void file_reader::add(step_reader &reader)
{
    if (reader.problem().empty()) {
        check_time(reader);
    }
    if (reader.problem().empty()) {
        reader.step.line = line_;
        file_.steps.push_back(std::move(reader.step));
    } else {
        file_.problems.push_back(name_ + ":" + std::to_string(line_) + ": " + reader.problem());
    }
}

void file_reader::parse_recorded(step_reader &reader, const std::string &object)
{
    const std::optional<duration> time = recorded_time(object);
    if (const std::optional<std::string> gone = find_value(object, "gone")) {
        reader.complain(*gone + " older lines are gone; remove this line to play the others");
    } else if (reader.step.text.empty() || !time) {
        reader.complain("this is no line of kivboard journal --json");
    } else if (recorded_ && *time < *recorded_) {
        reader.complain("the time goes back: " + describe(*time) + " is before " + describe(*recorded_));
    } else {
        reader.step.is_timed = true;
        reader.step.time = *time - recorded_.value_or(*time);
        recorded_ = time;
        parse_action(reader);
    }
}

// An object of "kivboard journal --json". An event without a stimulus is not from the bench, so it is left out.
void file_reader::add_recorded(const std::string &object)
{
    play_step step;
    step.text = find_value(object, "stimulus").value_or("");
    if (!step.text.empty() || !find_value(object, "event")) {
        step_reader reader(split(step.text), step);
        parse_recorded(reader, object);
        add(reader);
    }
}

void file_reader::add(const std::string &line)
{
    ++line_;
    const words parts = without_comment(split(line));
    if (parts.empty()) {
        return;
    }
    if (parts[0].starts_with('{')) {
        add_recorded(line);
        return;
    }
    play_step step;
    step.text = join(parts);
    step_reader reader(parts, step);
    parse_line(reader);
    add(reader);
}

play_file file_reader::finish()
{
    if (file_.steps.empty() && file_.problems.empty()) {
        file_.problems.push_back(name_ + ": there is nothing to play");
    }
    return std::move(file_);
}

} // namespace

play_file read_play_file(std::istream &file, const std::string &name)
{
    file_reader reader(name);
    for (std::string line; std::getline(file, line);) {
        reader.add(line);
    }
    return reader.finish();
}

} // namespace kivboard

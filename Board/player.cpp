#include "player.h"

#include <poll.h>
#include <sys/prctl.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <cstdio>
#include <cstring>
#include <ctime>
#include <fstream>
#include <iostream>
#include <map>
#include <sstream>

#include "board_connection.h"
#include "number.h"
#include "play_file.h"
#include "run.h"

namespace kivboard
{
namespace
{

using clock = std::chrono::steady_clock; // CLOCK_MONOTONIC

constexpr std::chrono::milliseconds poll_accuracy(2);
constexpr std::size_t most_problems = 20;

// Sleeps to an absolute time, so that no delay adds up. @return False when the board goes away before.
bool sleep_until(clock::time_point end, int board)
{
    pollfd gone = {board, POLLIN, 0}; // the board sends nothing unasked
    for (auto left = end - clock::now(); left > poll_accuracy; left = end - clock::now()) {
        const auto ms = std::chrono::floor<std::chrono::milliseconds>(left - poll_accuracy);
        if (poll(&gone, 1, static_cast<int>(ms.count())) > 0) {
            return false;
        }
        if (ms.count() == 0) {
            break;
        }
    }
    const auto time = end.time_since_epoch();
    const auto seconds = std::chrono::floor<std::chrono::seconds>(time);
    const timespec until = {static_cast<std::time_t>(seconds.count()),
                            static_cast<long>(std::chrono::nanoseconds(time - seconds).count())};
    while (clock_nanosleep(CLOCK_MONOTONIC, TIMER_ABSTIME, &until, nullptr) == EINTR) {
    }
    return true;
}

bool holds(const board_answer &answer, const std::vector<std::uint32_t> &expected)
{
    std::istringstream text(answer.text);
    std::vector<std::uint32_t> numbers;
    for (std::string word; text >> word;) {
        numbers.push_back(parse_number(word).value_or(~0U));
    }
    return numbers == expected;
}

class player
{
public:
    player(board_connection &board, const std::string &name, const std::vector<play_step> &steps)
        : board_(board), name_(name), steps_(steps)
    {
    }

    /// @return The exit status.
    int play();

private:
    bool play(const play_step &step);
    bool play_once(const play_step &step, clock::time_point planned);
    void judge(const play_step &step, const board_answer &answer);
    void report(const play_step &step);
    [[nodiscard]] int verdict() const;

    board_connection &board_;
    const std::string &name_;
    const std::vector<play_step> &steps_;
    clock::time_point start_ = clock::now();
    clock::time_point previous_ = start_; // the planned time of the step before
    duration latest_ = duration::zero();  // the largest delay
    std::size_t played_ = 0;
    std::size_t faults_ = 0;
    std::map<std::string, std::size_t> notes_; // of the present step, and how often they came
};

// The answer arrives after the event on the board, so the real delay is not larger.
bool player::play_once(const play_step &step, clock::time_point planned)
{
    if (!sleep_until(planned, board_.fd())) {
        notes_["the board has gone"] = 1;
        ++faults_;
        return false;
    }
    const std::optional<board_answer> answer = board_.exchange(step.request);
    if (step.is_timed && !step.is_wait) {
        latest_ = std::max<duration>(latest_, clock::now() - planned);
    }
    if (!answer) {
        notes_["the board has gone"] = 1;
        ++faults_;
        return false;
    }
    judge(step, *answer);
    return answer->ok;
}

void player::judge(const play_step &step, const board_answer &answer)
{
    const std::string text = answer.text.substr(0, answer.text.find('\n'));
    if (!answer.ok || (!step.expected.empty() && !holds(answer, step.expected))) {
        ++faults_;
        ++notes_[answer.ok ? "it is " + text : text];
    } else if (step.expected.empty() && !text.empty()) {
        ++notes_[text];
    }
}

void player::report(const play_step &step)
{
    for (const auto &[text, times] : notes_) {
        std::printf("%s:%zu: %s: %s%s\n", name_.c_str(), step.line, step.text.c_str(),
                    printable(text).c_str(),
                    times > 1 ? (" (" + std::to_string(times) + " times)").c_str() : "");
    }
    notes_.clear();
    std::fflush(stdout);
}

// @return False when the play ends here.
bool player::play(const play_step &step)
{
    clock::time_point planned = (step.is_absolute ? start_ : previous_) + step.time;
    bool goes_on = planned >= previous_;
    if (!goes_on) {
        notes_["the wait before it took longer, until @" + describe(previous_ - start_)] = 1;
        ++faults_;
    }
    for (std::uint32_t i = 0; goes_on && i < step.times; ++i) {
        goes_on = play_once(step, planned + i * step.period);
    }
    report(step);
    previous_ = step.is_wait ? clock::now() : planned + (step.times - 1) * step.period;
    played_ += goes_on ? 1 : 0;
    return goes_on;
}

int player::verdict() const
{
    std::printf("%s: %s, faults: %zu, steps: %zu of %zu, %.3f s, at most %.3f ms late\n", name_.c_str(),
                faults_ == 0 ? "passed" : "failed", faults_, played_, steps_.size(),
                std::chrono::duration<double>(clock::now() - start_).count(),
                std::chrono::duration<double, std::milli>(latest_).count());
    return faults_ == 0 ? 0 : exit_failure;
}

int player::play()
{
    prctl(PR_SET_TIMERSLACK, 1UL); // ns; the default is 50 us
    static_cast<void>(
        std::all_of(steps_.begin(), steps_.end(), [this](const play_step &step) { return play(step); }));
    return verdict();
}

int complain_of(const std::vector<std::string> &problems)
{
    for (std::size_t i = 0; i < std::min(problems.size(), most_problems); ++i) {
        complain(exit_usage, printable(problems[i]));
    }
    return problems.size() > most_problems
               ? complain(exit_usage,
                          std::to_string(problems.size() - most_problems) + " more lines are wrong")
               : exit_usage;
}

} // namespace

int play(const std::string &file, const std::string &socket)
{
    errno = 0;
    std::ifstream opened;
    if (file != "-") {
        opened.open(file);
    }
    std::istream &input = file == "-" ? std::cin : opened;
    const play_file read = read_play_file(input, file);
    if (input.bad() || (file != "-" && !opened.is_open())) {
        return complain(exit_usage, "can't read " + file + ": " + std::strerror(errno));
    }
    if (!read.problems.empty()) {
        return complain_of(read.problems);
    }
    board_connection board(socket);
    return board.is_open() ? player(board, file, read.steps).play() : complain(exit_failure, board.problem());
}

} // namespace kivboard

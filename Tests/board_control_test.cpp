// The control socket of the virtual board: which files it takes for its own, and how it treats its clients.

#include <fcntl.h>
#include <gtest/gtest.h>
#include <linux/sockios.h>
#include <poll.h>
#include <sys/file.h>
#include <sys/ioctl.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>

#include <array>
#include <chrono>
#include <filesystem>
#include <functional>
#include <string>
#include <thread>

#include "board_connection.h"
#include "control_server.h"
#include "support/eventually.h"
#include "support/forked.h"
#include "support/scratch.h"

using kivboard::connect_to_board;
using kivboard::control_reply;
using kivboard::control_socket;

namespace
{

sockaddr_un address_of(const std::string &path)
{
    sockaddr_un address = {AF_UNIX, ""};
    path.copy(address.sun_path, sizeof address.sun_path - 1);
    return address;
}

class BoardControl : public testing::Test
{
protected:
    // A socket of another program at the path.
    [[nodiscard]] kiv::unique_fd foreign(int type) const
    {
        kiv::unique_fd fd(socket(AF_UNIX, type | SOCK_CLOEXEC, 0));
        const sockaddr_un address = address_of(path_);
        EXPECT_EQ(bind(fd.get(), reinterpret_cast<const sockaddr *>(&address), sizeof address), 0);
        EXPECT_EQ(type == SOCK_STREAM ? listen(fd.get(), 1) : 0, 0);
        return fd;
    }

    // A client of the server, which has accepted it.
    kiv::unique_fd client()
    {
        EXPECT_EQ(server_.socket().fd() < 0 ? server_.socket().claim(path_) : "", "");
        kiv::unique_fd fd = connect_to_board(path_, problem_);
        server_.accept();
        return fd;
    }

    // Serves the clients that are ready. @return False when there are none.
    bool serve()
    {
        std::vector<pollfd> ready;
        for (const auto &[fd, events] : server_.interests()) {
            ready.push_back({fd, events, 0});
        }
        const bool any = poll(ready.data(), ready.size(), 0) > 0;
        for (const pollfd &each : ready) {
            if (each.revents != 0) {
                server_.serve(each.fd);
            }
        }
        return any;
    }

    // Sends text, serves until nothing happens any more, and returns the answers.
    std::string talk(const kiv::unique_fd &client, const std::string &text)
    {
        EXPECT_EQ(send(client.get(), text.data(), text.size(), 0), static_cast<ssize_t>(text.size()));
        std::string answers;
        char block[4096];
        for (int turns = 0; turns < 10'000; ++turns) {
            const bool served = serve();
            const ssize_t got = recv(client.get(), block, sizeof block, MSG_DONTWAIT);
            answers.append(block, got > 0 ? static_cast<std::size_t>(got) : 0);
            if (!served && got <= 0) {
                return answers;
            }
        }
        ADD_FAILURE() << "the server has always something to do";
        return answers;
    }

    control_reply reply_to(const std::vector<std::string> &words)
    {
        if (words == std::vector<std::string>{"wait"}) {
            control_reply reply;
            reply.deadline = deadline_;
            reply.later = [this](control_reply &known) {
                known.text = "over\n";
                return is_over_;
            };
            return reply;
        }
        if (words.size() != 2) {
            return control_reply::error("no");
        }
        control_reply reply{true,
                            words[0] == "repeat" ? std::string(1'000'000, words[1][0]) : words[1] + "\n"};
        if (words[0] == "follow") {
            reply.follow =
                words[1] == "json" ? kivboard::journal_format::json : kivboard::journal_format::text;
        }
        return reply;
    }

    bool is_over_ = false;
    std::chrono::steady_clock::time_point deadline_ = std::chrono::steady_clock::time_point::max();
    zol_test::scratch_directory scratch_;
    std::string path_ = scratch_.path() / "socket";
    std::string problem_;
    kivboard::control_server server_{[this](const std::vector<std::string> &words,
                                            kivboard::control_session &) { return reply_to(words); }};
};

TEST_F(BoardControl, LeavesSocketsOfOthersAlone)
{
    for (const auto &[type, problem] :
         {std::pair{SOCK_DGRAM, "can't listen at " + path_ + ": Protocol wrong type for socket"},
          {SOCK_STREAM, "another board answers at " + path_}}) {
        const kiv::unique_fd other = foreign(type);
        EXPECT_EQ(control_socket().claim(path_), problem);
        EXPECT_TRUE(std::filesystem::remove(path_));
    }
    {
        const kiv::unique_fd busy = foreign(SOCK_STREAM);
        std::array<kiv::unique_fd, 3> clients; // more than wait at a time
        const sockaddr_un address = address_of(path_);
        for (kiv::unique_fd &each : clients) {
            each = kiv::unique_fd(socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0));
            connect(each.get(), reinterpret_cast<const sockaddr *>(&address), sizeof address);
        }
        EXPECT_EQ(control_socket().claim(path_), "another board answers at " + path_);
    } // leaves its file behind, as a killed board does
    if (geteuid() == 0) {
        EXPECT_EQ(chown(path_.c_str(), 1, 1), 0);
        EXPECT_EQ(control_socket().claim(path_), "can't listen at " + path_ + ": File exists");
        EXPECT_EQ(chown(path_.c_str(), 0, 0), 0);
    }
    control_socket second;
    {
        control_socket first;
        EXPECT_EQ(first.claim(path_), "");
        std::filesystem::remove(path_);
        EXPECT_EQ(second.claim(path_), "");
    }
    EXPECT_TRUE(connect_to_board(path_, problem_).is_open()) << "the end of the first one has removed it";
}

// The name of a board that lives, for each number but the last.
TEST_F(BoardControl, TheThousandFirstBoardsShareAFolder)
{
    const std::string folder = scratch_.path() / ("kivboard-" + std::to_string(geteuid()));
    const kiv::unique_fd other = foreign(SOCK_STREAM);
    setenv("XDG_RUNTIME_DIR", scratch_.path().c_str(), 1);
    std::string path_of_another;
    {
        control_socket first;
        EXPECT_EQ(first.claim_default(), "");
        EXPECT_EQ(first.path(), folder + "/board.sock");
        for (int number = 2; number < 1000; ++number) {
            std::filesystem::create_hard_link(path_, folder + "/board-" + std::to_string(number) + ".sock");
        }
        control_socket last;
        control_socket another;
        EXPECT_EQ(last.claim_default(), "");
        EXPECT_EQ(another.claim_default(), "");
        EXPECT_EQ(last.path(), folder + "/board-1000.sock");
        path_of_another = another.path();
        EXPECT_TRUE(path_of_another.starts_with("/tmp/kivboard-")) << path_of_another;
        EXPECT_TRUE(connect_to_board(path_of_another, problem_).is_open());
    }
    EXPECT_FALSE(std::filesystem::exists(std::filesystem::path(path_of_another).parent_path()));
    EXPECT_FALSE(std::filesystem::exists(folder + "/board-1000.sock"));
}

TEST_F(BoardControl, TheFolderIsPrivateToItsUser)
{
    const std::string name = "/kivboard-" + std::to_string(geteuid());
    for (const char *runtime : {"", "relative"}) {
        setenv("XDG_RUNTIME_DIR", runtime, 1);
        EXPECT_EQ(kivboard::default_socket(), "/tmp" + name + "/board.sock");
    }
    unsetenv("XDG_RUNTIME_DIR");
    EXPECT_EQ(kivboard::default_socket(), "/tmp" + name + "/board.sock");

    setenv("XDG_RUNTIME_DIR", scratch_.path().c_str(), 1);
    const std::string folder = scratch_.path().string() + name;
    const std::function<int()> openings[] = {[&] { return chmod(folder.c_str(), 0710); },
                                             [&] { return chmod(folder.c_str(), 0701); },
                                             [&] { return geteuid() != 0 ? 1 : chown(folder.c_str(), 1, 1); },
                                             [&] { // a link to a private one
                                                 std::filesystem::rename(folder, folder + "2");
                                                 return symlink((folder + "2").c_str(), folder.c_str());
                                             }};
    for (const auto &open : openings) {
        EXPECT_EQ(mkdir(folder.c_str(), 0700), 0);
        control_socket socket;
        if (open() == 0) {
            EXPECT_EQ(socket.claim_default(), "");
            EXPECT_TRUE(socket.path().starts_with("/tmp/kivboard-")) << socket.path();
        }
        std::filesystem::remove_all(folder);
    }
}

TEST_F(BoardControl, WaitsForABoardThatIsStarting)
{
    const kiv::unique_fd starting(open(scratch_.path().c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
    EXPECT_EQ(flock(starting.get(), LOCK_EX), 0);
    const std::jthread starts([&starting] {
        usleep(50'000);
        flock(starting.get(), LOCK_UN);
    });
    EXPECT_EQ(control_socket().claim(path_), "");
}

TEST_F(BoardControl, OtherUsersAreRefusedOnBothSides)
{
    if (geteuid() != 0) {
        GTEST_SKIP() << "only root can be another user";
    }
    control_socket socket;
    ASSERT_EQ(socket.claim(path_), "");
    ASSERT_EQ(chmod(path_.c_str(), 0777) + chmod(scratch_.path().c_str(), 0777), 0);
    constexpr uid_t other = 65534;
    const auto connects = [this](const std::string &path) {
        return connect_to_board(path, problem_).is_open();
    };
    EXPECT_TRUE(zol_test::holds_in_child([&] { return setuid(other) == 0 && connects(path_); }));
    EXPECT_FALSE(socket.accept().is_open()) << "a user may call root's board, but is not heard";
    EXPECT_TRUE(zol_test::holds_in_child([&] {
        control_socket theirs;
        return seteuid(other) == 0 && theirs.claim(path_ + "2").empty() && seteuid(0) == 0 &&
               !connects(path_ + "2");
    }));
}

TEST_F(BoardControl, WaitsWithNewClientsWhileDescriptorsAreShort)
{
    const kiv::unique_fd first = client();
    const kiv::unique_fd second = connect_to_board(path_, problem_);
    rlimit limit = {};
    getrlimit(RLIMIT_NOFILE, &limit);
    const rlimit tight = {static_cast<rlim_t>(second.get() + 1), limit.rlim_max};
    setrlimit(RLIMIT_NOFILE, &tight);
    server_.accept();
    setrlimit(RLIMIT_NOFILE, &limit);
    EXPECT_EQ(server_.fd(), -1) << "or poll() would report the client without end";
    EXPECT_GT(server_.poll_timeout_ms(), 0);
    EXPECT_TRUE(zol_test::eventually([&] { return server_.fd() >= 0; }));
    server_.accept();
    EXPECT_EQ(server_.interests().size(), 2U);
}

TEST_F(BoardControl, AnswersRequestsThatArriveInPieces)
{
    const kiv::unique_fd client = this->client();
    const auto serve = [&](const std::string &text) {
        send(client.get(), text.data(), text.size(), 0);
        for (int i = 0; i < 20 && !server_.interests().empty(); ++i) {
            server_.serve(server_.interests()[0].fd);
        }
    };
    serve("level 5\nlevel  6\n\nle");
    serve("vel 7\n");
    char answers[100] = "";
    recv(client.get(), answers, sizeof answers - 1, 0);
    EXPECT_STREQ(answers, "ok 2\n5\nok 2\n6\nerror 3\nno\nok 2\n7\n");
    serve(std::string(5000, 'x'));
    EXPECT_TRUE(server_.interests().empty()) << "no request is as long as that";
}

TEST_F(BoardControl, RequestsBehindAWaitAreLeftUntilItIsOver)
{
    const kiv::unique_fd client = this->client();
    std::string requests = "wait\n";
    std::string answers = "ok 5\nover\n";
    for (int i = 0; i < 1000; ++i) {
        requests += "level 7\n";
        answers += "ok 2\n7\n";
    }
    EXPECT_EQ(talk(client, requests), "");
    EXPECT_EQ(server_.interests()[0].events, 0) << "the rest stays with the client";
    EXPECT_EQ(server_.poll_timeout_ms(), -1);
    is_over_ = true;
    server_.settle();
    EXPECT_EQ(talk(client, ""), answers);
    is_over_ = false;
    deadline_ = std::chrono::steady_clock::now() + std::chrono::hours(1);
    EXPECT_EQ(talk(client, "wait\n"), "");
    EXPECT_GT(server_.poll_timeout_ms(), 1'800'000);
}

TEST_F(BoardControl, FollowersGetTheirFormatOnly)
{
    kiv::unique_fd clients[] = {client(), client(), client()};
    EXPECT_EQ(talk(clients[0], "follow text\n"), "follow 5\ntext\n");
    EXPECT_FALSE(server_.has_followers(kivboard::journal_format::json));
    EXPECT_EQ(talk(clients[1], "follow json\n"), "follow 5\njson\n");
    EXPECT_TRUE(server_.has_followers(kivboard::journal_format::json));
    server_.follow(kivboard::journal_format::json, "{}\n");
    for (const auto &[number, text] : {std::pair{0, ""}, {1, "{}\n"}, {2, ""}}) {
        EXPECT_EQ(talk(clients[number], ""), text) << number;
    }
    EXPECT_EQ(talk(clients[0], "level 5\n"), "");
    EXPECT_EQ(server_.interests().size(), 2U) << "a follower must not ask";
}

TEST_F(BoardControl, LongAnswersGoOutInPiecesUntilTheClientLeaves)
{
    kiv::unique_fd client = this->client();
    EXPECT_EQ(talk(client, "repeat x\n"), "ok 1000000\n" + std::string(1'000'000, 'x'));
    send(client.get(), "repeat y\n", 9, 0);
    for (int i = 0; i < 100; ++i) {
        serve();
    }
    EXPECT_EQ(server_.interests()[0].events, POLLOUT);
    client.reset();
    EXPECT_TRUE(serve());
    EXPECT_TRUE(server_.interests().empty());
}

TEST_F(BoardControl, CommandsPrintSafelyAndDoNotWaitForADeadBoard)
{
    const kiv::unique_fd board = foreign(SOCK_STREAM);
    const auto ask = [&](void (*answer)(int client)) {
        kivboard::board_connection connection(path_);
        const kiv::unique_fd client(accept(board.get(), nullptr, nullptr));
        answer(client.get());
        testing::internal::CaptureStdout();
        testing::internal::CaptureStderr();
        const int status = connection.ask("level 5");
        return std::to_string(status) + testing::internal::GetCapturedStdout() +
               testing::internal::GetCapturedStderr();
    };
    EXPECT_EQ(ask([](int client) { send(client, "ok 7\n1\x1b[2J\xc2\n", 12, 0); }), "01\\x1b[2J\\xc2\n");
    EXPECT_EQ(ask([](int client) { shutdown(client, SHUT_RD); }), "1kivboard: the board has gone\n");
}

// Sends the last byte alone, when the client has taken the others.
void answer_in_pieces(int client, const std::string &answer)
{
    EXPECT_GT(send(client, answer.data(), answer.size() - 1, 0), 0);
    EXPECT_TRUE(zol_test::eventually([client] {
        int untaken = 0;
        return ioctl(client, SIOCOUTQ, &untaken) == 0 && untaken == 0;
    }));
    send(client, &answer.back(), 1, MSG_NOSIGNAL);
}

TEST_F(BoardControl, CommandsTakeAnswersThatArriveInPieces)
{
    const kiv::unique_fd board = foreign(SOCK_STREAM);
    for (const bool is_printed : {true, false}) {
        kivboard::board_connection connection(path_);
        const kiv::unique_fd client(accept(board.get(), nullptr, nullptr));
        const std::jthread answering(answer_in_pieces, client.get(), "ok 4\n123\n");
        testing::internal::CaptureStdout();
        const std::string text = is_printed ? "" : connection.exchange("level 5").value().text;
        EXPECT_EQ(is_printed ? connection.ask("level 5") : 0, 0);
        EXPECT_EQ(testing::internal::GetCapturedStdout() + text, "123\n");
    }
}

} // namespace

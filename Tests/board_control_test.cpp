// The control socket of the virtual board: which files it takes for its own, and how it treats its clients.

#include <gtest/gtest.h>
#include <linux/sockios.h>
#include <sys/ioctl.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>

#include <filesystem>
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

class BoardControl : public testing::Test
{
protected:
    // A socket of another program at the path.
    [[nodiscard]] kiv::unique_fd foreign(int type) const
    {
        kiv::unique_fd fd(socket(AF_UNIX, type | SOCK_CLOEXEC, 0));
        sockaddr_un address = {AF_UNIX, ""};
        path_.copy(address.sun_path, sizeof address.sun_path - 1);
        EXPECT_EQ(bind(fd.get(), reinterpret_cast<const sockaddr *>(&address), sizeof address), 0);
        EXPECT_EQ(type == SOCK_STREAM ? listen(fd.get(), 1) : 0, 0);
        return fd;
    }

    // A client of the server, which has accepted it.
    kiv::unique_fd client()
    {
        EXPECT_EQ(server_.socket().claim(path_), "");
        kiv::unique_fd fd = connect_to_board(path_, problem_);
        server_.accept();
        return fd;
    }

    zol_test::scratch_directory scratch_;
    std::string path_ = scratch_.path() / "socket";
    std::string problem_;
    kivboard::control_server server_{[](const std::vector<std::string> &words, kivboard::control_session &) {
        return words.size() == 2 ? control_reply{true, words[1] + "\n"} : control_reply::error("no");
    }};
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
    foreign(SOCK_STREAM).reset(); // leaves its file behind, as a killed board does
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

// The management daemon (zen-mgmtd) as a test runs it: a process of its
// own on a free port with a database directory of the test's, and the
// client library's connections to it. ZEN_MGMTD_PATH names the daemon.
#ifndef ZEN_TEST_MGMTD_TEST_DAEMON_HPP
#define ZEN_TEST_MGMTD_TEST_DAEMON_HPP

#include <arpa/inet.h>
#include <netinet/in.h>
#include <poll.h>
#include <signal.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include <gtest/gtest.h>

#include <zen/maapi.h>

namespace zen_test {

namespace fs = std::filesystem;

// 127.0.0.1:port.
struct endpoint {
    explicit endpoint(int port)
    {
        in.sin_family = AF_INET;
        in.sin_port = htons(static_cast<uint16_t>(port));
        in.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    }
    sockaddr *addr() { return reinterpret_cast<sockaddr *>(&in); }
    sockaddr_in in{};
};

// The daemon process: started on a free port, stopped with SIGTERM.
class daemon_process {
public:
    bool start(const fs::path &db, std::string *output = nullptr)
    {
        int out[2];
        if (pipe(out) != 0) {
            return false;
        }
        pid_ = fork();
        if (pid_ == 0) {
            dup2(out[1], STDOUT_FILENO);
            dup2(out[1], STDERR_FILENO);
            close(out[0]);
            close(out[1]);
            // Under the sanitizer build, the daemon allocates per request and
            // full stack unwinding (which `make test-asan` asks for) would make
            // the concurrency test take minutes; its leak check at exit stays on.
            if (const char *asan = std::getenv("ASAN_OPTIONS")) {
                setenv("ASAN_OPTIONS", (std::string(asan) + ":fast_unwind_on_malloc=1").c_str(), 1);
            }
            execl(ZEN_MGMTD_PATH, "zen-mgmtd", "--port", "0", "--db", db.c_str(), "--no-fsync",
                  static_cast<char *>(nullptr));
            _exit(127);
        }
        close(out[1]);
        std::string line;
        char c;
        pollfd p{out[0], POLLIN, 0};
        while (poll(&p, 1, 20000) > 0 && read(out[0], &c, 1) == 1 && c != '\n') {
            line.push_back(c);
        }
        close(out[0]);
        if (output != nullptr) {
            *output = line;
        }
        return std::sscanf(line.c_str(), "zen-mgmtd: listening on 127.0.0.1:%d", &port_) == 1;
    }

    // The exit status after the signal (none: 0), or the signal that ended it, negated.
    int stop(int sig = SIGTERM)
    {
        if (pid_ <= 0) {
            return 0;
        }
        if (sig != 0) {
            kill(pid_, sig);
        }
        int status = 0;
        waitpid(pid_, &status, 0);
        pid_ = -1;
        return WIFEXITED(status) ? WEXITSTATUS(status) : -WTERMSIG(status);
    }

    int port() const { return port_; }
    bool running() const { return pid_ > 0; }

private:
    pid_t pid_ = -1;
    int port_ = 0;
};

// A TCP socket; closed at the end of its scope.
struct conn {
    conn() : fd(socket(AF_INET, SOCK_STREAM, 0)) {}
    conn(conn &&o) noexcept : fd(std::exchange(o.fd, -1)) {}
    ~conn()
    {
        if (fd >= 0) {
            close(fd);
        }
    }
    int fd;
};

// A port of 127.0.0.1 nobody listens on: bound, read and closed again.
inline int unused_port()
{
    endpoint a(0);
    conn probe;
    socklen_t len = sizeof a.in;
    EXPECT_EQ(bind(probe.fd, a.addr(), len), 0);
    getsockname(probe.fd, a.addr(), &len);
    return ntohs(a.in.sin_port);
}

// A management connection with a user session, or without when asked.
inline conn maapi_conn(int port, bool session = true)
{
    conn c;
    endpoint a(port);
    EXPECT_EQ(maapi_connect(c.fd, a.addr(), sizeof a.in), MGMTD_OK) << mgmtd_lasterr();
    EXPECT_TRUE(!session || maapi_start_user_session3(c.fd, "zen-policy", "system", nullptr, 0, "127.0.0.1", 0) ==
                                MGMTD_OK)
        << mgmtd_lasterr();
    return c;
}

// A data connection with a session on db, or without when asked.
inline conn cdb_conn(int port, mgmtd_dbname db, bool session = true)
{
    conn c;
    endpoint a(port);
    EXPECT_EQ(cdb_connect(c.fd, CDB_DATA_SOCKET, a.addr(), sizeof a.in), MGMTD_OK) << mgmtd_lasterr();
    EXPECT_TRUE(!session || cdb_start_session2(c.fd, db, 0) == MGMTD_OK) << mgmtd_lasterr();
    return c;
}

// The daemon of a test (or of a whole run) on a database directory of its
// own, named after it; close() expects it idle, stops it cleanly and
// removes the directory.
struct test_daemon {
    void open(const std::string &name)
    {
        dir = fs::temp_directory_path() / (name + "-" + std::to_string(getpid()));
        fs::remove_all(dir);
        fs::create_directories(dir);
        ASSERT_TRUE(process.start(dir));
        mgmtd_set_timeout_ms(20000);
    }

    void close()
    {
        mgmtd_cs_reset();
        if (process.running()) {
            expect_idle();
            EXPECT_EQ(process.stop(), 0);
        }
        fs::remove_all(dir);
    }

    // No session, transaction or lock left open; the connections of
    // clients that just went away are given a moment to close.
    void expect_idle() const
    {
        // One connection asks throughout, so no connection of an earlier
        // question is still closing when the count is read.
        conn asking = maapi_conn(port(), false);
        auto still_open = [&asking] {
            mgmtd_status_t st{};
            EXPECT_EQ(mgmtd_get_status(asking.fd, &st), MGMTD_OK) << mgmtd_lasterr();
            return std::vector<long>{st.connections - 1, st.user_sessions, st.data_sessions, st.transactions, st.locks};
        };
        for (int i = 0; i < 200 && still_open() != std::vector<long>(5, 0); i++) {
            std::this_thread::sleep_for(std::chrono::milliseconds(10));
        }
        EXPECT_EQ(still_open(), std::vector<long>(5, 0))
            << "other connections, user sessions, data sessions, transactions, locks";
    }

    // The instances under a path of a database, as the daemon counts them.
    int count(const std::string &path, mgmtd_dbname db = MGMTD_RUNNING) const
    {
        conn c = cdb_conn(port(), db);
        const int n = cdb_num_instances(c.fd, "%s", path.c_str());
        EXPECT_EQ(cdb_end_session(c.fd), MGMTD_OK);
        return n;
    }

    int port() const { return process.port(); }

    fs::path dir;
    daemon_process process;
};

}  // namespace zen_test

#endif  // ZEN_TEST_MGMTD_TEST_DAEMON_HPP

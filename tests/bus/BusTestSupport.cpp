#include "BusTestSupport.h"

#include "JsonText.h"
#include "Protocol.h"
#include "Socket.h"

#include <fcntl.h>
#include <grp.h>
#include <netinet/in.h>
#include <poll.h>
#include <sys/prctl.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <sys/wait.h>
#include <unistd.h>

#include <csignal>
#include <cstdio>
#include <cstring>
#include <fstream>
#include <iterator>

#include <gtest/gtest.h>

namespace bustest {

std::string veladPath()
{
    return VELAD_PATH;
}

std::string velaPath()
{
    return VELA_PATH;
}

int runVela(std::uint16_t port, const std::vector<std::string>& args, std::string* out, std::string* err,
            std::chrono::milliseconds timeout)
{
    std::vector<std::string> argv{velaPath(), "--port", std::to_string(port)};
    argv.insert(argv.end(), args.begin(), args.end());
    testsupport::ChildProcess p(argv);
    p.closeStdin();
    std::string o = p.readAll(timeout);
    std::string e = p.readAllStderr(std::chrono::milliseconds(2000));
    int status = p.wait(timeout);
    if (out) {
        *out = o;
    }
    if (err) {
        *err = e;
    }
    return status;
}

int runVelaAs(uid_t uid, gid_t gid, const std::string& address, std::uint16_t port,
              const std::vector<std::string>& args, std::string* out, std::string* err,
              const std::string& stdinText)
{
    std::vector<std::string> argv{"/usr/bin/setpriv", "--reuid=" + std::to_string(uid),
                                  "--regid=" + std::to_string(gid), "--clear-groups", "--", velaPath(),
                                  "--address", address};
    if (port != 0) {
        argv.push_back("--port");
        argv.push_back(std::to_string(port));
    }
    argv.insert(argv.end(), args.begin(), args.end());
    testsupport::ChildProcess p(argv);
    p.write(stdinText);
    p.closeStdin();
    std::string o = p.readAll(std::chrono::seconds(20));
    std::string e = p.readAllStderr(std::chrono::milliseconds(2000));
    int status = p.wait(std::chrono::seconds(20));
    if (out) {
        *out = o;
    }
    if (err) {
        *err = e;
    }
    return status;
}

namespace {

// One fd over a Unix socket (SCM_RIGHTS), with one byte of data to carry it.
struct FdMessage
{
    char byte = 'S';
    iovec iov{&byte, 1};
    alignas(cmsghdr) char control[CMSG_SPACE(sizeof(int))] = {};
    msghdr msg{};

    FdMessage()
    {
        msg.msg_iov = &iov;
        msg.msg_iovlen = 1;
        msg.msg_control = control;
        msg.msg_controllen = sizeof control;
    }
};

bool sendFd(int sock, int fd)
{
    FdMessage m;
    cmsghdr* cm = CMSG_FIRSTHDR(&m.msg);
    cm->cmsg_level = SOL_SOCKET;
    cm->cmsg_type = SCM_RIGHTS;
    cm->cmsg_len = CMSG_LEN(sizeof(int));
    std::memcpy(CMSG_DATA(cm), &fd, sizeof fd);
    return ::sendmsg(sock, &m.msg, 0) == 1;
}

int receiveFd(int sock)
{
    FdMessage m;
    if (::recvmsg(sock, &m.msg, MSG_CMSG_CLOEXEC) != 1) {
        return -1;
    }
    const cmsghdr* cm = CMSG_FIRSTHDR(&m.msg);
    if (!cm || cm->cmsg_type != SCM_RIGHTS) {
        return -1;
    }
    int fd = -1;
    std::memcpy(&fd, CMSG_DATA(cm), sizeof fd);
    return fd;
}

}  // namespace

std::vector<int> socketsOf(uid_t uid, gid_t gid, std::uint16_t port, int count, const std::string& unixPath,
                           int receiveBuffer)
{
    int pair[2];
    if (::socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, pair) < 0) {
        return {};
    }
    std::fflush(nullptr);
    const pid_t child = ::fork();
    if (child < 0) {
        ::close(pair[0]);
        ::close(pair[1]);
        return {};
    }
    if (child == 0) {
        ::prctl(PR_SET_PDEATHSIG, SIGKILL);
        ::close(pair[0]);
        if (::setgroups(0, nullptr) < 0 || ::setgid(gid) < 0 || ::setuid(uid) < 0 || ::getuid() != uid) {
            ::_exit(3);
        }
        for (int i = 0; i < count; ++i) {
            int fd = ::socket(unixPath.empty() ? AF_INET : AF_UNIX, SOCK_STREAM, 0);
            if (receiveBuffer > 0) {
                ::setsockopt(fd, SOL_SOCKET, SO_RCVBUF, &receiveBuffer, sizeof receiveBuffer);
            }
            if (unixPath.empty()) {
                sockaddr_in addr;
                vela::socket::makeAddress("127.0.0.1", port, addr);
                if (::connect(fd, reinterpret_cast<sockaddr*>(&addr), sizeof addr) < 0) {
                    ::_exit(4);
                }
            } else {
                sockaddr_un addr{};
                addr.sun_family = AF_UNIX;
                std::strncpy(addr.sun_path, unixPath.c_str(), sizeof addr.sun_path - 1);
                if (::connect(fd, reinterpret_cast<sockaddr*>(&addr), sizeof addr) < 0) {
                    ::_exit(4);
                }
            }
            if (!sendFd(pair[1], fd)) {
                ::_exit(5);
            }
            ::close(fd);
        }
        ::_exit(0);
    }
    ::close(pair[1]);
    std::vector<int> fds;
    for (int i = 0; i < count; ++i) {
        const int fd = receiveFd(pair[0]);
        if (fd < 0) {
            break;
        }
        fds.push_back(fd);
    }
    ::close(pair[0]);
    int status = 0;
    ::waitpid(child, &status, 0);
    if (!WIFEXITED(status) || WEXITSTATUS(status) != 0 || static_cast<int>(fds.size()) != count) {
        ADD_FAILURE() << "sockets as uid " << uid << ": child status " << status << ", got " << fds.size();
        for (int fd : fds) {
            ::close(fd);
        }
        return {};
    }
    return fds;
}

RawClient::RawClient(std::uint16_t port)
{
    m_fd = ::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    sockaddr_in addr;
    vela::socket::makeAddress("127.0.0.1", port, addr);
    if (::connect(m_fd, reinterpret_cast<sockaddr*>(&addr), sizeof addr) < 0) {
        ::close(m_fd);
        m_fd = -1;
    }
}

RawClient::RawClient(const std::string& unixPath)
{
    m_fd = ::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
    sockaddr_un addr{};
    addr.sun_family = AF_UNIX;
    std::strncpy(addr.sun_path, unixPath.c_str(), sizeof addr.sun_path - 1);
    if (::connect(m_fd, reinterpret_cast<sockaddr*>(&addr), sizeof addr) < 0) {
        ::close(m_fd);
        m_fd = -1;
    }
}

RawClient RawClient::adopt(int fd)
{
    RawClient c;
    c.m_fd = fd;
    return c;
}

RawClient::RawClient(RawClient&& other) noexcept
    : m_fd(other.m_fd), m_nextId(other.m_nextId), m_decoder(std::move(other.m_decoder)), m_eof(other.m_eof)
{
    other.m_fd = -1;
}

RawClient::~RawClient()
{
    if (m_fd >= 0) {
        ::close(m_fd);
    }
}

bool RawClient::sendRaw(const std::string& bytes)
{
    std::size_t done = 0;
    while (done < bytes.size()) {
        ssize_t n = ::send(m_fd, bytes.data() + done, bytes.size() - done, MSG_NOSIGNAL);
        if (n <= 0) {
            return false;
        }
        done += static_cast<std::size_t>(n);
    }
    return true;
}

bool RawClient::sendFrame(const std::string& payload)
{
    std::string out;
    vela::appendFrame(out, payload);
    return sendRaw(out);
}

int RawClient::request(const std::string& method, const Json::Value& p)
{
    const int id = m_nextId++;
    sendFrame(vela::protocol::request(id, method, p));
    return id;
}

bool RawClient::hello(const std::string& name)
{
    Json::Value p(Json::objectValue);
    p["protocol"] = vela::protocol::kVersion;
    if (!name.empty()) {
        p["name"] = name;
    }
    return call(vela::protocol::kHello, p).isMember("result");
}

Json::Value RawClient::call(const std::string& method, const Json::Value& p, std::chrono::milliseconds timeout)
{
    const int id = request(method, p);
    const auto deadline = std::chrono::steady_clock::now() + timeout;
    for (;;) {
        const auto left =
            std::chrono::duration_cast<std::chrono::milliseconds>(deadline - std::chrono::steady_clock::now());
        Json::Value frame;
        if (left.count() <= 0 || !readFrame(frame, left)) {
            return Json::Value();
        }
        if (frame.isMember("id") && frame["id"] == id) {
            return frame;
        }
    }
}

bool RawClient::readFrame(Json::Value& out, std::chrono::milliseconds timeout)
{
    const auto deadline = std::chrono::steady_clock::now() + timeout;
    for (;;) {
        std::string_view payload;
        if (m_decoder.next(payload) == vela::FrameDecoder::Result::kFrame) {
            return vela::parseJson(payload, &out, nullptr);
        }
        if (!fill(deadline)) {
            return false;
        }
    }
}

bool RawClient::closedByPeer(std::chrono::milliseconds timeout)
{
    const auto deadline = std::chrono::steady_clock::now() + timeout;
    while (fill(deadline)) {
    }
    return m_eof;
}

void RawClient::shrinkReceiveBuffer()
{
    int small = 4096;
    ::setsockopt(m_fd, SOL_SOCKET, SO_RCVBUF, &small, sizeof small);
}

bool RawClient::fill(std::chrono::steady_clock::time_point deadline)
{
    auto left =
        std::chrono::duration_cast<std::chrono::milliseconds>(deadline - std::chrono::steady_clock::now());
    if (left.count() <= 0) {
        return false;
    }
    pollfd pfd{m_fd, POLLIN, 0};
    if (::poll(&pfd, 1, static_cast<int>(left.count())) <= 0) {
        return false;
    }
    char buf[65536];
    ssize_t n = ::read(m_fd, buf, sizeof buf);
    if (n <= 0) {
        m_eof = true;
        return false;
    }
    m_decoder.feed(buf, static_cast<std::size_t>(n));
    return true;
}

Json::Value params(std::initializer_list<std::pair<const char*, Json::Value>> members)
{
    Json::Value p(Json::objectValue);
    for (const auto& [name, value] : members) {
        p[name] = value;
    }
    return p;
}

int errorCode(const Json::Value& response)
{
    return response.isMember("error") ? response["error"]["code"].asInt() : 0;
}

namespace {

long statusField(pid_t pid, const std::string& key)
{
    std::ifstream in("/proc/" + std::to_string(pid) + "/status");
    std::string word;
    while (in >> word) {
        if (word == key) {
            long kib = 0;
            in >> kib;
            return kib;
        }
        in.ignore(1 << 20, '\n');
    }
    return -1;
}

}  // namespace

std::string readFile(const std::string& path)
{
    std::ifstream in(path);
    return std::string(std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>());
}

long peakRssKiB(pid_t pid)
{
    return statusField(pid, "VmHWM:");
}

long rssKiB(pid_t pid)
{
    return statusField(pid, "VmRSS:");
}

TempFile::TempFile(const std::string& name, const std::string& content)
    : m_path(::testing::TempDir() + "/" + name + "." + std::to_string(::getpid()))
{
    std::ofstream out(m_path, std::ios::trunc);
    out << content;
}

TempFile::~TempFile()
{
    ::unlink(m_path.c_str());
}

}  // namespace bustest

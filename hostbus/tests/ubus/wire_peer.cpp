#include <poll.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <cctype>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <stdexcept>
#include <thread>

#include "wire_peer.h"

namespace {

constexpr int kWaitMs = 5000;

bool wait_for(int fd, short events) {
    pollfd pfd = {fd, events, 0};
    return poll(&pfd, 1, kWaitMs) > 0;
}

void write_all(int fd, const Bytes& bytes) {
    size_t done = 0;
    while (done < bytes.size()) {
        ssize_t n = ::send(fd, bytes.data() + done, bytes.size() - done, MSG_NOSIGNAL);
        if (n < 0 && errno == EINTR)
            continue;
        if (n <= 0)
            return;
        done += static_cast<size_t>(n);
    }
}

} // namespace

Bytes hex(const std::string& text) {
    Bytes out;
    std::string digits;
    for (char c : text) {
        if (!std::isxdigit(static_cast<unsigned char>(c))) {
            digits.clear();
            continue;
        }
        digits += c;
        if (digits.size() == 2) {
            out.push_back(static_cast<uint8_t>(std::stoul(digits, nullptr, 16)));
            digits.clear();
        }
    }
    return out;
}

std::string hex_of(const void* data, size_t len) {
    std::string out;
    char byte[4];
    for (size_t i = 0; i < len; i++) {
        std::snprintf(byte, sizeof(byte), i ? " %02x" : "%02x",
                      static_cast<const uint8_t*>(data)[i]);
        out += byte;
    }
    return out;
}

std::string hex_of(const Bytes& bytes) {
    return hex_of(bytes.data(), bytes.size());
}

Bytes be32(uint32_t value) {
    return {static_cast<uint8_t>(value >> 24), static_cast<uint8_t>(value >> 16),
            static_cast<uint8_t>(value >> 8), static_cast<uint8_t>(value)};
}

Bytes attr(uint8_t id, const Bytes& payload) {
    Bytes out = be32((static_cast<uint32_t>(id) << 24) | static_cast<uint32_t>(payload.size() + 4));
    out.insert(out.end(), payload.begin(), payload.end());
    while (out.size() % 4)
        out.push_back(0);
    return out;
}

Bytes str(const std::string& text) {
    Bytes out(text.begin(), text.end());
    out.push_back(0);
    return out;
}

Bytes msg(uint8_t type, uint16_t seq, uint32_t peer, const Bytes& attrs) {
    Bytes out = {0, type, static_cast<uint8_t>(seq >> 8), static_cast<uint8_t>(seq)};
    return out + be32(peer) + be32(static_cast<uint32_t>(attrs.size() + 4)) + attrs;
}

Bytes operator+(Bytes a, const Bytes& b) {
    a.insert(a.end(), b.begin(), b.end());
    return a;
}

Bytes default_hello() {
    return hex("00 00 00 00 d3 28 f7 07 | 00 00 00 04");
}

WirePeer::WirePeer() {
    char tmpl[] = "/tmp/hostbus-ubus-XXXXXX";
    if (!mkdtemp(tmpl))
        throw std::runtime_error("mkdtemp failed");
    dir_ = tmpl;
    path_ = dir_ + "/ubus.sock";

    sockaddr_un addr = {};
    addr.sun_family = AF_UNIX;
    std::snprintf(addr.sun_path, sizeof(addr.sun_path), "%s", path_.c_str());
    listen_fd_ = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
    if (listen_fd_ < 0 || bind(listen_fd_, reinterpret_cast<sockaddr*>(&addr), sizeof(addr)) ||
        listen(listen_fd_, 4))
        throw std::runtime_error("cannot listen");
}

WirePeer::~WirePeer() {
    close_client();
    close(listen_fd_);
    unlink(path_.c_str());
    rmdir(dir_.c_str());
}

int WirePeer::accept_client(const Bytes& greeting) {
    if (!wait_for(listen_fd_, POLLIN))
        return -1;
    int fd = accept4(listen_fd_, nullptr, nullptr, SOCK_CLOEXEC);
    if (fd >= 0)
        write_all(fd, greeting);
    return fd;
}

ubus_context* WirePeer::connect(const Bytes& greeting, bool close_after) {
    return accepting(
        greeting, [&] { return ubus_connect(path()); }, close_after);
}

int WirePeer::reconnect(ubus_context* ctx, const Bytes& queued) {
    return accepting(default_hello() + queued, [&] { return ubus_reconnect(ctx, path()); });
}

void WirePeer::send(const Bytes& bytes) {
    write_all(client_, bytes);
}

void WirePeer::send_with_fd(const Bytes& bytes, int fd) {
    union {
        cmsghdr hdr;
        char buf[CMSG_SPACE(sizeof(int))];
    } control = {};
    iovec iov = {const_cast<uint8_t*>(bytes.data()), bytes.size()};
    msghdr m = {};
    m.msg_iov = &iov;
    m.msg_iovlen = 1;
    m.msg_control = control.buf;
    m.msg_controllen = sizeof(control.buf);
    cmsghdr* c = CMSG_FIRSTHDR(&m);
    c->cmsg_level = SOL_SOCKET;
    c->cmsg_type = SCM_RIGHTS;
    c->cmsg_len = CMSG_LEN(sizeof(int));
    std::memcpy(CMSG_DATA(c), &fd, sizeof(int));
    if (sendmsg(client_, &m, MSG_NOSIGNAL) != static_cast<ssize_t>(bytes.size()))
        throw std::runtime_error("sendmsg failed");
}

Bytes WirePeer::receive(size_t n, int* fd) {
    Bytes out(n);
    size_t done = 0;
    while (done < n && wait_for(client_, POLLIN)) {
        union {
            cmsghdr hdr;
            char buf[CMSG_SPACE(sizeof(int))];
        } control = {};
        iovec iov = {out.data() + done, n - done};
        msghdr m = {};
        m.msg_iov = &iov;
        m.msg_iovlen = 1;
        m.msg_control = control.buf;
        m.msg_controllen = sizeof(control.buf);
        ssize_t got = recvmsg(client_, &m, MSG_CMSG_CLOEXEC);
        if (got <= 0)
            break;
        for (cmsghdr* c = CMSG_FIRSTHDR(&m); c; c = CMSG_NXTHDR(&m, c)) {
            if (c->cmsg_level == SOL_SOCKET && c->cmsg_type == SCM_RIGHTS && fd)
                std::memcpy(fd, CMSG_DATA(c), sizeof(int));
        }
        done += static_cast<size_t>(got);
    }
    out.resize(done);
    return out;
}

Bytes WirePeer::receive_msg(int* fd) {
    Bytes head = receive(12, fd);
    if (head.size() < 12)
        return head;
    size_t raw =
        (static_cast<size_t>(head[9]) << 16) | (static_cast<size_t>(head[10]) << 8) | head[11];
    return raw > 4 ? head + receive(raw - 4) : head;
}

Bytes WirePeer::drain() {
    Bytes out;
    uint8_t buf[4096];
    for (;;) {
        ssize_t n = recv(client_, buf, sizeof(buf), MSG_DONTWAIT);
        if (n <= 0)
            return out;
        out.insert(out.end(), buf, buf + n);
    }
}

void WirePeer::shutdown_write() {
    shutdown(client_, SHUT_WR);
}

void WirePeer::close_client() {
    if (client_ >= 0)
        close(client_);
    client_ = -1;
}

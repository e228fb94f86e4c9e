#include <poll.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <stdexcept>

#include "wire_peer.h"

static bool wait_readable(int fd) {
    pollfd pfd = {fd, POLLIN, 0};
    return poll(&pfd, 1, 5000) > 0;
}

Bytes hex(const std::string& text) {
    Bytes out;
    std::string digits;
    for (char c : text) {
        if (!std::isxdigit(static_cast<unsigned char>(c)))
            digits.clear();
        else if ((digits += c).size() == 2) {
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

Bytes operator+(Bytes a, const Bytes& b) {
    a.insert(a.end(), b.begin(), b.end());
    return a;
}

Bytes be32(uint32_t v) {
    return {uint8_t(v >> 24), uint8_t(v >> 16), uint8_t(v >> 8), uint8_t(v)};
}

Bytes attr(uint8_t id, const Bytes& payload) {
    Bytes out = be32((uint32_t(id) << 24) | uint32_t(payload.size() + 4)) + payload;
    out.resize((out.size() + 3) & ~size_t(3));
    return out;
}

Bytes str(const std::string& text) {
    return Bytes(text.begin(), text.end()) + Bytes{0};
}

Bytes msg(uint8_t type, uint16_t seq, uint32_t peer, const Bytes& attrs) {
    return Bytes{0, type, uint8_t(seq >> 8), uint8_t(seq)} + be32(peer) +
           be32(uint32_t(attrs.size() + 4)) + attrs;
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

void WirePeer::accept_client(const Bytes& greeting) {
    if (wait_readable(listen_fd_))
        client_ = accept4(listen_fd_, nullptr, nullptr, SOCK_CLOEXEC);
    send(greeting);
}

// The descriptor, if any, goes with the first bytes.
void WirePeer::send(const Bytes& bytes, int pass_fd) {
    for (size_t done = 0; client_ >= 0 && done < bytes.size();) {
        union {
            cmsghdr hdr;
            char buf[CMSG_SPACE(sizeof(int))];
        } control = {};
        iovec iov = {const_cast<uint8_t*>(bytes.data() + done), bytes.size() - done};
        msghdr m = {};
        m.msg_iov = &iov;
        m.msg_iovlen = 1;
        if (pass_fd >= 0 && done == 0) {
            m.msg_control = control.buf;
            m.msg_controllen = sizeof(control.buf);
            cmsghdr* c = CMSG_FIRSTHDR(&m);
            c->cmsg_level = SOL_SOCKET;
            c->cmsg_type = SCM_RIGHTS;
            c->cmsg_len = CMSG_LEN(sizeof(int));
            std::memcpy(CMSG_DATA(c), &pass_fd, sizeof(int));
        }
        ssize_t n = sendmsg(client_, &m, MSG_NOSIGNAL);
        if (n < 0 && errno == EINTR)
            continue;
        if (n <= 0)
            return;
        done += size_t(n);
    }
}

Bytes WirePeer::receive(size_t n, int* fd) {
    Bytes out(n);
    size_t done = 0;
    while (done < n && wait_readable(client_)) {
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
        done += size_t(got);
    }
    out.resize(done);
    return out;
}

Bytes WirePeer::receive_msg(int* fd) {
    Bytes head = receive(12, fd);
    size_t raw =
        head.size() < 12 ? 0 : (size_t(head[9]) << 16) | (size_t(head[10]) << 8) | head[11];
    return raw > 4 ? head + receive(raw - 4, nullptr) : head;
}

Bytes WirePeer::drain() {
    Bytes out;
    uint8_t buf[4096];
    ssize_t n;
    while ((n = recv(client_, buf, sizeof(buf), MSG_DONTWAIT)) > 0)
        out.insert(out.end(), buf, buf + n);
    return out;
}

void WirePeer::shutdown_write() {
    shutdown(client_, SHUT_WR);
}

void WirePeer::close_client() {
    if (client_ >= 0)
        close(client_);
    client_ = -1;
}

std::function<int(ubus_context*, ubus_request_data*, const char*, blob_attr*)> on_call;

int demo_dispatch(ubus_context* ctx, ubus_object*, ubus_request_data* req, const char* method,
                  blob_attr* msg) {
    return on_call ? on_call(ctx, req, method, msg) : 0;
}

const blobmsg_policy demo_policy[2] = {{"id", BLOBMSG_TYPE_INT32}, {"msg", BLOBMSG_TYPE_STRING}};
const ubus_method demo_methods[2] = {UBUS_METHOD("hello", demo_dispatch, demo_policy),
                                     UBUS_METHOD_NOARG("status", demo_dispatch)};

void UbusTest::add_demo_object() {
    daemon.send(
        msg(UBUS_MSG_DATA, 1, 0, objid(0x8debad38) + attr(UBUS_ATTR_OBJTYPE, be32(0x15646072))) +
        status_ok_seq1);
    ASSERT_EQ(ubus_add_object(ctx, &demo), 0);
    ASSERT_EQ(
        hex_of(daemon.receive_msg()),
        hex_of(hex("00 06 00 01 00 00 00 00 | 00 00 00 50 | 02 00 00 09 64 65 6d 6f 00 00 00 00") +
               demo_signature));
    EXPECT_EQ(demo.id, 0x8debad38u);
    EXPECT_EQ(demo_type.id, 0x15646072u);
}

void UbusTest::start(Call& call, const std::string& name, uint32_t obj) {
    call.name = name;
    call.log = &log;
    ASSERT_EQ(ubus_invoke_async(ctx, obj, "m", nullptr, &call.req), 0);
    call.req.data_cb = [](ubus_request* req, int, blob_attr* msg) {
        Call* c = static_cast<Call*>(req->priv);
        c->log->push_back(c->name + " data " + hex_of(msg));
    };
    call.req.complete_cb = [](ubus_request* req, int ret) {
        Call* c = static_cast<Call*>(req->priv);
        c->log->push_back(c->name + " complete " + std::to_string(ret));
    };
    call.req.priv = &call;
    ubus_complete_request_async(ctx, &call.req);
}

#include "orvix_testing/wire.h"

extern "C" {
#include <libubox/blobmsg.h>
#include <ubusmsg.h>
}

#include <poll.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <cstring>
#include <stdexcept>

namespace orvix_testing {

namespace {

// What a builder of the C part adds, as bytes.
template <typename Build>
bytes built(Build&& build) {
    wire_buf b{};
    build(&b);
    bytes out(b.data, b.data + b.len);
    wire_buf_free(&b);
    return out;
}

std::string text(std::string_view s) {
    return std::string(s);
}

bool wait_readable(int fd, int timeout_ms) {
    pollfd p = {fd, POLLIN, 0};
    int r;
    do {
        r = poll(&p, 1, timeout_ms);
    } while (r < 0 && errno == EINTR);
    return r > 0;
}

sockaddr_un unix_address(const std::string& path) {
    sockaddr_un addr = {};
    addr.sun_family = AF_UNIX;
    std::snprintf(addr.sun_path, sizeof(addr.sun_path), "%s", path.c_str());
    return addr;
}

} // namespace

bytes attr(unsigned id, const bytes& payload) {
    return built([&](wire_buf* b) { wire_add_attr(b, id, payload.data(), payload.size()); });
}

bytes attr_u32(unsigned id, std::uint32_t v) {
    return built([&](wire_buf* b) { wire_add_u32(b, id, v); });
}

bytes attr_str(unsigned id, std::string_view s) {
    return attr(id, str(s));
}

bytes str(std::string_view s) {
    bytes out(s.begin(), s.end());
    out.push_back(0);
    return out;
}

bytes field(unsigned type, std::string_view name, const bytes& value) {
    return built([&](wire_buf* b) {
        wire_add_field(b, type, text(name).c_str(), value.data(), value.size());
    });
}

bytes field_u32(std::string_view name, std::uint32_t v) {
    return field(BLOBMSG_TYPE_INT32, name, be32(v));
}

bytes field_str(std::string_view name, std::string_view s) {
    return field(BLOBMSG_TYPE_STRING, name, str(s));
}

bytes table(std::string_view name, const bytes& fields) {
    return field(BLOBMSG_TYPE_TABLE, name, fields);
}

bytes msg(unsigned type, std::uint16_t seq, std::uint32_t peer, const bytes& attrs) {
    return built(
        [&](wire_buf* b) { wire_add_msg(b, type, seq, peer, attrs.data(), attrs.size()); });
}

bytes invoke(std::uint16_t seq, std::uint32_t peer, std::uint32_t obj, std::string_view method,
             const bytes& extra) {
    return msg(UBUS_MSG_INVOKE, seq, peer,
               attr_u32(UBUS_ATTR_OBJID, obj) + attr_str(UBUS_ATTR_METHOD, method) + extra);
}

bool frame::has(unsigned id) const {
    return !whole(id).empty();
}

bytes frame::whole(unsigned id) const {
    for (auto a = attrs.rbegin(); a != attrs.rend(); ++a) {
        if (a->first == id) {
            return a->second;
        }
    }
    return {};
}

bytes frame::payload(unsigned id) const {
    const bytes a = whole(id);
    if (a.empty()) {
        return {};
    }
    return bytes(a.begin() + 4, a.begin() + (get_be32(a.data()) & BLOB_ATTR_LEN_MASK));
}

std::uint32_t frame::u32(unsigned id) const {
    const bytes p = payload(id);
    return p.size() >= 4 ? get_be32(p.data()) : 0;
}

std::string frame::str(unsigned id) const {
    const bytes p = payload(id);
    const char* s = reinterpret_cast<const char*>(p.data());
    return std::string(s, strnlen(s, p.size()));
}

wire_socket::~wire_socket() {
    close();
}

wire_socket::wire_socket(wire_socket&& other) noexcept
    : fd_(std::exchange(other.fd_, -1)), buffer_(std::move(other.buffer_)),
      fds_(std::move(other.fds_)) {
    other.fds_.clear();
}

wire_socket& wire_socket::operator=(wire_socket&& other) noexcept {
    if (this != &other) {
        close();
        fd_ = std::exchange(other.fd_, -1);
        buffer_ = std::move(other.buffer_);
        fds_ = std::move(other.fds_);
        other.fds_.clear();
    }
    return *this;
}

bool wire_socket::send(const bytes& data, int pass_fd) {
    for (std::size_t done = 0; done < data.size();) {
        union {
            cmsghdr align;
            char buf[CMSG_SPACE(sizeof(int))];
        } control = {};
        iovec iov = {const_cast<std::uint8_t*>(data.data() + done), data.size() - done};
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
        const ssize_t n = sendmsg(fd_, &m, MSG_NOSIGNAL);
        if (n < 0 && errno == EINTR) {
            continue;
        }
        if (n <= 0) {
            return false;
        }
        done += static_cast<std::size_t>(n);
    }
    return true;
}

// False when nothing came in time or the other end closed.
bool wire_socket::read_some(int timeout_ms) {
    if (fd_ < 0 || !wait_readable(fd_, timeout_ms)) {
        return false;
    }
    std::uint8_t chunk[65536];
    union {
        cmsghdr align;
        char buf[CMSG_SPACE(sizeof(int) * 4)];
    } control = {};
    iovec iov = {chunk, sizeof(chunk)};
    msghdr m = {};
    m.msg_iov = &iov;
    m.msg_iovlen = 1;
    m.msg_control = control.buf;
    m.msg_controllen = sizeof(control.buf);
    const ssize_t n = recvmsg(fd_, &m, MSG_CMSG_CLOEXEC);
    if (n <= 0) {
        return false;
    }
    for (cmsghdr* c = CMSG_FIRSTHDR(&m); c; c = CMSG_NXTHDR(&m, c)) {
        if (c->cmsg_level == SOL_SOCKET && c->cmsg_type == SCM_RIGHTS) {
            int got;
            std::memcpy(&got, CMSG_DATA(c), sizeof(int));
            fds_.push_back(got);
        }
    }
    buffer_.insert(buffer_.end(), chunk, chunk + n);
    return true;
}

std::optional<frame> wire_socket::recv(int timeout_ms) {
    const auto deadline = std::chrono::steady_clock::now() + std::chrono::milliseconds(timeout_ms);
    for (;;) {
        const std::size_t len =
            buffer_.size() >= 12 ? get_be32(&buffer_[8]) & BLOB_ATTR_LEN_MASK : 0;
        if (len >= 4 && buffer_.size() >= 8 + len) {
            frame f;
            f.raw.assign(buffer_.begin(), buffer_.begin() + long(8 + len));
            buffer_.erase(buffer_.begin(), buffer_.begin() + long(8 + len));
            f.type = f.raw[1];
            f.seq = static_cast<std::uint16_t>(f.raw[2] << 8 | f.raw[3]);
            f.peer = get_be32(&f.raw[4]);
            const std::uint8_t* blob = f.raw.data() + 12;
            unsigned id;
            for (std::size_t pos = 0, next; (next = wire_next_attr(blob, len - 4, pos, &id));
                 pos = next) {
                f.attrs.emplace_back(id, bytes(blob + pos, blob + std::min(next, len - 4)));
            }
            if (!fds_.empty()) {
                f.fd = fds_.front();
                fds_.erase(fds_.begin());
            }
            return f;
        }
        const auto left = std::chrono::duration_cast<std::chrono::milliseconds>(
            deadline - std::chrono::steady_clock::now());
        if (left.count() < 0 || !read_some(int(left.count()))) {
            return std::nullopt;
        }
    }
}

bytes wire_socket::drain() {
    while (read_some(0)) {
    }
    return std::exchange(buffer_, bytes());
}

bool wire_socket::closed_by_peer(int timeout_ms) {
    const auto deadline = std::chrono::steady_clock::now() + std::chrono::milliseconds(timeout_ms);
    for (;;) {
        const auto left = std::chrono::duration_cast<std::chrono::milliseconds>(
            deadline - std::chrono::steady_clock::now());
        if (left.count() < 0 || !wait_readable(fd_, int(left.count()))) {
            return false;
        }
        std::uint8_t chunk[4096];
        const ssize_t n = ::recv(fd_, chunk, sizeof(chunk), 0);
        if (n == 0 || (n < 0 && errno == ECONNRESET)) {
            return true;
        }
    }
}

void wire_socket::shutdown_write() {
    shutdown(fd_, SHUT_WR);
}

void wire_socket::close() {
    if (fd_ >= 0) {
        ::close(fd_);
    }
    fd_ = -1;
    for (int f : fds_) {
        ::close(f);
    }
    fds_.clear();
    buffer_.clear();
}

std::string play_script(const std::vector<script_line>& script,
                        const std::vector<wire_socket*>& clients, hex_vars& vars) {
    for (std::size_t n = 0; n < script.size(); n++) {
        const script_line& line = script[n];
        if (line.dir == '>') {
            clients[line.who]->send(expand_hex(line.hex, vars));
            continue;
        }
        const std::optional<frame> got = clients[line.who]->recv();
        if (!got || !matches_hex(got->raw, line.hex, vars)) {
            return "line " + std::to_string(n + 1) + ": got " +
                   (got ? to_hex(got->raw) : "nothing") + "\nexpected " + line.hex;
        }
    }
    return "";
}

wire_socket connect_unix(const std::string& path) {
    const sockaddr_un addr = unix_address(path);
    wire_socket s(socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0));
    if (s.fd() < 0 || connect(s.fd(), reinterpret_cast<const sockaddr*>(&addr), sizeof(addr))) {
        throw std::runtime_error("connect " + path + ": " + std::strerror(errno));
    }
    return s;
}

wire_listener::wire_listener() {
    char tmpl[] = "/tmp/orvix-wire-XXXXXX";
    if (!mkdtemp(tmpl)) {
        throw std::runtime_error("mkdtemp: " + std::string(std::strerror(errno)));
    }
    dir_ = tmpl;
    path_ = dir_ + "/ubus.sock";
    const sockaddr_un addr = unix_address(path_);
    fd_ = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
    if (fd_ < 0 || bind(fd_, reinterpret_cast<const sockaddr*>(&addr), sizeof(addr)) ||
        listen(fd_, 4)) {
        throw std::runtime_error("listen " + path_ + ": " + std::strerror(errno));
    }
}

wire_listener::~wire_listener() {
    ::close(fd_);
    unlink(path_.c_str());
    rmdir(dir_.c_str());
}

wire_socket wire_listener::accept(int timeout_ms) {
    if (!wait_readable(fd_, timeout_ms)) {
        return wire_socket();
    }
    return wire_socket(accept4(fd_, nullptr, nullptr, SOCK_CLOEXEC));
}

bus_client::bus_client(const std::string& path, bool read_hello) : wire_socket(connect_unix(path)) {
    if (!read_hello) {
        return;
    }
    const std::optional<frame> hello = recv();
    if (!hello || hello->type != UBUS_MSG_HELLO) {
        throw std::runtime_error("no HELLO from " + path);
    }
    id = hello->peer;
}

int bus_client::request(const bytes& message, std::vector<frame>* data) {
    send(message);
    const std::uint16_t seq = static_cast<std::uint16_t>(message[2] << 8 | message[3]);
    for (;;) {
        std::optional<frame> f = recv();
        if (!f) {
            return -1;
        }
        if (f->seq == seq && f->type == UBUS_MSG_STATUS) {
            return f->has(UBUS_ATTR_STATUS) ? int(f->u32(UBUS_ATTR_STATUS)) : -2;
        }
        if (f->seq == seq && f->type == UBUS_MSG_DATA && data) {
            data->push_back(std::move(*f));
        }
    }
}

int bus_client::ping(std::uint16_t seq) {
    return request(msg(UBUS_MSG_PING, seq, 0));
}

std::uint32_t bus_client::add_object(const std::string& path, const bytes& type_attr,
                                     std::uint32_t* type_id, int* status) {
    std::vector<frame> data;
    const int st = request(
        msg(UBUS_MSG_ADD_OBJECT, next_seq++, 0, attr_str(UBUS_ATTR_OBJPATH, path) + type_attr),
        &data);
    if (status) {
        *status = st;
    }
    if (st != 0 || data.empty()) {
        return 0;
    }
    if (type_id) {
        *type_id = data[0].u32(UBUS_ATTR_OBJTYPE);
    }
    return data[0].u32(UBUS_ATTR_OBJID);
}

std::uint32_t bus_client::add_anonymous() {
    std::vector<frame> data;
    const int st = request(msg(UBUS_MSG_ADD_OBJECT, next_seq++, 0), &data);
    return st == 0 && !data.empty() ? data[0].u32(UBUS_ATTR_OBJID) : 0;
}

int bus_client::remove(std::uint32_t obj, std::vector<frame>* data) {
    return request(msg(UBUS_MSG_REMOVE_OBJECT, next_seq++, 0, attr_u32(UBUS_ATTR_OBJID, obj)),
                   data);
}

int bus_client::lookup(const std::optional<std::string>& path, std::vector<frame>* data) {
    return request(
        msg(UBUS_MSG_LOOKUP, next_seq++, 0, path ? attr_str(UBUS_ATTR_OBJPATH, *path) : bytes()),
        data);
}

std::vector<std::string> bus_client::list(const std::optional<std::string>& path, int* status) {
    std::vector<frame> data;
    const int st = lookup(path, &data);
    if (status) {
        *status = st;
    }
    std::vector<std::string> paths;
    for (const frame& f : data) {
        paths.push_back(f.str(UBUS_ATTR_OBJPATH));
    }
    return paths;
}

bool bus_client::wait_gone(const std::string& pattern) {
    for (int i = 0; i < 500; i++) {
        if (lookup(pattern) == UBUS_STATUS_NOT_FOUND) {
            return true;
        }
        usleep(10000);
    }
    return false;
}

} // namespace orvix_testing

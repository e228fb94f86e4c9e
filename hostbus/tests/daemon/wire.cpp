#include "wire.h"

#include <grp.h>
#include <poll.h>
#include <pwd.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <cstring>
#include <stdexcept>

namespace wire {

Bytes hex(const std::string& text) {
    Bytes out;
    std::string digits;
    for (char c : text) {
        if (isxdigit(static_cast<unsigned char>(c)))
            digits += c;
    }
    for (size_t i = 0; i + 1 < digits.size(); i += 2)
        out.push_back(static_cast<uint8_t>(std::stoi(digits.substr(i, 2), nullptr, 16)));
    return out;
}

std::string to_hex(const Bytes& bytes) {
    static const char digits[] = "0123456789abcdef";
    std::string out;
    for (size_t i = 0; i < bytes.size(); i++) {
        if (i)
            out += ' ';
        out += digits[bytes[i] >> 4];
        out += digits[bytes[i] & 15];
    }
    return out;
}

Bytes be32(uint32_t v) {
    return {static_cast<uint8_t>(v >> 24), static_cast<uint8_t>(v >> 16),
            static_cast<uint8_t>(v >> 8), static_cast<uint8_t>(v)};
}

Bytes cat(std::initializer_list<Bytes> parts) {
    Bytes out;
    for (const Bytes& p : parts)
        out.insert(out.end(), p.begin(), p.end());
    return out;
}

static Bytes header_word(uint32_t word) {
    return be32(word);
}

Bytes attr(uint8_t id, const Bytes& payload) {
    Bytes out = header_word((uint32_t(id) << 24) | uint32_t(4 + payload.size()));
    out.insert(out.end(), payload.begin(), payload.end());
    while (out.size() % 4)
        out.push_back(0);
    return out;
}

Bytes attr_u32(uint8_t id, uint32_t v) {
    return attr(id, be32(v));
}

Bytes attr_str(uint8_t id, const std::string& s) {
    Bytes payload(s.begin(), s.end());
    payload.push_back(0);
    return attr(id, payload);
}

Bytes nest(uint8_t id, std::initializer_list<Bytes> children) {
    return attr(id, cat(children));
}

Bytes field(uint8_t type, const std::string& name, const Bytes& value) {
    Bytes payload = {static_cast<uint8_t>(name.size() >> 8), static_cast<uint8_t>(name.size())};
    payload.insert(payload.end(), name.begin(), name.end());
    payload.push_back(0);
    while (payload.size() % 4)
        payload.push_back(0);
    payload.insert(payload.end(), value.begin(), value.end());
    Bytes out = header_word(0x80000000u | (uint32_t(type) << 24) | uint32_t(4 + payload.size()));
    out.insert(out.end(), payload.begin(), payload.end());
    while (out.size() % 4)
        out.push_back(0);
    return out;
}

Bytes field_u32(const std::string& name, uint32_t v) {
    return field(5, name, be32(v));
}

Bytes field_str(const std::string& name, const std::string& s) {
    Bytes value(s.begin(), s.end());
    value.push_back(0);
    return field(3, name, value);
}

Bytes table(const std::string& name, const std::vector<Bytes>& children) {
    Bytes value;
    for (const Bytes& c : children)
        value.insert(value.end(), c.begin(), c.end());
    return field(2, name, value);
}

Bytes table(const std::string& name, std::initializer_list<Bytes> children) {
    return table(name, std::vector<Bytes>(children));
}

Bytes msg(uint8_t type, uint16_t seq, uint32_t peer, const std::vector<Bytes>& attrs) {
    Bytes body;
    for (const Bytes& a : attrs)
        body.insert(body.end(), a.begin(), a.end());
    Bytes out = {0, type, static_cast<uint8_t>(seq >> 8), static_cast<uint8_t>(seq)};
    Bytes p = be32(peer);
    out.insert(out.end(), p.begin(), p.end());
    Bytes blob = attr(0, body);
    out.insert(out.end(), blob.begin(), blob.end());
    return out;
}

Bytes msg(uint8_t type, uint16_t seq, uint32_t peer, std::initializer_list<Bytes> attrs) {
    return msg(type, seq, peer, std::vector<Bytes>(attrs));
}

static uint32_t read_be32(const uint8_t* p) {
    return (uint32_t(p[0]) << 24) | (uint32_t(p[1]) << 16) | (uint32_t(p[2]) << 8) | p[3];
}

uint32_t Msg::u32(int id) const {
    Bytes p = payload(id);
    return p.size() >= 4 ? read_be32(p.data()) : 0;
}

std::string Msg::str(int id) const {
    Bytes p = payload(id);
    return std::string(reinterpret_cast<const char*>(p.data()),
                       strnlen(reinterpret_cast<const char*>(p.data()), p.size()));
}

Bytes Msg::payload(int id) const {
    auto it = attrs.find(id);
    if (it == attrs.end())
        return {};
    uint32_t len = read_be32(it->second.data()) & 0xffffff;
    return Bytes(it->second.begin() + 4, it->second.begin() + len);
}

Client::Client(const std::string& socket, bool read_hello) {
    struct sockaddr_un addr = {};
    addr.sun_family = AF_UNIX;
    snprintf(addr.sun_path, sizeof(addr.sun_path), "%s", socket.c_str());
    fd = ::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
    if (fd < 0 || connect(fd, reinterpret_cast<struct sockaddr*>(&addr), sizeof(addr)) < 0)
        throw std::runtime_error("connect: " + std::string(strerror(errno)));
    if (!read_hello)
        return;
    std::optional<Msg> hello = recv();
    if (!hello || hello->type != HELLO)
        throw std::runtime_error("no HELLO");
    id = hello->peer;
}

Client::~Client() {
    close_now();
    for (int f : fds_)
        close(f);
}

void Client::close_now() {
    if (fd >= 0)
        close(fd);
    fd = -1;
}

void Client::send(const Bytes& bytes) {
    size_t off = 0;
    while (off < bytes.size()) {
        ssize_t n = ::send(fd, bytes.data() + off, bytes.size() - off, MSG_NOSIGNAL);
        if (n < 0 && errno == EINTR)
            continue;
        if (n <= 0)
            throw std::runtime_error("send: " + std::string(strerror(errno)));
        off += size_t(n);
    }
}

void Client::send_with_fd(const Bytes& bytes, int pass) {
    char control[CMSG_SPACE(sizeof(int))] = {};
    struct iovec iov = {const_cast<uint8_t*>(bytes.data()), bytes.size()};
    struct msghdr mh = {};
    mh.msg_iov = &iov;
    mh.msg_iovlen = 1;
    mh.msg_control = control;
    mh.msg_controllen = sizeof(control);
    struct cmsghdr* cmsg = CMSG_FIRSTHDR(&mh);
    cmsg->cmsg_level = SOL_SOCKET;
    cmsg->cmsg_type = SCM_RIGHTS;
    cmsg->cmsg_len = CMSG_LEN(sizeof(int));
    memcpy(CMSG_DATA(cmsg), &pass, sizeof(int));
    if (sendmsg(fd, &mh, MSG_NOSIGNAL) != ssize_t(bytes.size()))
        throw std::runtime_error("sendmsg: " + std::string(strerror(errno)));
}

static bool wait_readable(int fd, int timeout_ms) {
    struct pollfd p = {fd, POLLIN, 0};
    int r;
    do
        r = poll(&p, 1, timeout_ms);
    while (r < 0 && errno == EINTR);
    return r > 0;
}

std::optional<Msg> Client::recv(int timeout_ms) {
    auto deadline = std::chrono::steady_clock::now() + std::chrono::milliseconds(timeout_ms);
    for (;;) {
        if (buffer_.size() >= 12) {
            size_t len = read_be32(buffer_.data() + 8) & 0xffffff;
            if (len >= 4 && buffer_.size() >= 8 + len) {
                Msg m;
                m.raw.assign(buffer_.begin(), buffer_.begin() + long(8 + len));
                buffer_.erase(buffer_.begin(), buffer_.begin() + long(8 + len));
                m.version = m.raw[0];
                m.type = m.raw[1];
                m.seq = uint16_t((m.raw[2] << 8) | m.raw[3]);
                m.peer = read_be32(&m.raw[4]);
                size_t pos = 12;
                while (pos + 4 <= m.raw.size()) {
                    size_t alen = read_be32(&m.raw[pos]) & 0xffffff;
                    size_t padded = (alen + 3) & ~size_t(3);
                    if (alen < 4 || pos + padded > m.raw.size())
                        break;
                    Bytes a(m.raw.begin() + long(pos), m.raw.begin() + long(pos + padded));
                    m.attrs[m.raw[pos] & 0x7f] = a;
                    m.attr_list.push_back(a);
                    pos += padded;
                }
                if (!fds_.empty()) {
                    m.fd = fds_.front();
                    fds_.erase(fds_.begin());
                }
                return m;
            }
        }
        int left = int(std::chrono::duration_cast<std::chrono::milliseconds>(
                           deadline - std::chrono::steady_clock::now())
                           .count());
        if (left < 0 || fd < 0 || !wait_readable(fd, left))
            return std::nullopt;
        uint8_t chunk[65536];
        char control[CMSG_SPACE(sizeof(int) * 4)];
        struct iovec iov = {chunk, sizeof(chunk)};
        struct msghdr mh = {};
        mh.msg_iov = &iov;
        mh.msg_iovlen = 1;
        mh.msg_control = control;
        mh.msg_controllen = sizeof(control);
        ssize_t n = recvmsg(fd, &mh, MSG_CMSG_CLOEXEC);
        if (n <= 0)
            return std::nullopt;
        for (struct cmsghdr* c = CMSG_FIRSTHDR(&mh); c; c = CMSG_NXTHDR(&mh, c)) {
            if (c->cmsg_level == SOL_SOCKET && c->cmsg_type == SCM_RIGHTS) {
                int got;
                memcpy(&got, CMSG_DATA(c), sizeof(int));
                fds_.push_back(got);
            }
        }
        buffer_.insert(buffer_.end(), chunk, chunk + n);
    }
}

bool Client::closed_by_peer(int timeout_ms) {
    auto deadline = std::chrono::steady_clock::now() + std::chrono::milliseconds(timeout_ms);
    for (;;) {
        int left = int(std::chrono::duration_cast<std::chrono::milliseconds>(
                           deadline - std::chrono::steady_clock::now())
                           .count());
        if (left < 0 || !wait_readable(fd, left))
            return false;
        uint8_t chunk[4096];
        ssize_t n = ::recv(fd, chunk, sizeof(chunk), 0);
        if (n == 0 || (n < 0 && errno == ECONNRESET))
            return true;
    }
}

int Client::request(const Bytes& message, std::vector<Msg>* data) {
    send(message);
    uint16_t seq = uint16_t((message[2] << 8) | message[3]);
    for (;;) {
        std::optional<Msg> m = recv();
        if (!m)
            return -1;
        if (m->seq != seq)
            continue;
        if (m->type == STATUS)
            return m->has(A_STATUS) ? int(m->u32(A_STATUS)) : -2;
        if (m->type == DATA && data)
            data->push_back(*m);
    }
}

int Client::ping(uint16_t seq) {
    return request(msg(PING, seq, 0, {}));
}

uint32_t Client::add_object(const std::string& path, const Bytes& sig, uint32_t* type_id,
                            int* status) {
    std::vector<Msg> data;
    int st = request(msg(ADD_OBJECT, next_seq++, 0, {attr_str(A_OBJPATH, path), sig}), &data);
    if (status)
        *status = st;
    if (st != 0 || data.empty())
        return 0;
    if (type_id)
        *type_id = data[0].has(A_OBJTYPE) ? data[0].u32(A_OBJTYPE) : 0;
    return data[0].u32(A_OBJID);
}

uint32_t Client::add_anonymous() {
    std::vector<Msg> data;
    int st = request(msg(ADD_OBJECT, next_seq++, 0, {}), &data);
    return st == 0 && !data.empty() ? data[0].u32(A_OBJID) : 0;
}

int Client::lookup(const std::optional<std::string>& path, std::vector<Msg>* data) {
    if (path)
        return request(msg(LOOKUP, next_seq++, 0, {attr_str(A_OBJPATH, *path)}), data);
    return request(msg(LOOKUP, next_seq++, 0, {}), data);
}

std::vector<std::string> Client::list(const std::optional<std::string>& path, int* status) {
    std::vector<Msg> data;
    int st = lookup(path, &data);
    if (status)
        *status = st;
    std::vector<std::string> out;
    for (const Msg& m : data)
        out.push_back(m.str(A_OBJPATH));
    return out;
}

Bytes signature(std::initializer_list<std::string> methods) {
    std::vector<Bytes> entries;
    for (const std::string& m : methods)
        entries.push_back(table(m, {}));
    Bytes body;
    for (const Bytes& e : entries)
        body.insert(body.end(), e.begin(), e.end());
    return attr(A_SIGNATURE, body);
}

Bytes demo_signature() {
    return attr(A_SIGNATURE, cat({table("hello", {field_u32("id", 5), field_u32("msg", 3)}),
                                  table("status", {})}));
}

std::string user_name() {
    struct passwd* pw = getpwuid(geteuid());
    return pw ? pw->pw_name : std::to_string(geteuid());
}

std::string group_name() {
    struct group* gr = getgrgid(getegid());
    return gr ? gr->gr_name : std::to_string(getegid());
}

void DaemonTest::SetUp() {
    ASSERT_EQ(test_daemon_start(&daemon_, ORVIX_TEST_UBUSD), 0) << ORVIX_TEST_UBUSD;
    socket_ = daemon_.socket;
}

void DaemonTest::TearDown() {
    test_daemon_cleanup(&daemon_);
}

} // namespace wire

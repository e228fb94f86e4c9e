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
    std::string digits;
    for (char c : text) {
        if (isxdigit(static_cast<unsigned char>(c)))
            digits += c;
    }
    Bytes out;
    for (size_t i = 0; i + 1 < digits.size(); i += 2)
        out.push_back(static_cast<uint8_t>(std::stoi(digits.substr(i, 2), nullptr, 16)));
    return out;
}

std::string to_hex(const Bytes& bytes) {
    std::string out;
    char byte[4];
    for (size_t i = 0; i < bytes.size(); i++) {
        snprintf(byte, sizeof(byte), i ? " %02x" : "%02x", bytes[i]);
        out += byte;
    }
    return out;
}

Bytes be32(uint32_t v) {
    return {uint8_t(v >> 24), uint8_t(v >> 16), uint8_t(v >> 8), uint8_t(v)};
}

Bytes cat(const std::vector<Bytes>& parts) {
    Bytes out;
    for (const Bytes& p : parts)
        out.insert(out.end(), p.begin(), p.end());
    return out;
}

static Bytes padded(Bytes b) {
    b.resize((b.size() + 3) & ~size_t(3));
    return b;
}

Bytes attr(uint8_t id, const Bytes& payload) {
    return padded(cat({be32((uint32_t(id) << 24) | uint32_t(4 + payload.size())), payload}));
}

Bytes attr_u32(uint8_t id, uint32_t v) {
    return attr(id, be32(v));
}

Bytes attr_str(uint8_t id, const std::string& s) {
    return attr(id, cat({Bytes(s.begin(), s.end()), {0}}));
}

Bytes field(uint8_t type, const std::string& name, const Bytes& value) {
    Bytes hdr = padded(cat(
        {{uint8_t(name.size() >> 8), uint8_t(name.size())}, Bytes(name.begin(), name.end()), {0}}));
    uint32_t len = uint32_t(4 + hdr.size() + value.size());
    return padded(cat({be32(0x80000000u | (uint32_t(type) << 24) | len), hdr, value}));
}

Bytes field_u32(const std::string& name, uint32_t v) {
    return field(5, name, be32(v));
}

Bytes field_str(const std::string& name, const std::string& s) {
    return field(3, name, cat({Bytes(s.begin(), s.end()), {0}}));
}

Bytes table(const std::string& name, const std::vector<Bytes>& children) {
    return field(2, name, cat(children));
}

Bytes msg(uint8_t type, uint16_t seq, uint32_t peer, const std::vector<Bytes>& attrs) {
    return cat({{0, type, uint8_t(seq >> 8), uint8_t(seq)}, be32(peer), attr(0, cat(attrs))});
}

Bytes invoke(uint16_t seq, uint32_t obj, const std::string& method,
             const std::vector<Bytes>& extra) {
    return msg(INVOKE, seq, obj, {attr_u32(A_OBJID, obj), attr_str(A_METHOD, method), cat(extra)});
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

// The descriptor, if any, goes with the first bytes.
void Client::send(const Bytes& bytes, int pass_fd) {
    size_t off = 0;
    while (off < bytes.size()) {
        char control[CMSG_SPACE(sizeof(int))] = {};
        struct iovec iov = {const_cast<uint8_t*>(bytes.data() + off), bytes.size() - off};
        struct msghdr mh = {};
        mh.msg_iov = &iov;
        mh.msg_iovlen = 1;
        if (pass_fd >= 0 && off == 0) {
            mh.msg_control = control;
            mh.msg_controllen = sizeof(control);
            struct cmsghdr* cmsg = CMSG_FIRSTHDR(&mh);
            cmsg->cmsg_level = SOL_SOCKET;
            cmsg->cmsg_type = SCM_RIGHTS;
            cmsg->cmsg_len = CMSG_LEN(sizeof(int));
            memcpy(CMSG_DATA(cmsg), &pass_fd, sizeof(int));
        }
        ssize_t n = sendmsg(fd, &mh, MSG_NOSIGNAL);
        if (n < 0 && errno == EINTR)
            continue;
        if (n <= 0)
            throw std::runtime_error("send: " + std::string(strerror(errno)));
        off += size_t(n);
    }
}

static int ms_left(std::chrono::steady_clock::time_point deadline) {
    return int(std::chrono::duration_cast<std::chrono::milliseconds>(
                   deadline - std::chrono::steady_clock::now())
                   .count());
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
        size_t len = buffer_.size() >= 12 ? read_be32(&buffer_[8]) & 0xffffff : 0;
        if (len >= 4 && buffer_.size() >= 8 + len) {
            Msg m;
            m.raw.assign(buffer_.begin(), buffer_.begin() + long(8 + len));
            buffer_.erase(buffer_.begin(), buffer_.begin() + long(8 + len));
            m.version = m.raw[0];
            m.type = m.raw[1];
            m.seq = uint16_t((m.raw[2] << 8) | m.raw[3]);
            m.peer = read_be32(&m.raw[4]);
            for (size_t pos = 12; pos + 4 <= m.raw.size();) {
                size_t alen = read_be32(&m.raw[pos]) & 0xffffff, step = (alen + 3) & ~size_t(3);
                if (alen < 4 || pos + step > m.raw.size())
                    break;
                Bytes a(m.raw.begin() + long(pos), m.raw.begin() + long(pos + step));
                m.attrs[m.raw[pos] & 0x7f] = a;
                m.attr_list.push_back(a);
                pos += step;
            }
            if (!fds_.empty()) {
                m.fd = fds_.front();
                fds_.erase(fds_.begin());
            }
            return m;
        }
        int left = ms_left(deadline);
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
        int left = ms_left(deadline);
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
        if (m->seq == seq && m->type == STATUS)
            return m->has(A_STATUS) ? int(m->u32(A_STATUS)) : -2;
        if (m->seq == seq && m->type == DATA && data)
            data->push_back(*m);
    }
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
        *type_id = data[0].u32(A_OBJTYPE);
    return data[0].u32(A_OBJID);
}

uint32_t Client::add_anonymous() {
    std::vector<Msg> data;
    int st = request(msg(ADD_OBJECT, next_seq++, 0, {}), &data);
    return st == 0 && !data.empty() ? data[0].u32(A_OBJID) : 0;
}

int Client::remove(uint32_t obj, std::vector<Msg>* data) {
    return request(msg(REMOVE_OBJECT, next_seq++, 0, {attr_u32(A_OBJID, obj)}), data);
}

int Client::lookup(const std::optional<std::string>& path, std::vector<Msg>* data) {
    std::vector<Bytes> attrs;
    if (path)
        attrs.push_back(attr_str(A_OBJPATH, *path));
    return request(msg(LOOKUP, next_seq++, 0, attrs), data);
}

Paths Client::list(const std::optional<std::string>& path, int* status) {
    std::vector<Msg> data;
    int st = lookup(path, &data);
    if (status)
        *status = st;
    Paths out;
    for (const Msg& m : data)
        out.push_back(m.str(A_OBJPATH));
    return out;
}

bool Client::wait_gone(const std::string& pattern) {
    for (int i = 0; i < 500; i++) {
        if (lookup(pattern) == 4)
            return true;
        usleep(10000);
    }
    return false;
}

Bytes signature(const std::vector<std::string>& methods) {
    std::vector<Bytes> entries;
    for (const std::string& m : methods)
        entries.push_back(table(m, {}));
    return attr(A_SIGNATURE, cat(entries));
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

} // namespace wire

/* ubus messages byte by byte, for programs that speak the wire protocol themselves and so
 * can write what no libubus would: attributes claiming any length, blobmsg fields of any
 * type, whole messages written to and read from a socket. Everything big-endian, as on the
 * wire. Failing to allocate aborts: these are test programs. */
#ifndef ORVIX_TESTING_WIRE_H
#define ORVIX_TESTING_WIRE_H

#include <stddef.h>
#include <stdint.h>

#ifdef __cplusplus
extern "C" {
#endif

/* Bytes that grow as they are added; zero-initialise, free with wire_buf_free. */
struct wire_buf {
    unsigned char* data;
    size_t len, cap;
};

/* A message as read: its header fields and its blob's attributes. */
struct wire_msg {
    unsigned type, seq;
    uint32_t peer;
    struct wire_buf body;
};

void wire_buf_free(struct wire_buf* b);
void wire_add_bytes(struct wire_buf* b, const void* data, size_t len);

void wire_put_be32(void* p, uint32_t v);
uint32_t wire_get_be32(const void* p);

/* An attribute header holding `flags_id` (extended bit, id or type) and claiming `raw_len`,
 * then `len` bytes of `data`, padded to four bytes. */
void wire_add_raw(struct wire_buf* b, uint32_t flags_id, size_t raw_len, const void* data,
                  size_t len);
/* A plain attribute, its length true. */
void wire_add_attr(struct wire_buf* b, unsigned id, const void* data, size_t len);
void wire_add_u32(struct wire_buf* b, unsigned id, uint32_t v);
/* A blobmsg field: name header, then `len` value bytes, whatever `type` says. */
void wire_add_field(struct wire_buf* b, unsigned type, const char* name, const void* value,
                    size_t len);
void wire_add_string(struct wire_buf* b, const char* name, const char* value);
void wire_add_int32(struct wire_buf* b, const char* name, uint32_t value);
/* A whole message: header, then the blob holding `len` bytes of attributes. */
void wire_add_msg(struct wire_buf* b, unsigned type, unsigned seq, uint32_t peer, const void* attrs,
                  size_t len);

/* Blocking, through EINTR; 0, or -1 once the socket fails or ends. */
int wire_write_all(int fd, const void* data, size_t len);
int wire_read_all(int fd, void* data, size_t len);
int wire_send_msg(int fd, unsigned type, unsigned seq, uint32_t peer, const struct wire_buf* attrs);
/* Reads one whole message into `m`, whose body is reused. */
int wire_read_msg(int fd, struct wire_msg* m);

/* The attribute at `pos` of `len` bytes: its id (flag bit cleared) and the offset of the
 * next one; 0 when none fits there. */
size_t wire_next_attr(const unsigned char* attrs, size_t len, size_t pos, unsigned* id);
/* The payload of the first attribute `id`, or NULL. */
const unsigned char* wire_find_attr(const struct wire_buf* attrs, unsigned id, size_t* len);

#ifdef __cplusplus
}

#include "orvix_testing/hex.h"

#include <optional>
#include <string>
#include <utility>

/* The same in C++, for tests that play a client or the daemon with scripted bytes.
 * Constants are libubus's (ubusmsg.h, blobmsg.h), which the test includes after GoogleTest. */
namespace orvix_testing {

/// A plain attribute, padded.
bytes attr(unsigned id, const bytes& payload);
bytes attr_u32(unsigned id, std::uint32_t v);
bytes attr_str(unsigned id, std::string_view s);
/// The text with its NUL.
bytes str(std::string_view s);
/// A blobmsg field, padded.
bytes field(unsigned type, std::string_view name, const bytes& value);
bytes field_u32(std::string_view name, std::uint32_t v);
bytes field_str(std::string_view name, std::string_view s);
bytes table(std::string_view name, const bytes& fields);
/// Header, then the blob holding `attrs`.
bytes msg(unsigned type, std::uint16_t seq, std::uint32_t peer, const bytes& attrs = {});
/// INVOKE of `method` on `obj`; `extra` follows the method.
bytes invoke(std::uint16_t seq, std::uint32_t peer, std::uint32_t obj, std::string_view method,
             const bytes& extra = {});

/// A message as received, and the descriptor that came with it.
struct frame {
    unsigned type = 0;
    std::uint16_t seq = 0;
    std::uint32_t peer = 0;
    bytes raw;
    std::vector<std::pair<unsigned, bytes>> attrs; // whole attributes, in order
    int fd = -1;

    // Of the last attribute `id`: absent ones read as empty or 0.
    bool has(unsigned id) const;
    bytes whole(unsigned id) const;
    bytes payload(unsigned id) const;
    std::uint32_t u32(unsigned id) const;
    std::string str(unsigned id) const;
};

/// One end of a ubus connection, speaking bytes. A descriptor sent goes with the first
/// bytes; received ones are handed out with the message they came with, and closed with
/// the socket when nobody took them.
class wire_socket {
public:
    explicit wire_socket(int fd = -1) : fd_(fd) {}
    ~wire_socket();
    wire_socket(wire_socket&& other) noexcept;
    wire_socket& operator=(wire_socket&& other) noexcept;

    int fd() const { return fd_; }
    /// False when the other end is gone.
    bool send(const bytes& data, int pass_fd = -1);
    /// The next whole message; nothing if none comes in time or the other end closed.
    std::optional<frame> recv(int timeout_ms = 5000);
    /// Every byte that has arrived, without waiting.
    bytes drain();
    /// True if the other end closes within the time; what arrives meanwhile is dropped.
    bool closed_by_peer(int timeout_ms = 5000);
    void shutdown_write();
    void close();

private:
    bool read_some(int timeout_ms);

    int fd_;
    bytes buffer_;
    std::vector<int> fds_;
};

/// One line of a scripted exchange: client `who` sends (`dir` '>') or next receives ('<')
/// the bytes of `hex`, a pattern as matches_hex reads it.
struct script_line {
    int who;
    char dir;
    const char* hex;
};

/// Plays `script` between `clients` and the daemon; the first difference as text, empty
/// when there is none.
std::string play_script(const std::vector<script_line>& script,
                        const std::vector<wire_socket*>& clients, hex_vars& vars);

/// Throws std::runtime_error when nothing accepts at `path`.
wire_socket connect_unix(const std::string& path);

/// The daemon's side: a listening socket in a private directory.
class wire_listener {
public:
    wire_listener();
    ~wire_listener();
    wire_listener(const wire_listener&) = delete;
    wire_listener& operator=(const wire_listener&) = delete;

    const std::string& path() const { return path_; }
    /// An invalid socket when no client comes in time.
    wire_socket accept(int timeout_ms = 5000);

private:
    std::string dir_, path_;
    int fd_ = -1;
};

/// A client of a bus daemon, with the requests spelled out.
class bus_client : public wire_socket {
public:
    /// Connects and, unless told otherwise, takes the client id from the HELLO.
    explicit bus_client(const std::string& path, bool read_hello = true);

    /// Sends and collects the DATA replies up to the STATUS, whose value it returns
    /// (-1: none came, -2: it had no status).
    int request(const bytes& message, std::vector<frame>* data = nullptr);
    int ping(std::uint16_t seq = 1);
    /// The new object's id, 0 on failure. `type_attr` is the OBJTYPE or SIGNATURE attribute;
    /// `type_id` receives the OBJTYPE reported (0 if none).
    std::uint32_t add_object(const std::string& path, const bytes& type_attr,
                             std::uint32_t* type_id = nullptr, int* status = nullptr);
    std::uint32_t add_anonymous();
    int remove(std::uint32_t obj, std::vector<frame>* data = nullptr);
    int lookup(const std::optional<std::string>& path, std::vector<frame>* data = nullptr);
    std::vector<std::string> list(const std::optional<std::string>& path, int* status = nullptr);
    /// Polls until a lookup of `pattern` finds nothing; false if it never does.
    bool wait_gone(const std::string& pattern);

    std::uint32_t id = 0;
    std::uint16_t next_seq = 100;
};

} // namespace orvix_testing

#endif

#endif

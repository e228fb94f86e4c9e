// Raw ubus wire access for the daemon tests: message building, a socket client that speaks
// bytes, and a fixture owning a private daemon.
#ifndef ORVIX_HOSTBUS_TESTS_WIRE_H
#define ORVIX_HOSTBUS_TESTS_WIRE_H

#include <gtest/gtest.h>

#include <cstdint>
#include <map>
#include <optional>
#include <string>
#include <vector>

#include "test_daemon.h"

namespace wire {

using Bytes = std::vector<uint8_t>;
using Paths = std::vector<std::string>;

enum : uint8_t { HELLO, STATUS, DATA, PING, LOOKUP, INVOKE, ADD_OBJECT, REMOVE_OBJECT };
enum : uint8_t { MONITOR = 11 };
enum : uint8_t { A_STATUS = 1, A_OBJPATH, A_OBJID, A_METHOD, A_OBJTYPE, A_SIGNATURE, A_DATA };
enum : uint8_t { A_USER = 12, A_GROUP };

// "00 01 0a" -> bytes; '|' and whitespace are ignored.
Bytes hex(const std::string& text);
std::string to_hex(const Bytes& bytes);
Bytes be32(uint32_t v);
Bytes cat(const std::vector<Bytes>& parts);

// Plain blob attributes (padded), and blobmsg fields with their name header.
Bytes attr(uint8_t id, const Bytes& payload);
Bytes attr_u32(uint8_t id, uint32_t v);
Bytes attr_str(uint8_t id, const std::string& s);
Bytes field(uint8_t type, const std::string& name, const Bytes& value);
Bytes field_u32(const std::string& name, uint32_t v);
Bytes field_str(const std::string& name, const std::string& s);
Bytes table(const std::string& name, const std::vector<Bytes>& children);

// Header plus top-level blob holding `attrs`.
Bytes msg(uint8_t type, uint16_t seq, uint32_t peer, const std::vector<Bytes>& attrs);
// INVOKE of `method` on `obj` (header peer = obj), with further attributes appended.
Bytes invoke(uint16_t seq, uint32_t obj, const std::string& method,
             const std::vector<Bytes>& extra = {});

struct Msg {
    uint8_t version = 0, type = 0;
    uint16_t seq = 0;
    uint32_t peer = 0;
    Bytes raw;                    // header and blob as received
    std::map<int, Bytes> attrs;   // whole attributes (header included), last one wins
    std::vector<Bytes> attr_list; // in order
    int fd = -1;                  // passed with the message

    bool has(int id) const { return attrs.count(id) != 0; }
    uint32_t u32(int id) const;
    std::string str(int id) const;
    Bytes payload(int id) const;
};

class Client {
public:
    // Connects and, unless told otherwise, reads HELLO into `id`.
    explicit Client(const std::string& socket, bool read_hello = true);
    ~Client();
    Client(const Client&) = delete;
    Client& operator=(const Client&) = delete;

    void send(const Bytes& bytes, int pass_fd = -1);
    // The next message, or nothing if none arrives within the time (or the peer closed).
    std::optional<Msg> recv(int timeout_ms = 5000);
    // True if the daemon closes the connection within the time.
    bool closed_by_peer(int timeout_ms = 5000);
    void close_now();

    // Sends and collects DATA replies up to the STATUS, whose value is returned (-1: none).
    int request(const Bytes& message, std::vector<Msg>* data = nullptr);
    int ping(uint16_t seq = 1) { return request(msg(PING, seq, 0, {})); }
    // Returns the object id (0 on failure); `type_id` receives OBJTYPE (0 if not reported).
    uint32_t add_object(const std::string& path, const Bytes& signature,
                        uint32_t* type_id = nullptr, int* status = nullptr);
    uint32_t add_anonymous();
    int remove(uint32_t obj, std::vector<Msg>* data = nullptr);
    int lookup(const std::optional<std::string>& path, std::vector<Msg>* data = nullptr);
    Paths list(const std::optional<std::string>& path, int* status = nullptr);
    // Polls until a lookup of `pattern` finds nothing; false if it never does.
    bool wait_gone(const std::string& pattern);

    int fd = -1;
    uint32_t id = 0;
    uint16_t next_seq = 100;

private:
    Bytes buffer_;
    std::vector<int> fds_;
};

// Signature with one method per name (each without arguments).
Bytes signature(const std::vector<std::string>& methods);
// The "demo" signature of the reference captures: hello{id: INT32, msg: STRING}, status{}.
Bytes demo_signature();

// The names the daemon reports for the test's account (numeric when there is no entry).
std::string user_name();
std::string group_name();

class DaemonTest : public ::testing::Test {
protected:
    void SetUp() override {
        ASSERT_EQ(test_daemon_start(&daemon_, ORVIX_TEST_UBUSD), 0) << ORVIX_TEST_UBUSD;
    }
    void TearDown() override { test_daemon_cleanup(&daemon_); }
    std::string socket() const { return daemon_.socket; }

    struct test_daemon daemon_ {};
};

} // namespace wire

#endif

// The daemon's side of a libubus connection, played with scripted bytes over a unix socket.
#pragma once

// Standard headers first: libubox's utils.h defines __constructor, a name libstdc++ uses.
#include <cstdint>
#include <string>
#include <thread>
#include <vector>

#include <libubus.h>

using Bytes = std::vector<uint8_t>;

// Hex pairs from text like "00 05 | 0a"; anything that is not a hex digit separates.
Bytes hex(const std::string& text);
std::string hex_of(const void* data, size_t len);
std::string hex_of(const Bytes& bytes);

// Building blocks for messages the test writes itself.
Bytes be32(uint32_t value);
Bytes attr(uint8_t id, const Bytes& payload); // plain blob attribute, padded
Bytes str(const std::string& text);           // with its NUL
Bytes msg(uint8_t type, uint16_t seq, uint32_t peer, const Bytes& attrs);
Bytes operator+(Bytes a, const Bytes& b);

// HELLO announcing client id 0xd328f707 (the capture's).
Bytes default_hello();

class WirePeer {
public:
    WirePeer();
    ~WirePeer();
    WirePeer(const WirePeer&) = delete;
    WirePeer& operator=(const WirePeer&) = delete;

    const char* path() const { return path_.c_str(); }

    // Runs ubus_connect while the next connection is accepted and sent `greeting`; with
    // `close_after` the daemon's end is closed right after that.
    ubus_context* connect(const Bytes& greeting = default_hello(), bool close_after = false);
    // The same for ubus_reconnect of an existing context; `queued` follows the greeting.
    int reconnect(ubus_context* ctx, const Bytes& queued);
    // Runs `connect_fn` while the next connection is accepted and sent `greeting`.
    template <typename F>
    auto accepting(const Bytes& greeting, F connect_fn, bool close_after = false)
        -> decltype(connect_fn()) {
        close_client();
        std::thread daemon([&] {
            client_ = accept_client(greeting);
            if (close_after)
                close_client();
        });
        auto result = connect_fn();
        daemon.join();
        return result;
    }

    void send(const Bytes& bytes);
    void send_with_fd(const Bytes& bytes, int fd);
    // Waits (up to a few seconds) for exactly `n` bytes; fewer are returned on timeout.
    Bytes receive(size_t n, int* fd = nullptr);
    // One whole message: header, blob header, body.
    Bytes receive_msg(int* fd = nullptr);
    // Whatever the client has written so far, without waiting.
    Bytes drain();

    void shutdown_write();
    void close_client();

private:
    int accept_client(const Bytes& greeting);

    std::string dir_;
    std::string path_;
    int listen_fd_ = -1;
    int client_ = -1;
};

// Monitoring as a client: the add/remove calls on object 3 and the reports that follow.
#include "fake_daemon.h"

#include <chrono>

namespace {

Log* monitor_log;

// The report of the daemon's STATUS answering a monitor's add (blob only).
const bytes status_report =
    from_hex("00 00 00 38 | 00 00 00 08 d3 28 f7 07 | 01 00 00 08 00 00 00 03"
             "03 00 00 08 00 00 00 02 | 04 00 00 08 00 00 00 01 | 02 00 00 05 01 00 00 00"
             "05 00 00 0c 01 00 00 08 00 00 00 00");

TEST_F(UbusTest, MonitorReportsArriveAtOnceEvenDuringTheCall) {
    add_demo_object();
    monitor_log = &log;
    ctx->monitor_cb = [](ubus_context*, uint32_t seq, blob_attr* data) {
        monitor_log->push_back("report " + std::to_string(seq) + " " +
                               to_hex(data, blob_raw_len(data)));
    };
    on_call = [&](ubus_context*, ubus_request_data*, const char* method, blob_attr*) {
        log.push_back(std::string("call ") + method);
        return 0;
    };
    // A call arriving first still waits for the end of the synchronous wait; the report
    // does not.
    daemon.client.send(invoke_demo(7, "status") + from_hex("00 0b 01 02 00 00 00 00") +
                       status_report + status_msg(2, 3, 0));
    EXPECT_EQ(ubus_monitor_start(ctx), 0);
    EXPECT_EQ(log, (Log{"report 258 " + to_hex(status_report), "call status"}));
    EXPECT_EQ(daemon.next(), normalized_hex("00 05 00 02 00 00 00 03 | 00 00 00 28"
                                            "03 00 00 08 00 00 00 03 | 04 00 00 08 61 64 64 00"
                                            "07 00 00 14 03 00 00 08 00 00 00 03"
                                            "04 00 00 08 61 64 64 00"));
    daemon.next(); // the call's STATUS

    // Without a callback reports are dropped.
    log.clear();
    ctx->monitor_cb = nullptr;
    daemon.client.send(from_hex("00 0b 00 01 00 00 00 00") + status_report + status_msg(3, 3, 0));
    EXPECT_EQ(ubus_monitor_stop(ctx), 0);
    EXPECT_TRUE(log.empty());
    EXPECT_EQ(daemon.next(), normalized_hex("00 05 00 03 00 00 00 03 | 00 00 00 30"
                                            "03 00 00 08 00 00 00 03"
                                            "04 00 00 0b 72 65 6d 6f 76 65 00 00 | 07 00 00 18"
                                            "03 00 00 08 00 00 00 03"
                                            "04 00 00 0b 72 65 6d 6f 76 65 00 00"));
}

TEST_F(UbusTest, MonitorCallsGiveUpAfterOneSecond) {
    for (int (*command)(ubus_context*) : {ubus_monitor_start, ubus_monitor_stop}) {
        auto start = std::chrono::steady_clock::now();
        EXPECT_EQ(command(ctx), UBUS_STATUS_TIMEOUT);
        auto ms = std::chrono::duration_cast<std::chrono::milliseconds>(
                      std::chrono::steady_clock::now() - start)
                      .count();
        EXPECT_GE(ms, 990);
        // Given up, not waiting for ever: a loaded or emulated machine may take a while.
        EXPECT_LT(ms, 10000);
    }
}

} // namespace

// Connections whose sends go to a file.
#include <gtest/gtest.h>

#include "network/wire.h"
#include "support/support.h"

namespace cm::test {
namespace {

class Stream : public testing::Test {
protected:
    Stream() { EXPECT_EQ(cm_net_init(library, 0, &state), 1); }
    ~Stream() override {
        cm_net_closeall(state);
        cm_net_exit(state);
    }

    uint32_t connections_counted() {
        uint32_t total = 0;
        for (const auto &hour : library.ctx()->perf)
            for (const auto &minute : hour) total += minute[0];
        return total;
    }

    Library library;
    cm_net_state *state = nullptr;
};

TEST_F(Stream, TakesWhatAConnectionTakes) {
    library.folder().write("out", "what was there before and is longer than what follows");
    const std::string path = library.folder().path("out"), file = library.folder().write("in", sample(50000));
    cm_conn *conn = nullptr;
    ASSERT_EQ(cm_net_fopen(state, path.c_str(), &conn), 1);
    EXPECT_STREQ(conn->peer_text, "127.0.0.1");
    EXPECT_EQ(std::string(conn->peer_host, static_cast<size_t>(conn->peer_host_len)), "file-stream");
    EXPECT_EQ(conn->peer_port + conn->local_port, 0u);
    EXPECT_EQ(state->open_count, 1);
    EXPECT_EQ(connections_counted(), 0u);

    EXPECT_EQ(cm_net_send(state, conn, "head\n", CM_LEN_TEXT), 1);
    conn->flags |= CM_CONN_CHUNKED | CM_CONN_GZIP;
    EXPECT_EQ(cm_net_putfile(state, conn, file.c_str(), 0, 0, 0), 1);
    EXPECT_EQ(cm_net_enddata(state, conn), 1);
    EXPECT_EQ(cm_net_putfile(state, conn, file.c_str(), 10, 40009, 0), 1);
    char byte = 0;
    int32_t count = -1;
    EXPECT_EQ(cm_net_read(state, conn, 0, &byte, 1, &count), 0);
    EXPECT_EQ(cm_net_close(state, conn, 1), 1);
    EXPECT_EQ(state->open_count, 0);

    const std::string written = library.folder().read("out");
    const size_t tail = written.size() - 40000;
    EXPECT_EQ(written.substr(0, 5), "head\n");
    EXPECT_TRUE(gunzip(joined(chunks_of(written.substr(5, tail - 5)))) == sample(50000));
    EXPECT_TRUE(written.substr(tail) == sample(50000).substr(10, 40000));
}

TEST_F(Stream, CannotBeMade) {
    cm_conn *conn = nullptr;
    const std::string path = library.folder().path("no/such/folder/out");
    EXPECT_EQ(cm_net_fopen(state, path.c_str(), &conn), 0);
    EXPECT_EQ(conn, nullptr);
    EXPECT_EQ(state->open_count, 0);
    EXPECT_TRUE(library.logged("ERROR: File open of '" + path + "' failed."));

    cm_net_shutdown(state);
    EXPECT_EQ(cm_net_fopen(state, library.folder().path("out").c_str(), &conn), 0);
    const cm_alert_ring &alerts = *library.ctx()->alert_table;
    EXPECT_STREQ(alerts.slot[alerts.last - 1].subject, "stream");
    EXPECT_STREQ(alerts.slot[alerts.last - 1].message, "No connection handles available.");
}

TEST_F(Stream, AFileThatCannotBeWrittenClosesIt) {
    cm_conn *conn = nullptr;
    ASSERT_EQ(cm_net_fopen(state, library.folder().path("out").c_str(), &conn), 1);
    {
        const Faults full(Faults::kFiles, 1, Faults::kNoSpace, Faults::kFromThenOn);
        EXPECT_EQ(cm_net_putdata(state, conn, sample(20000).data(), 20000, 1), 0);
    }
    EXPECT_NE(conn->flags & CM_CONN_CLOSED, 0u);
    EXPECT_EQ(cm_net_putdata(state, conn, "x", 1, 1), 0);
    EXPECT_EQ(cm_net_close(state, conn, 0), 1);
}

TEST_F(Stream, ClosingGivesBackABodyThatWasNeverEnded) {
    const std::string path = library.folder().path("out");
    ASSERT_EQ(cm_free_threads(library), 1);  // the scheduler's would allocate beside the count
    const LeakCheck leaks;
    size_t kept = 0;  // by the first round: the handles that the next ones use again
    for (int i = 0; i < 3; i++) {
        cm_conn *conn = nullptr;
        ASSERT_EQ(cm_net_fopen(state, path.c_str(), &conn), 1);
        conn->flags |= CM_CONN_GZIP;
        const size_t before = leaks.outstanding();
        ASSERT_EQ(cm_net_putdata(state, conn, "text", 4, 1), 1);
        EXPECT_GT(leaks.outstanding(), before + 5);
        ASSERT_EQ(cm_net_close(state, conn, 0), 1);
        if (i == 0) kept = leaks.outstanding();
        EXPECT_EQ(leaks.outstanding(), kept);
        EXPECT_LE(kept, before);
    }
}

}  // namespace
}  // namespace cm::test

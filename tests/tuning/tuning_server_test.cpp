// The tuning server against real TCP clients and a scripted ISP service: the switch file, every
// command and reply byte by byte, the five client slots, clients that leave mid-request and
// malformed requests. "No reply" is checked by ordering, not by waiting: the client sends the
// request that must stay unanswered, then a focus read, and the next bytes it receives must be the
// focus reply.
#include "tuning/tuning_server.h"

#include <gtest/gtest.h>

#include <arpa/inet.h>
#include <netinet/in.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <functional>
#include <memory>
#include <string>
#include <thread>
#include <vector>

#include "af/af_state.h"
#include "base/af_status.h"
#include "base/command_state.h"
#include "isp/af_stat.h"
#include "isp/isp_inputs.h"
#include "isp/isp_link.h"
#include "lens_api/iris.h"
#include "lens_api/lens_position.h"
#include "platform/paths.h"
#include "platform/ports.h"
#include "tests/isp/isp_peer.h"
#include "tests/isp/stat_frame.h"
#include "tests/support/test_env.h"

namespace {

using isptest::Field;
using isptest::IspPeer;
using isptest::StatFrame;
using Bytes = std::vector<uint8_t>;

const IspInputs kInputs = {[] { return uint16_t{0}; }, [] { return uint8_t{3}; }};

bool wait_until(const std::function<bool()>& cond) {
    for (int i = 0; i < 1000; ++i) {
        if (cond())
            return true;
        std::this_thread::sleep_for(std::chrono::milliseconds(5));
    }
    return cond();
}

struct Request {
    uint32_t command = 0, flag = 0;
    int16_t p0 = 0, p1 = 0;
    uint16_t p4 = 0, p5 = 0;

    Bytes bytes() const {
        Bytes b(24, 0);
        const uint32_t v[] = {command, flag, uint16_t(p0), uint16_t(p1), 0, 0, p4, p5};
        const size_t off[] = {0, 4, 8, 10, 12, 14, 16, 18};
        for (int f = 0; f < 8; ++f)
            for (size_t k = 0; k < (f < 2 ? 4u : 2u); ++k)
                b[off[f] + k] = static_cast<uint8_t>(v[f] >> (8 * k));
        return b;
    }
};
const Request kFocusRead{.command = 4, .flag = 1};

class Client {
  public:
    explicit Client(uint16_t port) : fd_(socket(AF_INET, SOCK_STREAM, 0)) {
        const int small = 4096;  // fills quickly when the client does not read
        setsockopt(fd_, SOL_SOCKET, SO_RCVBUF, &small, sizeof small);
        sockaddr_in a{};
        a.sin_family = AF_INET;
        a.sin_port = htons(port);
        a.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
        connect(fd_, reinterpret_cast<sockaddr*>(&a), sizeof a);  // a failure shows at the send
        const timeval tv{5, 0};
        setsockopt(fd_, SOL_SOCKET, SO_RCVTIMEO, &tv, sizeof tv);
    }
    ~Client() { close_now(); }
    Client(const Client&) = delete;
    Client& operator=(const Client&) = delete;

    void send_raw(const Bytes& b) {
        ASSERT_EQ(::send(fd_, b.data(), b.size(), MSG_NOSIGNAL), ssize_t(b.size()));
    }
    void send(const Request& r) { send_raw(r.bytes()); }
    // Exactly n bytes, or fewer when nothing more came within the receive timeout.
    Bytes read(size_t n) {
        Bytes b(n);
        size_t got = 0;
        while (got < n) {
            const ssize_t r = recv(fd_, b.data() + got, n - got, 0);
            if (r <= 0)
                break;
            got += static_cast<size_t>(r);
        }
        b.resize(got);
        return b;
    }
    bool has_data(int ms) {
        pollfd p{fd_, POLLIN, 0};
        return poll(&p, 1, ms) > 0;
    }
    void close_now() {
        if (fd_ >= 0)
            close(fd_);
        fd_ = -1;
    }

  private:
    int fd_;
};

Bytes focus_reply(uint16_t focus) {
    Bytes b(24, 0);
    b[0] = 4;
    b[4] = static_cast<uint8_t>(focus & 0xFF);
    b[5] = static_cast<uint8_t>(focus >> 8);
    return b;
}
const Bytes kGridHeader = {2, 0, 0, 0, 0x84, 0x03, 0, 0, 0, 0, 0, 0,
                           0, 0, 0, 0, 0,    0,    0, 0, 0, 0, 0, 0};

// Per-block statistics, every field and block different so that a wrong grid, a missed mirror
// or a shifted block shows.
uint32_t field_value(Field f, int r, int c) {
    return (static_cast<uint32_t>(f) + 1) * 100000u + static_cast<uint32_t>(r * 15 + c) * 7u;
}

class TuningServerTest : public ::testing::Test {
  protected:
    void SetUp() override {
        platform::set_file_root(root.path().c_str());
        setenv("AFD_TUNING_BIND", "127.0.0.1", 1);
        setenv("AFD_TUNING_PORT", "0", 1);
        setenv("AFD_ISP_ADDR", "127.0.0.1", 1);
        setenv("AFD_ISP_PORT", std::to_string(peer.port()).c_str(), 1);
        platform::reload_ports();
        isp_link_reset_for_testing();
        isp_set_inputs_for_testing(&kInputs);
        StatFrame frame;
        for (Field f : {Field::kLuma, Field::kFirV, Field::kFirH, Field::kIir1, Field::kIir2,
                        Field::kHighlight})
            for (int i = 0; i < 225; ++i)
                frame.set(f, i / 15, i % 15, field_value(f, i / 15, i % 15));
        peer.set_frame(frame.bytes());
        testsupport::capture_stdout([] {
            ASSERT_EQ(socket_to_soc_init(), 0);
            ASSERT_EQ(isp_af_attr_setup(), 0);
            ASSERT_EQ(Get_ISP_VD(), 0);
        });
        lens_set_positions(5000, 0x0A1B);
        tuning_set_poll_us_for_testing(5000);
    }
    void TearDown() override {
        tuning_server_stop_for_testing();
        tuning_set_poll_us_for_testing(0);
        isp_link_reset_for_testing();
        isp_set_inputs_for_testing(nullptr);
        lens_position_reset_for_testing();
        for (const char* v : {"AFD_TUNING_BIND", "AFD_TUNING_PORT", "AFD_ISP_ADDR", "AFD_ISP_PORT"})
            unsetenv(v);
        platform::reload_ports();
        platform::set_file_root(nullptr);
    }

    void create_switch_file() { std::fclose(std::fopen(root.host("/dev/af_debug").c_str(), "w")); }
    uint16_t start_server() {
        create_switch_file();
        EXPECT_EQ(win_socket_start(), 0);
        EXPECT_TRUE(wait_until([] { return tuning_server_port() != 0; }));
        return tuning_server_port();
    }
    static void expect_focus_reply(Client& c) { EXPECT_EQ(c.read(24), focus_reply(0x0A1B)); }

    testsupport::SandboxRoot root;
    IspPeer peer;
};

TEST_F(TuningServerTest, ListensOnlyOnceTheSwitchFileExistsAndKeepsServingWhenItGoes) {
    ASSERT_EQ(win_socket_start(), 0);
    // Several polls go by without the file: nothing is listening.
    std::this_thread::sleep_for(std::chrono::milliseconds(50));
    EXPECT_EQ(tuning_server_port(), 0);

    create_switch_file();
    ASSERT_TRUE(wait_until([] { return tuning_server_port() != 0; }));
    Client first(tuning_server_port());
    first.send(kFocusRead);
    expect_focus_reply(first);

    std::remove(root.host("/dev/af_debug").c_str());
    Client second(tuning_server_port());
    second.send(kFocusRead);
    expect_focus_reply(second);
}

TEST_F(TuningServerTest, GridRequestSendsTheMirroredGridOfEachSelector) {
    Client c(start_server());
    // The filter sums of the first block row and column are not valid and read 0.
    auto filt = [](Field f, int r, int c) { return r == 0 || c == 0 ? 0u : field_value(f, r, c); };
    const std::function<uint32_t(int, int)> expected[8] = {
        [&](int r, int c) {
            return (filt(Field::kFirV, r, c) + filt(Field::kIir1, r, c)) / 2 + 50;
        },
        [&](int r, int c) { return (filt(Field::kFirH, r, c) + filt(Field::kIir2, r, c)) / 2; },
        [&](int r, int c) { return filt(Field::kIir1, r, c); },
        [&](int r, int c) { return filt(Field::kFirV, r, c); },
        [&](int r, int c) { return filt(Field::kIir2, r, c); },
        [&](int r, int c) { return filt(Field::kFirH, r, c); },
        [&](int r, int c) { return field_value(Field::kLuma, r, c); },
        [&](int r, int c) { return field_value(Field::kHighlight, r, c); },
    };
    for (int16_t sel = 0; sel < 8; ++sel) {
        SCOPED_TRACE(sel);
        c.send({.command = 1, .p0 = sel});
        EXPECT_EQ(c.read(24), kGridHeader);
        const Bytes grid = c.read(900);
        ASSERT_EQ(grid.size(), 900u);
        for (int r = 0; r < 15; ++r)
            for (int col = 0; col < 15; ++col) {
                const uint32_t want = expected[sel](r, 14 - col);
                const size_t o = 4 * static_cast<size_t>(r * 15 + col);
                const uint32_t got = grid[o] | grid[o + 1] << 8 | grid[o + 2] << 16 |
                                     static_cast<uint32_t>(grid[o + 3]) << 24;
                ASSERT_EQ(got, want) << "block " << r << "," << col;
            }
    }
}

TEST_F(TuningServerTest, GridGoesToEveryClientAndFocusOnlyToTheRequester) {
    const uint16_t port = start_server();
    Client a(port), b(port);
    ASSERT_TRUE(wait_until([] { return tuning_clients_in_use() == 2; }));
    a.send({.command = 1, .p0 = 6});
    for (Client* c : {&a, &b}) {
        EXPECT_EQ(c->read(24), kGridHeader);
        EXPECT_EQ(c->read(900).size(), 900u);
    }
    b.send(kFocusRead);
    expect_focus_reply(b);
    // a got nothing from b's focus read: its next bytes answer its own read.
    a.send(kFocusRead);
    expect_focus_reply(a);
}

TEST_F(TuningServerTest, FilterCommandWritesTheParametersIntoTheIspRecord) {
    Client c(start_server());
    peer.clear_log();
    c.send({.command = 2, .p0 = -2, .p1 = 300, .p4 = 0x1234, .p5 = 0xAB56});
    c.send(kFocusRead);  // no reply of its own: the focus reply comes first
    expect_focus_reply(c);
    ASSERT_TRUE(wait_until([&] { return !peer.set_payloads().empty(); }));
    const Bytes rec = peer.set_payloads().back();
    EXPECT_EQ(Bytes(rec.begin() + 226, rec.begin() + 234),
              (Bytes{0xFE, 0xFF, 0x2C, 0x01, 0x34, rec[231], 0x56, rec[233]}));
}

TEST_F(TuningServerTest, StatusCommandReportsTheAutofocusToTheRequester) {
    const uint16_t port = start_server();
    Client c(port), other(port);
    g_afState = 1;
    g_search.searchPhase = 3;
    g_search.searchDir = 2;
    g_focusValue.fvHist[0] = 0x01020304;
    command_set_autofocus_mode(2);
    command_set_calibration_mode(4);
    iris_set_mode(0);
    iris_note_driven(0x0777);
    c.send({.command = 3});
    const Bytes head = c.read(24);
    const Bytes st = c.read(16);
    EXPECT_EQ(head,
              (Bytes{3, 0, 0, 0, 16, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0}));
    EXPECT_EQ(st, (Bytes{1, 3, 2, 2, 4, 3, 2, 1, 0x88, 0x13, 0x1B, 0x0A, 0x77, 0x07, 0, 4}));
    other.send(kFocusRead);  // the status went to the requester only
    expect_focus_reply(other);
    focus_value_reset_for_testing();
    command_set_autofocus_mode(1);
    command_set_calibration_mode(0);
    iris_reset_for_testing();
    g_afState = 0;
}

TEST_F(TuningServerTest, MalformedAndReplylessRequestsAreAnsweredByNothing) {
    const uint16_t port = start_server();
    Client c(port);
    for (const Request& r : {Request{.command = 0}, Request{.command = 4, .flag = 0},
                             Request{.command = 4, .flag = 2}, Request{.command = 77},
                             Request{.command = 1, .p0 = 8}, Request{.command = 1, .p0 = -1}}) {
        c.send(r);
        c.send(kFocusRead);
        expect_focus_reply(c);
    }
    {
        // Garbage of unknown commands (a grid reply to everyone would be a right answer), ending
        // mid-request.
        Client bad(port);
        Bytes junk(24 * 40 + 5);
        for (size_t i = 0; i < junk.size(); ++i)
            junk[i] = static_cast<uint8_t>(i % 24 == 3 ? 0xFF : i * 37 + 11);
        bad.send_raw(junk);
    }
    c.send(kFocusRead);
    expect_focus_reply(c);
    ASSERT_TRUE(wait_until([] { return tuning_clients_in_use() == 1; }));
}

TEST_F(TuningServerTest, AClientThatStopsReadingIsDisconnectedNotWaitedFor) {
    const uint16_t port = start_server();
    Client reader(port), stalled(port);
    ASSERT_TRUE(wait_until([] { return tuning_clients_in_use() == 2; }));
    // The stalled client never reads: once its buffers are full, the grids broadcast to it
    // would block the reader's thread for good.
    for (int i = 0; i < 20000 && tuning_clients_in_use() == 2; ++i) {
        reader.send({.command = 1, .p0 = 6});
        ASSERT_EQ(reader.read(24), kGridHeader) << "request " << i;
        ASSERT_EQ(reader.read(900).size(), 900u);
    }
    EXPECT_EQ(tuning_clients_in_use(), 1);
    reader.send(kFocusRead);
    expect_focus_reply(reader);
}

TEST_F(TuningServerTest, SixthClientWaitsForAFreeSlot) {
    const uint16_t port = start_server();
    std::vector<std::unique_ptr<Client>> five;
    for (int i = 0; i < 5; ++i) {
        five.push_back(std::make_unique<Client>(port));
        five.back()->send(kFocusRead);
        expect_focus_reply(*five.back());
    }
    EXPECT_EQ(tuning_clients_in_use(), 5);
    Client sixth(port);
    sixth.send(kFocusRead);  // connected: it waits in the listen queue
    // Twenty slot polls later it is still not served.
    EXPECT_FALSE(sixth.has_data(100));
    EXPECT_EQ(tuning_clients_in_use(), 5);

    five[2]->close_now();
    expect_focus_reply(sixth);
    for (int i : {0, 1, 3, 4}) {
        five[i]->send(kFocusRead);
        expect_focus_reply(*five[i]);
    }
}

TEST_F(TuningServerTest, RequestsAreReadWholeAndALeavingClientFreesItsSlot) {
    const uint16_t port = start_server();
    Client stays(port);
    // A request split across segments is one request.
    const Bytes focus = kFocusRead.bytes();
    stays.send_raw(Bytes(focus.begin(), focus.begin() + 10));
    ASSERT_FALSE(stays.has_data(20));
    stays.send_raw(Bytes(focus.begin() + 10, focus.end()));
    expect_focus_reply(stays);
    {
        Client leaves(port);
        ASSERT_TRUE(wait_until([] { return tuning_clients_in_use() == 2; }));
        const Bytes req = Request{.command = 1, .p0 = 0}.bytes();
        leaves.send_raw(Bytes(req.begin(), req.begin() + 7));
    }
    ASSERT_TRUE(wait_until([] { return tuning_clients_in_use() == 1; }));
    // The partial grid request was dropped, not completed by anyone else's bytes.
    stays.send(kFocusRead);
    expect_focus_reply(stays);
    // The freed slot takes a new client.
    Client next(port);
    next.send(kFocusRead);
    expect_focus_reply(next);
}

}  // namespace

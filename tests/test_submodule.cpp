// Submodules.
#include <cstddef>
#include <mutex>
#include <regex>
#include <thread>

#include "stand_ins.h"

namespace {

using namespace frwk_test;

static_assert(offsetof(frwk_submodule_msg_t, node) == 0 && offsetof(frwk_submodule_msg_t, to) == 2 * sizeof(void *) &&
              offsetof(frwk_submodule_msg_t, from) == 2 * sizeof(void *) + 4 &&
              offsetof(frwk_submodule_msg_t, msg) == 2 * sizeof(void *) + 8 &&
              offsetof(frwk_submodule_msg_t, len) == 2 * sizeof(void *) + 12 &&
              offsetof(frwk_submodule_msg_t, data) == 2 * sizeof(void *) + 16);
static_assert(FRWK_SUBMODULE_MIN == 0 && FRWK_SUBMODULE_MAX == 8);

std::mutex guard;
Texts received; // "to from msg len data"

void record(frwk_submodule_msg_t *msg)
{
    std::lock_guard<std::mutex> lock(guard);
    received.push_back(std::to_string(msg->to) + " " + std::to_string(msg->from) + " " + std::to_string(msg->msg) +
                       " " + std::to_string(msg->len) + " " +
                       std::string(reinterpret_cast<char *>(msg->data), static_cast<size_t>(msg->len)));
    free(msg);
}

Texts wait_for_messages(size_t count)
{
    const auto all = [] {
        std::lock_guard<std::mutex> lock(guard);
        return received;
    };
    wait_until([&] { return all().size() >= count; });
    return all();
}

TEST(Submodule, DeliversWhatWasSent)
{
    trace_all();
    frwk_submodule_create(0, record);
    frwk_submodule_create(7, record);
    char data[] = "data";
    EXPECT_EQ(0, frwk_submodule_send(0xffffffff, 0, 0x80000000, data, 4));
    memset(data, 'x', 4); // a copy was taken
    wait_for_messages(1);
    EXPECT_EQ(0, frwk_submodule_send(3, 7, 0, nullptr, 0));
    EXPECT_EQ(0, frwk_submodule_send(3, 7, 1, data, 0));
    const struct {
        uint32_t to;
        int32_t len;
        int result;
        std::string trace;
    } rows[] = {{8, 0, 3, "error|Invalid submodule to=8"},
                {8, -1, 3, "error|Invalid submodule to=8"},
                {0xffffffff, 0, 3, "error|Invalid submodule to=-1"},
                {6, 4, 7, "error|Submodule to=6 is not created"},
                {0, -1, 3, "error|Invalid message length=-1"},
                {0, INT32_MIN, 3, "error|Invalid message length=-2147483648"}};
    for (const auto &row : rows) {
        Capture out;
        EXPECT_EQ(row.result, frwk_submodule_send(1, row.to, 1, "data", row.len));
        EXPECT_EQ(Texts({row.trace}), said(out.traces()));
    }
    EXPECT_EQ(0, frwk_submodule_send(1, 7, 2, nullptr, 0));
    EXPECT_EQ(Texts({"0 4294967295 2147483648 4 data", "7 3 0 0 ", "7 3 1 0 ", "7 1 2 0 "}), wait_for_messages(4));
}

TEST(Submodule, KeepsTheOrderOfEachSender)
{
    constexpr uint32_t SENDERS = 4, MESSAGES = 2000;
    static uint32_t next[SENDERS];
    static std::atomic<uint32_t> count{0};
    static std::atomic<bool> inside{false};
    frwk_submodule_create(5, [](frwk_submodule_msg_t *msg) {
        EXPECT_FALSE(inside.exchange(true)) << "one at a time";
        EXPECT_EQ(next[msg->from]++, msg->msg);
        inside = false;
        free(msg);
        count++;
    });
    std::vector<std::thread> threads;
    for (uint32_t sender = 0; sender < SENDERS; sender++) {
        threads.emplace_back([sender] {
            for (uint32_t i = 0; i < MESSAGES; i++) {
                ASSERT_EQ(0, frwk_submodule_send(sender, 5, i, &i, sizeof i));
            }
        });
    }
    for (std::thread &thread : threads) {
        thread.join();
    }
    EXPECT_TRUE(wait_until([] { return count == SENDERS * MESSAGES; })) << count;
    usleep(20000);
    EXPECT_EQ(SENDERS * MESSAGES, count) << "each once";
}

TEST(Submodule, SendsToItselfAndNeverWaits)
{
    static Texts steps;
    static std::atomic<bool> done{false};
    frwk_submodule_create(1, [](frwk_submodule_msg_t *msg) {
        steps.push_back("begin " + std::to_string(msg->msg));
        if (msg->msg == 0) {
            EXPECT_EQ(0, frwk_submodule_send(1, 1, 1, nullptr, 0));
            EXPECT_EQ(0, frwk_submodule_send(1, 1, 2, nullptr, 0));
        }
        steps.push_back("end " + std::to_string(msg->msg));
        done = msg->msg == 2;
        free(msg);
    });
    frwk_submodule_create(2, [](frwk_submodule_msg_t *msg) {
        free(msg);
        wait_until([] { return exists(RELEASE_FILE); });
    });
    for (int i = 0; i < 1000; i++) {
        ASSERT_EQ(0, frwk_submodule_send(0, 2, 0, "x", 1)) << "one that is stuck takes all there is";
    }
    ASSERT_EQ(0, frwk_submodule_send(1, 1, 0, nullptr, 0));
    ASSERT_TRUE(wait_until([] { return done.load(); })) << "while another is stuck";
    EXPECT_EQ(Texts({"begin 0", "end 0", "begin 1", "end 1", "begin 2", "end 2"}), steps);
    release();
}

TEST(Submodule, CreateEndsTheProcessOnMisuse)
{
    const std::string arguments = "(NULL != cb) && (FRWK_SUBMODULE_MIN <= sid) && (FRWK_SUBMODULE_MAX > sid)";
    const struct {
        uint32_t sid;
        frwk_submodule_cb_t cb;
        std::string text;
    } rows[] = {{8, record, arguments},
                {0xffffffff, record, arguments},
                {1, nullptr, arguments},
                {0, record, "NULL == smt->cb"},
                {1, record, "FRWK_THREAD_INVALID != tid"}};
    for (const auto &row : rows) {
        const Result child = run_child([&] {
            ASSERT_EQ(0, frwk_module_init(FRWK_MODULE_LOGTOOL, nullptr));
            frwk_submodule_create(0, record);
            fail_threads = true;
            frwk_submodule_create(row.sid, row.cb);
        });
        expect_assertion(child, "logtool", row.text);
    }
}

} // namespace

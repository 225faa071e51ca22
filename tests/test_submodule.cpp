/* SPDX-FileCopyrightText: 2026 the libfrwk authors */
/* SPDX-License-Identifier: MIT */

// Submodules.
#include "frwk_test.h"

#include <thread>

namespace {

using Message = std::tuple<uint32_t, uint32_t, uint32_t, std::string>; // to, from, msg, data

std::vector<Message> received; // one message is on its way at a time
std::atomic<size_t> count{0};

void record(frwk_submodule_msg_t *msg)
{
    received.emplace_back(msg->to, msg->from, msg->msg, std::string(msg->data, msg->data + msg->len));
    free(msg);
    count++;
}

TEST(Submodule, DeliversWhatWasSent)
{
    trace_all();
    frwk_submodule_create(0, record);
    frwk_submodule_create(7, record);
    char data[] = "data";
    EXPECT_EQ(0, frwk_submodule_send(0xffffffff, 0, 0x80000000, data, 4));
    memset(data, 'x', 4); // a copy was taken
    wait_until([] { return count == 1; });
    EXPECT_EQ(0, frwk_submodule_send(3, 7, 1, nullptr, 0));
    Capture out;
    EXPECT_EQ(3, frwk_submodule_send(1, 8, 1, data, -1));
    EXPECT_EQ(7, frwk_submodule_send(1, 6, 1, data, 4));
    EXPECT_EQ(3, frwk_submodule_send(1, 0, 1, data, -1));
    EXPECT_EQ(Texts({"error|Invalid submodule to=8", "error|Submodule to=6 is not created",
                     "error|Invalid message length=-1"}),
              out.lines());
    EXPECT_TRUE(wait_until([] { return count == 2; }));
    EXPECT_EQ(std::vector<Message>({{0, 0xffffffff, 0x80000000, "data"}, {7, 3, 1, ""}}), received);
    const auto arguments =
        assertion("unknown", "(NULL != cb) && (FRWK_SUBMODULE_MIN <= sid) && (FRWK_SUBMODULE_MAX > sid)");
    EXPECT_DEATH(frwk_submodule_create(8, record), arguments);
    EXPECT_DEATH(frwk_submodule_create(1, nullptr), arguments);
    EXPECT_DEATH(frwk_submodule_create(0, record), assertion("unknown", "NULL == smt->cb"));
}

TEST(Submodule, KeepsTheOrderOfEachSender)
{
    constexpr uint32_t SENDERS = 4, MESSAGES = 20000;
    static uint32_t next[SENDERS];
    static std::atomic<bool> inside{false};
    frwk_submodule_create(5, [](frwk_submodule_msg_t *msg) {
        EXPECT_FALSE(inside.exchange(true)) << "one at a time";
        EXPECT_EQ(next[msg->from]++, msg->msg);
        inside = false;
        if (msg->msg == MESSAGES - 1) { // its own messages go behind the others, and it never waits
            EXPECT_EQ(0, frwk_submodule_send(msg->from, 5, MESSAGES, nullptr, 0));
        }
        free(msg);
        count++;
    });
    frwk_submodule_create(2, [](frwk_submodule_msg_t *msg) {
        free(msg);
        frwk_keep_running();
    });
    std::vector<std::thread> threads;
    for (uint32_t sender = 0; sender < SENDERS; sender++) {
        threads.emplace_back([sender] {
            for (uint32_t i = 0; i < MESSAGES; i++) {
                ASSERT_EQ(0, frwk_submodule_send(sender, 5, i, &i, sizeof i));
            }
        });
    }
    for (int i = 0; i < 1000; i++) {
        ASSERT_EQ(0, frwk_submodule_send(0, 2, 0, nullptr, 0)) << "one that is stuck takes all there is";
    }
    for (std::thread &thread : threads) {
        thread.join();
    }
    EXPECT_TRUE(wait_until([] { return count == SENDERS * (MESSAGES + 1); })) << count;
}

} // namespace

/* SPDX-FileCopyrightText: 2026 the libfrwk authors */
/* SPDX-License-Identifier: MIT */

#include "frwk_test.h"

namespace {

TEST(String, LosesLineEndsAndBlanks)
{
    using End = std::tuple<std::string, int, const char *>; // text, length, what is left
    const End ends[] = {
        {"ok\r\n", 4, "ok"}, {"\r\n", 2, ""}, {"ok\n", 0, "ok\n"}, {"a\nb", 3, "a\nb"}, {"ab\n", 4, "ab\n"}};
    for (auto [text, n, left] : ends) {
        EXPECT_EQ(n > 0 ? text.data() : nullptr, frwk_skip_end_crlf(text.data(), n)) << text;
        EXPECT_STREQ(left, text.c_str());
    }
    using Blank = std::tuple<const char *, int, int>; // text, where the two calls lead, -1: nowhere
    const Blank blanks[] = {{" \t x", 3, 3}, {"   ", 3, 3},         {"", 0, -1},     {"x", 0, -1},
                            {"set ", 0, 4},  {"set \tlevel", 0, 5}, {"  set", 2, 2}, {"\n\v x", 0, 3}};
    for (auto [text, space, next] : blanks) {
        EXPECT_EQ(text + space, frwk_skip_space(text)) << text;
        EXPECT_EQ(next < 0 ? nullptr : text + next, frwk_skip_next_space(text)) << text;
    }
    EXPECT_TRUE(!frwk_skip_end_crlf(nullptr, 3) && !frwk_skip_space(nullptr) && !frwk_skip_next_space(nullptr));
}

TEST(String, PicksBetweenMarkers)
{
    static const struct {
        const char *src, *start, *end;
        int size, rc;
        const char *out, *message;
    } rows[] = {
        {"key=[value];", "[", "]", 6, 1, "value", nullptr},
        {"key=[value];", "[", "]", 5, 0, "", "frwk_str_pick: buffer not big enough(5/5)!"},
        {"key", "", "", 0, 0, "~", "frwk_str_pick: buffer not big enough(0/3)!"},
        {"key=[value];", nullptr, ";", 16, 1, "key=[value]", nullptr},
        {"key=[value];", "", nullptr, 13, 1, "key=[value];", nullptr},
        {"a]b[c]d", "[", "]", 9, 1, "c", nullptr}, // the end counts behind the start only
        {"key", "=", "", 9, 0, "", nullptr},
        {"key=v", "=", ";", 9, 0, "", nullptr},
    };
    for (const auto &row : rows) {
        char out[32] = "~";
        EXPECT_EQ(row.message != nullptr ? Texts{row.message} : Texts{},
                  said([&] { EXPECT_EQ(row.rc, frwk_str_pick(row.src, row.start, row.end, out, row.size)); }));
        EXPECT_STREQ(row.out, out) << row.src;
    }
}

TEST(Buffer, GrowsByMoreThanAsked)
{
    using Case = std::tuple<int, int, int, int>; // bytes in use, bytes to come, size when grown as needed and always
    const Case cases[] = {
        {0, 4095, 4096, 8192}, {0, 4096, 12288, 12288}, {4095, 1, 8192, 8192}, {4096, -9999, 4096, 8192}};
    for (auto [len, n, size, size_ex] : cases) {
        frwk_buffer_t bf;
        ASSERT_EQ(1, frwk_buffer_init(&bf));
        bf.len = len;
        EXPECT_EQ(1, frwk_buffer_grow(&bf, n));
        EXPECT_TRUE(bf.size == size && bf.len == len) << bf.size << " for " << n;
        frwk_buffer_free(&bf);
        EXPECT_TRUE(bf.size == 0 && bf.len == 0 && bf.bp == nullptr);
        ASSERT_EQ(1, frwk_buffer_init(&bf));
        memset(bf.bp, 'x', 4096);
        EXPECT_EQ(1, frwk_buffer_grow_ex(&bf, n));
        EXPECT_EQ(std::string(4096, 'x') + std::string(static_cast<size_t>(size_ex) - 4096, '\0'),
                  std::string(reinterpret_cast<char *>(bf.bp), static_cast<size_t>(bf.size)));
        frwk_buffer_free(&bf);
    }
    frwk_buffer_t bf;
    ASSERT_EQ(1, frwk_buffer_init(&bf));
    EXPECT_DEATH((fault_after(1, {"malloc", ENOMEM}), frwk_buffer_grow(&bf, 5000)),
                 assertion("unknown", "NULL != bf->bp"));
    frwk_buffer_free(&bf);
}

TEST(FileValue, IsWrittenAndReadWhole)
{
    const char path[] = "/tmp/value";
    EXPECT_EQ(0, frwk_file_size(path));
    EXPECT_EQ(0, frwk_set_file_value(path, "longer value", 12));
    EXPECT_EQ(0, frwk_set_file_value(path, "va\0lue", 6));
    EXPECT_EQ(6, frwk_file_size(path));
    char out[8] = "~~~~~~~";
    EXPECT_EQ(0, frwk_get_file_value(path, out, 7));
    EXPECT_EQ(std::string("va\0lue~", 7), std::string(out, 7));
    EXPECT_EQ(-1, frwk_get_file_value("/dev/null", out, 4)) << "nothing to read";
    close(0);
    EXPECT_EQ(-1, frwk_set_file_value(path, "1", 1)) << "a descriptor 0 counts as none";
}

} // namespace

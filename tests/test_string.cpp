#include <fcntl.h>
#include <sys/stat.h>

#include <cerrno>
#include <filesystem>

#include "text_test.h"

using namespace text_test;
using frwk_test::contains;

namespace {

constexpr size_t BIG_STACK = 1 << 20;

TEST(String, StripsLineEnds)
{
    static const struct {
        std::string text;
        int n;
        std::string left; // up to the first 0
    } cases[] = {{"ok\r\n", 4, "ok"}, {"\r\n", 2, ""},       {"ok\n", 0, "ok\n"}, {"ok\n", -1, "ok\n"},
                 {"a\nb", 3, "a\nb"}, {"a\n\n\r\n", 5, "a"}, {"ab\n", 4, "ab\n"}, {"ab\n\n", 3, "ab"}};
    for (const auto &c : cases) {
        std::string text = c.text;
        EXPECT_EQ(c.n > 0 ? text.data() : nullptr, frwk_skip_end_crlf(text.data(), c.n)) << c.text;
        EXPECT_STREQ(c.left.c_str(), text.c_str());
    }
    EXPECT_EQ(nullptr, frwk_skip_end_crlf(nullptr, 3));
}

TEST(String, SkipsBlanks)
{
    static const struct {
        const char *text;
        int space; // where frwk_skip_space() leads
        int next;  // where frwk_skip_next_space() does, -1: nowhere
    } cases[] = {{" \t x", 3, 3},      {"   ", 3, 3},  {"", 0, -1},     {"x", 0, -1},    {"set  level", 0, 5},
                 {"set\tlevel", 0, 4}, {"set ", 0, 4}, {"  set", 2, 2}, {"\n\v x", 0, 3}};
    for (const auto &c : cases) {
        EXPECT_EQ(c.text + c.space, frwk_skip_space(c.text)) << c.text;
        EXPECT_EQ(c.next < 0 ? nullptr : c.text + c.next, frwk_skip_next_space(c.text)) << c.text;
    }
    EXPECT_EQ(nullptr, frwk_skip_space(nullptr));
    EXPECT_EQ(nullptr, frwk_skip_next_space(nullptr));
}

TEST(String, PicksBetweenMarkers)
{
    static const struct {
        const char *src, *start, *end;
        int size;
        int rc;
        const char *out;
        const char *message;
    } cases[] = {
        {"key=[value];", "[", "]", 6, 1, "value", nullptr},
        {"key=[value];", "[", "]", 5, 0, "", "frwk_str_pick: buffer not big enough(5/5)!"},
        {"key=[value];", nullptr, ";", 16, 1, "key=[value]", nullptr},
        {"key=[value];", "", "", 13, 1, "key=[value];", nullptr},
        {"key=[value];", "=", nullptr, 3, 0, "", "frwk_str_pick: buffer not big enough(3/8)!"},
        {"a]b[c]d", "[", "]", 9, 1, "c", nullptr}, // the end counts behind the start only
        {"xx", "x", "x", 9, 1, "", nullptr},
        {"key", "=", "", 9, 0, "", nullptr},
        {"key=v", "=", ";", 9, 0, "", nullptr},
        {"key", "", "", 0, 0, "~", nullptr},
        {"key", "", "", -1, 0, "~", nullptr},
    };
    for (const auto &c : cases) {
        char out[32] = "~";
        EXPECT_EQ(c.message != nullptr ? Texts{c.message} : Texts{},
                  said([&] { EXPECT_EQ(c.rc, frwk_str_pick(c.src, c.start, c.end, out, c.size)); }));
        EXPECT_STREQ(c.out, out) << c.src;
    }
}

TEST(String, Copies)
{
    const char *sources[] = {nullptr, "", "text"};
    for (const char *source : sources) {
        char *copy = frwk_strdup(source);
        EXPECT_STREQ(source != nullptr ? source : "", copy);
        free(copy);
    }
    if (!SANITIZED) {
        allocations_left = 1;
        EXPECT_EQ(nullptr, frwk_strdup("x"));
    }
}

TEST(Buffer, GrowsByMoreThanAsked)
{
    static const struct {
        int len, n, size, size_ex;
    } cases[] = {{0, 10, 4096, 8192},    {0, 4095, 4096, 8192},     {0, 4096, 12288, 12288}, {0, 8191, 12288, 12288},
                 {1, 4095, 8192, 8192},  {0, 8192, 16384, 16384},   {4095, 1, 8192, 8192},   {4095, 0, 4096, 8192},
                 {4096, -1, 4096, 8192}, {4096, -9999, 4096, 8192}, {4096, 0, 8192, 8192}};
    for (const auto &c : cases) {
        frwk_buffer_t bf;
        ASSERT_EQ(1, frwk_buffer_init(&bf));
        memset(bf.bp, 'x', 4096);
        bf.len = c.len;
        EXPECT_EQ(1, frwk_buffer_grow(&bf, c.n));
        EXPECT_EQ(c.size, bf.size) << c.len << " " << c.n;
        EXPECT_EQ(c.len, bf.len);
        frwk_buffer_free(&bf);

        ASSERT_EQ(1, frwk_buffer_init(&bf));
        memset(bf.bp, 'x', 4096);
        bf.len = c.len;
        EXPECT_EQ(1, frwk_buffer_grow_ex(&bf, c.n));
        EXPECT_EQ(c.size_ex, bf.size) << c.n;
        EXPECT_EQ(std::string(4096, 'x') + std::string(static_cast<size_t>(bf.size) - 4096, '\0'),
                  std::string(reinterpret_cast<char *>(bf.bp), static_cast<size_t>(bf.size)));
        frwk_buffer_free(&bf);
        frwk_buffer_free(&bf);
        EXPECT_TRUE(bf.size == 0 && bf.len == 0 && bf.bp == nullptr);
    }
    frwk_buffer_free(nullptr);
}

TEST(Buffer, ThatCannotGrowEndsTheProcess)
{
    static const struct {
        const char *func;
        int (*grow)(frwk_buffer_t *, int);
    } cases[] = {{"frwk_buffer_grow", frwk_buffer_grow}, {"frwk_buffer_grow_ex", frwk_buffer_grow_ex}};
    for (const auto &c : cases) {
        for (int refused = 0; refused <= (SANITIZED ? 0 : 1); refused++) {
            frwk_test::Result result = frwk_test::run_child([&] {
                frwk_buffer_t bf = {refused ? 0 : INT_MAX - 4095, 0, nullptr}; // no room in the size word
                bf.len = bf.size;
                allocations_left = refused ? 1 : INT_MAX;
                c.grow(&bf, INT_MAX - 4095);
            });
            EXPECT_TRUE(result.aborted()) << result;
            EXPECT_TRUE(contains(result.err, std::string("ASSERT(frwk_common_string.cpp|") + c.func + "|")) << result;
            EXPECT_TRUE(contains(result.err, "), NULL != bf->bp\n")) << result;
        }
    }
    if (!SANITIZED) {
        frwk_buffer_t bf;
        EXPECT_EQ(Texts{"frwk_buffer_init: init buffer[4096] failed!"}, said([&] {
                      allocations_left = 1;
                      EXPECT_EQ(0, frwk_buffer_init(&bf));
                  }));
        EXPECT_EQ(0, bf.size);
    }
}

TEST(FileValue, IsWrittenAndReadWhole)
{
    const std::string path = "/tmp/value";
    EXPECT_EQ(0, frwk_file_size(path.c_str()));
    umask(022);
    EXPECT_EQ(Texts{}, said([&] {
                  EXPECT_EQ(0, frwk_set_file_value(path.c_str(), "longer value", 12));
                  EXPECT_EQ(0, frwk_set_file_value(path.c_str(), "va\0lue", 6));
              }));
    EXPECT_EQ(std::string("va\0lue", 6), frwk_test::read_file(path));
    EXPECT_EQ(6, frwk_file_size(path.c_str()));
    struct stat info;
    ASSERT_EQ(0, stat(path.c_str(), &info));
    EXPECT_EQ(0644u, info.st_mode & 07777);

    char out[8] = "~~~~~~~";
    EXPECT_EQ(0, frwk_get_file_value(path.c_str(), out, 2));
    EXPECT_STREQ("va~~~~~", out);
    EXPECT_EQ(0, frwk_get_file_value(path.c_str(), out, 7));
    EXPECT_EQ(std::string("va\0lue~", 7), std::string(out, 7));
}

TEST(FileValue, FailuresAreReported)
{
    int fds = frwk_test::count_fds(getpid());
    frwk_test::write_file("/tmp/empty", "");
    char out[4];
    EXPECT_EQ((Texts{"frwk_get_file_value: open /tmp/none/x fialed!", "frwk_set_file_value: open /tmp/none/x fialed!",
                     "frwk_get_file_value: read /tmp/empty fialed! ret is 0, errno is 0",
                     "frwk_set_file_value: write /dev/full fialed! ret is -1, value len is 1, errno is 28"}),
              said([&] {
                  EXPECT_EQ(-1, frwk_get_file_value("/tmp/none/x", out, 4));
                  EXPECT_EQ(-1, frwk_set_file_value("/tmp/none/x", "1", 1));
                  errno = 0;
                  EXPECT_EQ(-1, frwk_get_file_value("/tmp/empty", out, 4));
                  EXPECT_EQ(-1, frwk_set_file_value("/dev/full", "1", 1));
              }));
    EXPECT_EQ(-1, frwk_set_file_value("/tmp/value", "1", -1)); // which is also what the failed write reports
    EXPECT_EQ(fds, frwk_test::count_fds(getpid()));

    Texts lines = said([] {
        FileLimit full(4);
        EXPECT_EQ(-1, frwk_set_file_value("/tmp/value", "0123456789", 10));
    });
    ASSERT_EQ(1u, lines.size());
    EXPECT_TRUE(contains(lines[0], ": write /tmp/value fialed! ret is 4, value len is 10, errno is ")) << lines[0];

    frwk_test::Result result = frwk_test::run_child([] {
        EXPECT_EQ(
            (Texts{"frwk_set_file_value: open /tmp/value fialed!", "frwk_get_file_value: open /tmp/value fialed!"}),
            said([] {
                close(0); // a descriptor 0 counts as none, and is not left open
                char byte;
                EXPECT_EQ(-1, frwk_set_file_value("/tmp/value", "0", 1));
                EXPECT_EQ(-1, frwk_get_file_value("/tmp/value", &byte, 1));
            }));
        EXPECT_EQ(-1, fcntl(0, F_GETFD));
    });
    EXPECT_TRUE(result.ok()) << result;
}

TEST(FileValue, CancelledThreadLeavesNothingOpen)
{
    int fds = frwk_test::count_fds(getpid());
    EXPECT_TRUE(on_thread(BIG_STACK, true, [] {
        char out[4] = "";
        EXPECT_EQ(0, frwk_set_file_value("/tmp/value", "abc", 3));
        EXPECT_EQ(0, frwk_get_file_value("/tmp/value", out, 3));
        EXPECT_EQ(3, frwk_file_size("/tmp/value"));
    }));
    EXPECT_EQ(fds, frwk_test::count_fds(getpid()));
}

} // namespace

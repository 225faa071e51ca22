/* SPDX-FileCopyrightText: 2026 the libfrwk authors */
/* SPDX-License-Identifier: MIT */

// What docs/mainpage.md shows of the settings files is what the library writes.
#include "frwk_test.h"

namespace {

// An example is a file with a part left out, shown as "...".
void compare(const std::string &example, const std::string &path)
{
    const std::string file = read_file(path), gap = "   ...\n";
    const size_t left_out = example.find(gap);
    ASSERT_NE(std::string::npos, left_out) << path;
    ASSERT_GT(file.size(), example.size()) << path;
    const std::string end = example.substr(left_out + gap.size());
    EXPECT_EQ(example.substr(0, left_out), file.substr(0, left_out));
    EXPECT_EQ(end, file.substr(file.size() - end.size()));
}

TEST(Guide, SettingsFiles)
{
    ASSERT_EQ(FRWK_ERROR_SUCCESS, frwk_set_trace_info(FRWK_MODULE_QMUXD, 1, "info"));
    ASSERT_EQ(FRWK_ERROR_SUCCESS, frwk_init_app_start_cfg_file());
    const std::string guide = read_file(FRWK_GUIDE), open = "```xml\n", close = "```\n";
    size_t end = 0;
    for (const char *path : {"/usrdata/odm/log_conf.xml", "/usrdata/odm/start_conf.xml"}) {
        const size_t begin = guide.find(open, end) + open.size();
        end = guide.find(close, begin);
        ASSERT_TRUE(begin < end && end != std::string::npos) << "no example of " << path;
        compare(guide.substr(begin, end - begin), path);
    }
}

} // namespace

/* SPDX-FileCopyrightText: 2026 the libfrwk authors */
/* SPDX-License-Identifier: MIT */

// Shell commands.
#include "conf_test.h"

namespace {

TEST(System, ResultsAndMessages)
{
    const auto run = [](const char *cmd) { return call([=] { return frwk_system(cmd); }); };
    EXPECT_EQ("0|frwk_system: shell cmd is null!", run(nullptr));
    EXPECT_EQ("1|debug frwk_system: exec cmd 'true' success!", run("true"));
    EXPECT_EQ("0|frwk_system: exec cmd 'exit 3' errno=3", run("exit 3"));
    EXPECT_EQ("0|frwk_system: exec cmd 'kill -9 $$' errno=0", run("kill -9 $$"));
    signal(SIGCHLD, SIG_IGN); // without children to wait for, the call itself fails
    EXPECT_EQ("0|frwk_system: exec cmd exit 0 error!", run("exit 0"));
}

} // namespace

/* SPDX-FileCopyrightText: 2026 the libfrwk authors */
/* SPDX-License-Identifier: MIT */

#include "process.h"

#include <frwk.h>

#include <fcntl.h>
#include <signal.h>
#include <stdlib.h>
#include <string.h>
#include <sys/wait.h>
#include <unistd.h>

enum { ARGS_MAX = 64 };

/* In the child, where locks of other threads may be held for good: nothing but system calls. */
[[noreturn]] static void run_program(const char *path, char **argv)
{
    signal(SIGPIPE, SIG_DFL); /* a module has this ignored and blocked, which a program would inherit */
    sigset_t none;
    sigemptyset(&none);
    sigprocmask(SIG_SETMASK, &none, nullptr);
    int null = open("/dev/null", O_RDONLY | O_CLOEXEC);
    dup2(null, STDIN_FILENO);
    execv(path, argv);
    _exit(127);
}

pid_t process_start(const char *path, const char *args)
{
    char *program = frwk_strdup(path);
    char *words = frwk_strdup(args);
    char *argv[ARGS_MAX + 2] = {program};
    pid_t pid = -1;
    if (program != nullptr && words != nullptr) {
        char *rest = nullptr;
        char *word = strtok_r(words, " \t\n", &rest);
        for (int i = 1; word != nullptr && i <= ARGS_MAX; i++) {
            argv[i] = word;
            word = strtok_r(nullptr, " \t\n", &rest);
        }
        pid = fork();
        if (pid == 0) {
            run_program(path, argv);
        }
    }
    free(words);
    free(program);
    return pid;
}

bool process_ended(pid_t pid, int *status)
{
    return waitpid(pid, status, WNOHANG) != 0;
}

void process_stop(pid_t pid, int grace)
{
    frwk_uptime_t end;
    frwk_simple_timer_start(&end, grace);
    kill(pid, SIGTERM);
    int status;
    while (!process_ended(pid, &status)) {
        if (frwk_simple_timer_timeout(&end)) {
            kill(pid, SIGKILL);
        }
        frwk_sleep(10);
    }
}

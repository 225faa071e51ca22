/* SPDX-FileCopyrightText: 2026 the libfrwk authors */
/* SPDX-License-Identifier: MIT */

/*
 * What a running idle module adds to a process: starts up as the monitor, which reads both settings files, and prints
 * heap, private memory and threads. Run by tools/size in the sandbox.
 */
#include <frwk.h>

#include <malloc.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <unistd.h>

/* The number behind `key` in a file of /proc. */
static long figure(const char *path, const char *key)
{
    char line[512] = "";
    FILE *file = fopen(path, "re");
    while (file != NULL && fgets(line, sizeof line, file) != NULL && strncmp(line, key, strlen(key)) != 0) {
    }
    if (file != NULL) {
        fclose(file);
    }
    return atol(line + strlen(key));
}

int main(void)
{
    int status = 1;
    if (fork() == 0) { /* writes the settings files where this process's heap does not know of it */
        _exit(frwk_init_log_cfg_info() == 0 && frwk_init_app_start_cfg_file() == 0 ? 0 : 1);
    }
    wait(&status);
    long before = figure("/proc/self/smaps_rollup", "Private_Dirty:");
    size_t heap_before = mallinfo2().uordblks;
    if (status != 0 || frwk_module_init(FRWK_MODULE_MONITOR, NULL) != FRWK_ERROR_SUCCESS) {
        return 1;
    }
    size_t heap = mallinfo2().uordblks;
    frwk_sleep(500); /* the accept thread has come to rest */
    printf("heap in use: %zu bytes after start-up, %zu of them since before\n", heap, heap - heap_before);
    char name[16];
    prctl(PR_GET_NAME, name);
    if (strncmp(name, "qemu", 4) == 0) {
        printf("private memory, threads: not told, /proc shows the emulator's\n");
        return 0;
    }
    printf("private dirty memory: %ld KiB more after start-up\n",
           figure("/proc/self/smaps_rollup", "Private_Dirty:") - before);
    printf("threads: %ld\n", figure("/proc/self/status", "Threads:"));
    return 0;
}

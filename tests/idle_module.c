/*
 * What a running idle module adds to a process: starts up as the monitor, which reads both settings files, and prints
 * heap, private memory and threads. Run by tools/size in the sandbox.
 */
#include <frwk.h>
#include <malloc.h>
#include <stdio.h>
#include <string.h>
#include <sys/wait.h>
#include <unistd.h>

/* The sum of the lines that begin with `key` of a file of /proc, as far as they belong to mappings of `part`. */
static long sum(const char *path, const char *key, const char *part)
{
    char line[512];
    long total = 0;
    int within = part == NULL;
    FILE *file = fopen(path, "re");
    while (file != NULL && fgets(line, sizeof line, file) != NULL) {
        long value;
        if (part != NULL && strchr(line, '-') != NULL && strstr(line, ":") != NULL && line[0] >= '0' &&
            (line[0] <= '9' || (line[0] >= 'a' && line[0] <= 'f'))) {
            within = strstr(line, part) != NULL;
        } else if (within && strncmp(line, key, strlen(key)) == 0 && sscanf(line + strlen(key), "%ld", &value) == 1) {
            total += value;
        }
    }
    if (file != NULL) {
        fclose(file);
    }
    return total;
}

static void write_settings(void)
{
    pid_t pid = fork(); /* so that this process's heap does not know of it */
    if (pid == 0) {
        _exit(frwk_init_log_cfg_info() == 0 && frwk_init_app_start_cfg_file() == 0 ? 0 : 1);
    }
    int status = 1;
    if (waitpid(pid, &status, 0) != pid || status != 0) {
        fprintf(stderr, "cannot write the settings files\n");
        _exit(1);
    }
}

static int32_t handle(uint32_t from, uint32_t msg, const uint8_t *req, int32_t req_len, uint8_t *rsp, int32_t rsp_size,
                      uint32_t timeout)
{
    (void)from, (void)msg, (void)req, (void)req_len, (void)rsp, (void)rsp_size, (void)timeout;
    return FRWK_ERROR_SUCCESS;
}

int main(void)
{
    write_settings();
    long before = sum("/proc/self/smaps_rollup", "Private_Dirty:", NULL);
    size_t heap_before = mallinfo2().uordblks;
    if (frwk_module_init(FRWK_MODULE_MONITOR, NULL) != FRWK_ERROR_SUCCESS) {
        return 1;
    }
    size_t heap = mallinfo2().uordblks;
    frwk_ipc_init(handle);
    frwk_sleep(500); /* the accept thread has come to rest */
    printf("heap in use: %zu bytes after start-up, %zu of them since before\n", heap, heap - heap_before);
    FILE *comm = fopen("/proc/self/comm", "re");
    char name[16] = "";
    if (comm != NULL && fgets(name, sizeof name, comm) != NULL && strncmp(name, "qemu", 4) == 0) {
        printf("private memory, threads: not told, /proc shows the emulator's\n");
        return 0;
    }
    printf("private dirty memory: %ld KiB more after start-up; the library's own pages %ld KiB\n",
           sum("/proc/self/smaps_rollup", "Private_Dirty:", NULL) - before,
           sum("/proc/self/smaps", "Private_Dirty:", "libfrwk"));
    printf("threads: %ld\n", sum("/proc/self/status", "Threads:", NULL));
    return 0;
}

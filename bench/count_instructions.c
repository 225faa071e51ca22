/* SPDX-FileCopyrightText: 2026 the libfrwk authors */
/* SPDX-License-Identifier: MIT */

/*
 * A plug-in of qemu that counts the instructions that a program executes, and writes the count to standard error when
 * it ends. The few declarations that it takes stand here, since Debian ships qemu without their header.
 */
#include <inttypes.h>
#include <stddef.h>
#include <stdio.h>

typedef uint64_t plugin_id_t;
struct qemu_plugin_tb;
enum { ADD_U64 = 0 };

void qemu_plugin_register_vcpu_tb_trans_cb(plugin_id_t id, void (*cb)(plugin_id_t id, struct qemu_plugin_tb *tb));
void qemu_plugin_register_vcpu_tb_exec_inline(struct qemu_plugin_tb *tb, int op, void *counter, uint64_t amount);
void qemu_plugin_register_atexit_cb(plugin_id_t id, void (*cb)(plugin_id_t id, void *data), void *data);
size_t qemu_plugin_tb_n_insns(const struct qemu_plugin_tb *tb);

#define EXPORTED __attribute__((visibility("default")))

EXPORTED int qemu_plugin_version = 1;

static uint64_t executed;

static void count_block(plugin_id_t id, struct qemu_plugin_tb *block)
{
    (void)id;
    qemu_plugin_register_vcpu_tb_exec_inline(block, ADD_U64, &executed, qemu_plugin_tb_n_insns(block));
}

static void report(plugin_id_t id, void *data)
{
    (void)id;
    (void)data;
    fprintf(stderr, "%" PRIu64 " instructions\n", executed);
}

EXPORTED int qemu_plugin_install(plugin_id_t id, const void *info, int argc, char **argv);

EXPORTED int qemu_plugin_install(plugin_id_t id, const void *info, int argc, char **argv)
{
    (void)info;
    (void)argc;
    (void)argv;
    qemu_plugin_register_vcpu_tb_trans_cb(id, count_block);
    qemu_plugin_register_atexit_cb(id, report, NULL);
    return 0;
}

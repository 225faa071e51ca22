/* SPDX-FileCopyrightText: 2026 the libfrwk authors */
/* SPDX-License-Identifier: MIT */

/*
 * dial_test: a whole module. It sends back what it is sent, so that a caller can time the round trip.
 */
#include <frwk.h>

#include <string.h>

enum { DIAL_MSG_ECHO = FRWK_MSG_USER };

/* Runs on the library's threads, several at once. */
static int32_t handle(uint32_t from, uint32_t msg, const uint8_t *req, int32_t req_len, uint8_t *rsp, int32_t rsp_size,
                      uint32_t)
{
    if (msg != DIAL_MSG_ECHO) {
        return FRWK_ERROR_UNSUPPORTED;
    }
    FRWK_INFO("%d bytes from module %u", req_len, from);
    if (req_len > rsp_size) {
        return FRWK_ERROR_INVALID_PARAM;
    }
    if (req_len > 0) {
        memcpy(rsp, req, static_cast<size_t>(req_len));
    }
    return FRWK_ERROR_SUCCESS;
}

int main()
{
    if (frwk_module_init(FRWK_MODULE_DIAL_TEST, nullptr) != FRWK_ERROR_SUCCESS) {
        return 1; /* it has said why on standard error */
    }
    frwk_ipc_init(handle);
    frwk_keep_running();
}

/* SPDX-FileCopyrightText: 2026 the libfrwk authors */
/* SPDX-License-Identifier: MIT */

#include "json.h"

#include <stdint.h>
#include <stdio.h>
#include <string.h>

/* How many bytes the UTF-8 character at the begin of a text has; 0 when there is none. */
static size_t utf8_len(const unsigned char *text)
{
    static const struct {
        unsigned char mask;
        unsigned char lead;
        uint32_t least; /* the least character that needs so many bytes */
    } FORMS[] = {{0x80, 0x00, 0}, {0xE0, 0xC0, 0x80}, {0xF0, 0xE0, 0x800}, {0xF8, 0xF0, 0x10000}};
    for (size_t len = 1; len <= sizeof FORMS / sizeof *FORMS; len++) {
        if ((text[0] & FORMS[len - 1].mask) != FORMS[len - 1].lead) {
            continue;
        }
        uint32_t code = text[0] & static_cast<uint32_t>(~FORMS[len - 1].mask & 0xFF);
        for (size_t i = 1; i < len; i++) {
            if ((text[i] & 0xC0) != 0x80) {
                return 0;
            }
            code = code << 6 | (text[i] & 0x3F);
        }
        bool surrogate = code >= 0xD800 && code <= 0xDFFF;
        return code >= FORMS[len - 1].least && code <= 0x10FFFF && !surrogate ? len : 0;
    }
    return 0;
}

void json_text(const char *text)
{
    if (text == nullptr) {
        fputs("null", stdout);
        return;
    }
    putchar('"');
    const unsigned char *at = reinterpret_cast<const unsigned char *>(text);
    while (*at != '\0') {
        size_t len = utf8_len(at);
        if (*at == '"' || *at == '\\') {
            printf("\\%c", *at);
        } else if (len == 1 && (*at < ' ' || *at == 0x7F)) {
            printf("\\u%04x", *at);
        } else if (len == 0) {
            fputs("\\ufffd", stdout);
            len = 1;
        } else {
            fwrite(at, 1, len, stdout);
        }
        at += len;
    }
    putchar('"');
}

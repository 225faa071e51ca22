// What the fuzz targets share. Each is one source and includes this once.
#ifndef FRWK_FUZZ_H
#define FRWK_FUZZ_H

#include <unistd.h>

#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>

#include "frwk.h"

// Ends the run with a finding where the library breaks a promise.
#define CHECK(cond)                                                                                                    \
    do {                                                                                                               \
        if (!(cond)) {                                                                                                 \
            fprintf(stderr, "%s:%d: %s does not hold\n", __FILE__, __LINE__, #cond);                                   \
            abort();                                                                                                   \
        }                                                                                                              \
    } while (false)

// A save syncs all file systems, which would cost milliseconds each.
extern "C" void sync() noexcept
{
}

extern "C" const char *__asan_default_options();
extern "C" const char *__asan_default_options()
{
    return "allocator_may_return_null=1:max_allocation_size_mb=64:detect_stack_use_after_return=1";
}

inline void trace_all()
{
    frwk_debug_enable(3);
    frwk_trace_set("debug");
}

// All trace lines are made and written, but not seen: hostile text goes through them too.
inline void trace_to_nothing()
{
    trace_all();
    CHECK(freopen("/dev/null", "w", stdout) != nullptr);
}

// The input as the bytes of a C string, in a block of just that size, so that reading past its end shows.
inline char *text_of(const uint8_t *data, size_t size)
{
    char *text = static_cast<char *>(malloc(size + 1));
    memcpy(text, data, size);
    text[size] = '\0';
    return text;
}

inline frwk_xml_node_t *node_at(frwk_list_t *link)
{
    return frwk_list_entry(link, frwk_xml_node_t, list);
}

inline frwk_xml_attr_t *attr_at(frwk_list_t *link)
{
    return frwk_list_entry(link, frwk_xml_attr_t, list);
}

#endif

/* SPDX-FileCopyrightText: 2026 the libfrwk authors */
/* SPDX-License-Identifier: MIT */

// Does one of the library's operations a number of times, so that what one costs can be counted from outside.
//
// Usage: operations NAME COUNT; without arguments, lists the names.
#include <frwk.h>

#include <fcntl.h>
#include <semaphore.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <functional>
#include <random>
#include <string>
#include <vector>

namespace {

using Body = std::function<void(long)>; // does it that many times

void check(bool holds, const char *what)
{
    if (!holds) {
        fprintf(stderr, "operations: %s\n", what);
        _exit(1);
    }
}

std::string modules_document()
{
    const char *names[] = {"monitor",      "atfwd_daemon", "dial_test", "logtool", "serial_bridge",
                           "monitor_tool", "mbimd",        "qti",       "qmuxd"};
    std::string text = "<modules>\n";
    for (const char *name : names) {
        text += std::string("<") + name + "><monitor_service>1</monitor_service><start_cmd>-l /dev/smd -r &amp; wait" +
                "</start_cmd></" + name + ">\n";
    }
    return text + "</modules>\n";
}

std::string long_value()
{
    std::string text = "<pem>";
    while (text.size() < 64 * 1024) {
        text += "MIIDdzCCAl+gAwIBAgIEAgAAuTANBgkqhkiG9w0BAQUFADBaMQswCQYDVQQGEwJJ\n";
    }
    return text + "</pem>";
}

Body parsing(const std::string &document)
{
    return [document](long count) {
        for (; count > 0; count--) {
            std::string text = document;
            frwk_xml_doc_t *doc = frwk_xml_cache_parse(&text[0]);
            check(doc != nullptr, "no document");
            frwk_xml_free_doc(doc);
        }
    };
}

Body writing(const std::string &document, bool to_stream)
{
    return [document, to_stream](long count) {
        std::string text = document;
        frwk_xml_doc_t *doc = frwk_xml_cache_parse(&text[0]);
        FILE *nowhere = fopen("/dev/null", "w");
        check(doc != nullptr && nowhere != nullptr, "no document");
        for (; count > 0; count--) {
            if (to_stream) {
                frwk_xml_writer_t writer = {0, 0, nowhere};
                frwk_xml_write_node(&writer, doc->root, FRWK_XML_INDENT_SPACES);
            } else {
                frwk_buffer_t buffer;
                frwk_buffer_init(&buffer);
                frwk_xml_cache_save(&buffer, doc->root, FRWK_XML_INDENT_SPACES);
                frwk_buffer_free(&buffer);
            }
        }
        fclose(nowhere);
        frwk_xml_free_doc(doc);
    };
}

Body timers(int pending)
{
    return [pending](long count) {
        std::mt19937 random(1);
        auto delay = [&] { return 60000 + static_cast<int>(random() % 1000000000); };
        check(frwk_timer_init(nullptr) == FRWK_ERROR_SUCCESS, "no timers");
        for (int i = 0; i < pending; i++) {
            frwk_timer_start(0, nullptr, delay());
        }
        for (; count > 0; count--) {
            int id = frwk_timer_start(0, &count, delay());
            check(frwk_timer_stop(id) == &count, "no timer");
        }
    };
}

std::vector<std::string> make_keys(int count, const char *last)
{
    std::vector<std::string> keys;
    for (int i = 0; i < count; i++) {
        keys.push_back("network.profile." + std::to_string(i) + last);
    }
    std::shuffle(keys.begin(), keys.end(), std::mt19937(1));
    return keys;
}

int filled_table(int size, const std::vector<std::string> &keys)
{
    int handle = frwk_hash_create(size);
    for (const std::string &key : keys) {
        check(frwk_hash_enter(handle, key.c_str(), frwk_hash_value_integer(1)) != nullptr, "no entry");
    }
    return handle;
}

Body looking_up(int keys, const char *last)
{
    return [keys, last](long count) {
        int handle = filled_table(keys, make_keys(keys, ""));
        const std::vector<std::string> asked = make_keys(keys, last);
        for (size_t i = 0; count > 0; count--, i = i + 1 < asked.size() ? i + 1 : 0) {
            check((frwk_hash_lookup(handle, asked[i].c_str()) != nullptr) == (*last == '\0'), "wrong answer");
        }
    };
}

void entering_and_deleting(long count)
{
    const std::vector<std::string> keys = make_keys(1000, "");
    int handle = frwk_hash_create(1009);
    for (size_t i = 0; count > 0; count--, i = (i + 1) % keys.size()) {
        frwk_hash_enter(handle, keys[i].c_str(), frwk_hash_value_integer(1));
        check(frwk_hash_delete(handle, keys[i].c_str()) == 0, "no entry");
    }
}

void walking(long count)
{
    int handle = filled_table(1009, make_keys(1000, ""));
    for (frwk_hash_entry_t *entry = nullptr; count > 0; count--) {
        entry = frwk_hash_next(handle, entry);
    }
}

void creating(long count)
{
    for (; count > 0; count--) {
        int handle = frwk_hash_create(100003);
        check(handle >= 0, "no table");
        frwk_hash_free(handle);
    }
}

void suppressed(long count)
{
    for (; count > 0; count--) {
        FRWK_DBG("suppressed %ld", count);
    }
}

void console(long count)
{
    int nowhere = open("/dev/null", O_WRONLY | O_CLOEXEC);
    check(dup2(nowhere, STDOUT_FILENO) >= 0, "no output");
    frwk_debug_enable(3);
    frwk_trace_set("info");
    for (; count > 0; count--) {
        FRWK_INFO("state of the link is %ld", count);
    }
}

sem_t received;

void receive(frwk_submodule_msg_t *message)
{
    free(message);
    sem_post(&received);
}

void sending(long count)
{
    sem_init(&received, 0, 0);
    frwk_submodule_create(0, receive);
    for (; count > 0; count--) {
        check(frwk_submodule_send(0, 0, 1, "state of the link", 18) == FRWK_ERROR_SUCCESS, "not sent");
        frwk_sem_wait(&received);
    }
}

const struct {
    const char *name;
    Body body;
} operations[] = {
    {"parse XML, 9 modules", parsing(modules_document())},
    {"parse XML, value of 64 KB", parsing(long_value())},
    {"write XML, 9 modules", writing(modules_document(), false)},
    {"write XML, 9 modules, to a stream", writing(modules_document(), true)},
    {"write XML, value of 64 KB", writing(long_value(), false)},
    {"timer started and stopped, none pending", timers(0)},
    {"timer started and stopped, 1,000 pending", timers(1000)},
    {"timer started and stopped, 10,000 pending", timers(10000)},
    {"hash: look up, there, 1,000 keys", looking_up(1000, "")},
    {"hash: look up, absent, 1,000 keys", looking_up(1000, "x")},
    {"hash: look up, absent, 100,000 keys", looking_up(100000, "x")},
    {"hash: enter and delete", entering_and_deleting},
    {"hash: walk, an entry", walking},
    {"hash: create and free, 100,003 buckets", creating},
    {"trace: suppressed line", suppressed},
    {"trace: console line", console},
    {"submodule: message sent and received", sending},
};

} // namespace

int main(int argc, char **argv)
{
    for (const auto &operation : operations) {
        if (argc < 3) {
            puts(operation.name);
        } else if (strcmp(operation.name, argv[1]) == 0) {
            check(frwk_module_init(FRWK_MODULE_LOGTOOL, nullptr) == FRWK_ERROR_SUCCESS, "no module");
            operation.body(atol(argv[2]));
            fflush(stdout);
            _exit(0);
        }
    }
    return argc < 3 ? 0 : 1;
}

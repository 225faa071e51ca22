/* SPDX-FileCopyrightText: 2026 the libfrwk authors */
/* SPDX-License-Identifier: MIT */

#include "options.h"

#include <ctype.h>
#include <errno.h>
#include <getopt.h>
#include <stdarg.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <strings.h>
#include <unistd.h>

enum { HELP_COLUMN = 27, HELP_WIDTH = 79, OPTIONS_MAX = 32, LONG_ONLY = 256 };

static const device_option_t HELP = {"help", 'h', nullptr, "shows this text", nullptr};
static const device_option_t VERSION = {"version", 'V', nullptr, "shows the version", nullptr};

void device_fail(int status, const char *fmt, ...)
{
    va_list args;
    va_start(args, fmt);
    fflush(stdout);
    fprintf(stderr, "%s: ", program_invocation_short_name);
    vfprintf(stderr, fmt, args);
    fputc('\n', stderr);
    va_end(args);
    exit(status);
}

static bool is_written()
{
    return fflush(stdout) == 0 && !ferror(stdout);
}

void device_flush()
{
    if (!is_written()) {
        device_fail(DEVICE_EXIT_FAILURE, "cannot write: %s", strerror(errno));
    }
}

bool device_terminal()
{
    const char *no_color = getenv("NO_COLOR");
    const char *term = getenv("TERM");
    return isatty(STDOUT_FILENO) && (no_color == nullptr || *no_color == '\0') &&
           (term == nullptr || strcmp(term, "dumb") != 0);
}

/* Prints words from `column` on, in lines as wide as the help is, each but the first behind an indent. */
static void print_words(const char *text, int column, int indent)
{
    for (const char *word = text; *word != '\0';) {
        int len = static_cast<int>(strcspn(word, " "));
        if (column > indent && column + 1 + len > HELP_WIDTH) {
            printf("\n%*s", indent, "");
            column = indent;
        } else if (word != text) {
            putchar(' ');
            column++;
        }
        printf("%.*s", len, word);
        column += len;
        word += len;
        word += strspn(word, " ");
    }
    putchar('\n');
}

static void print_row(const char *head, const char *help)
{
    int width = printf("  %s", head);
    if (width + 2 > HELP_COLUMN) {
        putchar('\n');
        width = 0;
    }
    printf("%*s", HELP_COLUMN - width, "");
    print_words(help, HELP_COLUMN, HELP_COLUMN);
}

static void print_options(const device_option_t *option)
{
    for (; option->name != nullptr; option++) {
        char letter[] = "-x, ";
        char head[64];
        letter[1] = option->letter;
        snprintf(head, sizeof head, "%s--%s%s%s", option->letter != 0 ? letter : "    ", option->name,
                 option->arg != nullptr ? "=" : "", option->arg != nullptr ? option->arg : "");
        print_row(head, option->help);
    }
}

static void print_notes(const char *title, const device_note_t *note)
{
    if (note == nullptr) {
        return;
    }
    printf("\n%s:\n", title);
    for (; note->word != nullptr; note++) {
        char modules[256] = "one of ";
        for (uint32_t id = 1; note->help == nullptr && id < FRWK_MODULE_MAX; id++) {
            size_t len = strlen(modules);
            snprintf(modules + len, sizeof modules - len, "%s%s", frwk_module_name(id),
                     id + 1 < FRWK_MODULE_MAX ? ", " : "");
        }
        print_row(note->word, note->help != nullptr ? note->help : modules);
    }
}

static void print_commands(const device_command_t *command)
{
    printf("\nCommands:\n");
    for (; command->name != nullptr; command++) {
        char head[96];
        snprintf(head, sizeof head, "%s%s%s", command->name, *command->args != '\0' ? " " : "", command->args);
        print_row(head, command->help);
    }
}

static void print_paragraphs(const char *text)
{
    for (const char *end; (end = strchr(text, '\n')) != nullptr; text = end + 1) {
        char paragraph[1024];
        snprintf(paragraph, sizeof paragraph, "%.*s", static_cast<int>(end - text), text);
        print_words(paragraph, 0, 0);
        putchar('\n');
    }
    print_words(text, 0, 0);
}

static void print_help(const device_program_t *program)
{
    const device_option_t always[] = {HELP, VERSION, {nullptr, 0, nullptr, nullptr, nullptr}};
    printf("Usage: %s [OPTION]...%s\n", program_invocation_short_name,
           program->commands == nullptr ? ""
           : program->run != nullptr    ? " [COMMAND [ARGUMENT]...]"
                                        : " COMMAND [ARGUMENT]...");
    printf("%c%s.\n\n", toupper(program->brief[0]), program->brief + 1);
    print_paragraphs(program->description);
    if (program->commands != nullptr) {
        print_commands(program->commands);
    }
    print_notes("Arguments", program->arguments);
    printf("\nOptions:\n");
    if (program->options != nullptr) {
        print_options(program->options);
    }
    print_options(always);
    for (const device_command_t *command = program->commands; command != nullptr && command->name != nullptr;
         command++) {
        if (command->options != nullptr) {
            printf("\nOptions of %s:\n", command->name);
            print_options(command->options);
        }
    }
    printf("\nExit status:\n");
    print_row("0", "success");
    print_row("1", program->failure);
    print_row("2", "the command line is wrong; nothing was done");
    print_notes("Files", program->files);
    print_notes("Examples", program->examples);
}

[[noreturn]] static void print_and_exit(const device_program_t *program, const device_option_t *option)
{
    if (option == &HELP) {
        print_help(program);
    } else {
        printf("%s (libfrwk) " FRWK_VERSION "\n", program_invocation_short_name);
    }
    device_flush();
    exit(0);
}

/* The options of a program, those of its commands among them, and the ones that were given. */
struct options_t {
    const device_option_t *known[OPTIONS_MAX];
    option long_forms[OPTIONS_MAX + 1];
    char letters[2 * OPTIONS_MAX + 3]; /* behind "+" and ":", which getopt_long() takes for itself */
    int count;
    struct {
        const device_option_t *option;
        const char *value;
    } given[OPTIONS_MAX];
    int given_count;
};

static void know_option(options_t *options, const device_option_t *option)
{
    for (int i = 0; i < options->count; i++) {
        if (strcmp(options->known[i]->name, option->name) == 0) {
            return; /* of another command, too */
        }
    }
    FRWK_ASSERT(options->count < OPTIONS_MAX);
    int has_arg = option->arg != nullptr ? required_argument : no_argument;
    options->known[options->count] = option;
    options->long_forms[options->count] = {option->name, has_arg, nullptr, LONG_ONLY + options->count};
    options->count++;
    if (option->letter != 0) {
        char *end = options->letters + strlen(options->letters);
        *end++ = option->letter;
        *end = option->arg != nullptr ? ':' : '\0';
    }
}

static void know_options(options_t *options, const device_program_t *program)
{
    strcpy(options->letters, "+:");
    know_option(options, &HELP);
    know_option(options, &VERSION);
    for (const device_option_t *each = program->options; each != nullptr && each->name != nullptr; each++) {
        know_option(options, each);
    }
    for (const device_command_t *command = program->commands; command != nullptr && command->name != nullptr;
         command++) {
        for (const device_option_t *each = command->options; each != nullptr && each->name != nullptr; each++) {
            know_option(options, each);
        }
    }
}

/* The option that getopt_long() tells of by its letter or its number; null for none. */
static const device_option_t *known_option(const options_t *options, int code)
{
    for (int i = 0; i < options->count; i++) {
        if (code == LONG_ONLY + i || (code != 0 && code == options->known[i]->letter)) {
            return options->known[i];
        }
    }
    return nullptr;
}

[[noreturn]] static void refuse_option(const options_t *options, int code, char **argv)
{
    const device_option_t *option = known_option(options, optopt);
    char letter[] = "-x";
    letter[1] = static_cast<char>(optopt);
    if (option == nullptr) {
        device_fail(DEVICE_EXIT_USAGE, "unknown option '%s' (see %s --help)", optopt != 0 ? letter : argv[optind - 1],
                    program_invocation_short_name);
    }
    device_fail(DEVICE_EXIT_USAGE, "'--%s' %s (see %s --help)", option->name,
                code == ':' ? "lacks its argument" : "takes no argument", program_invocation_short_name);
}

/*
 * Reads options: those before the first argument, or those between all arguments, which then stand behind them.
 * @return where the arguments begin
 */
static int read_options(options_t *options, const device_program_t *program, bool leading, int argc, char **argv)
{
    opterr = 0;
    optind = 0; /* starts anew */
    int code;
    while ((code = getopt_long(argc, argv, options->letters + (leading ? 0 : 1), options->long_forms, nullptr)) != -1) {
        if (code == '?' || code == ':') {
            refuse_option(options, code, argv);
        }
        const device_option_t *option = known_option(options, code);
        if (option == &HELP || option == &VERSION) {
            print_and_exit(program, option);
        }
        if (options->given_count == OPTIONS_MAX) {
            device_fail(DEVICE_EXIT_USAGE, "too many options");
        }
        options->given[options->given_count++] = {option, optarg};
    }
    return optind;
}

static void take_option(const device_option_t *own, const device_option_t *option, const char *value,
                        const char *command)
{
    for (; own != nullptr && own->name != nullptr; own++) {
        if (strcmp(own->name, option->name) == 0) {
            own->take(value);
            return;
        }
    }
    device_fail(DEVICE_EXIT_USAGE, "'--%s' does not go with '%s' (see %s --help)", option->name, command,
                program_invocation_short_name);
}

static const device_command_t *find_command(const device_program_t *program, const char *name)
{
    for (const device_command_t *command = program->commands; command != nullptr && command->name != nullptr;
         command++) {
        if (strcmp(command->name, name) == 0) {
            return command;
        }
    }
    device_fail(DEVICE_EXIT_USAGE, "unknown %s '%s' (see %s --help)",
                program->commands != nullptr ? "command" : "argument", name, program_invocation_short_name);
}

int device_run(const device_program_t *program, int argc, char **argv)
{
    static options_t options;
    know_options(&options, program);
    int at = read_options(&options, program, true, argc, argv);
    const device_command_t *command = at < argc ? find_command(program, argv[at]) : nullptr;
    if (command == nullptr && program->run == nullptr) {
        device_fail(DEVICE_EXIT_USAGE, "a command is missing (see %s --help)", program_invocation_short_name);
    }
    int args = 0;
    if (command != nullptr) {
        argv += at;
        argc -= at;
        at = read_options(&options, program, command->verbatim, argc, argv);
        args = argc - at;
        if (args < command->min_args || args > command->max_args) {
            device_fail(DEVICE_EXIT_USAGE, "wrong number of arguments for '%s' (see %s --help)", command->name,
                        program_invocation_short_name);
        }
    }
    for (int i = 0; i < options.given_count; i++) {
        take_option(command != nullptr ? command->options : program->options, options.given[i].option,
                    options.given[i].value, command != nullptr ? command->name : program_invocation_short_name);
    }
    if (program->id != 0 && frwk_module_init(program->id, nullptr) != FRWK_ERROR_SUCCESS) {
        return DEVICE_EXIT_FAILURE;
    }
    int status = command != nullptr ? command->run(args, argv + at) : program->run(0, nullptr);
    if (!is_written() && errno != EPIPE) { /* a reader that has left, such as head, has got what it wanted */
        device_flush();
    }
    return status;
}

uint32_t device_module_arg(const char *text)
{
    uint32_t id = frwk_module_id(text);
    if (id == FRWK_MODULE_MAX) {
        device_fail(DEVICE_EXIT_USAGE, "unknown module '%s'", text);
    }
    return id;
}

long device_number_arg(const char *what, const char *text, long min, long max)
{
    char *end;
    errno = 0;
    long number = strtol(text, &end, strncasecmp(text, "0x", 2) == 0 ? 16 : 10);
    if (errno != 0 || end == text || *end != '\0' || number < min || number > max) {
        device_fail(DEVICE_EXIT_USAGE, "'%s' is no %s: a number from %ld to %ld", text, what, min, max);
    }
    return number;
}

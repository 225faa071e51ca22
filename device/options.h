/* SPDX-FileCopyrightText: 2026 the libfrwk authors */
/* SPDX-License-Identifier: MIT */

/*
 * The command lines of the programs. A program's table says what it takes; its --help is printed from the table, its
 * manual page is made from --help, and the completion of the shell reads --help: they cannot differ.
 */
#ifndef OPTIONS_H
#define OPTIONS_H

#include <frwk.h>

/* What every program exits with. */
enum { DEVICE_EXIT_FAILURE = 1, DEVICE_EXIT_USAGE = 2 };

struct device_option_t {
    const char *name; /* the long one, without its dashes */
    char letter;      /* the short one, 0 for none */
    const char *arg;  /* what the help calls its argument; null when it takes none */
    const char *help;
    void (*take)(const char *value); /* called for each time that the option is given; `value` is null without `arg` */
};

/* The texts of `args` are words in capitals, "[...]" around what may be left out, and "|" between alternatives. */
struct device_command_t {
    const char *name;
    const char *args;
    const char *help;
    int min_args;
    int max_args;
    int (*run)(int argc, char **argv); /* gets the arguments without the options. @return the exit status */
    const device_option_t *options;    /* those of this command, up to one without a name; null for none */
    bool verbatim;                     /* what follows the first argument is no option, whatever it begins with */
};

/* A row of a section of the help: a word, and what it means. */
struct device_note_t {
    const char *word;
    const char *help; /* null for "one of" and the modules' names */
};

struct device_program_t {
    const char *brief;                 /* one line, which the manual page has beside the name */
    const char *description;           /* paragraphs */
    uint32_t id;                       /* the module that it is before it runs a command; 0 when it sees to that */
    const device_command_t *commands;  /* up to one without a name; null for none */
    int (*run)(int argc, char **argv); /* without a command; null when one must be given */
    const device_option_t *options;    /* those that are taken without a command; null for none */
    const device_note_t *arguments;    /* the next three up to one without a word; null for none */
    const device_note_t *files;
    const device_note_t *examples;
    const char *failure; /* what exit status 1 means */
};

/*
 * Does what the arguments ask for. Misuse, --help and --version are found before the program becomes a module.
 * @return the exit status
 */
int device_run(const device_program_t *program, int argc, char **argv);

/* The way out of a failure: one line on standard error, exit with `status`. */
[[noreturn]] void device_fail(int status, const char *fmt, ...) FRWK_PRINTF_FORMAT(2, 3);

/* Ends with a failure unless all that was written to standard output has arrived. */
void device_flush();

/* Whether what is printed may be coloured: standard output is a terminal that can, and the user has not said no. */
bool device_terminal();

/* The tools' arguments; what is no module or no number from `min` to `max` is misuse. */
uint32_t device_module_arg(const char *text);
long device_number_arg(const char *what, const char *text, long min, long max);

#endif

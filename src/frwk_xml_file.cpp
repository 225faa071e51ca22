/* SPDX-FileCopyrightText: 2026 the libfrwk authors */
/* SPDX-License-Identifier: MIT */

/*
 * XML: reading a file, and replacing one so that its old or its new content survives any accident. Traces nothing.
 */
#include "frwk_bounded.h"
#include "frwk_guard.h"
#include "frwk_xml_internal.h"

#include <errno.h>
#include <fcntl.h>
#include <stdio.h>
#include <sys/stat.h>
#include <unistd.h>

enum { FILE_MODE = 0666 };

FILE *frwk_xml_open_file(const char *path, const char *mode)
{
    FILE *fp;
    do {
        fp = fopen(path, mode);
    } while (fp == nullptr && errno == EINTR);
    return fp;
}

bool frwk_xml_read_stream(FILE *fp, char *text, size_t size)
{
    size_t done = 0;
    bool interrupted = true;
    while (interrupted) {
        clearerr(fp);
        errno = 0;
        done += fread(text + done, 1, size - done, fp);
        interrupted = ferror(fp) != 0 && errno == EINTR;
    }
    text[done] = '\0';
    return ferror(fp) == 0;
}

/* Unbuffered, so that a write that a signal broke off goes on where it stopped: a failed flush would drop its bytes. */
static bool write_stream(FILE *fp, const frwk_buffer_t *text)
{
    setvbuf(fp, nullptr, _IONBF, 0);
    size_t done = 0;
    size_t size = static_cast<size_t>(text->len);
    while (done < size) {
        errno = 0;
        done += fwrite(text->bp + done, 1, size - done, fp);
        if (done < size && errno != EINTR) {
            return false;
        }
        clearerr(fp);
    }
    return fflush(fp) == 0;
}

/* Which file it is that has a name: names move on when another process saves too. */
struct file_id {
    bool known;
    dev_t device;
    ino_t inode;
};

static file_id id_of(int rc, const struct stat &status)
{
    return {rc == 0, status.st_dev, status.st_ino};
}

static file_id id_of_name(const char *path)
{
    struct stat status = {};
    return id_of(lstat(path, &status), status);
}

static file_id id_of_open(int fd)
{
    struct stat status = {};
    return id_of(fstat(fd, &status), status);
}

static bool is_named(const file_id &file, const char *path)
{
    file_id found = id_of_name(path);
    return file.known && found.known && file.device == found.device && file.inode == found.inode;
}

/* The file under way: where it goes, and what was there before. */
struct save_t {
    const char *path;
    const char *backup;
    file_id old_file; /* unknown where there was none */
    file_id new_file; /* unknown until it is created */
};

/* Moves the file to its backup's name. False when it is still in place: the only copy is never opened for writing. */
static bool move_aside(save_t *save)
{
    remove(save->backup);
    save->old_file = id_of_name(save->path);
    if (rename(save->path, save->backup) == 0) {
        return true;
    }
    save->old_file.known = false;
    return errno == ENOENT;
}

static bool write_and_close(FILE *fp, const frwk_buffer_t *text)
{
    bool written = write_stream(fp, text);
    bool closed = fclose(fp) == 0;
    return written && closed;
}

/* Puts the old content back, unless another writer has put something in place meanwhile. */
static void put_back(const save_t &save)
{
    bool in_place = is_named(save.new_file, save.path);
    if (is_named(save.old_file, save.backup) && (in_place || access(save.path, F_OK) != 0)) {
        rename(save.backup, save.path);
    } else if (in_place && !save.old_file.known) {
        remove(save.path);
    }
    sync();
}

/*
 * At every instant the old content is on the disk whole, under the file's name or the backup's, until the new content
 * is written and synced. Where two save at once, each removes only what it has put there, and succeeds only if its own
 * file is the one in place at the end.
 */
frwk_xml_save_outcome frwk_xml_replace_file(const char *path, const char *backup, const frwk_buffer_t *text)
{
    save_t save = {path, backup, {}, {}};
    if (!move_aside(&save)) {
        return FRWK_XML_NOT_CREATED;
    }
    FILE *fp = frwk_xml_open_file(path, "w+ex"); /* what is there by now was made by another writer */
    if (fp == nullptr) {
        put_back(save);
        return FRWK_XML_NOT_CREATED;
    }
    save.new_file = id_of_open(fileno(fp));
    unique_fd held(fcntl(fileno(fp), F_DUPFD_CLOEXEC, 0)); /* lest its inode be given to another file meanwhile */
    if (!write_and_close(fp, text)) {
        put_back(save);
        return FRWK_XML_NOT_WRITTEN;
    }
    sync();
    if (!is_named(save.new_file, path)) {
        return FRWK_XML_NOT_WRITTEN;
    }
    if (is_named(save.old_file, backup)) {
        remove(backup);
    }
    return FRWK_XML_SAVED;
}

/* Brings the content to the disk. */
static frwk_xml_save_outcome write_synced(int fd, const frwk_buffer_t *text, file_id *id)
{
    *id = id_of_open(fd);
    size_t len = static_cast<size_t>(text->len);
    for (size_t done = 0; done < len;) {
        ssize_t n = TEMP_FAILURE_RETRY(write(fd, text->bp + done, len - done));
        if (n <= 0) {
            return FRWK_XML_NOT_WRITTEN;
        }
        done += static_cast<size_t>(n);
    }
    return fsync(fd) == 0 ? FRWK_XML_SAVED : FRWK_XML_NOT_WRITTEN;
}

/* Gives a name to a file that has none. */
static bool name_file(int fd, const char *path)
{
    char own_link[32];
    sprintf_s(own_link, sizeof own_link, "/proc/self/fd/%d", fd);
    remove(path);
    return linkat(AT_FDCWD, own_link, AT_FDCWD, path, AT_SYMLINK_FOLLOW) == 0;
}

/*
 * Makes a file with the content. It gets its name when it is whole and on the disk, so that no other writer can put a
 * piece of it in place; where the file system cannot do that, it has the name from the beginning.
 */
static frwk_xml_save_outcome prepare_file(const frwk_xml_place_t &place, const frwk_buffer_t *text, file_id *id)
{
    unique_fd unnamed(
        static_cast<int>(TEMP_FAILURE_RETRY(open(place.directory, O_WRONLY | O_TMPFILE | O_CLOEXEC, FILE_MODE))));
    if (unnamed.get() >= 0) {
        frwk_xml_save_outcome outcome = write_synced(unnamed.get(), text, id);
        if (outcome != FRWK_XML_SAVED || name_file(unnamed.get(), place.fresh)) {
            return outcome;
        }
    }
    remove(place.fresh); /* left by a writer that was cut off; or a link, which is not followed */
    unique_fd named(static_cast<int>(
        TEMP_FAILURE_RETRY(open(place.fresh, O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC | O_NOFOLLOW, FILE_MODE))));
    return named.get() < 0 ? FRWK_XML_NOT_CREATED : write_synced(named.get(), text, id);
}

/* Puts a file in place in one step. */
frwk_xml_save_outcome frwk_xml_place_file(const frwk_xml_place_t &place, const frwk_buffer_t *text)
{
    file_id id = {};
    frwk_xml_save_outcome outcome = prepare_file(place, text, &id);
    if (outcome == FRWK_XML_SAVED && (!is_named(id, place.fresh) || rename(place.fresh, place.path) != 0)) {
        outcome = FRWK_XML_NOT_CREATED;
    }
    if (outcome != FRWK_XML_SAVED) {
        if (is_named(id, place.fresh)) {
            remove(place.fresh);
        }
        return outcome;
    }
    sync();
    return is_named(id, place.path) ? FRWK_XML_SAVED : FRWK_XML_NOT_WRITTEN;
}

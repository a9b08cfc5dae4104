/*
 * liblog2: one append-only text file per log name.
 *
 * The file is $LOG2_DIR/<name>.log, or, without that variable,
 * ${XDG_STATE_HOME:-$HOME/.local/state}/<name>/<name>.log (the XDG base directories; a
 * relative XDG_STATE_HOME is ignored). It is made with mode 0600, missing folders above it with
 * 0700; what is there already keeps its mode. Many processes may share it: a record is one line,
 * written with one write at the end of the file. Once it holds 8 MiB it is renamed to <name>.log.1,
 * replacing the one before, and every process goes on in the new file. Where it cannot be renamed
 * (a folder <name>.log.1 is in the way), further records are dropped; where its name is a symbolic
 * link, it grows on.
 *
 * Others may be able to write to the folder. A symbolic link, in place of the file or of the folder
 * itself, is followed only where it is the process's own (by effective user id) or belongs to the
 * owner of the folder that it is in. In a folder that others can write to, a folder of anybody
 * else's than these two is not used, a file with more than one name is not written to, nor, if the
 * folder has the sticky bit, a file of anybody else's.
 *
 * A line: UTC time with milliseconds, process, level, function, source file and line, message:
 *
 *   2026-01-31T09:15:00.123Z 4711 1 keyCreate src/eusign/api.cpp:210 fail: ...
 *
 * Control characters (of ASCII, and U+0080 to U+009F in UTF-8) and backslashes inside a text are
 * written as \n, \t, \x1b, \\ and the like, so nothing that a caller passes can look like a second
 * record; a trailing line feed is dropped. Other bytes stay as they are, in UTF-8 or not.
 *
 * None of the three functions blocks on the file, fails visibly, prints or changes errno. What
 * cannot be written (no folder, no space, no descriptor, no memory, a file size limit, a pipe or
 * device under the file's name) is dropped, and the caller goes on unharmed. They may be called
 * from any thread, and until the very end of the process: destructors that run after main may log.
 */
#ifndef LOG2_H
#define LOG2_H

#ifdef __cplusplus
extern "C" {
#endif

#pragma GCC visibility push(default)

/* Opens the process's log, replacing one that is open. The environment is read, and missing folders
 * are made, here; the file is made by the first record.
 * name: the log's name, copied; '/' in it becomes '_'; null, "", "." and ".." become "unnamed".
 * level: records of a higher level are dropped.
 * flag: reserved, 0. */
void LogOpen2(const char* name, int level, int flag);

/* Writes one record, or nothing while no log is open (before LogOpen2, after LogClose).
 * file, line, function: the caller's place in the source. level: 1 for failures, 2 for failures
 * that are tolerated, 4 for progress. format: as for printf; the message may have any length. */
void LogWrite(const char* file, int line, const char* function, int level, const char* format, ...)
    __attribute__((format(printf, 5, 6)));

/* Closes the log. Calling it without an open log does nothing. */
void LogClose(void);

#pragma GCC visibility pop

#ifdef __cplusplus
}
#endif

#endif

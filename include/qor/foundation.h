/* libqor foundation: status codes, error recording, exceptions, message
 * output and callbacks, fatal errors, basic space.
 *
 * The library holds no message texts. Every message is a (set, number, type,
 * parameters) quadruple handed to the callbacks registered here; with none
 * registered, an untranslated form goes to standard error.
 *
 * Nothing here is thread-safe: the callback registry, the exception handler
 * state and the debug allocator's log are plain process-wide globals, meant
 * for one thread. Blocks from the basic space functions belong to the
 * caller, who frees them with QOR_free (QOR_free_debug for the debugging
 * twins).
 */
#ifndef QOR_FOUNDATION_H
#define QOR_FOUNDATION_H

#include <setjmp.h>
#include <stddef.h>
#include <stdint.h>

#if defined(__GNUC__)
/* Marks a name the shared library exports. */
#define QOR_API __attribute__((visibility("default")))
/* Marks a function that never returns. */
#define QOR_NORETURN __attribute__((noreturn))
/* Marks a function whose argument list ends with a null pointer. */
#define QOR_SENTINEL __attribute__((sentinel))
#else
#define QOR_API
#define QOR_NORETURN
#define QOR_SENTINEL
#endif

#ifdef __cplusplus
extern "C" {
#endif

/* ---- Status codes -------------------------------------------------------
 * 0 is success. An error code is 2000 plus the number of the message of set
 * "qor" that describes it. Context codes (2101..2132) name the operation that
 * failed; they are passed to the recording functions, never returned. */
enum {
    QOR_OK = 0,
    QOR_E_INTERNAL = 2001,      /* internal error (fatal) */
    QOR_E_NO_MEMORY = 2011,     /* memory exhausted (fatal) */
    QOR_E_TRACE_SPEC = 2040,    /* locate trace specification rejected */
    QOR_E_UNTRANSLATABLE = 2051,/* qor path does not translate; no message */
    QOR_E_MISSING = 2052,       /* does not exist */
    QOR_E_EXISTS = 2053,        /* already exists */
    QOR_E_TARGET_EXISTS = 2054, /* target of a copy or move exists */
    QOR_E_PERMISSION = 2055,    /* permission denied */
    QOR_E_IO = 2056,            /* I/O error or busy */
    QOR_E_WRONG_KIND = 2057,    /* wrong kind of thing */
    QOR_E_RESOURCE = 2058,      /* a resource is exhausted */
    QOR_E_BAD_DESCRIPTOR = 2059,/* bad file descriptor */
    QOR_E_LOCKED = 2060,        /* record lock held elsewhere; no message */
    QOR_E_NOT_LOCKED = 2061,    /* not locked as required; no message */
    QOR_E_END = 2062,           /* end of a listing; no message */
    QOR_E_INTERRUPTED = 2063,   /* interrupted (EINTR) */
    QOR_E_DEADLOCK = 2064,      /* deadlock */
    QOR_E_NOT_EMPTY = 2065,     /* directory not empty */
    QOR_E_SIGNALLED = 2066,     /* a program ended through a signal */
    QOR_E_PRINT = 2068,         /* printing failed */
    QOR_E_INVALID = 2070,       /* invalid argument */
    QOR_E_SHELL = 2071,         /* the shell could not run a command */
    QOR_E_NO_OWNER = 2072,      /* owner name of the process not found */
    QOR_E_OTHER = 2073,         /* any other OS error */
    QOR_MSG_UNAVAILABLE = 10009 /* the message system is not there */
};

/* Context codes: which operation failed. */
enum {
    QOR_CTX_CREATE_FILE = 2101,
    QOR_CTX_CREATE_DIRECTORY = 2102,
    QOR_CTX_DELETE_FILE = 2103,
    QOR_CTX_REMOVE_DIRECTORY = 2104,
    QOR_CTX_LOCK_OBJECT = 2105,
    QOR_CTX_UNLOCK_OBJECT = 2106,
    QOR_CTX_MOVE_OBJECT = 2107,
    QOR_CTX_COPY_CONTENTS = 2108,
    QOR_CTX_TEST_ACCESS = 2109,
    QOR_CTX_SET_PERMISSIONS = 2110,
    QOR_CTX_READ_OWNERSHIP = 2111,
    QOR_CTX_SET_OWNERSHIP = 2112,
    QOR_CTX_READ_SIZE = 2113,
    QOR_CTX_READ_TIMES = 2114,
    QOR_CTX_READ_IDENTITY = 2115,
    QOR_CTX_OPEN = 2116,
    QOR_CTX_CLOSE = 2117,
    QOR_CTX_LOCK_CONTENTS = 2118,
    QOR_CTX_UNLOCK_CONTENTS = 2119,
    QOR_CTX_LINK_LISTING = 2120,
    QOR_CTX_RUN_PROGRAM = 2121,
    QOR_CTX_TRUNCATE = 2122,
    QOR_CTX_READ_OPEN_SIZE = 2123,
    QOR_CTX_READ = 2124,
    QOR_CTX_WRITE = 2125,
    QOR_CTX_FLUSH = 2126,
    QOR_CTX_REDIRECT = 2127,
    QOR_CTX_FIND_TYPE = 2128,
    QOR_CTX_FIND_OWNER = 2129,
    QOR_CTX_SET_ENVIRONMENT = 2130,
    QOR_CTX_EXECUTE = 2131,
    QOR_CTX_READ_LINK = 2132
};

/* Message types. */
enum {
    QOR_MSG_FATAL = 4,
    QOR_MSG_INFORMATION = 7,
    QOR_MSG_IDLE_WARNING = 67,
    QOR_MSG_RECORDED = 71
};

/* Message parameters: at most this many ($0..$6) are ever used. */
#define QOR_MAX_MESSAGE_PARAMETERS 7

/* ---- Error recording and exceptions ----------------------------------- */

/* Reports a failure the library detected itself; returns status unchanged. */
QOR_API int QOR_record_qor_error(int status, const char *name, int context);
/* Reports a failed OS call; returns the status its errno value maps to. */
QOR_API int QOR_record_os_error(int os_error, const char *name, int context);
/* Leaves through the armed handler (state 1), or ends the process with exit
 * status 3 (states 0 and 2). Returns only for any other state. */
QOR_API void QOR_raise_exception(int status);

/* 0 no handler, 1 armed, 2 active; any other value makes raising return. */
QOR_API extern uint32_t QOR_exception_handler_state;
/* Saved by the application with setjmp; the library only jumps through it. */
QOR_API extern jmp_buf QOR_fatal_handler;

/* ---- Callbacks and messages -------------------------------------------- */

/* The shape of an X Toolkit callback: (widget, client data, call data).
 * The library always passes a null widget. */
typedef void (*QOR_callback_proc)(void *widget, void *client_data,
                                  void *call_data);

/* One slot of the callback registry. */
typedef struct QOR_registered_callback {
    QOR_callback_proc procedure; /* null when nothing is registered */
    void *client_data;           /* passed back unchanged */
} QOR_registered_callback;

enum {
    QOR_SLOT_OUTPUT_MESSAGE = 0,
    QOR_SLOT_GIVE_MESSAGE_TEXT = 1,
    QOR_SLOT_DISC_FULL_HANDLER = 2,
    QOR_CALLBACK_SLOTS = 3
};

/* "QOR_OUTPUT_MESSAGE", "QOR_GIVE_MESSAGE_TEXT", "QOR_DISC_FULL_HANDLER". */
QOR_API extern const char *const QOR_callback_names[QOR_CALLBACK_SLOTS];
/* The registry, one entry a slot, empty to start with; set through
 * QOR_set_callback. */
QOR_API extern QOR_registered_callback
    QOR_registered_callbacks[QOR_CALLBACK_SLOTS];

/* Call records. Each starts with reason and result; the callback answers by
 * writing result. -1 from the output or give-text callback means the
 * message system is unavailable. */
typedef struct QOR_output_message_record {
    const char *reason; /* "QOR_OUTPUT_MESSAGE" */
    int32_t result;     /* 0 before the call; the callback's answer */
    const char *set;    /* message set name, "qor" for the library's */
    int32_t number;     /* message number */
    int32_t type;       /* message type: 4, 7, 67 or 71 */
    char **parameters;  /* null-ended list of texts ($0..$6), or null */
} QOR_output_message_record;

/* The call record of the give-text callback. */
typedef struct QOR_give_message_text_record {
    const char *reason;  /* "QOR_GIVE_MESSAGE_TEXT" */
    int32_t result;      /* 0 before the call; the callback's answer */
    const char *set;     /* message set name */
    int32_t number;      /* message number */
    char **parameters;   /* null-ended list of texts ($0..$6), or null */
    char *buffer;        /* the caller's buffer for the text */
    int32_t buffer_size; /* its size in bytes */
} QOR_give_message_text_record;

/* Its reason is the name of slot 1, "QOR_GIVE_MESSAGE_TEXT": applications
 * written against the original behaviour test for it. */
typedef struct QOR_disc_full_record {
    const char *reason; /* "QOR_GIVE_MESSAGE_TEXT", kept as it always was */
    int32_t result;     /* 0 before the call: retry; anything else: give up */
    int32_t os_error;   /* the errno value, ENOSPC from the library */
    int32_t context;    /* context code of the failed write */
    const char *path;   /* OS path being written */
} QOR_disc_full_record;

/* Registers (or, with a null procedure, unregisters) the callback called
 * name. Returns 0, or 2070 for an unknown name. */
QOR_API int QOR_set_callback(void *widget, const char *name,
                             QOR_callback_proc procedure, void *client_data);
/* Hands one message to the output callback and returns its answer. With
 * none registered, or an answer of -1, prints "Error: QOR Message System
 * unavailable - output_message" and an "Untranslated message: ..." line on
 * standard error and returns 10009. */
QOR_API int QOR_output_message(const char *set, int number, int type,
                               char **parameters);
/* Asks the give-text callback for the text of a message, parameters filled
 * in, in buffer (size bytes), and returns its answer. With none registered,
 * or an answer of -1, prints the unavailability line, leaves buffer as it
 * was and returns 10009: clear its first byte before the call. */
QOR_API int QOR_give_message_text(const char *set, int number,
                                  char **parameters, char *buffer, int size);
/* 0: retry the write; anything else: give up. -1 with no handler. */
QOR_API int QOR_call_disc_full_handler(int os_error, const char *path,
                                       int context);
/* Outputs message 2 of set "qor", type 7, with $0 the line in decimal and
 * $1 the file. */
QOR_API void QOR_log_location(int line, const char *file);

/* Fatal errors never return unless the handler state is outside 0..2.
 * With number -1, set is the complete message text. */
QOR_API void QOR_fatal_error(const char *set, int number, char **parameters,
                             int exit_status);
/* As QOR_fatal_error, but the parameters are the texts of messages of the
 * same set, given by number (at most 7 are used). Unlike QOR_fatal_error
 * it leaves the display outlet alone. */
QOR_API void QOR_fatal_error_msg(const char *set, int number, int count,
                                 int *parameter_numbers, int exit_status);
/* Assertion failure: "File %s, Line %d: %s", raised with status 1. */
QOR_API void QOR_fatal(const char *text, const char *file, int line);

/* ---- Basic space --------------------------------------------------------
 * Never returns null: bad sizes are assertion failures, exhaustion is the
 * fatal error 2011 (message 11). Free with QOR_free, never with free(). */
QOR_API void *QOR_malloc(int32_t size);
/* Zeroed; a count or size of 0 or below is an assertion failure. */
QOR_API void *QOR_calloc(int32_t count, int32_t size);
/* A null block gets a new one; the contents are kept up to the smaller
 * size. The block may move. */
QOR_API void *QOR_realloc(void *block, int32_t size);
/* Unlike free(), a null pointer is an assertion failure. */
QOR_API void QOR_free(void *block);
/* Sets length bytes to 0 and returns the block; no checks. */
QOR_API void *QOR_clear_memory(void *block, uint32_t length);
/* A new copy of the text; a null text gives a new "". */
QOR_API char *QOR_copy_string(const char *text);
/* A new copy of length bytes; null for a null block (nothing allocated), a
 * one-byte block (content unset) for length 0. */
QOR_API void *QOR_copy_memory(const void *block, uint32_t length);
/* Joins the texts up to a null pointer. A null first text gives "". */
QOR_API char *QOR_cat_strings(const char *first, ...) QOR_SENTINEL;

/* ======================================================================
 * Debug allocator and freestore log
 * ======================================================================
 * Debugging twins of the basic space functions, for applications hunting
 * memory faults. Each block carries four guard bytes (0F 09 17 7F) right
 * after the bytes asked for, and every block is entered in a process-wide
 * log with the file and line that allocated it and, later, freed it.
 * Freeing checks the log and the guard: a block freed twice, or written
 * past its end, is reported on standard error and is NOT released, so the
 * evidence stays in place. The log itself lives in the system heap and is
 * never freed. Blocks from these functions are freed only with
 * QOR_free_debug (or resized with QOR_realloc_debug). */

/* Size 0 gives null and logs nothing (QOR_malloc would fail instead). */
QOR_API void *QOR_malloc_debug(uint32_t size, const char *file, int32_t line);
/* Zeroed. Null when count or size is 0. Units below 4 bytes are logged
 * and laid out as 4-byte units. */
QOR_API void *QOR_calloc_debug(uint32_t count, uint32_t size,
                               const char *file, int32_t line);
/* Size 0 gives null and leaves the block alone. The block is checked as
 * by QOR_free_debug first, and resized whatever the check reported. */
QOR_API void *QOR_realloc_debug(void *block, uint32_t size, const char *file,
                                int32_t line);
/* Checks the block against the log and its guard and frees it; a block
 * freed twice or written past its end is reported and kept. */
QOR_API void QOR_free_debug(void *block, const char *file, int32_t line);

/* A null text gives a new empty text. */
QOR_API char *QOR_copy_string_debug(const char *text, const char *file,
                                    int32_t line);
/* Null for a null block; a one-byte block (content unset) for length 0. */
QOR_API void *QOR_copy_memory_debug(const void *block, uint32_t length,
                                    const char *file, int32_t line);
/* Joins the texts up to a null pointer, logged as file "????", line -1.
 * More than 16 texts draw a warning on standard error. */
QOR_API char *QOR_cat_strings_debug(const char *first, ...) QOR_SENTINEL;
/* Prints every block of the log, allocated ones first, to standard error. */
QOR_API void QOR_freestore_dump(void);

#ifdef __cplusplus
}
#endif

#endif /* QOR_FOUNDATION_H */

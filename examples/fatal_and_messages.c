/* An application's start-up with libqor: arm the fatal-error handler, plug
 * in a message output, then work with an idle object (an object of the
 * object store whose body is read and written in blocks).
 *
 *   fatal_and_messages [DIRECTORY]
 *
 * The object is made in DIRECTORY (default: the current directory) and
 * removed again. Every libqor status is checked. */
#include <qor/qor.h>

#include <setjmp.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>

/* libqor holds no message texts: it hands each message to this callback as
 * a set name, a number, a type and up to seven parameters. A real
 * application passes them on to its message system; this one prints them.
 * $0 of a recorded error is the path, left out here so that the output
 * does not depend on where the program runs. */
static void output_message(void *widget, void *client_data, void *call_data) {
    QOR_output_message_record *rec = call_data;
    (void)widget;
    (void)client_data;
    if (rec->number == -1) { /* a fatal error: set is the whole text */
        printf("fatal message, type %d: %s\n", (int)rec->type, rec->set);
        rec->result = 0;
        return;
    }
    printf("message %d of set %s, type %d", (int)rec->number, rec->set,
           (int)rec->type);
    for (int i = 1; rec->parameters && i < QOR_MAX_MESSAGE_PARAMETERS &&
                    rec->parameters[i - 1] && rec->parameters[i];
         i++)
        printf(", $%d=%s", i, rec->parameters[i]);
    printf("\n");
    rec->result = 0; /* anything but -1: the message was taken care of */
}

/* The library asks for message texts it puts into parameters (what the
 * failed operation was, "OS error N"). Without a catalogue, a placeholder. */
static void give_message_text(void *widget, void *client_data,
                              void *call_data) {
    QOR_give_message_text_record *rec = call_data;
    (void)widget;
    (void)client_data;
    snprintf(rec->buffer, (size_t)rec->buffer_size, "<text %d>",
             (int)rec->number);
    rec->result = 0;
}

static int fail(const char *what, int status) {
    fprintf(stderr, "fatal_and_messages: %s: status %d\n", what, status);
    return 1;
}

int main(int argc, char **argv) {
    const char *dir = argc > 1 ? argv[1] : ".";
    char *object; /* qor path of the idle object, ours to free */
    QOR_contents_record *body;
    char block[6] = "";
    int status;

    if (QOR_set_callback(NULL, "QOR_OUTPUT_MESSAGE", output_message, NULL) ||
        QOR_set_callback(NULL, "QOR_GIVE_MESSAGE_TEXT", give_message_text,
                         NULL))
        return fail("registering the callbacks", QOR_E_INVALID);

    /* Arm the handler. A fatal error (an assertion failure, memory
     * exhausted) longjmps here with its status instead of ending the
     * process with exit status 3. Nothing with a destructor or a lock held
     * may be left behind in the frames it crosses. */
    status = setjmp(QOR_fatal_handler);
    if (status != 0) {
        /* The handler is now active (state 2); a second fatal error would
         * end the process. Re-arm before going on if the program does. */
        printf("recovered from a fatal error, status %d\n", status);
        return 0;
    }
    QOR_exception_handler_state = 1;

    /* Object paths are qor paths; a host directory converts to one. The
     * result is ours (basic space): QOR_free it. */
    char *base = QOR_os_to_qor(dir);
    if (base == NULL)
        return fail("translating the directory", QOR_E_UNTRANSLATABLE);
    object = QOR_cat_strings(base, "/example.idle", (char *)NULL);
    QOR_free(base);

    status = QOR_create_object(object, QOR_IDLE_OBJECT);
    if (status != QOR_OK)
        return fail("creating the idle object", status);
    printf("created an idle object\n");

    /* Open its body for reading and writing, locked against every other
     * process, and move one block in and out. */
    status = QOR_open_contents(object, QOR_IDLE_OBJECT, QOR_OPEN_READ_WRITE,
                               QOR_LOCK_EXCLUSIVE, &body);
    if (status != QOR_OK)
        return fail("opening the body", status);
    status = QOR_write_idle_block(body, 0, "hello", 5);
    if (status == QOR_OK)
        status = QOR_read_idle_block(body, 0, block, 5);
    int closed = QOR_close_contents(body); /* frees body, whatever it says */
    if (status != QOR_OK)
        return fail("moving a block", status);
    if (closed != QOR_OK)
        return fail("closing the body", closed);
    printf("read back \"%s\"\n", block);

    status = QOR_delete_object(object, QOR_IDLE_OBJECT);
    if (status != QOR_OK)
        return fail("deleting the idle object", status);

    /* A failure is recorded once, through the output callback (message 52,
     * "does not exist", type 71), and its status returned. */
    status = QOR_open_contents(object, QOR_IDLE_OBJECT, QOR_OPEN_READ,
                               QOR_LOCK_NONE, &body);
    printf("opening it again: status %d\n", status);
    QOR_free(object);

    /* A programming error inside the library is fatal: freeing a null
     * pointer is an assertion failure, which arrives at setjmp above with
     * status 1, after the message (number -1, the whole text in the set). */
    QOR_free(NULL);
    printf("not reached\n");
    return 1;
}

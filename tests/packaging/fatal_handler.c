/* A user's C11 program: arms the fatal handler, survives an assertion
 * failure inside the library, and carries on. It does not define
 * MI_set_display_outlet: the library must run without it. */
#include <qor/qor.h>
#include <stdio.h>

static void quiet(void *widget, void *client, void *call) {
    (void)widget;
    (void)client;
    ((QOR_output_message_record *)call)->result = 0;
}

int main(void) {
    volatile int status;
    char *joined;
    QOR_set_callback(NULL, "QOR_OUTPUT_MESSAGE", quiet, NULL);
    status = setjmp(QOR_fatal_handler);
    if (status == 0) {
        QOR_exception_handler_state = 1;
        QOR_malloc(0); /* an assertion failure: jumps back with 1 */
        puts("not reached");
        return 1;
    }
    printf("caught %d\n", status);
    printf("state %u\n", (unsigned)QOR_exception_handler_state);
    joined = QOR_cat_strings("a", "b", "c", (char *)NULL);
    printf("joined %s\n", joined);
    QOR_free(joined);
    return 0;
}

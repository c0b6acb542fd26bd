/* Static allocators defined by a C11 program, as applications do: with the
 * initialiser macro, and with the first five fields in braces. */
#include <qor/memory.h>

struct c_record {
    int number;
    char name[20];
};

static QOR_SA_allocator c_pool_macro = QOR_SA_INITIALISER(
    sizeof(struct c_record), 32, 32, QOR_clear_memory, NULL);

/* Positional braces leave the other fields zero; GCC's -Wextra would ask for
 * every field, which is exactly what this form avoids. */
#pragma GCC diagnostic push
#pragma GCC diagnostic ignored "-Wmissing-field-initializers"
static QOR_SA_allocator c_pool_five = {sizeof(struct c_record), 100, 10,
                                       NULL, NULL};
#pragma GCC diagnostic pop

QOR_SA_allocator *memory_test_c_pool_macro(void) { return &c_pool_macro; }
QOR_SA_allocator *memory_test_c_pool_five(void) { return &c_pool_five; }
unsigned memory_test_c_record_size(void) { return sizeof(struct c_record); }

/* Allocates one record from C and fills it in. */
void *memory_test_c_allocate(QOR_SA_allocator *pool, int number) {
    struct c_record *r = (struct c_record *)QOR_SA_allocate(pool);
    r->number = number;
    r->name[0] = 'c';
    r->name[1] = '\0';
    return r;
}

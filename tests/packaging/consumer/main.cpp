// A C++ user of the installed library found through find_package(qor).
#include <qor/qor.h>

#include <cstdio>

int main() {
    QOR_set_callback(
        nullptr, "QOR_OUTPUT_MESSAGE",
        [](void *, void *, void *call) {
            static_cast<QOR_output_message_record *>(call)->result = 0;
        },
        nullptr);
    std::printf("status %d\n", QOR_record_os_error(2, "/nowhere", QOR_CTX_OPEN));
    return 0;
}

// Compiled with -m32 and with -m64: the static_asserts of the private header pin every offset
// and size of the shared records in both.
#include "qx_realtime_internal.h"

static_assert(sizeof(QX_REALTIME_THREAD_t) == 96, "thread slot");
static_assert(RT_DOMAIN_HEADER_SIZE + 88 * 2 + 96 * 3 <= RT_SHM_SIZE, "records fit the segment");

int main() {
    return 0;
}

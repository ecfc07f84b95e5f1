/* A C99 client of the public header, linked against the shared library. */
#include "qx_realtime.h"

#include <stdio.h>

int main(void) {
    QX_REALTIME_UTIL_t util = {0, 0, 0, 0};
    QX_REALTIME_THREAD_t thread;
    uint32_t us = 0;
    (void)thread;
    if (sizeof(QX_REALTIME_THREAD_t) != 96 || sizeof(util) != 16) return 1;
    if (QX_REALTIME_SelfTest() != RT_SUCCESS) return 2;
    /* Without a central segment the conversion answers RT_ERR_NULL, from C as from C++. */
    if (QX_REALTIME_DmipsToUs(1, &us) != RT_ERR_NULL) return 3;
    if (sizeof(strerrBuf) != 128 || sizeof(u8JsonPath) != 64) return 4;
    printf("c client ok\n");
    return 0;
}

// The name of a result code of the library (RT_SUCCESS, RT_ERR_*), for the messages of rtctl and
// of the demo's clients.
#ifndef QXRT_TOOLS_RESULT_NAME_H
#define QXRT_TOOLS_RESULT_NAME_H

#include "qx_realtime.h"

inline const char *result_name(uint32_t code) {
    switch (code) {
    case RT_SUCCESS:
        return "RT_SUCCESS";
    case RT_ERR_FAILED:
        return "RT_ERR_FAILED";
    case RT_ERR_INVALID_PARAM:
        return "RT_ERR_INVALID_PARAM";
    case RT_ERR_OVER_BUDGET:
        return "RT_ERR_OVER_BUDGET";
    case RT_ERR_NULL:
        return "RT_ERR_NULL";
    case RT_ERR_NOT_EXIST:
        return "RT_ERR_NOT_EXIST";
    case RT_ERR_SYSTEM:
        return "RT_ERR_SYSTEM";
    case RT_ERR_SCHED_SETATTR:
        return "RT_ERR_SCHED_SETATTR";
    default:
        return "unknown result";
    }
}

#endif

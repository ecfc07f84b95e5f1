/* The smallest client: admit this thread to Domain_Audio's Class_Render, ask what is left of the
 * domain's budget, and leave again. Build: see README ("A minimal client"). */
#define _GNU_SOURCE
#include <qx_realtime.h>
#include <stdio.h>
#include <unistd.h>

static int check(const char *what, uint32_t rc) {
    if (rc != RT_SUCCESS) fprintf(stderr, "%s failed: result %u\n", what, rc);
    return rc == RT_SUCCESS;
}

int main(void) {
    const char *domain = "Domain_Audio";
    int32_t tid = (int32_t)gettid();
    int32_t left = 0;
    QX_REALTIME_UTIL_t demand = {0, 0, 0, 0};

    /* Init in this process: it chooses the configuration file that CreateDomain reads. */
    if (!check("Init", QX_REALTIME_Init(0))) return 1;
    if (!check("CreateDomain", QX_REALTIME_CreateDomain(domain))) return 1;
    if (!check("AddThread", QX_REALTIME_AddThread(domain, "Class_Render", tid, 0))) return 1;
    if (check("QueryBudget", QX_REALTIME_QueryBudget(domain, &demand, &left)))
        printf("thread %d runs in %s; %d units of its budget are left\n", tid, domain, left);
    return check("RemoveThread", QX_REALTIME_RemoveThread(domain, tid)) ? 0 : 1;
}

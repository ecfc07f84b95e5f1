// What a configuration file may say, in one place: the scope prefixes, the key table with the
// scopes each key is taken in, and the sizes of the records and buffers that bound its values.
// The reader (config.cpp), the shared records (qx_realtime_internal.h) and the configuration
// linter (tools/config_lint.cpp) all take them from here, so the linter cannot drift from what
// the library accepts.
#ifndef QX_REALTIME_CONFIG_SCHEMA_H
#define QX_REALTIME_CONFIG_SCHEMA_H

#include <stdint.h>

// ---- sizes of the records and buffers that hold configuration values ----

#define QX_CFG_NAME_LEN 64        // domain and class names, last byte always zero
#define QX_CFG_PATH_LEN 128       // every path made from a domain name stays below this
#define QX_CFG_CPUSET_LEN 16      // the domain's Cpuset text, last byte always zero
#define QX_CFG_MAX_DOMAINS 24     // entries of the central lists of domains and budgets
#define QX_CFG_NUMBER_BUF 24      // a number is read from at most its first 23 characters
#define QX_CFG_SCAN_LINE_LEN 128  // the start-up scan reads lines of at most 127 characters
#define QX_CFG_CPU_LIST_MAX 8     // CPUs a list form (a,b,c) holds
#define QX_CFG_CPU_MASK_BITS 32   // CPUs the domain's CPU mask can show
#define QX_CFG_DBG_LEVEL_MAX 7    // DbgLevel takes 0..7

// ---- scopes ----

// Scopes are told apart by the prefix of a string token, key or value alike.
#define QX_CFG_PREFIX_SYSTEM "System_"
#define QX_CFG_PREFIX_DOMAIN "Domain_"
#define QX_CFG_PREFIX_CLASS "Class_"

// The scopes a key is taken in, as a mask.
#define QX_CFG_IN_SYSTEM 0x1u
#define QX_CFG_IN_DOMAIN 0x2u
#define QX_CFG_IN_CLASS 0x4u

// ---- keys ----

// One value per key; "Util" and "PerThreadUtil" name the same one.
typedef enum {
    QX_CFG_KEY_UTIL,
    QX_CFG_KEY_RESERVATION,
    QX_CFG_KEY_DBG_LEVEL,
    QX_CFG_KEY_ENABLED,
    QX_CFG_KEY_BUDGET_CPU_NUM,
    QX_CFG_KEY_CPUSET,
    QX_CFG_KEY_RT_PRIORITY,
    QX_CFG_KEY_DL_DEADLINE,
    QX_CFG_KEY_DL_RUNTIME,
    QX_CFG_KEY_DL_PERIOD,
    QX_CFG_KEY_DESCRIPTION,
    QX_CFG_KEY_DL_RECLAIM,
    QX_CFG_KEY_COUNT
} qx_cfg_key_t;

typedef struct {
    const char *pszName;  // matched whole and case-sensitively
    qx_cfg_key_t eKey;
    uint64_t u64Bit;     // the key's bit in the reader's status word (shown in its messages)
    uint32_t u32Scopes;  // QX_CFG_IN_*: where the value is taken; "_description" is taken
                         // everywhere and silences complaints for the rest of its scope
} qx_cfg_key_name_t;

#ifdef __cplusplus
// In the order the reader compares them.
inline constexpr qx_cfg_key_name_t kQxCfgKeys[] = {
    {"Util", QX_CFG_KEY_UTIL, 0x10ull, QX_CFG_IN_SYSTEM | QX_CFG_IN_DOMAIN | QX_CFG_IN_CLASS},
    {"PerThreadUtil", QX_CFG_KEY_UTIL, 0x10ull,
     QX_CFG_IN_SYSTEM | QX_CFG_IN_DOMAIN | QX_CFG_IN_CLASS},
    {"Reservation", QX_CFG_KEY_RESERVATION, 0x20ull, QX_CFG_IN_SYSTEM},
    {"Enabled", QX_CFG_KEY_ENABLED, 0x80ull, QX_CFG_IN_SYSTEM},
    {"DbgLevel", QX_CFG_KEY_DBG_LEVEL, 0x40ull, QX_CFG_IN_SYSTEM},
    {"BudgetCpuNum", QX_CFG_KEY_BUDGET_CPU_NUM, 0x100ull, QX_CFG_IN_SYSTEM},
    {"Cpuset", QX_CFG_KEY_CPUSET, 0x200ull, QX_CFG_IN_DOMAIN},
    {"RT_Priority", QX_CFG_KEY_RT_PRIORITY, 0x400ull, QX_CFG_IN_CLASS},
    {"DL_DeadlineUs", QX_CFG_KEY_DL_DEADLINE, 0x800ull, QX_CFG_IN_CLASS},
    {"DL_RuntimeUs", QX_CFG_KEY_DL_RUNTIME, 0x1000ull, QX_CFG_IN_CLASS},
    {"DL_PeriodUs", QX_CFG_KEY_DL_PERIOD, 0x2000ull, QX_CFG_IN_CLASS},
    {"_description", QX_CFG_KEY_DESCRIPTION, 0x4000ull,
     QX_CFG_IN_SYSTEM | QX_CFG_IN_DOMAIN | QX_CFG_IN_CLASS},
    // A deadline class's choice of reclaiming: 1 (the default) lets its threads take bandwidth
    // no other deadline thread uses, 0 holds them to their runtime per period.
    {"DL_Reclaim", QX_CFG_KEY_DL_RECLAIM, 0x8000ull, QX_CFG_IN_CLASS},
};

// The keys the start-up scan of QX_REALTIME_Init looks for, in the order it tests a line, each
// written as it must appear: quote, key, quote, colon.
inline constexpr const char *kQxCfgStartupKeys[] = {"\"Util\":", "\"Enabled\":", "\"DbgLevel\":"};
inline constexpr int kQxCfgStartupKeyCount = 3;
#endif

#endif

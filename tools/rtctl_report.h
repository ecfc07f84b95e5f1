// Structured views of what the library prints: the CPU-usage report and the dump.
//
// The library reports CPU usage and dumps only as log lines (with fixed formats), so rtctl reads
// those lines back: `--json`, the SVG chart and `rtctl top` all start from the same text that a
// plain `rtctl usage` or `rtctl dump` prints. Lines that are not part of the report (errors such
// as an unknown domain) are kept in `messages`.
#ifndef QXRT_RTCTL_REPORT_H
#define QXRT_RTCTL_REPORT_H

#include <stdint.h>

#include <string>
#include <vector>

namespace rtctl {

// ---- CPU usage ----

struct DomainSample {
    std::string name;   // the domain (one-domain mode: the requested name)
    double usage = 0;   // percent of one core
    double budget = 0;  // percent of one core
    bool over_budget = false;
};

struct UsageSample {
    std::vector<DomainSample> domains;
    bool has_rt_total = false;  // all-domains mode only
    double rt_total = 0;        // percent of one core, all domains together
};

struct UtilSetting {
    std::string name;
    int64_t util = 0;
    double percent = 0;
};

struct UsageReport {
    bool all = false;
    std::vector<UtilSetting> settings;  // all-domains mode: each domain's Util Setting
    bool has_totals = false;
    int64_t total_util = 0;
    double total_util_percent = 0;
    int64_t cap_per_core = 0, budget_cpu_num = 0, reservation = 0, util_budget = 0;
    double util_budget_percent = 0;
    std::vector<UsageSample> samples;
    std::vector<std::string> messages;
};

// text: what `rtctl usage` prints (report lines without their error tag).
UsageReport parse_usage(const std::string &text, const std::string &domain, bool all);

// ---- dump ----

struct DumpClass {
    int64_t index = 0;
    std::string name;
    int64_t util_per_thread = 0, rt_priority = 0, dl_deadline_us = 0, dl_runtime_us = 0,
            dl_period_us = 0;
};

struct DumpThread {
    int64_t slot = 0, class_index = 0, alive = 0, process_id = 0, tid = 0, util = 0, priority = 0,
            deadline_us = 0, runtime_us = 0, period_us = 0;
};

struct DumpField {
    std::string label;
    std::string value;  // as printed, trimmed
};

struct DomainDump {
    bool found = false;
    std::string name;
    std::vector<DumpField> fields;  // every record field in printed order
    std::vector<int64_t> process_ids;
    std::vector<DumpClass> classes;
    std::vector<DumpThread> threads;
    std::vector<std::string> messages;
    // The field as a number (0 when missing or not a number).
    int64_t number(const std::string &label) const;
    std::string text(const std::string &label) const;
};

DomainDump parse_dump(const std::string &text);

struct ListedThread {
    int64_t process_id = 0;  // 0: the thread was listed without its process
    std::string program;
    int64_t tid = 0;
    std::string thread;
    std::string class_name;
};

struct ListedDomain {
    std::string name;
    std::vector<ListedThread> threads;
};

struct AllDump {
    std::vector<ListedDomain> domains;
    std::vector<std::string> messages;
};

AllDump parse_dump_all(const std::string &text);

// ---- JSON output ----

// A small writer for one JSON document: commas and nesting are tracked, strings escaped.
class Json {
public:
    Json &begin_object();
    Json &end_object();
    Json &begin_array();
    Json &end_array();
    Json &key(const std::string &k);
    Json &value(const std::string &v);
    Json &value(const char *v) { return value(std::string(v)); }
    Json &value(int64_t v);
    Json &value(double v);  // two decimals, as the library prints percentages
    Json &value(bool v);
    Json &null();
    Json &strings(const std::vector<std::string> &list);
    const std::string &str() const { return out_; }

private:
    void separate();
    std::string out_;
    std::vector<bool> first_;  // per open container: nothing written in it yet
    bool after_key_ = false;
};

void usage_to_json(Json &j, const UsageReport &r);
void dump_to_json(Json &j, const DomainDump &d);
void dump_all_to_json(Json &j, const AllDump &d);

// ---- chart ----

// An SVG line chart of each domain's usage per sample, with its budget as a dashed line of the
// same colour. Each series carries its values in a data-values attribute. False when the file
// can't be written (*error says why).
bool write_usage_svg(const std::string &path, const UsageReport &r, uint32_t interval_ms,
                     const std::string &title, std::string *error);

}  // namespace rtctl

#endif

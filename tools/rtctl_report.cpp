#include "rtctl_report.h"

#include <ctype.h>
#include <errno.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>

#include <algorithm>
#include <cmath>
#include <sstream>

namespace rtctl {

namespace {

std::string trim(const std::string &s) {
    size_t b = s.find_first_not_of(" \t");
    if (b == std::string::npos) return "";
    size_t e = s.find_last_not_of(" \t");
    return s.substr(b, e - b + 1);
}

std::vector<std::string> lines_of(const std::string &text) {
    std::vector<std::string> lines;
    std::istringstream in(text);
    std::string line;
    while (std::getline(in, line)) lines.push_back(line);
    return lines;
}

bool all_of_char(const std::string &s, char c) {
    return !s.empty() && s.find_first_not_of(c) == std::string::npos;
}

bool to_int(const std::string &text, int64_t *out) {
    std::string t = trim(text);
    if (t.empty()) return false;
    char *end = nullptr;
    long long v = strtoll(t.c_str(), &end, 10);
    if (*end != '\0') return false;
    *out = v;
    return true;
}

// "[name] rest": the bracketed name (trimmed) and what follows the "] ".
bool bracketed(const std::string &line, std::string *name, std::string *rest) {
    if (line.empty() || line[0] != '[') return false;
    size_t close = line.find(']');
    if (close == std::string::npos) return false;
    *name = trim(line.substr(1, close - 1));
    *rest = line.substr(close + 1);
    return true;
}

// "%5.2f %% (budget %5.2f%%) %s", the sample part of a usage line.
bool parse_sample(const std::string &text, DomainSample *s) {
    double usage = 0, budget = 0;
    int used = 0;
    if (sscanf(text.c_str(), " %lf %% (budget %lf%%)%n", &usage, &budget, &used) != 2 || used == 0)
        return false;
    std::string mark = trim(text.substr((size_t)used));
    if (!mark.empty() && mark != "Overbudget") return false;
    s->usage = usage;
    s->budget = budget;
    s->over_budget = !mark.empty();
    return true;
}

}  // namespace

// ---- CPU usage ----

UsageReport parse_usage(const std::string &text, const std::string &domain, bool all) {
    UsageReport r;
    r.all = all;
    UsageSample current;
    for (const std::string &line : lines_of(text)) {
        DomainSample s;
        if (!all) {
            if (parse_sample(line, &s)) {
                s.name = domain;
                UsageSample one;
                one.domains.push_back(s);
                r.samples.push_back(one);
            } else if (!trim(line).empty()) {
                r.messages.push_back(line);
            }
            continue;
        }
        std::string name, rest;
        long long a = 0, b = 0, c = 0, d = 0;
        double pct = 0;
        if (bracketed(line, &name, &rest)) {
            if (parse_sample(rest, &s)) {
                s.name = name;
                current.domains.push_back(s);
                continue;
            }
            int used = 0;
            if (sscanf(rest.c_str(), " Util Setting:%lld (%lf%%)%n", &a, &pct, &used) == 2 &&
                used > 0) {
                r.settings.push_back(UtilSetting{name, a, pct});
                continue;
            }
        } else if (sscanf(line.c_str(), "Current total Util = %lld (%lf%%)", &a, &pct) == 2) {
            r.has_totals = true;
            r.total_util = a;
            r.total_util_percent = pct;
            continue;
        } else if (sscanf(line.c_str(), "Util Budget = %lld * %lld * %lld / 100 = %lld (%lf%%)", &a,
                          &b, &c, &d, &pct) == 5) {
            r.cap_per_core = a;
            r.budget_cpu_num = b;
            r.reservation = c;
            r.util_budget = d;
            r.util_budget_percent = pct;
            continue;
        } else if (sscanf(line.c_str(), "CPU usage of RT tasks in Realtime Framework: %lf%%",
                          &pct) == 1) {
            current.has_rt_total = true;
            current.rt_total = pct;
            r.samples.push_back(current);
            current = UsageSample();
            continue;
        } else if (trim(line).empty() || all_of_char(line, '=')) {
            continue;
        }
        r.messages.push_back(line);
    }
    // A sampling run that ended early (a reader failed) leaves its last domains without a total.
    if (!current.domains.empty()) r.samples.push_back(current);
    return r;
}

// ---- dump ----

int64_t DomainDump::number(const std::string &label) const {
    int64_t v = 0;
    for (const DumpField &f : fields)
        if (f.label == label && to_int(f.value, &v)) return v;
    return 0;
}

std::string DomainDump::text(const std::string &label) const {
    for (const DumpField &f : fields)
        if (f.label == label) return f.value;
    return "";
}

namespace {

bool is_identifier(const std::string &s) {
    if (s.empty()) return false;
    for (char c : s)
        if (!(isalnum((unsigned char)c) || c == '_')) return false;
    return true;
}

bool set_thread_field(DumpThread *t, const std::string &label, int64_t v) {
    static const struct {
        const char *label;
        int64_t DumpThread::*field;
    } kFields[] = {{"ThreadIdx", &DumpThread::slot},
                   {"ClassIdx", &DumpThread::class_index},
                   {"Alive", &DumpThread::alive},
                   {"ProcessID", &DumpThread::process_id},
                   {"Pid", &DumpThread::tid},
                   {"Util", &DumpThread::util},
                   {"Priority", &DumpThread::priority},
                   {"DeadlineUs", &DumpThread::deadline_us},
                   {"RuntimeUs", &DumpThread::runtime_us},
                   {"PeriodUs", &DumpThread::period_us}};
    for (const auto &f : kFields) {
        if (label == f.label) {
            t->*(f.field) = v;
            return true;
        }
    }
    return false;
}

}  // namespace

DomainDump parse_dump(const std::string &text) {
    DomainDump d;
    bool in_threads = false;
    for (const std::string &line : lines_of(text)) {
        std::string t = trim(line);
        char name[256];
        if (!d.found && sscanf(t.c_str(), "========== Domain: [%255[^]]] ==========", name) == 1) {
            d.found = true;
            d.name = name;
            continue;
        }
        if (t.empty() || all_of_char(t, '=') || t == "--------End of Threads--------") continue;
        if (!d.found) {
            // The domains this rtctl process has mapped: about rtctl itself, not the domain.
            if (t.find(" is used in pid(") == std::string::npos) d.messages.push_back(line);
            continue;
        }
        DumpClass c;
        char cname[256];
        long long idx = 0, util = 0, prio = 0, dl = 0, rt = 0, per = 0;
        if (sscanf(t.c_str(),
                   "-------- Class[%lld]: [%255[^]]], ClassUtil/thread = [%lld], RT_Priority = "
                   "[%lld], DL_DeadlineUs = [%lld], DL_RuntimeUs = [%lld], DL_PeriodUs = [%lld];",
                   &idx, cname, &util, &prio, &dl, &rt, &per) == 7) {
            d.classes.push_back(DumpClass{idx, cname, util, prio, dl, rt, per});
            in_threads = true;  // the thread slots follow the classes
            continue;
        }
        size_t eq = t.find('=');
        if (eq == std::string::npos) {
            d.messages.push_back(line);
            continue;
        }
        std::string label = trim(t.substr(0, eq));
        std::string value = trim(t.substr(eq + 1));
        if (!is_identifier(label)) {
            d.messages.push_back(line);
            continue;
        }
        if (label == "s32ProcessIDList") {
            std::string list = value;
            if (!list.empty() && list[0] == '[') list = list.substr(1);
            std::istringstream in(list);
            std::string word;
            while (in >> word) {
                int64_t pid = 0;
                if (to_int(word, &pid)) d.process_ids.push_back(pid);
            }
            continue;
        }
        if (in_threads && value.size() >= 2 && value.front() == '[' && value.back() == ']') {
            int64_t v = 0;
            if (to_int(value.substr(1, value.size() - 2), &v)) {
                if (label == "ThreadIdx") d.threads.push_back(DumpThread());
                if (!d.threads.empty() && set_thread_field(&d.threads.back(), label, v)) continue;
            }
            d.messages.push_back(line);
            continue;
        }
        d.fields.push_back(DumpField{label, value});
    }
    return d;
}

AllDump parse_dump_all(const std::string &text) {
    AllDump d;
    for (const std::string &line : lines_of(text)) {
        std::string t = trim(line);
        char name[256];
        if (sscanf(t.c_str(), "============================ Domain: [%255[^]]]", name) == 1) {
            d.domains.push_back(ListedDomain{name, {}});
            continue;
        }
        if (t.empty()) continue;
        std::string first, rest;
        int64_t id = 0;
        if (d.domains.empty() || !bracketed(line, &first, &rest) || !to_int(first, &id)) {
            d.messages.push_back(line);
            continue;
        }
        ListedThread th;
        // "[pid]program [tid]thread class" or "[tid]thread class".
        size_t open = rest.find(" [");
        std::string second, tail;
        int64_t tid = 0;
        if (open != std::string::npos && bracketed(rest.substr(open + 1), &second, &tail) &&
            to_int(second, &tid)) {
            th.process_id = id;
            th.program = trim(rest.substr(0, open));
            th.tid = tid;
        } else {
            th.tid = id;
            tail = rest;
        }
        tail = trim(tail);
        size_t space = tail.find_last_of(' ');
        if (space == std::string::npos) {
            d.messages.push_back(line);
            continue;
        }
        th.thread = trim(tail.substr(0, space));
        th.class_name = tail.substr(space + 1);
        d.domains.back().threads.push_back(th);
    }
    return d;
}

// ---- JSON ----

void Json::separate() {
    if (after_key_) {
        after_key_ = false;
        return;
    }
    if (!first_.empty()) {
        if (!first_.back()) out_ += ',';
        first_.back() = false;
    }
}

Json &Json::begin_object() {
    separate();
    out_ += '{';
    first_.push_back(true);
    return *this;
}

Json &Json::end_object() {
    out_ += '}';
    first_.pop_back();
    return *this;
}

Json &Json::begin_array() {
    separate();
    out_ += '[';
    first_.push_back(true);
    return *this;
}

Json &Json::end_array() {
    out_ += ']';
    first_.pop_back();
    return *this;
}

Json &Json::key(const std::string &k) {
    value(k);
    out_ += ':';
    after_key_ = true;
    return *this;
}

Json &Json::value(const std::string &v) {
    separate();
    out_ += '"';
    for (unsigned char c : v) {
        switch (c) {
        case '"':
            out_ += "\\\"";
            break;
        case '\\':
            out_ += "\\\\";
            break;
        case '\n':
            out_ += "\\n";
            break;
        case '\t':
            out_ += "\\t";
            break;
        case '\r':
            out_ += "\\r";
            break;
        default:
            if (c < 0x20) {
                char buf[8];
                snprintf(buf, sizeof(buf), "\\u%04x", c);
                out_ += buf;
            } else {
                out_ += (char)c;
            }
        }
    }
    out_ += '"';
    return *this;
}

Json &Json::value(int64_t v) {
    separate();
    out_ += std::to_string(v);
    return *this;
}

Json &Json::value(double v) {
    separate();
    char buf[64];
    snprintf(buf, sizeof(buf), "%.2f", std::isfinite(v) ? v : 0.0);
    out_ += buf;
    return *this;
}

Json &Json::value(bool v) {
    separate();
    out_ += v ? "true" : "false";
    return *this;
}

Json &Json::null() {
    separate();
    out_ += "null";
    return *this;
}

Json &Json::strings(const std::vector<std::string> &list) {
    begin_array();
    for (const std::string &s : list) value(s);
    return end_array();
}

void usage_to_json(Json &j, const UsageReport &r) {
    if (r.all) {
        j.key("settings").begin_array();
        for (const UtilSetting &s : r.settings)
            j.begin_object()
                .key("name")
                .value(s.name)
                .key("util")
                .value(s.util)
                .key("percent")
                .value(s.percent)
                .end_object();
        j.end_array();
        if (r.has_totals) {
            j.key("total_util")
                .begin_object()
                .key("value")
                .value(r.total_util)
                .key("percent")
                .value(r.total_util_percent)
                .end_object();
            j.key("util_budget")
                .begin_object()
                .key("cap_per_core")
                .value(r.cap_per_core)
                .key("budget_cpu_num")
                .value(r.budget_cpu_num)
                .key("reservation")
                .value(r.reservation)
                .key("value")
                .value(r.util_budget)
                .key("percent")
                .value(r.util_budget_percent)
                .end_object();
        }
    }
    j.key("samples").begin_array();
    for (const UsageSample &s : r.samples) {
        j.begin_object().key("domains").begin_array();
        for (const DomainSample &d : s.domains)
            j.begin_object()
                .key("name")
                .value(d.name)
                .key("usage_percent")
                .value(d.usage)
                .key("budget_percent")
                .value(d.budget)
                .key("over_budget")
                .value(d.over_budget)
                .end_object();
        j.end_array();
        if (s.has_rt_total) j.key("rt_total_percent").value(s.rt_total);
        j.end_object();
    }
    j.end_array();
    j.key("messages").strings(r.messages);
}

void dump_to_json(Json &j, const DomainDump &d) {
    j.key("found").value(d.found);
    j.key("name").value(d.name);
    j.key("fields").begin_object();
    for (const DumpField &f : d.fields) {
        int64_t v = 0;
        j.key(f.label);
        // Text fields (psz...) stay text even when they look like a number (a Cpuset "1").
        if (f.label.compare(0, 3, "psz") != 0 && to_int(f.value, &v))
            j.value(v);
        else
            j.value(f.value);
    }
    j.end_object();
    j.key("process_ids").begin_array();
    for (int64_t pid : d.process_ids) j.value(pid);
    j.end_array();
    j.key("classes").begin_array();
    for (const DumpClass &c : d.classes)
        j.begin_object()
            .key("index")
            .value(c.index)
            .key("name")
            .value(c.name)
            .key("util_per_thread")
            .value(c.util_per_thread)
            .key("rt_priority")
            .value(c.rt_priority)
            .key("dl_deadline_us")
            .value(c.dl_deadline_us)
            .key("dl_runtime_us")
            .value(c.dl_runtime_us)
            .key("dl_period_us")
            .value(c.dl_period_us)
            .end_object();
    j.end_array();
    j.key("threads").begin_array();
    for (const DumpThread &t : d.threads)
        j.begin_object()
            .key("slot")
            .value(t.slot)
            .key("class_index")
            .value(t.class_index)
            .key("alive")
            .value(t.alive)
            .key("process_id")
            .value(t.process_id)
            .key("tid")
            .value(t.tid)
            .key("util")
            .value(t.util)
            .key("priority")
            .value(t.priority)
            .key("deadline_us")
            .value(t.deadline_us)
            .key("runtime_us")
            .value(t.runtime_us)
            .key("period_us")
            .value(t.period_us)
            .end_object();
    j.end_array();
    j.key("messages").strings(d.messages);
}

void dump_all_to_json(Json &j, const AllDump &d) {
    j.key("domains").begin_array();
    for (const ListedDomain &dom : d.domains) {
        j.begin_object().key("name").value(dom.name).key("threads").begin_array();
        for (const ListedThread &t : dom.threads) {
            j.begin_object()
                .key("process_id")
                .value(t.process_id)
                .key("program")
                .value(t.program)
                .key("tid")
                .value(t.tid)
                .key("thread")
                .value(t.thread)
                .key("class")
                .value(t.class_name)
                .end_object();
        }
        j.end_array().end_object();
    }
    j.end_array();
    j.key("messages").strings(d.messages);
}

// ---- chart ----

namespace {

std::string xml_escape(const std::string &s) {
    std::string out;
    for (char c : s) {
        switch (c) {
        case '&':
            out += "&amp;";
            break;
        case '<':
            out += "&lt;";
            break;
        case '>':
            out += "&gt;";
            break;
        case '"':
            out += "&quot;";
            break;
        case '\'':
            out += "&apos;";
            break;
        default:
            out += c;
        }
    }
    return out;
}

// v with `decimals` decimals, and a percent sign when asked.
std::string fmt(int decimals, double v, bool percent = false) {
    char buf[64];
    snprintf(buf, sizeof(buf), "%.*f%s", decimals, v, percent ? "%" : "");
    return buf;
}

}  // namespace

bool write_usage_svg(const std::string &path, const UsageReport &r, uint32_t interval_ms,
                     const std::string &title, std::string *error) {
    // Series in order of first appearance; a domain missing from a sample has no point there.
    struct Series {
        std::string name;
        std::vector<std::pair<size_t, double>> points;  // sample index, usage
        std::vector<bool> over;
        double budget = 0;
    };
    std::vector<Series> series;
    double top = 0;
    for (size_t i = 0; i < r.samples.size(); i++) {
        for (const DomainSample &d : r.samples[i].domains) {
            auto it = std::find_if(series.begin(), series.end(),
                                   [&](const Series &s) { return s.name == d.name; });
            if (it == series.end()) {
                series.push_back(Series{d.name, {}, {}, d.budget});
                it = series.end() - 1;
            }
            it->points.push_back({i, d.usage});
            it->over.push_back(d.over_budget);
            it->budget = d.budget;
            top = std::max(top, std::max(d.usage, d.budget));
        }
    }
    // The vertical scale: percent of one core, rounded up to a multiple of 20 with some headroom.
    double ymax = std::max(20.0, std::ceil(top * 1.1 / 20.0) * 20.0);
    const double W = 820, H = 420, left = 60, right = 215, upper = 40, lower = 50;
    const double pw = W - left - right, ph = H - upper - lower;
    const size_t n = r.samples.size();
    auto X = [&](size_t i) { return left + (n <= 1 ? pw / 2 : pw * (double)i / (double)(n - 1)); };
    auto Y = [&](double v) { return upper + ph * (1.0 - std::min(v, ymax) / ymax); };
    static const char *const kColors[] = {"#1f77b4", "#2ca02c", "#9467bd", "#8c564b",
                                          "#e377c2", "#17becf", "#bcbd22", "#7f7f7f"};

    std::ostringstream o;
    o << "<?xml version=\"1.0\" encoding=\"UTF-8\"?>\n"
      << "<svg xmlns=\"http://www.w3.org/2000/svg\" width=\"" << W << "\" height=\"" << H
      << "\" viewBox=\"0 0 " << W << " " << H << "\" font-family=\"sans-serif\" font-size=\"12\""
      << " data-interval-ms=\"" << interval_ms << "\" data-samples=\"" << n << "\">\n"
      << "<title>" << xml_escape(title) << "</title>\n"
      << "<rect x=\"0\" y=\"0\" width=\"" << W << "\" height=\"" << H << "\" fill=\"white\"/>\n"
      << "<text x=\"" << left << "\" y=\"22\" font-size=\"14\">" << xml_escape(title)
      << "</text>\n";
    // Axes, grid and labels.
    for (int k = 0; k <= 4; k++) {
        double v = ymax * k / 4.0;
        o << "<line x1=\"" << left << "\" y1=\"" << fmt(1, Y(v)) << "\" x2=\"" << left + pw
          << "\" y2=\"" << fmt(1, Y(v)) << "\" stroke=\"#dddddd\"/>\n"
          << "<text x=\"" << left - 6 << "\" y=\"" << fmt(1, Y(v) + 4) << "\" text-anchor=\"end\">"
          << fmt(0, v, true) << "</text>\n";
    }
    o << "<line x1=\"" << left << "\" y1=\"" << upper << "\" x2=\"" << left << "\" y2=\""
      << upper + ph << "\" stroke=\"black\"/>\n"
      << "<line x1=\"" << left << "\" y1=\"" << upper + ph << "\" x2=\"" << left + pw << "\" y2=\""
      << upper + ph << "\" stroke=\"black\"/>\n";
    size_t step = n > 10 ? (n + 9) / 10 : 1;
    for (size_t i = 0; i < n; i += step)
        o << "<text x=\"" << fmt(1, X(i)) << "\" y=\"" << upper + ph + 16
          << "\" text-anchor=\"middle\">" << fmt(1, (double)(i + 1) * interval_ms / 1000.0)
          << "</text>\n";
    o << "<text x=\"" << left + pw / 2 << "\" y=\"" << H - 12
      << "\" text-anchor=\"middle\">time (s)</text>\n"
      << "<text x=\"16\" y=\"" << upper + ph / 2
      << "\" text-anchor=\"middle\" transform=\"rotate(-90 16 " << upper + ph / 2
      << ")\">CPU usage (% of one core)</text>\n";
    // One usage line and one dashed budget line per domain; samples over budget in red.
    for (size_t s = 0; s < series.size(); s++) {
        const Series &se = series[s];
        const char *color = kColors[s % (sizeof(kColors) / sizeof(kColors[0]))];
        std::string values, points;
        for (size_t p = 0; p < se.points.size(); p++) {
            if (p > 0) {
                values += ' ';
                points += ' ';
            }
            values += fmt(2, se.points[p].second);
            points += fmt(1, X(se.points[p].first)) + "," + fmt(1, Y(se.points[p].second));
        }
        std::string name = xml_escape(se.name);
        o << "<g class=\"domain\" data-domain=\"" << name << "\">\n"
          << "<line class=\"budget\" data-value=\"" << fmt(2, se.budget) << "\" x1=\"" << left
          << "\" y1=\"" << fmt(1, Y(se.budget)) << "\" x2=\"" << left + pw << "\" y2=\""
          << fmt(1, Y(se.budget)) << "\" stroke=\"" << color
          << "\" stroke-width=\"1.5\" stroke-dasharray=\"6 4\"/>\n"
          << "<polyline class=\"usage\" data-values=\"" << values << "\" points=\"" << points
          << "\" fill=\"none\" stroke=\"" << color << "\" stroke-width=\"2\"/>\n";
        for (size_t p = 0; p < se.points.size(); p++)
            o << "<circle cx=\"" << fmt(1, X(se.points[p].first)) << "\" cy=\""
              << fmt(1, Y(se.points[p].second)) << "\" r=\"3\" fill=\""
              << (se.over[p] ? "#d62728" : color) << "\"/>\n";
        double ly = upper + 10 + 36.0 * (double)s;
        o << "<line x1=\"" << left + pw + 16 << "\" y1=\"" << ly << "\" x2=\"" << left + pw + 40
          << "\" y2=\"" << ly << "\" stroke=\"" << color << "\" stroke-width=\"2\"/>\n"
          << "<text x=\"" << left + pw + 46 << "\" y=\"" << ly + 4 << "\">" << name << "</text>\n"
          << "<text x=\"" << left + pw + 46 << "\" y=\"" << ly + 18 << "\" fill=\"#555555\">budget "
          << fmt(2, se.budget, true) << " (dashed)</text>\n";
        o << "</g>\n";
    }
    double ly = upper + 10 + 36.0 * (double)series.size();
    o << "<circle cx=\"" << left + pw + 28 << "\" cy=\"" << ly << "\" r=\"3\" fill=\"#d62728\"/>\n"
      << "<text x=\"" << left + pw + 46 << "\" y=\"" << ly + 4 << "\">over budget</text>\n"
      << "</svg>\n";

    FILE *f = fopen(path.c_str(), "w");
    if (f == nullptr) {
        *error = strerror(errno);
        return false;
    }
    std::string doc = o.str();
    bool ok = fwrite(doc.data(), 1, doc.size(), f) == doc.size();
    if (fclose(f) != 0) ok = false;
    if (!ok) *error = "write failed";
    return ok;
}

}  // namespace rtctl

#include "rtctl_top.h"

#ifdef QXRT_HAVE_CURSES
#include <curses.h>
#endif
#include <signal.h>
#include <stdio.h>
#include <string.h>
#include <sys/syscall.h>
#include <time.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <fstream>
#include <mutex>
#include <thread>
#include <vector>

#include "qx_realtime.h"
#include "rtctl_report.h"

namespace rtctl {

namespace {

struct ThreadRow {
    int64_t tid = 0;
    std::string process, class_name, policy;
};

struct DomainRow {
    std::string name, policy, cpus;
    int64_t budget = 0, booked = 0;
    bool has_usage = false;
    double usage = 0, budget_percent = 0;
    bool over = false;
    std::vector<ThreadRow> threads;
};

struct Snapshot {
    uint32_t rc = 0;
    std::vector<DomainRow> domains;
    bool has_total = false;
    double rt_total = 0;
    int64_t util_budget = 0;
    double util_budget_percent = 0;
    std::vector<std::string> messages;
};

std::string read_first_line(const std::string &path) {
    std::ifstream in(path);
    std::string line;
    if (!std::getline(in, line)) return "";
    return line;
}

// The kernel's scheduling of a thread, as an operator writes it.
std::string kernel_policy(int64_t tid) {
    struct {
        uint32_t size, policy;
        uint64_t flags;
        int32_t nice;
        uint32_t priority;
        uint64_t runtime, deadline, period;
    } attr;
    memset(&attr, 0, sizeof(attr));
    if (syscall(SYS_sched_getattr, (pid_t)tid, &attr, (unsigned)sizeof(attr), 0u) != 0)
        return "gone";
    char buf[96];
    switch (attr.policy) {
    case 0:
        snprintf(buf, sizeof(buf), "OTHER nice %d", attr.nice);
        break;
    case 1:
        snprintf(buf, sizeof(buf), "FIFO %u", attr.priority);
        break;
    case 2:
        snprintf(buf, sizeof(buf), "RR %u", attr.priority);
        break;
    case 3:
        snprintf(buf, sizeof(buf), "BATCH");
        break;
    case 5:
        snprintf(buf, sizeof(buf), "IDLE");
        break;
    case 6:
        snprintf(buf, sizeof(buf), "DL %llu/%llu/%llu us", (unsigned long long)attr.runtime / 1000,
                 (unsigned long long)attr.deadline / 1000, (unsigned long long)attr.period / 1000);
        break;
    default:
        snprintf(buf, sizeof(buf), "policy %u", attr.policy);
    }
    return buf;
}

std::string domain_policy(const DomainDump &d) {
    bool rr = false, dl = false;
    for (const DumpClass &c : d.classes) {
        if (c.rt_priority > 0) rr = true;
        if (c.dl_period_us > 0) dl = true;
    }
    return rr && dl ? "MIXED" : rr ? "RR" : dl ? "DEADLINE" : "-";
}

void keep_messages(Snapshot *s, const std::vector<std::string> &lines) {
    for (const std::string &l : lines) s->messages.push_back(l);
}

// One refresh: a usage sample of every domain over the interval, then each domain's record.
Snapshot collect(uint32_t interval_ms) {
    Snapshot s;
    auto start = std::chrono::steady_clock::now();
    uint32_t rc = 0;
    std::string text =
        capture_report([&] { return QX_REALTIME_GetDomainCpuUsage("All", interval_ms, 1); }, &rc);
    // Without a framework the sampler returns at once; keep the pace all the same.
    auto spent = std::chrono::steady_clock::now() - start;
    if (spent < std::chrono::milliseconds(interval_ms))
        std::this_thread::sleep_for(std::chrono::milliseconds(interval_ms) - spent);
    s.rc = rc;
    UsageReport usage = parse_usage(text, "All", true);
    keep_messages(&s, usage.messages);
    s.util_budget = usage.util_budget;
    s.util_budget_percent = usage.util_budget_percent;
    if (!usage.samples.empty()) {
        s.has_total = usage.samples.back().has_rt_total;
        s.rt_total = usage.samples.back().rt_total;
    }

    static char names[64 * 24];
    memset(names, 0, sizeof(names));
    text = capture_report([&] { return QX_REALTIME_GetAllDomainName(names, sizeof(names)); }, &rc);
    if (s.rc == RT_SUCCESS) s.rc = rc;
    for (size_t slot = 0; slot < 24; slot++) {
        size_t len = strnlen(names + 64 * slot, 64);
        if (len == 0) continue;
        DomainRow row;
        row.name.assign(names + 64 * slot, len);
        text = capture_report([&] { return QX_REALTIME_DumpDomainInfo(row.name.c_str()); }, &rc);
        DomainDump d = parse_dump(text);
        keep_messages(&s, d.messages);
        if (!d.found) continue;  // deleted meanwhile
        row.policy = domain_policy(d);
        row.cpus = d.text("pszCpuset");
        row.budget = d.number("s32UtilMax");
        row.booked = d.number("s32UtilCurrent");
        for (const UsageSample &u : usage.samples)
            for (const DomainSample &ds : u.domains)
                if (ds.name == row.name) {
                    row.has_usage = true;
                    row.usage = ds.usage;
                    row.budget_percent = ds.budget;
                    row.over = ds.over_budget;
                }
        for (const DumpThread &t : d.threads) {
            if (t.alive == 0) continue;
            ThreadRow tr;
            tr.tid = t.tid;
            int64_t pid = t.process_id != 0 ? t.process_id : t.tid;
            tr.process = read_first_line("/proc/" + std::to_string(pid) + "/comm");
            if (tr.process.empty()) tr.process = "?";
            for (const DumpClass &c : d.classes)
                if (c.index == t.class_index) tr.class_name = c.name;
            tr.policy = kernel_policy(t.tid);
            row.threads.push_back(tr);
        }
        s.domains.push_back(row);
    }
    return s;
}

std::string result_text(uint32_t rc) {
    switch (rc) {
    case RT_ERR_FAILED:
        return "RT_ERR_FAILED (4)";
    case RT_ERR_INVALID_PARAM:
        return "RT_ERR_INVALID_PARAM (8)";
    case RT_ERR_NULL:
        return "RT_ERR_NULL (10): no framework here yet (rtctl init)";
    case RT_ERR_SYSTEM:
        return "RT_ERR_SYSTEM (12)";
    default:
        return "result " + std::to_string(rc);
    }
}

// Usage against budget in `width` cells: '#' up to the usage, '!' where it is above the budget,
// '|' at the budget.
std::string bar(const DomainRow &d, int width) {
    if (!d.has_usage) return "[" + std::string((size_t)width, ' ') + "]";
    double scale = std::max(10.0, std::max(d.usage, d.budget_percent) * 1.25);
    int mark = d.budget_percent > 0 ? (int)(d.budget_percent / scale * width) : -1;
    if (mark >= width) mark = width - 1;
    std::string b = "[";
    for (int k = 0; k < width; k++) {
        double v = (k + 0.5) * scale / width;
        char ch = ' ';
        if (v <= d.usage) ch = (d.budget_percent > 0 && v > d.budget_percent) ? '!' : '#';
        if (k == mark) ch = '|';
        b += ch;
    }
    return b + "]";
}

struct Line {
    std::string text;
    int kind = 0;  // 0 plain, 1 heading, 2 over budget
};

std::vector<Line> render(const Snapshot &s, const TopOptions &o, uint32_t refresh, int width,
                         bool interactive) {
    std::vector<Line> out;
    char buf[512];
    snprintf(buf, sizeof(buf), "rtctl top - libqxt_realtime_hal %s - every %.1f s - refresh %u%s",
             QX_REALTIME_VERSION, o.interval_ms / 1000.0, refresh, interactive ? " - q quits" : "");
    out.push_back({buf, 1});
    if (s.has_total)
        snprintf(buf, sizeof(buf),
                 "RT threads use %.1f%% of one core; all domains may book %lld units (%.1f%%)",
                 s.rt_total, (long long)s.util_budget, s.util_budget_percent);
    else if (s.rc != RT_SUCCESS)
        snprintf(buf, sizeof(buf), "%s", result_text(s.rc).c_str());
    else
        snprintf(buf, sizeof(buf), "no usage sample");
    out.push_back({buf, 0});
    out.push_back({"", 0});
    // DOMAIN POLICY CPUS BUDGET BOOKED, then the bar and the figures take the rest of the line.
    const int fixed = 20 + 1 + 8 + 1 + 7 + 1 + 6 + 1 + 6 + 1 + 2 + 1 + 20;
    int bar_width = std::max(10, std::min(40, width - fixed));
    snprintf(buf, sizeof(buf), "%-20s %-8s %-7s %6s %6s %-*s %s", "DOMAIN", "POLICY", "CPUS",
             "BUDGET", "BOOKED", bar_width + 2, "USAGE vs BUDGET (% of one core)", "");
    out.push_back({buf, 1});
    if (s.domains.empty()) out.push_back({"(no domains)", 0});
    for (const DomainRow &d : s.domains) {
        std::string budget = d.budget > 0 ? std::to_string(d.budget) : "none";
        std::string figures = d.has_usage ? "" : "sampling";
        if (d.has_usage) {
            snprintf(buf, sizeof(buf), "%5.1f%% / %5.1f%%%s", d.usage, d.budget_percent,
                     d.over ? " OVER" : "");
            figures = buf;
        }
        snprintf(buf, sizeof(buf), "%-20s %-8s %-7s %6s %6lld %s %s", d.name.c_str(),
                 d.policy.c_str(), d.cpus.c_str(), budget.c_str(), (long long)d.booked,
                 bar(d, bar_width).c_str(), figures.c_str());
        out.push_back({buf, d.over ? 2 : 0});
        for (const ThreadRow &t : d.threads) {
            snprintf(buf, sizeof(buf), "    tid %-8lld %-16s %-20s %s", (long long)t.tid,
                     t.process.c_str(), t.class_name.c_str(), t.policy.c_str());
            out.push_back({buf, 0});
        }
    }
    if (!s.messages.empty()) {
        out.push_back({"", 0});
        out.push_back({s.messages.back(), 0});
    }
    for (Line &l : out) l.text.erase(l.text.find_last_not_of(' ') + 1);
    return out;
}

int run_plain(const TopOptions &o) {
    uint32_t rc = RT_SUCCESS;
    for (uint32_t refresh = 1; o.count == 0 || refresh <= o.count; refresh++) {
        Snapshot s = collect(o.interval_ms);
        rc = s.rc;
        for (const Line &l : render(s, o, refresh, 100, false)) printf("%s\n", l.text.c_str());
        printf("\n");
        fflush(stdout);
    }
    return (int)(rc & 0xFFu);
}

#ifdef QXRT_HAVE_CURSES
int run_screen(const TopOptions &o) {
    std::mutex lock;
    Snapshot latest;
    uint32_t produced = 0;
    std::atomic<bool> stop{false};

    // The library calls block for the sampling interval, so they run on a thread of their own
    // and the screen answers keys at once. Only this thread calls the library.
    std::thread worker([&] {
        while (!stop.load()) {
            Snapshot s = collect(o.interval_ms);
            std::lock_guard<std::mutex> g(lock);
            latest = s;
            produced++;
            if (o.count != 0 && produced >= o.count) break;
        }
    });

    initscr();
    cbreak();
    noecho();
    keypad(stdscr, TRUE);
    curs_set(0);
    timeout(100);
    bool colors = has_colors();
    if (colors) {
        start_color();
        use_default_colors();
        init_pair(1, COLOR_RED, -1);
    }
    uint32_t shown = 0;
    Snapshot current;  // what the screen shows, kept for a redraw after a resize
    bool dirty = true;
    for (;;) {
        uint32_t seq;
        {
            std::lock_guard<std::mutex> g(lock);
            seq = produced;
            if (seq != shown) current = latest;
        }
        if (seq != shown || dirty) {
            erase();
            if (seq == 0) {
                mvprintw(0, 0, "rtctl top: sampling every %.1f s ... (q quits)",
                         o.interval_ms / 1000.0);
            } else {
                std::vector<Line> lines = render(current, o, seq, COLS, true);
                for (size_t i = 0; i < lines.size() && (int)i < LINES; i++) {
                    int attr = lines[i].kind == 1   ? A_BOLD
                               : lines[i].kind == 2 ? (colors ? COLOR_PAIR(1) | A_BOLD : A_BOLD)
                                                    : A_NORMAL;
                    attron(attr);
                    mvaddnstr((int)i, 0, lines[i].text.c_str(), COLS);
                    attroff(attr);
                }
            }
            refresh();
            shown = seq;
            dirty = false;
            if (o.count != 0 && shown >= o.count) break;
        }
        int ch = getch();
        if (ch == 'q' || ch == 'Q') break;
        if (ch == KEY_RESIZE) dirty = true;
    }
    endwin();
    fflush(stdout);
    stop = true;
    if (o.count != 0 && shown >= o.count)
        worker.join();  // it has stopped producing
    else
        worker.detach();
    // Otherwise the worker may be inside a sampling sleep of the library; it holds no lock there
    // and only reads, so the process ends without waiting for it (detached: a thread that ends
    // meanwhile is no leak to a sanitizer). Ending here also spares the screen's memory, which
    // ncurses keeps to the end, from the leak checker of sanitizer builds.
    _exit(0);
}
#endif

}  // namespace

int run_top(const TopOptions &options) {
#ifdef QXRT_HAVE_CURSES
    if (isatty(STDOUT_FILENO) && isatty(STDIN_FILENO)) return run_screen(options);
#endif
    return run_plain(options);
}

}  // namespace rtctl

#include "monitoring_support.h"

#include <fcntl.h>
#include <poll.h>
#include <stdlib.h>
#include <sys/file.h>
#include <sys/inotify.h>
#include <sys/mount.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <chrono>

namespace qxt_mon {

using qxt::format;

CounterFeeder::CounterFeeder(const std::string &fifo_path, std::vector<std::string> texts)
    : path_(fifo_path), texts_(std::move(texts)) {
    unlink(path_.c_str());
    if (texts_.empty() || mkfifo(path_.c_str(), 0644) != 0) return;
    inotify_fd_ = inotify_init1(IN_CLOEXEC | IN_NONBLOCK);
    if (inotify_fd_ < 0) return;
    if (inotify_add_watch(inotify_fd_, path_.c_str(), IN_CLOSE_NOWRITE) < 0) return;
    ok_ = true;
    thread_ = std::thread([this] { run(); });
}

CounterFeeder::~CounterFeeder() {
    stop_ = true;
    if (thread_.joinable()) thread_.join();
    if (inotify_fd_ >= 0) close(inotify_fd_);
    unlink(path_.c_str());
}

void CounterFeeder::run() {
    size_t next = 0;
    while (!stop_.load()) {
        // A non-blocking open for writing succeeds only while a reader is opening the pipe.
        int fd = open(path_.c_str(), O_WRONLY | O_NONBLOCK | O_CLOEXEC);
        if (fd < 0) {
            usleep(500);
            continue;
        }
        const std::string &text = texts_[next < texts_.size() ? next : texts_.size() - 1];
        fcntl(fd, F_SETFL, 0);
        ssize_t n = write(fd, text.data(), text.size());
        (void)n;
        served_++;  // before the close: the reader cannot be done before this is counted
        close(fd);
        next++;
        // Wait for that reader to close before a new reader can be served.
        bool closed = false;
        while (!closed && !stop_.load()) {
            struct pollfd p = {inotify_fd_, POLLIN, 0};
            if (poll(&p, 1, 50) <= 0) continue;
            char buf[4096] __attribute__((aligned(8)));
            ssize_t got = read(inotify_fd_, buf, sizeof(buf));
            for (char *q = buf; got > 0 && q < buf + got;) {
                struct inotify_event *ev = (struct inotify_event *)q;
                if (ev->mask & IN_CLOSE_NOWRITE) closed = true;
                q += sizeof(*ev) + ev->len;
            }
        }
        if (closed) reads_++;
    }
}

int CounterFeeder::settled_reads() const {
    for (int i = 0; i < 5000 && reads_.load() < served_.load(); i++) usleep(1000);
    return reads_.load();
}

std::string proc_stat_text(int32_t total) {
    // user nice system idle iowait irq softirq, then steal guest guest_nice (ignored).
    int32_t rest = total - 6 * 2;
    return format("cpu  %d 2 2 2 2 2 2 77 88 99\ncpu0 1 1 1 1 1 1 1 0 0 0\nintr 0\n", rest);
}

std::string cpuacct_stat_text(int32_t group) {
    return format("user %d\nsystem %d\n", group - group / 3, group / 3);
}

bool bind_over(const std::string &source, const std::string &target, std::string *why) {
    if (mount(source.c_str(), target.c_str(), nullptr, MS_BIND, nullptr) == 0) return true;
    *why = format("bind %s over %s: %s", source.c_str(), target.c_str(), strerror(errno));
    return false;
}

void set_cpuacct_stat_path(const std::string &domain, const std::string &path) {
    QX_REALTIME_DOMAIN_t *rec = qxt::map_domain_file(domain);
    ASSERT_NE(rec, nullptr) << domain;
    memset(rec->pszCpuacctPathStat, 0, RT_PATH_LEN);
    strncpy(rec->pszCpuacctPathStat, path.c_str(), RT_PATH_LEN - 1);
}

std::string rr_domain(const std::string &name, int util, const std::string &cpuset,
                      const std::string &cls, int class_util, int prio) {
    return format(
        "    \"%s\": {\n"
        "        \"Util\": %d,\n"
        "        \"Cpuset\": \"%s\",\n"
        "        \"%s\": {\n"
        "            \"PerThreadUtil\": %d,\n"
        "            \"RT_Priority\": %d\n"
        "        }\n"
        "    }",
        name.c_str(), util, cpuset.c_str(), cls.c_str(), class_util, prio);
}

std::string dl_domain(const std::string &name, int util, const std::string &cpuset,
                      const std::string &cls, int runtime_us, int deadline_us, int period_us) {
    return format(
        "    \"%s\": {\n"
        "        \"Util\": %d,\n"
        "        \"Cpuset\": \"%s\",\n"
        "        \"%s\": {\n"
        "            \"DL_RuntimeUs\": %d,\n"
        "            \"DL_DeadlineUs\": %d,\n"
        "            \"DL_PeriodUs\": %d\n"
        "        }\n"
        "    }",
        name.c_str(), util, cpuset.c_str(), cls.c_str(), runtime_us, deadline_us, period_us);
}

uint32_t start_framework(const std::string &domains, int cap, int enabled, int dbg_level) {
    qxt::install_config("mon", qxt::config_with(enabled, cap, dbg_level, 80, 2, domains));
    return QX_REALTIME_Init(0);
}

std::vector<std::string> forms(const qxt::LogCapture &log, bool drop_debug) {
    std::vector<std::string> out;
    for (const qxt::LogLine &line : log.lines()) {
        std::string form = line.file_form();
        if (drop_debug && form.compare(0, 14, "[RT_Impl][DBG]") == 0) continue;
        out.push_back(form);
    }
    return out;
}

std::vector<std::string> error_forms(const qxt::LogCapture &log) {
    std::vector<std::string> out;
    for (const qxt::LogLine &line : log.lines())
        if (line.priority == QX_LOG_PRIO_ERROR) out.push_back(line.file_form());
    return out;
}

std::string join(const std::vector<std::string> &lines) {
    std::string out;
    for (const std::string &line : lines) out += "  |" + line;
    return out;
}

static bool parse_tail(const char *p, Sample *out) {
    double usage = 0, budget = 0;
    int used = 0;
    // No blank after the last conversion: a blank in a scanf format would also eat the line end.
    if (sscanf(p, "%lf %% (budget %lf%%)%n", &usage, &budget, &used) != 2 || used == 0)
        return false;
    std::string rest = p + used;
    if (rest == " Overbudget\n") {
        out->over = true;
    } else if (rest == " \n") {
        out->over = false;
    } else {
        return false;
    }
    out->usage = usage;
    out->budget = budget;
    return true;
}

bool parse_sample(const std::string &form, Sample *out) {
    const std::string head = "[RT_Impl][Err] ";
    if (form.compare(0, head.size(), head) != 0) return false;
    const char *p = form.c_str() + head.size();
    if (*p == '[') return false;
    return parse_tail(p, out);
}

bool parse_domain_sample(const std::string &form, std::string *name, Sample *out) {
    const std::string head = "[RT_Impl][Err] [";
    if (form.compare(0, head.size(), head) != 0) return false;
    size_t close = form.find("] ", head.size());
    if (close == std::string::npos) return false;
    std::string padded = form.substr(head.size(), close - head.size());
    size_t end = padded.find_last_not_of(' ');
    *name = end == std::string::npos ? "" : padded.substr(0, end + 1);
    return parse_tail(form.c_str() + close + 2, out);
}

std::vector<Sample> samples_of(const std::vector<std::string> &lines) {
    std::vector<Sample> out;
    for (const std::string &form : lines) {
        Sample s;
        if (parse_sample(form, &s)) out.push_back(s);
    }
    return out;
}

std::string sample_line(double usage, double budget, bool over) {
    return format("[RT_Impl][Err] %5.2f %% (budget %5.2f%%) %s\n", usage, budget,
                  over ? "Overbudget" : "");
}

DutyThread::DutyThread(int spin_ms, int sleep_ms) {
    thread_ = std::thread([this, spin_ms, sleep_ms] {
        tid_ = (pid_t)syscall(SYS_gettid);
        while (!stop_.load()) {
            auto until = std::chrono::steady_clock::now() + std::chrono::milliseconds(spin_ms);
            while (std::chrono::steady_clock::now() < until && !stop_.load()) {
            }
            if (sleep_ms > 0) usleep((useconds_t)sleep_ms * 1000u);
        }
    });
    while (tid_.load() == 0) usleep(100);
}

DutyThread::~DutyThread() {
    stop();
}

void DutyThread::stop() {
    stop_ = true;
    if (thread_.joinable()) thread_.join();
}

BusyCpuTurn::BusyCpuTurn() {
    for (const char *path : {"/run/lock/qxrt_busy_cpu.lock", "/tmp/qxrt_busy_cpu.lock"}) {
        fd_ = open(path, O_RDWR | O_CREAT | O_CLOEXEC, 0666);
        if (fd_ >= 0) break;
    }
    if (fd_ >= 0) flock(fd_, LOCK_EX);
}

BusyCpuTurn::~BusyCpuTurn() {
    if (fd_ >= 0) close(fd_);
}

}  // namespace qxt_mon

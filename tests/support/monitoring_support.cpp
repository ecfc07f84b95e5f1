#include "monitoring_support.h"

#include <fcntl.h>
#include <limits.h>
#include <signal.h>
#include <stdlib.h>
#include <sys/file.h>
#include <sys/mount.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>

namespace qxt {

using qxt::format;

CounterFeeder::CounterFeeder(const std::string &target, std::vector<std::string> texts,
                             const std::string &pipe_dir)
    : target_(target), dir_(pipe_dir), texts_(std::move(texts)) {
    if (dir_.empty()) {
        char tmpl[] = "/dev/shm/qxt_feeder_XXXXXX";
        if (mkdtemp(tmpl) == nullptr) {
            fail(format("mkdtemp %s: %s", tmpl, strerror(errno)));
            return;
        }
        dir_ = tmpl;
    }
    if (texts_.empty()) {
        fail("no texts to serve");
        return;
    }
    for (const std::string &text : texts_) {
        // Written in one piece into an empty pipe: a reader sees all of it or nothing.
        if (text.size() >= PIPE_BUF) {
            fail(format("a text of %zu bytes does not fit one pipe write", text.size()));
            return;
        }
    }
    struct stat st;
    if (stat(target_.c_str(), &st) != 0 && !make_empty_file(target_)) return;
    // What the target was, kept reachable under the pipes so that it can be given back.
    std::string original = dir_ + "/original";
    if (!make_empty_file(original)) return;
    if (mount(target_.c_str(), original.c_str(), nullptr, MS_BIND, nullptr) != 0) {
        fail(format("bind %s over %s: %s", target_.c_str(), original.c_str(), strerror(errno)));
        return;
    }
    kept_original_ = true;
    if (!install(0)) return;
    thread_ = std::thread([this] { run(); });
}

// Nothing is unmounted here: an unmount waits for a kernel grace period, which takes seconds on
// a loaded machine. The target is given back by binding what it was over the pipes instead; the
// stacked mounts, the mount points and the directory go with this test's mount namespace.
CounterFeeder::~CounterFeeder() {
    stop_ = true;
    if (thread_.joinable()) thread_.join();
    // No reader is expected here (the calls that read have returned), but one that were blocked
    // in open() gets end of file rather than keeping the process from ending.
    if (installed_ >= 0) {
        int fd = open(pipe_path(installed_).c_str(), O_WRONLY | O_NONBLOCK | O_CLOEXEC);
        if (fd >= 0) close(fd);
    }
    if (kept_original_) {
        std::string original = dir_ + "/original";
        mount(original.c_str(), target_.c_str(), nullptr, MS_BIND, nullptr);
    }
    for (int g = 0; g <= installed_; g++) unlink(pipe_path(g).c_str());
}

bool CounterFeeder::make_empty_file(const std::string &path) {
    int fd = open(path.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC, 0644);
    if (fd < 0) {
        fail(format("create %s: %s", path.c_str(), strerror(errno)));
        return false;
    }
    close(fd);
    return true;
}

std::string CounterFeeder::error() const {
    std::lock_guard<std::mutex> lock(mutex_);
    return error_;
}

void CounterFeeder::fail(const std::string &why) {
    std::lock_guard<std::mutex> lock(mutex_);
    if (error_.empty()) error_ = "counter feeder for " + target_ + ": " + why;
    failed_ = true;
}

std::string CounterFeeder::pipe_path(int generation) const {
    return dir_ + "/" + std::to_string(generation);
}

bool CounterFeeder::install(int generation) {
    std::string path = pipe_path(generation);
    unlink(path.c_str());
    if (mkfifo(path.c_str(), 0644) != 0) {
        fail(format("mkfifo %s: %s", path.c_str(), strerror(errno)));
        return false;
    }
    // Stacked over the previous pipe: from now on an open() of the target reaches this one.
    if (mount(path.c_str(), target_.c_str(), nullptr, MS_BIND, nullptr) != 0) {
        fail(format("bind %s over %s: %s", path.c_str(), target_.c_str(), strerror(errno)));
        unlink(path.c_str());
        return false;
    }
    installed_ = generation;
    return true;
}

void CounterFeeder::run() {
    // A reader that went away before its text was written must not end the test process.
    sigset_t pipe_signal;
    sigemptyset(&pipe_signal);
    sigaddset(&pipe_signal, SIGPIPE);
    pthread_sigmask(SIG_BLOCK, &pipe_signal, nullptr);

    int generation = 0;
    while (!stop_.load()) {
        // A non-blocking open for writing succeeds only once a reader is opening this pipe; no
        // reader can reach it any more after the next pipe has been bound over the target.
        int fd = open(pipe_path(generation).c_str(), O_WRONLY | O_NONBLOCK | O_CLOEXEC);
        if (fd < 0) {
            if (errno != ENXIO) {
                fail(format("open %s: %s", pipe_path(generation).c_str(), strerror(errno)));
                break;
            }
            usleep(200);
            continue;
        }
        const std::string &text = texts_[std::min((size_t)generation, texts_.size() - 1)];
        // The next reader must find the next pipe: put it in place before this reader can return.
        bool next = install(generation + 1);
        ssize_t n = write(fd, text.data(), text.size());
        if (n != (ssize_t)text.size())
            fail(format("write to %s: %zd of %zu bytes (%s)", pipe_path(generation).c_str(), n,
                        text.size(), n < 0 ? strerror(errno) : "short"));
        served_++;  // before the close: the reader cannot be done before this is counted
        close(fd);
        if (!next) break;
        generation++;
    }
    release_readers(generation);
}

// Once the feeder cannot serve: every reader of the pipe still bound gets end of file at once.
void CounterFeeder::release_readers(int generation) {
    while (!stop_.load()) {
        int fd = open(pipe_path(generation).c_str(), O_WRONLY | O_NONBLOCK | O_CLOEXEC);
        if (fd >= 0) close(fd);
        usleep(200);
    }
}

std::string proc_stat_text(int32_t total) {
    // user nice system idle iowait irq softirq, then steal guest guest_nice (ignored).
    int32_t rest = total - 6 * 2;
    return format("cpu  %d 2 2 2 2 2 2 77 88 99\ncpu0 1 1 1 1 1 1 1 0 0 0\nintr 0\n", rest);
}

std::string cpuacct_stat_text(int32_t group) {
    return format("user %d\nsystem %d\n", group - group / 3, group / 3);
}

void set_cpuacct_stat_path(const std::string &domain, const std::string &path) {
    QX_REALTIME_DOMAIN_t *rec = qxt::map_domain_file(domain);
    ASSERT_NE(rec, nullptr) << domain;
    memset(rec->pszCpuacctPathStat, 0, RT_PATH_LEN);
    strncpy(rec->pszCpuacctPathStat, path.c_str(), RT_PATH_LEN - 1);
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

std::string join_lines(const std::vector<std::string> &lines) {
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

BusyCpuTurn::BusyCpuTurn() {
    const char *path = nullptr;
    for (const char *candidate : {"/run/lock/qxrt_busy_cpu.lock", "/tmp/qxrt_busy_cpu.lock"}) {
        path = candidate;
        fd_ = open(path, O_RDWR | O_CREAT | O_CLOEXEC, 0666);
        if (fd_ >= 0) break;
    }
    if (fd_ < 0) {
        why_ = format("cannot open the busy-CPU lock file %s: %s", path, strerror(errno));
        return;
    }
    auto until = std::chrono::steady_clock::now() + std::chrono::seconds(60);
    while (!held_) {
        if (flock(fd_, LOCK_EX | LOCK_NB) == 0) {
            held_ = true;
        } else if (errno != EWOULDBLOCK && errno != EINTR) {
            why_ = format("flock %s: %s", path, strerror(errno));
            return;
        } else if (std::chrono::steady_clock::now() >= until) {
            why_ = format("another run kept the busy-CPU turn (%s) for 60 s", path);
            return;
        } else {
            usleep(10000);
        }
    }
}

BusyCpuTurn::~BusyCpuTurn() {
    if (fd_ >= 0) close(fd_);
}

}  // namespace qxt

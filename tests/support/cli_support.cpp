#include "cli_support.h"

#include <gtest/gtest.h>

#include <fcntl.h>
#include <stdio.h>
#include <stdlib.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include "test_support.h"

namespace qxt {

namespace {
std::string slurp_and_remove(const char *path) {
    std::string text = qxt::read_file(path);
    unlink(path);
    return text;
}
}  // namespace

Result rtctl_via(const std::vector<std::string> &prefix, const std::vector<std::string> &args,
                 const std::string &input) {
    char out_path[] = "/tmp/qxrt_cli_out.XXXXXX";
    char err_path[] = "/tmp/qxrt_cli_err.XXXXXX";
    char in_path[] = "/tmp/qxrt_cli_in.XXXXXX";
    int out_fd = mkstemp(out_path);
    int err_fd = mkstemp(err_path);
    int in_fd = mkstemp(in_path);
    if (write(in_fd, input.data(), input.size()) != (ssize_t)input.size()) perror("stdin file");
    lseek(in_fd, 0, SEEK_SET);
    unlink(in_path);
    // An unprivileged child must be able to write its output files.
    fchmod(out_fd, 0666);
    fchmod(err_fd, 0666);
    pid_t pid = fork();
    if (pid == 0) {
        dup2(in_fd, 0);
        dup2(out_fd, 1);
        dup2(err_fd, 2);
        std::vector<std::string> words = prefix;
        std::vector<std::string> target = qxt::target_command(QXRT_RTCTL);
        words.insert(words.end(), target.begin(), target.end());
        words.insert(words.end(), args.begin(), args.end());
        std::vector<char *> argv;
        for (std::string &w : words) argv.push_back(const_cast<char *>(w.c_str()));
        argv.push_back(nullptr);
        execvp(argv[0], argv.data());
        _exit(127);
    }
    close(in_fd);
    close(out_fd);
    close(err_fd);
    int status = 0;
    waitpid(pid, &status, 0);
    Result r;
    r.status = WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
    r.out = slurp_and_remove(out_path);
    r.err = slurp_and_remove(err_path);
    return r;
}

Result rtctl(const std::vector<std::string> &args) {
    return rtctl_via({}, args);
}

Result rtctl_as_nobody(const std::vector<std::string> &args) {
    return rtctl_via({"setpriv", "--reuid=65534", "--regid=65534", "--clear-groups"}, args);
}

void expect_check_consistent() {
    Result r = rtctl({"check"});
    EXPECT_EQ(r.status, 0) << r.out << r.err;
    EXPECT_EQ(r.out, "consistent\n");
}

void install_shipped_config() {
    qxt::install_config("0", qxt::read_file(std::string(QXRT_SOURCE_DIR) + "/config/rt-0.json"));
}

void start_shipped_domains() {
    install_shipped_config();
    ASSERT_EQ(rtctl({"init"}).status, 0);
    Result audio = rtctl({"create", "Domain_Audio"});
    ASSERT_EQ(audio.status, 0) << audio.err;
    Result camera = rtctl({"create", "Domain_Camera"});
    ASSERT_EQ(camera.status, 0) << camera.err;
}

}  // namespace qxt

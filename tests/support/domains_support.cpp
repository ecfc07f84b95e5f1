#include "domains_support.h"

#include <dirent.h>
#include <errno.h>
#include <string.h>
#include <sys/mman.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>

namespace qxt {

std::string numbered_name(int i) {
    return qxt::format("Domain_%d", i);
}

std::vector<std::string> numbered_domains(int first, int last, int util) {
    std::vector<std::string> out;
    for (int i = first; i <= last; i++) out.push_back(rr_domain(numbered_name(i), util, "0"));
    return out;
}

std::string config_of(const std::vector<std::string> &domains) {
    return qxt::config_with(1, 1024, 4, 80, 2, qxt::join_domains(domains));
}

int run_in_fresh_process(const std::function<int()> &fn) {
    return qxt::run_in_child([&fn] {
        pstTop = nullptr;  // the inherited mappings stay, unused, like any other memory
        return fn();
    });
}

void DomainTest::init_with(const std::string &json) {
    qxt::install_config("domains", json);
    ASSERT_EQ(RT_SUCCESS, QX_REALTIME_Init(0)) << log.dump();
    ASSERT_EQ(64u, _u32DbgLevel) << "the suite's configurations carry DbgLevel 4";
}

void DomainTest::expect_creation_refused(const std::string &domain, uint32_t code,
                                         const std::string &error) {
    EXPECT_EQ(code, QX_REALTIME_CreateDomain(domain.c_str()));
    QXT_EXPECT_ERROR(log, error);
    EXPECT_FALSE(segment_exists(domain)) << domain;
}

std::string cpuset_file(const std::string &dir, const std::string &name) {
    std::string plain = dir + "/" + name;
    if (qxt::file_exists(plain)) return plain;
    return dir + "/cpuset." + name;
}

std::string first_line(const std::string &path) {
    std::string text = qxt::read_file(path);
    size_t end = text.find('\n');
    return end == std::string::npos ? text : text.substr(0, end);
}

bool is_mapped(const void *addr) {
    return qxt::range_mapped(addr, 1);
}

bool segment_exists(const std::string &domain) {
    return qxt::file_exists(RT_SHM_PREFIX + domain);
}

std::vector<std::string> mapped_names() {
    std::vector<std::string> out;
    if (pstTop == nullptr) return out;
    for (uint32_t i = 0; i < pstTop->u32DomainMapNum && i < RT_MAX_DOMAIN_MAP; i++)
        out.push_back(pstTop->astDomainMap[i].szDomainName);
    return out;
}

}  // namespace qxt

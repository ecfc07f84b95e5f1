#include "config_support.h"

#include <dirent.h>
#include <string.h>
#include <sys/stat.h>

#include <algorithm>
#include <set>

namespace qxt {

DomainRecord::DomainRecord(const std::string &name) {
    domain_ = (QX_REALTIME_DOMAIN_t *)aligned_alloc(64, RT_SHM_SIZE);
    memset(domain_, 0, RT_SHM_SIZE);
    size_t len = std::min(name.size(), (size_t)RT_NAME_LEN - 1);
    memcpy(domain_->szName, name.data(), len);
    domain_->szName[len] = '\0';
    domain_->s32NextOffset = RT_DOMAIN_HEADER_SIZE;
    domain_->s32ClassStartOffset = RT_DOMAIN_HEADER_SIZE;
}

DomainRecord::~DomainRecord() {
    free(domain_);
}

QX_REALTIME_CLASS_t *DomainRecord::cls(int i) const {
    return (QX_REALTIME_CLASS_t *)((char *)domain_ + RT_DOMAIN_HEADER_SIZE + RT_CLASS_SIZE * i);
}

void init_with_central() {
    install_config("cfgsuite", config_with(1, 1024, 4, 80, 2, ""));
    ASSERT_EQ(QX_REALTIME_Init(0), RT_SUCCESS);
    ASSERT_NE(pstTop, nullptr);
    ASSERT_NE(pstTop->pstCentral, nullptr);
    ASSERT_EQ(_u32DbgLevel, 64u);
}

std::string write_config(const std::string &text) {
    static int counter = 0;
    std::string path = format("/vendor/etc/realtime/parse-%d.json", counter++);
    write_file(path, text);
    return path;
}

uint32_t parse_text(const std::string &text, DomainRecord &domain, std::string *path) {
    std::string file = write_config(text);
    if (path != nullptr) *path = file;
    return _QX_REALTIME_JsonParser(file.c_str(), domain.get());
}

std::vector<std::string> domain_keys_of(const std::string &text) {
    std::vector<std::string> keys;
    std::set<std::string> seen;
    const std::string prefix = "\"Domain_";
    for (size_t pos = text.find(prefix); pos != std::string::npos;
         pos = text.find(prefix, pos + 1)) {
        size_t end = text.find('"', pos + 1);
        if (end == std::string::npos) break;
        std::string key = text.substr(pos + 1, end - pos - 1);
        // Only keys: the closing quote is followed by a colon.
        size_t colon = text.find_first_not_of(" \t", end + 1);
        if (colon == std::string::npos || text[colon] != ':') continue;
        if (seen.insert(key).second) keys.push_back(key);
    }
    return keys;
}

std::vector<std::string> regular_files_in(const std::string &dir) {
    std::vector<std::string> files;
    DIR *d = opendir(dir.c_str());
    if (d == nullptr) return files;
    while (struct dirent *e = readdir(d)) {
        std::string path = dir + "/" + e->d_name;
        struct stat st;
        if (stat(path.c_str(), &st) == 0 && S_ISREG(st.st_mode)) files.push_back(path);
    }
    closedir(d);
    std::sort(files.begin(), files.end());
    return files;
}

}  // namespace qxt

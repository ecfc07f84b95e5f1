// Support of the configuration suite: a process with a central record to parse into, domain
// records built the way domain creation builds them, and configuration texts written to files.
#ifndef QXRT_CONFIG_SUPPORT_H
#define QXRT_CONFIG_SUPPORT_H

#include <stdlib.h>

#include <string>
#include <vector>

#include "test_support.h"

namespace qxt {

// A domain record in a zeroed, segment-sized buffer, set up as domain creation sets it up before
// parsing: name, and class records starting right after the 1100-byte header.
class DomainRecord {
public:
    explicit DomainRecord(const std::string &name);
    ~DomainRecord();
    DomainRecord(const DomainRecord &) = delete;
    DomainRecord &operator=(const DomainRecord &) = delete;

    QX_REALTIME_DOMAIN_t *get() const { return domain_; }
    QX_REALTIME_DOMAIN_t *operator->() const { return domain_; }
    // The class record at index i, where the parser appends it.
    QX_REALTIME_CLASS_t *cls(int i) const;
    const unsigned char *bytes() const { return (const unsigned char *)domain_; }

private:
    QX_REALTIME_DOMAIN_t *domain_;
};

// Initialises the library on a small installed configuration (DbgLevel 4: info and debug
// messages reach the log), so that pstTop and the central record exist.
void init_with_central();

// Writes text to a fresh file under /vendor/etc/realtime and returns its path.
std::string write_config(const std::string &text);

// Writes text to a fresh file and runs the parser on it for the domain record.
uint32_t parse_text(const std::string &text, DomainRecord &domain, std::string *path = nullptr);

// A file's text, and the "Domain_" keys it holds, in order, each once.
std::vector<std::string> domain_keys_of(const std::string &text);

// Every regular file of a directory, as paths, sorted by name.
std::vector<std::string> regular_files_in(const std::string &dir);

}  // namespace qxt

#endif

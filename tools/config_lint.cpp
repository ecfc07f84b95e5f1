// Configuration linter. See config_lint.h for why it exists.
//
// Three passes over one file:
//   1. a strict JSON parse (stricter than jsmn, which accepts missing commas and the like), so a
//      file that only happens to tokenize is still refused, with its line and column;
//   2. the file as a person reads it: scopes nested as written, keys checked against their scope,
//      values against their type and range, domains against the budget and this machine;
//   3. the file as the library reads it: the library's own token walk and the line scan of
//      QX_REALTIME_Init (config_lint_library.cpp), whose results must agree with pass 2; where
//      they part, the text that makes them part is found in document order.
// Scopes, keys and sizes come from the library's config_schema.h.
#include "config_lint.h"

#include <ctype.h>
#include <errno.h>
#include <stdint.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <strings.h>
#include <sys/sysinfo.h>

#include <algorithm>
#include <map>
#include <set>

#include "qx_realtime_internal.h"

namespace qxrt_lint {

Options::Options() : cpu_count(get_nprocs()) {}

namespace {

// ---------------------------------------------------------------------------------------------
// Strict JSON

struct Node {
    enum Kind { kObject, kArray, kString, kNumber, kLiteral } kind = kLiteral;
    size_t pos = 0;            // offset of the first character (the opening quote of a string)
    int line = 1;              // line of pos
    std::string text;          // strings: the raw bytes between the quotes; primitives: as written
    std::vector<Node> keys;    // objects: member keys, in order
    std::vector<Node> values;  // objects: member values; arrays: elements
};

class JsonParser {
public:
    explicit JsonParser(const std::string &s) : s_(s) {
        line_starts_.push_back(0);
        for (size_t i = 0; i < s_.size(); i++)
            if (s_[i] == '\n') line_starts_.push_back(i + 1);
    }

    bool parse(Node *root) {
        skip_ws();
        if (i_ >= s_.size()) return fail(i_, "the file is empty", "write one JSON object { ... }");
        if (!value(root, 0)) return false;
        skip_ws();
        if (i_ < s_.size())
            return fail(i_, "unexpected text after the end of the top-level object",
                        "remove it, or move it inside the object");
        return true;
    }

    int line_of(size_t pos) const {
        auto it = std::upper_bound(line_starts_.begin(), line_starts_.end(), pos);
        return (int)(it - line_starts_.begin());
    }
    int column_of(size_t pos) const { return (int)(pos - line_starts_[line_of(pos) - 1]) + 1; }

    size_t error_pos = 0;
    std::string error, error_fix;

private:
    const std::string &s_;
    size_t i_ = 0;
    std::vector<size_t> line_starts_;

    bool fail(size_t pos, const std::string &what, const std::string &fix) {
        error_pos = pos;
        error = what;
        error_fix = fix;
        return false;
    }
    void skip_ws() {
        while (i_ < s_.size() &&
               (s_[i_] == ' ' || s_[i_] == '\t' || s_[i_] == '\n' || s_[i_] == '\r'))
            i_++;
    }
    std::string shown(size_t pos) const {
        if (pos >= s_.size()) return "the end of the file";
        unsigned char c = (unsigned char)s_[pos];
        char buf[32];
        if (c < 0x20 || c >= 0x7f)
            snprintf(buf, sizeof(buf), "byte 0x%02x", c);
        else
            snprintf(buf, sizeof(buf), "'%c'", c);
        return buf;
    }

    bool value(Node *out, int depth) {
        if (depth > 64) return fail(i_, "nesting deeper than 64 levels", "flatten the file");
        out->pos = i_;
        out->line = line_of(i_);
        if (i_ >= s_.size())
            return fail(i_, "the file ends where a value is expected", "complete the value");
        char c = s_[i_];
        if (c == '{') return object(out, depth);
        if (c == '[') return array(out, depth);
        if (c == '"') return string(out);
        if (c == '-' || (c >= '0' && c <= '9')) return number(out);
        for (const char *lit : {"true", "false", "null"}) {
            size_t n = strlen(lit);
            if (s_.compare(i_, n, lit) == 0) {
                out->kind = Node::kLiteral;
                out->text = lit;
                i_ += n;
                return true;
            }
        }
        return fail(
            i_,
            "expected a value (a number, a \"string\", an object or an array), found " + shown(i_),
            "quote text values and write numbers without quotes");
    }

    bool object(Node *out, int depth) {
        out->kind = Node::kObject;
        i_++;  // {
        skip_ws();
        if (i_ < s_.size() && s_[i_] == '}') {
            i_++;
            return true;
        }
        for (;;) {
            skip_ws();
            if (i_ < s_.size() && s_[i_] == '}')
                return fail(i_, "a comma before '}' (trailing comma)", "remove the last comma");
            if (i_ >= s_.size() || s_[i_] != '"')
                return fail(i_, "expected a key in double quotes, found " + shown(i_),
                            "write the key as \"Key\"");
            Node key;
            key.pos = i_;
            key.line = line_of(i_);
            if (!string(&key)) return false;
            skip_ws();
            if (i_ >= s_.size() || s_[i_] != ':')
                return fail(i_,
                            "expected ':' after the key \"" + key.text + "\", found " + shown(i_),
                            "write \"" + key.text + "\": value");
            i_++;
            skip_ws();
            Node val;
            if (!value(&val, depth + 1)) return false;
            out->keys.push_back(std::move(key));
            out->values.push_back(std::move(val));
            skip_ws();
            if (i_ < s_.size() && s_[i_] == ',') {
                i_++;
                continue;
            }
            if (i_ < s_.size() && s_[i_] == '}') {
                i_++;
                return true;
            }
            return fail(i_, "expected ',' or '}' after a member, found " + shown(i_),
                        "add the missing comma, or close the object with '}'");
        }
    }

    bool array(Node *out, int depth) {
        out->kind = Node::kArray;
        i_++;  // [
        skip_ws();
        if (i_ < s_.size() && s_[i_] == ']') {
            i_++;
            return true;
        }
        for (;;) {
            skip_ws();
            if (i_ < s_.size() && s_[i_] == ']')
                return fail(i_, "a comma before ']' (trailing comma)", "remove the last comma");
            Node val;
            if (!value(&val, depth + 1)) return false;
            out->values.push_back(std::move(val));
            skip_ws();
            if (i_ < s_.size() && s_[i_] == ',') {
                i_++;
                continue;
            }
            if (i_ < s_.size() && s_[i_] == ']') {
                i_++;
                return true;
            }
            return fail(i_, "expected ',' or ']' after an element, found " + shown(i_),
                        "add the missing comma, or close the array with ']'");
        }
    }

    bool string(Node *out) {
        size_t open = i_;
        out->kind = Node::kString;
        i_++;  // "
        size_t start = i_;
        while (i_ < s_.size()) {
            unsigned char c = (unsigned char)s_[i_];
            if (c == '"') {
                out->text = s_.substr(start, i_ - start);
                i_++;
                return true;
            }
            if (c == '\n')
                return fail(open, "a string is not closed on its line", "add the closing quote");
            if (c < 0x20)
                return fail(i_, "a control character inside a string",
                            "write it as an escape (\\t)");
            if (c == '\\') {
                if (i_ + 1 >= s_.size()) break;
                char e = s_[i_ + 1];
                if (e == 'u') {
                    for (int k = 2; k < 6; k++)
                        if (i_ + k >= s_.size() || !isxdigit((unsigned char)s_[i_ + k]))
                            return fail(i_, "a \\u escape needs four hex digits", "write \\u0041");
                    i_ += 6;
                    continue;
                }
                if (strchr("\"\\/bfnrt", e) == nullptr || e == '\0')
                    return fail(i_, std::string("unknown escape \\") + e + " in a string",
                                "use one of \\\" \\\\ \\/ \\b \\f \\n \\r \\t \\uXXXX");
                i_ += 2;
                continue;
            }
            i_++;
        }
        return fail(open, "a string is not closed", "add the closing quote");
    }

    bool number(Node *out) {
        size_t start = i_;
        out->kind = Node::kNumber;
        if (s_[i_] == '-') i_++;
        auto digits = [&]() {
            size_t d = i_;
            while (i_ < s_.size() && isdigit((unsigned char)s_[i_])) i_++;
            return i_ - d;
        };
        size_t int_start = i_;
        if (digits() == 0) return fail(i_, "a '-' without digits", "write a number such as -1");
        if (s_[int_start] == '0' && i_ - int_start > 1)
            return fail(int_start, "a number with a leading zero", "drop the leading zero");
        if (i_ < s_.size() && s_[i_] == '.') {
            i_++;
            if (digits() == 0) return fail(i_, "a '.' without digits after it", "write 1.0 or 1");
        }
        if (i_ < s_.size() && (s_[i_] == 'e' || s_[i_] == 'E')) {
            i_++;
            if (i_ < s_.size() && (s_[i_] == '+' || s_[i_] == '-')) i_++;
            if (digits() == 0) return fail(i_, "an exponent without digits", "write 1e3 or 1000");
        }
        if (i_ < s_.size() && (isalnum((unsigned char)s_[i_]) || s_[i_] == '_'))
            return fail(start, "malformed number \"" + s_.substr(start, i_ + 1 - start) + "...\"",
                        "write a decimal integer");
        out->text = s_.substr(start, i_ - start);
        return true;
    }
};

// ---------------------------------------------------------------------------------------------
// Keys

// The library's key table (config_schema.h); "Util" and "PerThreadUtil" are one key.
typedef qx_cfg_key_t Key;
constexpr Key kUtil = QX_CFG_KEY_UTIL;
constexpr Key kReservation = QX_CFG_KEY_RESERVATION;
constexpr Key kEnabled = QX_CFG_KEY_ENABLED;
constexpr Key kDbgLevel = QX_CFG_KEY_DBG_LEVEL;
constexpr Key kBudgetCpuNum = QX_CFG_KEY_BUDGET_CPU_NUM;
constexpr Key kCpuset = QX_CFG_KEY_CPUSET;
constexpr Key kRtPriority = QX_CFG_KEY_RT_PRIORITY;
constexpr Key kDlDeadline = QX_CFG_KEY_DL_DEADLINE;
constexpr Key kDlRuntime = QX_CFG_KEY_DL_RUNTIME;
constexpr Key kDlPeriod = QX_CFG_KEY_DL_PERIOD;
constexpr Key kDlReclaim = QX_CFG_KEY_DL_RECLAIM;
constexpr Key kDescription = QX_CFG_KEY_DESCRIPTION;
constexpr Key kUnknown = QX_CFG_KEY_COUNT;

const qx_cfg_key_name_t *key_entry(const std::string &name) {
    for (const qx_cfg_key_name_t &k : kQxCfgKeys)
        if (name == k.pszName) return &k;
    return nullptr;
}

Key key_of(const std::string &name) {
    const qx_cfg_key_name_t *k = key_entry(name);
    return k == nullptr ? kUnknown : k->eKey;
}

// Whether the key's value is taken in the scope; "_description" is no value.
bool taken_in(Key k, uint32_t scope) {
    if (k == kDescription || k == kUnknown) return false;
    for (const qx_cfg_key_name_t &e : kQxCfgKeys)
        if (e.eKey == k) return (e.u32Scopes & scope) != 0;
    return false;
}
bool is_system_key(Key k) {
    return taken_in(k, QX_CFG_IN_SYSTEM);
}
bool is_class_key(Key k) {
    return taken_in(k, QX_CFG_IN_CLASS);
}

// Sizes of the records that hold what a file says.
constexpr size_t kNameMax = QX_CFG_NAME_LEN - 1;
constexpr size_t kCpusetMax = QX_CFG_CPUSET_LEN - 1;

enum Prefix { kNoPrefix, kSystemPrefix, kDomainPrefix, kClassPrefix };

bool has_prefix(const std::string &s, const char *prefix) {
    return s.compare(0, strlen(prefix), prefix) == 0;
}

// Scopes are told apart by these prefixes only, exactly as the parser does.
Prefix prefix_of(const std::string &s) {
    if (has_prefix(s, QX_CFG_PREFIX_SYSTEM)) return kSystemPrefix;
    if (has_prefix(s, QX_CFG_PREFIX_DOMAIN)) return kDomainPrefix;
    if (has_prefix(s, QX_CFG_PREFIX_CLASS)) return kClassPrefix;
    return kNoPrefix;
}

std::string quoted(const std::string &s) {
    return "\"" + s + "\"";
}
std::string num(long long v) {
    return std::to_string(v);
}

// A key that a person probably meant, for unknown keys that differ only in case.
std::string suggestion_for(const std::string &name) {
    for (const qx_cfg_key_name_t &k : kQxCfgKeys) {
        if (strcasecmp(k.pszName, name.c_str()) == 0) return k.pszName;
    }
    return "";
}

// ---------------------------------------------------------------------------------------------
// The file as written

struct Member {
    const Node *key = nullptr;
    const Node *value = nullptr;
    bool has_int = false;  // the value is an integer the parser reads as written
    long long number = 0;
};

struct ClassInfo {
    std::string name;
    int line = 0;
    std::map<Key, Member> keys;
};

struct DomainInfo {
    std::string name;
    int line = 0;
    bool duplicate = false;
    std::map<Key, Member> keys;
    std::vector<ClassInfo> classes;
};

class Linter {
public:
    Linter(const std::string &text, const Options &options) : text_(text), options_(options) {}

    std::vector<Diagnostic> run() {
        JsonParser parser(text_);
        Node root;
        if (!parser.parse(&root)) {
            error(parser.line_of(parser.error_pos),
                  "malformed JSON at column " + num(parser.column_of(parser.error_pos)) + ": " +
                      parser.error,
                  parser.error_fix);
            return finish();
        }
        if (root.kind != Node::kObject) {
            error(root.line, "the file must be one JSON object { ... }", "wrap the scopes in { }");
            return finish();
        }
        collect(root);
        find_text_read_out_of_place(root, nullptr, false);
        check_system();
        for (DomainInfo &d : domains_) check_domain(d);
        check_budget_and_count();
        check_startup_scan();
        check_library_reading();
        return finish();
    }

    // The file as written (pass 2's model only); false when it is not one strict JSON object.
    bool written(Reading *out) {
        JsonParser parser(text_);
        Node root;
        if (!parser.parse(&root) || root.kind != Node::kObject) return false;
        collect(root);
        *out = model_reading();
        return true;
    }

private:
    const std::string &text_;
    Options options_;
    std::vector<Diagnostic> out_;

    bool system_present_ = false;
    int system_line_ = 1;
    std::map<Key, Member> system_;
    std::vector<DomainInfo> domains_;

    void add(int line, Severity sev, const std::string &msg, const std::string &fix) {
        for (const Diagnostic &d : out_)
            if (d.line == line && d.message == msg) return;
        out_.push_back(Diagnostic{line, sev, msg, fix});
    }
    void error(int line, const std::string &msg, const std::string &fix) {
        add(line, Severity::kError, msg, fix);
    }
    void warning(int line, const std::string &msg, const std::string &fix) {
        add(line, Severity::kWarning, msg, fix);
    }
    std::vector<Diagnostic> finish() {
        std::stable_sort(out_.begin(), out_.end(),
                         [](const Diagnostic &a, const Diagnostic &b) { return a.line < b.line; });
        return out_;
    }

    // ---- pass 2: the structure as written ----

    void check_name(const Node &key, const char *what) {
        const std::string &name = key.text;
        if (name.size() > kNameMax)
            error(key.line,
                  std::string(what) + " name " + quoted(name.substr(0, 20) + "...") + " has " +
                      num((long long)name.size()) + " characters; records keep at most " +
                      num(kNameMax),
                  "shorten the name to " + num(kNameMax) + " characters or fewer");
        if (name.find('/') != std::string::npos || name.find('\\') != std::string::npos)
            error(key.line,
                  std::string(what) + " name " + quoted(name) +
                      " contains a path separator; the name is also a file and cgroup name",
                  "use letters, digits and '_'");
        if (std::string(what) == "domain") {
            // The paths domain creation makes from the name.
            static const char *const kPaths[][2] = {
                {RT_SHM_PREFIX, ""},         {RT_FLOCK_PREFIX, ""},
                {RT_CPUSET_ROOT, "/tasks"},  {RT_CPUSET_ROOT, "/cpus"},
                {RT_CPUACCT_ROOT, "/tasks"}, {RT_CPUACCT_ROOT, "/cpuacct.stat"},
            };
            for (const auto &p : kPaths) {
                std::string path = std::string(p[0]) + name + p[1];
                if (path.size() >= QX_CFG_PATH_LEN) {
                    error(key.line,
                          "the path " + quoted(std::string(p[0]) + "<name>" + p[1]) +
                              " of this domain is " + num((long long)path.size()) +
                              " characters; paths must stay below " + num(QX_CFG_PATH_LEN),
                          "shorten the domain name");
                    break;
                }
            }
        }
    }

    // Records a scalar member of a scope, with the type checks every such value gets.
    void record(std::map<Key, Member> &keys, Key k, const Node &key, const Node &value,
                const std::string &scope) {
        auto it = keys.find(k);
        if (it != keys.end() && k != kDescription) {
            error(key.line,
                  "duplicate key " + quoted(key.text) + " in " + scope + " (first on line " +
                      num(it->second.key->line) + "); the later value wins",
                  "keep one of them");
        }
        Member m;
        m.key = &key;
        m.value = &value;
        if (k == kCpuset) {
            if (value.kind != Node::kString)
                error(value.line, "Cpuset must be a quoted string", "write \"Cpuset\": \"0-1\"");
        } else if (k != kDescription) {
            check_number(key, value, &m);
        }
        keys[k] = m;
    }

    void check_number(const Node &key, const Node &value, Member *m) {
        const std::string k = key.text;
        switch (value.kind) {
        case Node::kString:
            error(value.line,
                  quoted(k) + " is written as a string (\"" + value.text +
                      "\"); the parser takes only an unquoted number",
                  "write " + quoted(k) + ": " + (value.text.empty() ? "0" : value.text) +
                      " without quotes");
            return;
        case Node::kLiteral:
            error(value.line, quoted(k) + " is written as " + value.text + ", which reads as 0",
                  "write a number, e.g. " + quoted(k) + ": " + (value.text == "true" ? "1" : "0"));
            return;
        case Node::kObject:
        case Node::kArray:
            error(value.line,
                  quoted(k) + " must be a number, not an " +
                      (value.kind == Node::kObject ? "object" : "array"),
                  "write " + quoted(k) + ": 0");
            return;
        case Node::kNumber:
            break;
        }
        if (value.text.find_first_of(".eE") != std::string::npos) {
            int read = atoi(value.text.c_str());
            error(value.line,
                  quoted(k) + " is " + value.text + ", not an integer; the parser reads it as " +
                      num(read),
                  "write an integer such as " + num(read));
            return;
        }
        errno = 0;
        long long v = strtoll(value.text.c_str(), nullptr, 10);
        if (errno != 0 || v < INT32_MIN || v > INT32_MAX) {
            error(value.line,
                  quoted(k) + " = " + value.text + " does not fit a signed 32-bit integer",
                  "use a smaller value");
            return;
        }
        m->has_int = true;
        m->number = v;
    }

    void unknown_key(const Node &key, const std::string &scope) {
        std::string guess = suggestion_for(key.text);
        warning(key.line, "unknown key " + quoted(key.text) + " in " + scope + "; it is ignored",
                guess.empty() ? "remove it, or explain it in a \"_description\""
                              : "keys are case-sensitive: write " + quoted(guess));
    }

    void collect(const Node &root) {
        DomainInfo *last_domain = nullptr;
        Prefix last_scope = kNoPrefix;
        std::map<std::string, int> domain_lines;
        for (size_t i = 0; i < root.keys.size(); i++) {
            const Node &k = root.keys[i];
            const Node &v = root.values[i];
            Prefix p = prefix_of(k.text);
            if (p == kSystemPrefix) {
                last_scope = p;
                if (v.kind != Node::kObject) {
                    error(k.line, "the System_ scope " + quoted(k.text) + " must be an object",
                          "write " + quoted(k.text) + ": { \"Enabled\": 1, ... }");
                    continue;
                }
                if (system_present_)
                    warning(k.line, "a second System_ scope; its values override the first's",
                            "merge the System_ scopes into one");
                else
                    system_line_ = k.line;
                system_present_ = true;
                for (size_t j = 0; j < v.keys.size(); j++) system_member(v.keys[j], v.values[j]);
            } else if (p == kDomainPrefix) {
                last_scope = p;
                check_name(k, "domain");
                DomainInfo d;
                d.name = k.text;
                d.line = k.line;
                auto seen = domain_lines.find(k.text);
                if (seen != domain_lines.end()) {
                    d.duplicate = true;
                    error(k.line,
                          "domain " + quoted(k.text) + " is declared twice (first on line " +
                              num(seen->second) +
                              "); the parser reads both into one record and appends the classes "
                              "twice",
                          "merge the two objects into one");
                } else {
                    domain_lines[k.text] = k.line;
                }
                domains_.push_back(d);
                last_domain = &domains_.back();
                if (v.kind != Node::kObject) {
                    error(k.line, "the domain " + quoted(k.text) + " must be an object",
                          "write " + quoted(k.text) + ": { \"Util\": ..., \"Cpuset\": ..., ... }");
                    continue;
                }
                domain_members(*last_domain, v);
            } else if (p == kClassPrefix) {
                if (last_domain == nullptr || last_scope != kDomainPrefix) {
                    error(k.line,
                          "class " + quoted(k.text) +
                              " is outside any domain; the parser gives it to whichever domain is "
                              "being created, or ignores it",
                          "move it into the Domain_ object it belongs to");
                    continue;
                }
                // A class written after its domain's object still belongs to that domain.
                add_class(*last_domain, k, v);
            } else {
                Key key = key_of(k.text);
                if (key == kUnknown) unknown_key(k, "the top level");
            }
        }
    }

    void system_member(const Node &k, const Node &v) {
        Prefix p = prefix_of(k.text);
        if (p == kClassPrefix) {
            error(k.line,
                  "class " + quoted(k.text) +
                      " inside the System_ scope; the parser adds it to every domain it creates",
                  "move it into the Domain_ object it belongs to");
            return;
        }
        if (p != kNoPrefix) {
            error(k.line, "scope key " + quoted(k.text) + " nested inside the System_ scope",
                  "move it to the top level");
            return;
        }
        Key key = key_of(k.text);
        if (key == kUnknown) {
            unknown_key(k, "the System_ scope");
            return;
        }
        if (key == kCpuset) {
            error(k.line,
                  "\"Cpuset\" in the System_ scope sets the CPU set of every domain being created",
                  "move it into the Domain_ object whose CPUs it names");
            return;
        }
        if (!is_system_key(key) && key != kDescription) {
            error(k.line, quoted(k.text) + " is a class key, not a System_ key",
                  "move it into a Class_ object");
            return;
        }
        if (key == kUtil && k.text == "PerThreadUtil")
            error(k.line,
                  "the start-up scan looks for \"Util\" only; \"PerThreadUtil\" is not seen there",
                  "write \"Util\" in the System_ scope");
        record(system_, key, k, v, "the System_ scope");
    }

    void domain_members(DomainInfo &d, const Node &obj) {
        const Node *first_class = nullptr;
        for (size_t j = 0; j < obj.keys.size(); j++) {
            const Node &k = obj.keys[j];
            const Node &v = obj.values[j];
            Prefix p = prefix_of(k.text);
            if (p == kClassPrefix) {
                if (first_class == nullptr) first_class = &k;
                add_class(d, k, v);
                continue;
            }
            if (p != kNoPrefix) {
                error(k.line,
                      "scope key " + quoted(k.text) + " nested inside " + quoted(d.name) +
                          "; it starts a new scope and the keys after it leave this domain",
                      "move it to the top level");
                continue;
            }
            Key key = key_of(k.text);
            if (first_class != nullptr && key != kUnknown && key != kDescription) {
                // Scopes follow key order, not nesting: once a class has opened, this key is the
                // class's.
                error(k.line,
                      "domain key " + quoted(k.text) + " comes after the class " +
                          quoted(first_class->text) + " of " + quoted(d.name) +
                          "; the parser reads it as a key of the last class before it",
                      "move " + quoted(k.text) + " above " + quoted(first_class->text));
                if (key == kUtil || key == kCpuset) record(d.keys, key, k, v, quoted(d.name));
                continue;
            }
            if (key == kUnknown) {
                unknown_key(k, quoted(d.name));
            } else if (key == kUtil || key == kCpuset || key == kDescription) {
                record(d.keys, key, k, v, quoted(d.name));
            } else if (is_class_key(key)) {
                error(k.line, quoted(k.text) + " is a class key, not a domain key",
                      "move it into a Class_ object of " + quoted(d.name));
            } else {
                error(k.line, quoted(k.text) + " is a System_ key, not a domain key",
                      "move it into the System_ scope");
            }
        }
    }

    void add_class(DomainInfo &d, const Node &k, const Node &v) {
        check_name(k, "class");
        for (const ClassInfo &c : d.classes)
            if (c.name == k.text)
                error(k.line,
                      "class " + quoted(k.text) + " appears twice in " + quoted(d.name) +
                          " (first on line " + num(c.line) + "); admission only finds the first",
                      "remove or rename one of them");
        ClassInfo c;
        c.name = k.text;
        c.line = k.line;
        if (v.kind != Node::kObject) {
            error(k.line, "the class " + quoted(k.text) + " must be an object",
                  "write " + quoted(k.text) + ": { \"RT_Priority\": ... } or its DL_ keys");
            d.classes.push_back(c);
            return;
        }
        for (size_t j = 0; j < v.keys.size(); j++) {
            const Node &ck = v.keys[j];
            const Node &cv = v.values[j];
            if (prefix_of(ck.text) != kNoPrefix) {
                error(ck.line,
                      "scope key " + quoted(ck.text) + " nested inside the class " + quoted(k.text),
                      prefix_of(ck.text) == kClassPrefix
                          ? "classes do not nest: move it next to " + quoted(k.text)
                          : "move it to the top level");
                continue;
            }
            Key key = key_of(ck.text);
            if (key == kUnknown) {
                unknown_key(ck, "the class " + quoted(k.text));
            } else if (is_class_key(key) || key == kDescription) {
                record(c.keys, key, ck, cv, "the class " + quoted(k.text));
            } else if (key == kCpuset) {
                error(ck.line,
                      "\"Cpuset\" inside the class " + quoted(k.text) +
                          " is not the domain's; the domain keeps no CPU set from it",
                      "move it into " + quoted(d.name) + " above its first class");
            } else {
                error(ck.line, quoted(ck.text) + " is a System_ key, not a class key",
                      "move it into the System_ scope");
            }
        }
        d.classes.push_back(c);
    }

    // ---- pass 3: the file as the library reads it ----

    // The model of pass 2 in the terms of the library's records: what the library should read.
    static long long value_of(const std::map<Key, Member> &m, Key k) {
        auto it = m.find(k);
        if (it == m.end()) return 0;
        return it->second.has_int ? it->second.number : kNotANumber;
    }

    ClassReading class_reading(const ClassInfo &c) const {
        ClassReading r;
        r.name = c.name;
        r.line = c.line;
        r.util = value_of(c.keys, kUtil);
        r.rt_priority = value_of(c.keys, kRtPriority);
        r.dl_runtime = value_of(c.keys, kDlRuntime);
        r.dl_deadline = value_of(c.keys, kDlDeadline);
        r.dl_period = value_of(c.keys, kDlPeriod);
        // The runtime makes a deadline class: the Util and RT_Priority read before it go to 0.
        const Member *rt = get(c.keys, kDlRuntime);
        const Member *util = get(c.keys, kUtil), *prio = get(c.keys, kRtPriority);
        if (rt != nullptr && util != nullptr && util->key->pos < rt->key->pos) r.util = 0;
        if (rt != nullptr && prio != nullptr && prio->key->pos < rt->key->pos) r.rt_priority = 0;
        return r;
    }

    Reading model_reading() const {
        Reading r;
        r.system_line = system_line_;
        r.cap_per_core = value_of(system_, kUtil);
        r.reservation = value_of(system_, kReservation);
        r.dbg_level = value_of(system_, kDbgLevel);
        r.budget_cpu_num = value_of(system_, kBudgetCpuNum);
        r.enabled = value_of(system_, kEnabled);
        if (r.enabled != kNotANumber) r.enabled &= 0xFF;  // the record keeps 8 bits
        std::set<std::string> seen;
        for (const DomainInfo &d : domains_) {
            if (!seen.insert(d.name).second) continue;  // both objects go to one record
            DomainReading dr;
            dr.name = d.name;
            dr.line = d.line;
            dr.found = true;
            dr.util = value_of(d.keys, kUtil);
            const Member *cpuset = get(d.keys, kCpuset);
            if (cpuset != nullptr) dr.cpuset = cpuset->value->text.substr(0, kCpusetMax);
            for (const ClassInfo &c : d.classes) {
                dr.classes.push_back(class_reading(c));
                if (get(c.keys, kRtPriority)) dr.sched_type |= 1;
                if (get(c.keys, kDlRuntime)) dr.sched_type |= 2;
            }
            r.domains.push_back(dr);
        }
        return r;
    }

    // The library's own reader over the text, compared with the model. Where an error has been
    // reported, it explains the difference; a file that looked right but reads otherwise is a trap
    // the checks above missed, and is reported as it is.
    void check_library_reading() {
        for (const Diagnostic &d : out_)
            if (d.severity == Severity::kError) return;
        Reading model = model_reading();
        std::vector<std::string> names;
        for (const DomainReading &d : model.domains) names.push_back(d.name);
        for (const Difference &d : compare_readings(model, library_reading(text_, names)))
            error(d.line, d.what,
                  "write each value inside the object of its scope, and no text that the reader "
                  "takes as a scope or a key elsewhere");
    }

    // Where the reading and the file part, the text that makes them part, in document order: the
    // parser visits every string, key or value, and switches scope on the prefixes; a key
    // therefore belongs to whatever scope key came last, wherever it is nested. Keys that sit
    // directly in a scope object were checked in pass 2; here come the rest: keys at the top
    // level or inside an unknown object, and string values that act as keys.
    std::string scope_ = "";  // the current scope key, "" before the first one

    void find_text_read_out_of_place(const Node &node, const Node *owner_key, bool owner_is_scope) {
        if (node.kind == Node::kObject) {
            for (size_t i = 0; i < node.keys.size(); i++) {
                const Node &k = node.keys[i];
                Prefix p = prefix_of(k.text);
                if (p != kNoPrefix) {
                    scope_ = k.text;
                } else {
                    Key key = key_of(k.text);
                    if (key != kUnknown && key != kDescription && !owner_is_scope) {
                        std::string where =
                            owner_key ? "inside " + quoted(owner_key->text) : "at the top level";
                        if (scope_.empty())
                            error(
                                k.line,
                                "the key " + quoted(k.text) + " " + where +
                                    " comes before any scope and is ignored",
                                "move it into the System_, Domain_ or Class_ object it belongs to");
                        else
                            error(k.line,
                                  "the key " + quoted(k.text) + " " + where +
                                      " is still read by the parser, as a key of " + quoted(scope_),
                                  "move it into the object it belongs to, or remove it");
                    }
                }
                find_text_read_out_of_place(node.values[i], &k, p != kNoPrefix);
            }
        } else if (node.kind == Node::kArray) {
            for (const Node &v : node.values) find_text_read_out_of_place(v, owner_key, false);
        } else if (node.kind == Node::kString) {
            Prefix p = prefix_of(node.text);
            if (p != kNoPrefix) {
                error(node.line,
                      "the text " + quoted(node.text.substr(0, 40)) + " begins with " +
                          quoted(node.text.substr(0, p == kClassPrefix ? 6 : 7)) +
                          "; the parser takes it as a scope key, and the keys after it leave "
                          "their scope",
                      "reword it so that it does not begin with a scope prefix");
                scope_ = node.text;
            } else {
                Key key = key_of(node.text);
                if (key != kUnknown && key != kDescription && !scope_.empty())
                    error(node.line,
                          "the text " + quoted(node.text) +
                              " is also a key name; the parser takes it as that key, and the next "
                              "number in the scope goes to it",
                          "reword the text");
            }
        }
    }

    // ---- pass 2: values and rules ----

    const Member *sys(Key k) const {
        auto it = system_.find(k);
        return it == system_.end() ? nullptr : &it->second;
    }
    static const Member *get(const std::map<Key, Member> &m, Key k) {
        auto it = m.find(k);
        return it == m.end() ? nullptr : &it->second;
    }

    void check_system() {
        if (!system_present_) {
            error(1, "no System_ scope: Util, Enabled and DbgLevel stay 0 and the framework is off",
                  "add \"System_Config\": { \"Enabled\": 1, \"Util\": 1024, \"DbgLevel\": 2, "
                  "\"Reservation\": 80, \"BudgetCpuNum\": " +
                      num(options_.cpu_count) + " }");
            return;
        }
        const Member *en = sys(kEnabled);
        if (en == nullptr)
            error(system_line_, "the System_ scope has no \"Enabled\"; the framework stays off",
                  "add \"Enabled\": 1 on a line of its own");
        else if (en->has_int && en->number == 0)
            warning(en->value->line,
                    "\"Enabled\" is 0: every operation returns success and does nothing",
                    "write \"Enabled\": 1 to turn the framework on");
        else if (en->has_int && en->number != 1)
            error(en->value->line,
                  "\"Enabled\" is " + num(en->number) + "; only its low 8 bits are kept (" +
                      num(en->number & 0xFF) + ")",
                  "write \"Enabled\": 1 (on) or 0 (off)");

        const Member *cap = sys(kUtil);
        if (cap == nullptr)
            error(system_line_,
                  "the System_ scope has no \"Util\" (the capacity of one CPU); every budget and "
                  "deadline conversion needs it",
                  "add \"Util\": 1024 on a line of its own");
        else if (cap->has_int && cap->number <= 0)
            error(cap->value->line, "the System_ \"Util\" (capacity of one CPU) must be above 0",
                  "write \"Util\": 1024");

        const Member *dbg = sys(kDbgLevel);
        if (dbg == nullptr)
            error(system_line_,
                  "the System_ scope has no \"DbgLevel\"; the start-up scan then reads the whole "
                  "file and the last \"Util\": line wins",
                  "add \"DbgLevel\": 2 on a line of its own");
        else if (dbg->has_int && (dbg->number < 0 || dbg->number > QX_CFG_DBG_LEVEL_MAX))
            error(dbg->value->line,
                  "\"DbgLevel\" is " + num(dbg->number) + "; it takes 0.." +
                      num(QX_CFG_DBG_LEVEL_MAX),
                  "write \"DbgLevel\": 2 (errors only) or 4 (info)");

        const Member *res = sys(kReservation);
        if (res != nullptr && res->has_int && (res->number < 0 || res->number > 100))
            error(res->value->line,
                  "\"Reservation\" is " + num(res->number) + "; it is a percentage, 0..100",
                  "write a percentage such as 80");
        const Member *cpus = sys(kBudgetCpuNum);
        if (cpus != nullptr && cpus->has_int &&
            (cpus->number < 1 || cpus->number > options_.cpu_count))
            error(cpus->value->line,
                  "\"BudgetCpuNum\" is " + num(cpus->number) + "; this machine has " +
                      num(options_.cpu_count) + " CPUs",
                  "write a number from 1 to " + num(options_.cpu_count));
    }

    // The CPUs the Cpuset names (none when it is not usable), each problem reported.
    std::vector<long> check_cpuset(const DomainInfo &d, const Member &m) {
        if (m.value->kind != Node::kString) return {};  // reported by record()
        const std::string &t = m.value->text;
        int line = m.value->line;
        std::string fix_all =
            "write CPUs of this machine, e.g. \"0-" + num(options_.cpu_count - 1) + "\"";
        if (t.empty()) {
            error(line, "the Cpuset of " + quoted(d.name) + " is empty: the domain gets no CPU",
                  fix_all);
            return {};
        }
        if (t.size() > kCpusetMax)
            error(line,
                  "the Cpuset " + quoted(t) + " is longer than " + num(kCpusetMax) +
                      " characters; the record keeps " + quoted(t.substr(0, kCpusetMax)),
                  "use the range form a-b");
        std::vector<long> cpus;
        bool grammar = true;
        size_t dash = t.find('-');
        auto parse_cpu = [&](const std::string &s, long *out) {
            if (s.empty() || s.size() > 6 || s.find_first_not_of("0123456789") != std::string::npos)
                return false;
            *out = atol(s.c_str());
            return true;
        };
        if (dash != std::string::npos) {
            long a = 0, b = 0;
            if (!parse_cpu(t.substr(0, dash), &a) || !parse_cpu(t.substr(dash + 1), &b)) {
                grammar = false;
            } else if (b == 0) {
                error(line,
                      "the Cpuset " + quoted(t) +
                          " ends its range at CPU 0, which the parser refuses",
                      "write \"0\" for CPU 0 alone");
                return {};
            } else if (a > b) {
                error(line, "the Cpuset range " + quoted(t) + " is backwards and selects no CPU",
                      "write " + quoted(num(b) + "-" + num(a)));
                return {};
            } else {
                for (long n = a; n <= b; n++) cpus.push_back(n);
            }
        } else {
            size_t start = 0;
            for (;;) {
                size_t comma = t.find(',', start);
                long n = 0;
                if (!parse_cpu(t.substr(start, comma == std::string::npos ? std::string::npos
                                                                          : comma - start),
                               &n)) {
                    grammar = false;
                    break;
                }
                if (std::find(cpus.begin(), cpus.end(), n) != cpus.end()) {
                    error(line,
                          "the Cpuset " + quoted(t) + " lists CPU " + num(n) +
                              " twice; it is counted twice",
                          "list each CPU once");
                }
                cpus.push_back(n);
                if (comma == std::string::npos) break;
                start = comma + 1;
            }
            if (grammar && cpus.size() > QX_CFG_CPU_LIST_MAX)
                error(line,
                      "the Cpuset " + quoted(t) + " lists " + num((long long)cpus.size()) +
                          " CPUs; a list holds at most " + num(QX_CFG_CPU_LIST_MAX),
                      "use the range form a-b");
        }
        if (!grammar) {
            error(line,
                  "the Cpuset " + quoted(t) +
                      " is neither a range a-b nor a list a,b,c of CPU numbers",
                  fix_all);
            return {};
        }
        for (long n : cpus) {
            if (n >= options_.cpu_count) {
                error(line,
                      "the Cpuset " + quoted(t) + " names CPU " + num(n) +
                          ", which this machine (" + num(options_.cpu_count) + " CPUs, 0-" +
                          num(options_.cpu_count - 1) + ") does not have",
                      fix_all);
                break;
            }
            if (n >= QX_CFG_CPU_MASK_BITS) {
                error(line,
                      "CPU " + num(n) + " does not fit the " + num(QX_CFG_CPU_MASK_BITS) +
                          "-bit CPU mask",
                      "use CPUs 0-" + num(QX_CFG_CPU_MASK_BITS - 1));
                break;
            }
        }
        return cpus;
    }

    // What the cgroup layout the linter runs on cannot give (cgroup v2 only: the other layouts
    // place every domain as its configuration says).
    void check_layout(const DomainInfo &d, const Member &cpuset, const std::vector<long> &cpus,
                      bool deadline_domain) {
        if (options_.layout != "v2" || cpus.empty()) return;
        int line = cpuset.value->line;
        for (long n : cpus) {
            if (options_.granted_cpus.empty() ||
                std::find(options_.granted_cpus.begin(), options_.granted_cpus.end(), n) !=
                    options_.granted_cpus.end())
                continue;
            warning(line,
                    "the cgroup v2 hierarchy here grants CPUs " + options_.granted_text +
                        " only (cpuset.cpus.effective); CPU " + num(n) + " of " + quoted(d.name) +
                        " is not among them and a move onto it is refused",
                    "use CPUs of " + quoted(options_.granted_text));
            break;
        }
        if (deadline_domain && (int)cpus.size() < options_.cpu_count)
            warning(line,
                    "on cgroup v2 a thread of the deadline domain " + quoted(d.name) +
                        " gets its reservation in its own process's group before it moves to "
                        "CPUs " +
                        quoted(cpuset.value->text) +
                        ": that group must span every CPU of its root domain, or the kernel "
                        "refuses the reservation (EPERM)",
                    "run the domain's clients in groups that span every CPU, or give the domain "
                    "every CPU");
    }

    void check_domain(const DomainInfo &d) {
        const Member *util = get(d.keys, kUtil);
        const Member *cpuset = get(d.keys, kCpuset);
        if (util == nullptr)
            error(d.line,
                  quoted(d.name) +
                      " has no \"Util\"; the parser then never registers it in the "
                      "central list of domains and budgets",
                  "add \"Util\": N above its classes (0 means no limit, round-robin only)");
        else if (util->has_int && util->number < 0)
            error(util->value->line, "the Util of " + quoted(d.name) + " is negative",
                  "write 0 for no limit, or a positive budget");
        if (cpuset == nullptr)
            error(d.line,
                  quoted(d.name) + " has no \"Cpuset\"; its creation fails on the CPU count",
                  "add \"Cpuset\": \"0-" + num(options_.cpu_count - 1) + "\" above its classes");
        std::vector<long> cpus;
        if (cpuset != nullptr) cpus = check_cpuset(d, *cpuset);
        if (d.classes.empty() && !d.duplicate)
            warning(d.line, quoted(d.name) + " has no class; no thread can be admitted to it",
                    "add a Class_ object");

        // A domain is round-robin or deadline as a whole: RT_Priority marks the one, DL_RuntimeUs
        // the other.
        const ClassInfo *first_typed = nullptr;
        bool first_is_rr = false, rr = false, dl = false;
        for (const ClassInfo &c : d.classes) {
            bool has_rr = get(c.keys, kRtPriority) != nullptr;
            bool has_dl = get(c.keys, kDlRuntime) != nullptr;
            if (has_rr && has_dl) {
                error(c.line,
                      "the class " + quoted(c.name) + " has both RT_Priority and DL_RuntimeUs",
                      "keep RT_Priority for round-robin or the DL_ keys for deadline");
                continue;
            }
            if (!has_rr && !has_dl) {
                bool partial = get(c.keys, kDlDeadline) || get(c.keys, kDlPeriod);
                error(c.line,
                      partial ? "the class " + quoted(c.name) +
                                    " has no \"DL_RuntimeUs\"; without it the class is not a "
                                    "deadline class"
                              : "the class " + quoted(c.name) +
                                    " has neither RT_Priority nor DL_RuntimeUs; its threads cannot "
                                    "be scheduled",
                      partial ? "add \"DL_RuntimeUs\""
                              : "add \"RT_Priority\" (1..99) or the three DL_ keys");
                continue;
            }
            rr = rr || has_rr;
            dl = dl || has_dl;
            if (first_typed == nullptr) {
                first_typed = &c;
                first_is_rr = has_rr;
            } else if (has_rr != first_is_rr) {
                error(c.line,
                      quoted(d.name) + " mixes round-robin and deadline classes (" +
                          quoted(first_typed->name) + " is " +
                          (first_is_rr ? "RT_Priority" : "DL_") + ", " + quoted(c.name) + " is " +
                          (has_rr ? "RT_Priority" : "DL_") + "); its creation is refused",
                      "put round-robin and deadline classes into separate domains");
            }
        }
        bool deadline_domain = dl && !rr;
        if (cpuset != nullptr) check_layout(d, *cpuset, cpus, deadline_domain);
        if (deadline_domain && util != nullptr && util->has_int && util->number == 0)
            error(util->value->line,
                  "the deadline domain " + quoted(d.name) +
                      " has Util 0; only a round-robin domain may "
                      "go without a budget",
                  "give it a budget, e.g. \"Util\": " + num(cap_per_core()));

        long long domain_util = util && util->has_int ? util->number : 0;
        for (const ClassInfo &c : d.classes) {
            if (get(c.keys, kRtPriority) && !get(c.keys, kDlRuntime))
                check_rr_class(d, c, domain_util);
            else if (get(c.keys, kDlRuntime) && !get(c.keys, kRtPriority))
                check_dl_class(d, c, domain_util);
            check_reclaim(c);
        }
    }

    long long cap_per_core() const {
        const Member *cap = sys(kUtil);
        return cap && cap->has_int ? cap->number : 0;
    }

    void check_rr_class(const DomainInfo &d, const ClassInfo &c, long long domain_util) {
        const Member *prio = get(c.keys, kRtPriority);
        if (prio->has_int && (prio->number < 1 || prio->number > 99))
            error(prio->value->line,
                  "RT_Priority " + num(prio->number) + " of " + quoted(c.name) +
                      " is outside 1..99; every admission to the class is refused",
                  "use a priority from 1 to 99");
        const Member *util = get(c.keys, kUtil);
        if (util == nullptr) {
            if (domain_util > 0)
                warning(c.line,
                        "the class " + quoted(c.name) +
                            " has no \"Util\"; its threads are admitted without being charged",
                        "add \"Util\": N (units per thread)");
        } else if (util->has_int && util->number < 0) {
            error(util->value->line,
                  "the Util of " + quoted(c.name) + " is negative; admission refuses it",
                  "write 0 or more");
        } else if (util->has_int && domain_util > 0 && util->number > domain_util) {
            error(util->value->line,
                  "one thread of " + quoted(c.name) + " (Util " + num(util->number) +
                      ") is more than " + quoted(d.name) + "'s whole budget (" + num(domain_util) +
                      "); every admission is refused",
                  "lower the class's Util or raise the domain's");
        }
    }

    // DL_Reclaim: 1 (the default) or 0, and only a deadline class's threads take it.
    void check_reclaim(const ClassInfo &c) {
        const Member *m = get(c.keys, kDlReclaim);
        if (m == nullptr) return;
        if (!get(c.keys, kDlRuntime) || get(c.keys, kRtPriority))
            warning(m->key->line,
                    "DL_Reclaim of " + quoted(c.name) +
                        " is ignored: only a deadline class (DL_RuntimeUs) reclaims or not",
                    "remove it, or make the class a deadline class");
        else if (!m->has_int || (m->number != 0 && m->number != 1))
            error(m->key->line,
                  "DL_Reclaim of " + quoted(c.name) + " must be 0 or 1; any other value reads as 1",
                  "write 0 to hold the class's threads to their reservation, or 1 (the default)");
    }

    void check_dl_class(const DomainInfo &d, const ClassInfo &c, long long domain_util) {
        const Member *rt = get(c.keys, kDlRuntime);
        const Member *dlm = get(c.keys, kDlDeadline);
        const Member *per = get(c.keys, kDlPeriod);
        if (get(c.keys, kUtil))
            warning(get(c.keys, kUtil)->key->line,
                    "the \"Util\" of the deadline class " + quoted(c.name) +
                        " is ignored; admission charges DL_RuntimeUs x Util-per-core / DL_PeriodUs",
                    "remove it");
        bool complete = true;
        for (auto pair :
             {std::make_pair(dlm, "DL_DeadlineUs"), std::make_pair(per, "DL_PeriodUs")}) {
            if (pair.first == nullptr) {
                error(c.line,
                      "the deadline class " + quoted(c.name) + " has no " + quoted(pair.second) +
                          "; it reads as 0 and every admission is refused",
                      std::string("add ") + quoted(pair.second));
                complete = false;
            }
        }
        for (const Member *m : {rt, dlm, per}) {
            if (m == nullptr) continue;
            if (!m->has_int) {
                complete = false;
                continue;
            }
            if (m->number > 2147483)
                error(m->value->line,
                      quoted(m->key->text) + " is " + num(m->number) +
                          " us; above 2147483 us the value in nanoseconds wraps",
                      "use at most 2147483 us");
            if (m->number < 1)
                error(m->value->line, quoted(m->key->text) + " must be at least 1 us",
                      "use a positive value");
        }
        if (!complete) return;
        long long r = rt->number, dd = dlm->number, p = per->number;
        if (!(r <= dd && dd <= p))
            error(c.line,
                  "the deadline parameters of " + quoted(c.name) +
                      " are out of order: DL_RuntimeUs " + num(r) + ", DL_DeadlineUs " + num(dd) +
                      ", DL_PeriodUs " + num(p) + "; admission needs runtime <= deadline <= period",
                  "reorder the values so that DL_RuntimeUs <= DL_DeadlineUs <= DL_PeriodUs");
        else if (domain_util > 0 && p > 0) {
            uint32_t cost = (uint32_t)((uint32_t)r * (uint32_t)cap_per_core()) / (uint32_t)p;
            if ((long long)cost > domain_util)
                error(c.line,
                      "one thread of " + quoted(c.name) + " costs " + num(cost) +
                          " units (runtime x " + num(cap_per_core()) + " / period), more than " +
                          quoted(d.name) + "'s whole budget (" + num(domain_util) +
                          "); every admission is refused",
                      "shorten DL_RuntimeUs or raise the domain's Util");
        }
    }

    void check_budget_and_count() {
        std::set<std::string> names;
        long long total = 0;
        const Member *res = sys(kReservation), *cpus = sys(kBudgetCpuNum);
        bool any_budget = false;
        for (const DomainInfo &d : domains_) {
            const Member *u = get(d.keys, kUtil);
            if (u && u->has_int && u->number > 0) any_budget = true;
        }
        if (system_present_ && any_budget) {
            if (res == nullptr)
                error(system_line_,
                      "the System_ scope has no \"Reservation\"; the budget is 0 and only domains "
                      "with Util 0 can be created",
                      "add \"Reservation\": 80 (percent of the budget CPUs)");
            if (cpus == nullptr)
                error(system_line_,
                      "the System_ scope has no \"BudgetCpuNum\"; the budget is 0 and only domains "
                      "with Util 0 can be created",
                      "add \"BudgetCpuNum\": " + num(options_.cpu_count));
        }
        bool budget_known =
            res && res->has_int && cpus && cpus->has_int && sys(kUtil) && sys(kUtil)->has_int;
        uint32_t limit = 0;
        if (budget_known)
            limit = (uint32_t)((uint32_t)cpus->number * (uint32_t)cap_per_core() *
                               (uint32_t)res->number) /
                    100u;
        bool reported = false;
        for (const DomainInfo &d : domains_) {
            if (names.count(d.name)) continue;  // a domain counts once
            names.insert(d.name);
            if (names.size() == QX_CFG_MAX_DOMAINS + 1)
                error(d.line,
                      quoted(d.name) + " is the " + num(QX_CFG_MAX_DOMAINS + 1) +
                          "th domain; the central record has room for " + num(QX_CFG_MAX_DOMAINS),
                      "merge or remove domains");
            const Member *u = get(d.keys, kUtil);
            if (u && u->has_int) total += u->number;
            if (budget_known && !reported && total > (long long)limit) {
                reported = true;
                error(d.line,
                      "the domains' Util adds up to " + num(total) + " with " + quoted(d.name) +
                          ", above the budget BudgetCpuNum x Util x Reservation / 100 = " +
                          num(cpus->number) + " x " + num(cap_per_core()) + " x " +
                          num(res->number) + " / 100 = " + num(limit) +
                          "; its creation, and every one after it, fails",
                      "lower the domains' Util, or raise Reservation or BudgetCpuNum");
            }
        }
    }

    // ---- pass 3b: the start-up line scan of QX_REALTIME_Init ----

    // QX_REALTIME_Init reads lines of at most 127 bytes, takes the first of "Util", "Enabled" and
    // "DbgLevel" found in a line, the text after its first ':' up to ',' through atoi, until all
    // three were seen; the scan itself is the library's.
    void check_startup_scan() {
        if (!system_present_) return;
        // The library's own scan; a key it saw has a line.
        const StartupReading scan = library_startup_reading(text_);
        struct Seen {
            bool found;
            long long value;
            int line;
        } seen[3];
        for (int k = 0; k < 3; k++) seen[k] = Seen{scan.line[k] != 0, scan.value[k], scan.line[k]};
        const Key wanted[3] = {kUtil, kEnabled, kDbgLevel};
        const char *const names[3] = {"Util", "Enabled", "DbgLevel"};
        int last_system_line = 0;
        for (int k = 0; k < 3; k++) {
            const Member *m = sys(wanted[k]);
            if (m != nullptr) last_system_line = std::max(last_system_line, m->value->line);
        }
        for (int k = 0; k < 3; k++) {
            const Member *m = sys(wanted[k]);
            if (m == nullptr || m->key->text != names[k]) continue;  // reported already
            int key_line = m->key->line;
            std::string key_colon = std::string("\"") + names[k] + "\":";
            // The layout rules first: each says plainly what to change.
            if (line_text(key_line).find(key_colon) == std::string::npos) {
                error(key_line,
                      "the start-up scan of QX_REALTIME_Init looks for " + key_colon +
                          " and does not see this line's " + quoted(names[k]),
                      "write " + key_colon + " with no space before the colon");
                continue;
            }
            if (m->value->line != key_line) {
                error(key_line,
                      "the value of " + quoted(names[k]) +
                          " is not on its line; the start-up scan of QX_REALTIME_Init reads 0",
                      "put the value on the same line as " + quoted(names[k]));
                continue;
            }
            if (others_on_line(key_line)) {
                error(key_line,
                      quoted(names[k]) +
                          " shares its line with another key; the start-up scan of "
                          "QX_REALTIME_Init reads one key per line",
                      "put " + quoted(names[k]) + " on a line of its own");
                continue;
            }
            if (!m->has_int) continue;  // a value of the wrong form, reported already
            bool right_line = seen[k].found && seen[k].line == key_line;
            bool right_value = seen[k].found && (long long)seen[k].value == m->number;
            if (right_line && right_value) continue;
            error(key_line,
                  "the start-up scan of QX_REALTIME_Init reads " + quoted(names[k]) + " as " +
                      num(seen[k].value) +
                      (seen[k].found ? " from line " + num(seen[k].line)
                                     : std::string(" (not found)")) +
                      ", not " + num(m->number) + " from this line",
                  "give \"Util\", \"Enabled\" and \"DbgLevel\" each a line of their own at the "
                  "start of the System_ scope, above every other line containing \"Util\":");
        }
        // Until it has all three, the scan takes any line containing "Util": as the capacity per
        // core; a domain's or class's Util above the System_ keys is therefore a trap even when a
        // later line happens to set the value right again.
        const Member *cap = sys(kUtil);
        if (cap != nullptr && last_system_line > 0) {
            int l = 1;
            size_t pos = 0;
            while (pos < text_.size() && l < last_system_line) {
                size_t nl = text_.find('\n', pos);
                std::string t =
                    text_.substr(pos, nl == std::string::npos ? std::string::npos : nl - pos);
                if (t.find("\"Util\":") != std::string::npos && l != cap->key->line) {
                    error(l,
                          "this line contains \"Util\": before the System_ scope's \"Util\", "
                          "\"Enabled\" and \"DbgLevel\"; the start-up scan of QX_REALTIME_Init "
                          "may take it as the capacity of one CPU",
                          "move the System_ scope above every other line containing \"Util\":");
                    break;
                }
                if (nl == std::string::npos) break;
                pos = nl + 1;
                l++;
            }
        }
    }

    std::string line_text(int line) const {
        int l = 1;
        size_t start = 0;
        while (l < line && start < text_.size()) {
            size_t nl = text_.find('\n', start);
            if (nl == std::string::npos) return "";
            start = nl + 1;
            l++;
        }
        size_t nl = text_.find('\n', start);
        return text_.substr(start, nl == std::string::npos ? std::string::npos : nl - start);
    }

    // Whether the line holds more than the key and its value: any second quoted text does.
    bool others_on_line(int line) const {
        std::string t = line_text(line);
        int strings = 0;
        bool in = false;
        for (size_t i = 0; i < t.size(); i++) {
            if (in && t[i] == '\\') {
                i++;
            } else if (t[i] == '"') {
                if (!in) strings++;
                in = !in;
            }
        }
        return strings > 1;
    }
};

}  // namespace

std::vector<Diagnostic> lint_text(const std::string &text, const Options &options) {
    Linter linter(text, options);
    return linter.run();
}

bool written_reading(const std::string &text, Reading *out) {
    Linter linter(text, Options());
    return linter.written(out);
}

std::vector<Difference> compare_readings(const Reading &written, const Reading &library) {
    std::vector<Difference> out;
    auto value = [&](int line, const std::string &what, long long w, long long l) {
        if (w == kNotANumber || w == l) return;
        out.push_back(Difference{line, "the library reads " + what + " as " + num(l) + ", not " +
                                           num(w) + " as written"});
    };
    int sys = written.system_line;
    value(sys, "the System_ \"Util\"", written.cap_per_core, library.cap_per_core);
    value(sys, "\"Reservation\"", written.reservation, library.reservation);
    value(sys, "\"DbgLevel\"", written.dbg_level, library.dbg_level);
    value(sys, "\"Enabled\"", written.enabled, library.enabled);
    value(sys, "\"BudgetCpuNum\"", written.budget_cpu_num, library.budget_cpu_num);
    static const char *const kSchedType[] = {"no scheduling type", "round-robin", "deadline",
                                             "both round-robin and deadline"};
    for (size_t i = 0; i < written.domains.size(); i++) {
        const DomainReading &w = written.domains[i];
        const DomainReading *l = i < library.domains.size() && library.domains[i].name == w.name
                                     ? &library.domains[i]
                                     : nullptr;
        if (l == nullptr || !l->found) {
            out.push_back(
                Difference{w.line, "the library does not find the domain " + quoted(w.name)});
            continue;
        }
        std::string dn = quoted(w.name);
        value(w.line, "the Util of " + dn, w.util, l->util);
        if (w.cpuset != l->cpuset)
            out.push_back(Difference{w.line, "the library reads the Cpuset of " + dn + " as " +
                                                 quoted(l->cpuset) + ", not " + quoted(w.cpuset) +
                                                 " as written"});
        if (w.sched_type != l->sched_type && w.sched_type >= 0 && w.sched_type <= 3 &&
            l->sched_type >= 0 && l->sched_type <= 3)
            out.push_back(Difference{w.line, "the library reads " + dn + " as " +
                                                 kSchedType[l->sched_type] + ", not " +
                                                 kSchedType[w.sched_type] + " as written"});
        if (w.classes.size() != l->classes.size()) {
            out.push_back(Difference{w.line, "the library reads " +
                                                 num((long long)l->classes.size()) +
                                                 " classes into " + dn + ", not " +
                                                 num((long long)w.classes.size()) + " as written"});
            continue;
        }
        for (size_t c = 0; c < w.classes.size(); c++) {
            const ClassReading &wc = w.classes[c], &lc = l->classes[c];
            if (wc.name != lc.name) {
                out.push_back(Difference{wc.line, "the library reads class " +
                                                      num((long long)c + 1) + " of " + dn + " as " +
                                                      quoted(lc.name) + ", not " + quoted(wc.name) +
                                                      " as written"});
                continue;
            }
            std::string cn = " of " + quoted(wc.name);
            value(wc.line, "the Util" + cn, wc.util, lc.util);
            value(wc.line, "the RT_Priority" + cn, wc.rt_priority, lc.rt_priority);
            value(wc.line, "the DL_RuntimeUs" + cn, wc.dl_runtime, lc.dl_runtime);
            value(wc.line, "the DL_DeadlineUs" + cn, wc.dl_deadline, lc.dl_deadline);
            value(wc.line, "the DL_PeriodUs" + cn, wc.dl_period, lc.dl_period);
        }
    }
    return out;
}

std::string format_diagnostic(const std::string &file, const Diagnostic &d) {
    std::string s = file + ":" + std::to_string(d.line) + ": " +
                    (d.severity == Severity::kError ? "error" : "warning") + ": " + d.message;
    if (!d.fix.empty()) s += " (fix: " + d.fix + ")";
    return s;
}

bool read_file(const std::string &path, std::string *text, std::string *error) {
    FILE *f = fopen(path.c_str(), "rb");
    if (f == nullptr) {
        *error = strerror(errno);
        return false;
    }
    text->clear();
    char buf[4096];
    size_t n;
    while ((n = fread(buf, 1, sizeof(buf), f)) > 0) text->append(buf, n);
    bool failed = ferror(f) != 0;
    fclose(f);
    if (failed) {
        *error = "read error";
        return false;
    }
    return true;
}

}  // namespace qxrt_lint

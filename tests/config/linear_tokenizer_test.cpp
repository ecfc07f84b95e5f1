// The library tokenizes its configuration with its own copy of jsmn's loop that keeps the open
// containers on a stack (linear time); it must give exactly what the exported stock tokenizer
// gives: the same results call by call (including out-of-tokens and the resume with a larger
// array), the same parser state and the same tokens, on every input.
#include <dirent.h>
#include <string.h>

#include <random>
#include <string>
#include <vector>

#include "test_support.h"
#include "../platform/jsmn_linear.h"

namespace {

typedef int (*ParseFn)(jsmn_parser *, const char *, size_t, jsmntok_t *, unsigned int);

struct Run {
    std::vector<int> results;  // one per call: out-of-tokens, then the final result
    jsmn_parser parser;
    std::vector<jsmntok_t> tokens;
};

int stock(jsmn_parser *p, const char *js, size_t len, jsmntok_t *t, unsigned int n) {
    return jsmn_parse(p, js, len, t, n);
}

// Tokenizes as the library does: the token array doubles after every out-of-tokens result.
Run tokenize(ParseFn parse, const std::string &text, unsigned int initial) {
    Run r;
    jsmn_init(&r.parser);
    r.tokens.assign(initial, jsmntok_t{JSMN_UNDEFINED, 0, 0, 0});
    for (;;) {
        int result = parse(&r.parser, text.data(), text.size(), r.tokens.data(),
                           (unsigned int)r.tokens.size());
        r.results.push_back(result);
        if (result != JSMN_ERROR_NOMEM || r.tokens.size() > (1u << 22)) break;
        r.tokens.resize(r.tokens.size() * 2, jsmntok_t{JSMN_UNDEFINED, 0, 0, 0});
    }
    return r;
}

void expect_same(const std::string &text, const std::string &what) {
    for (unsigned int initial : {1u, 2u, 5u, 64u, 4096u}) {
        Run a = tokenize(stock, text, initial);
        Run b = tokenize(qx_jsmn_parse, text, initial);
        ASSERT_EQ(a.results, b.results) << what << ", initial " << initial;
        EXPECT_EQ(a.parser.pos, b.parser.pos) << what;
        EXPECT_EQ(a.parser.toknext, b.parser.toknext) << what;
        EXPECT_EQ(a.parser.toksuper, b.parser.toksuper) << what;
        ASSERT_EQ(a.tokens.size(), b.tokens.size()) << what;
        EXPECT_EQ(0, memcmp(a.tokens.data(), b.tokens.data(), a.tokens.size() * sizeof(jsmntok_t)))
            << what << ", initial " << initial;
    }
}

std::vector<std::string> files_of(const std::string &dir, const std::string &suffix) {
    std::vector<std::string> out;
    DIR *d = opendir(dir.c_str());
    if (d == nullptr) return out;
    while (dirent *e = readdir(d)) {
        std::string n = e->d_name;
        if (n.size() >= suffix.size() &&
            n.compare(n.size() - suffix.size(), suffix.size(), suffix) == 0 && n[0] != '.')
            out.push_back(dir + "/" + n);
    }
    closedir(d);
    return out;
}

}  // namespace

TEST(LinearTokenizer, SameAsStockOnTheFuzzAndLintCorporaAndShippedFiles) {
    std::vector<std::string> files = files_of(QXRT_SOURCE_DIR "/fuzz/corpus/config", "");
    for (const std::string &f : files_of(QXRT_SOURCE_DIR "/tests/cli/lint_corpus", ".json"))
        files.push_back(f);
    for (const std::string &f : files_of(QXRT_SOURCE_DIR "/config", ".json")) files.push_back(f);
    ASSERT_GT(files.size(), 60u);
    for (const std::string &f : files) expect_same(qxt::read_file(f), f);
}

TEST(LinearTokenizer, SameAsStockOnRandomTexts) {
    std::mt19937 rng(20261123);
    const char alphabet[] = "{}[]\",: a1\n\\-tfn";
    for (int i = 0; i < 3000; i++) {
        std::string text;
        size_t len = rng() % 120;
        for (size_t k = 0; k < len; k++) text += alphabet[rng() % (sizeof(alphabet) - 1)];
        expect_same(text, "random text " + std::to_string(i) + ": " + text);
        if (HasFatalFailure()) return;
    }
}

TEST(LinearTokenizer, SameAsStockOnDeepAndWideDocuments) {
    std::string wide = "{";
    for (int i = 0; i < 5000; i++)
        wide += (i ? ", \"k" : "\"k") + std::to_string(i) + "\": " + std::to_string(i);
    expect_same(wide + "}", "one object, 5000 members");
    expect_same(wide, "one object, 5000 members, never closed");
    std::string deep;
    for (int i = 0; i < 2000; i++) deep += i % 2 ? "[" : "{\"a\":";
    expect_same(deep, "2000 levels, never closed");
    std::string closed = deep;
    for (int i = 1999; i >= 0; i--) closed += i % 2 ? "]" : "}";
    expect_same(closed, "2000 levels");
    expect_same("]", "a closing bracket alone");
    expect_same("{\"a\": [1, 2}", "mismatched brackets");
}

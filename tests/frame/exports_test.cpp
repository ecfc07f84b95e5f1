// The shared library exports exactly its external interfaces: the operations of the public
// header, the four process-wide objects and the JSON tokenizer, and nothing else.
#include <stdio.h>

#include <map>
#include <regex>
#include <set>
#include <sstream>
#include <string>

#include "test_support.h"

namespace {

struct Symbol {
    char type;
    unsigned long long size;
};

// The defined dynamic symbols of the built library, read with nm.
std::map<std::string, Symbol> exported_symbols(std::string *error) {
    std::map<std::string, Symbol> out;
    std::string command =
        std::string(QXRT_NM) + " -D --defined-only -S " + QXRT_SHARED_LIB + " 2>&1";
    FILE *pipe = popen(command.c_str(), "r");
    if (pipe == nullptr) {
        *error = "cannot run nm";
        return out;
    }
    char line[512];
    std::string all;
    while (fgets(line, sizeof(line), pipe) != nullptr) {
        all += line;
        // "<value> [<size>] <type> <name>"
        std::istringstream in(line);
        std::string a, b, c, d;
        in >> a >> b >> c >> d;
        if (!d.empty())
            out[d] = Symbol{c[0], std::stoull(b, nullptr, 16)};
        else if (!c.empty())
            out[c] = Symbol{b[0], 0};
    }
    int status = pclose(pipe);
    if (status != 0) *error = "nm failed: " + all;
    return out;
}

const std::set<std::string> kFunctions = {
    "QX_REALTIME_Init",
    "QX_REALTIME_Deinit",
    "QX_REALTIME_SetDebugLevel",
    "QX_REALTIME_SelfTest",
    "QX_REALTIME_CreateDomain",
    "QX_REALTIME_GetAllDomainName",
    "_QX_REALTIME_GetAllDomainInfo",
    "QX_REALTIME_DeleteDomain",
    "QX_REALTIME_QueryBudget",
    "QX_REALTIME_DmipsToUs",
    "QX_REALTIME_AddThread",
    "QX_REALTIME_AddThread_Lite",
    "QX_REALTIME_RemoveThread",
    "QX_REALTIME_UpdateThreadUtil",
    "QX_REALTIME_EnableMemoryHighPriority",
    "QX_REALTIME_DisableMemoryHighPriority",
    "QX_REALTIME_GetAvailableHighPriorityResource",
    "QX_REALTIME_GetDomainCpuUsage",
    "QX_REALTIME_DumpDomainInfo",
};
const std::set<std::string> kTokenizer = {"jsmn_init", "jsmn_parse"};
const std::map<std::string, unsigned long long> kObjects = {
    {"rtlog", sizeof(FILE *)},
    {"mutex", sizeof(pthread_mutex_t)},
    {"strerrBuf", 128},
    {"u8JsonPath", 64},
};

}  // namespace

TEST(Exports, DynamicSymbolTableIsExactlyTheExternalInterface) {
    std::string error;
    std::map<std::string, Symbol> symbols = exported_symbols(&error);
    ASSERT_TRUE(error.empty()) << error;
    ASSERT_EQ(19u, kFunctions.size());

    std::set<std::string> expected = kFunctions;
    expected.insert(kTokenizer.begin(), kTokenizer.end());
    for (const auto &object : kObjects) expected.insert(object.first);

    std::set<std::string> actual;
    for (const auto &symbol : symbols) actual.insert(symbol.first);
    for (const std::string &name : expected) EXPECT_TRUE(actual.count(name)) << "missing: " << name;
    for (const std::string &name : actual) EXPECT_TRUE(expected.count(name)) << "extra: " << name;
}

TEST(Exports, FunctionsAreCodeAndObjectsAreDataOfTheirSize) {
    std::string error;
    std::map<std::string, Symbol> symbols = exported_symbols(&error);
    ASSERT_TRUE(error.empty()) << error;
    for (const std::string &name : kFunctions) {
        ASSERT_TRUE(symbols.count(name)) << name;
        EXPECT_EQ('T', symbols[name].type) << name;
    }
    for (const std::string &name : kTokenizer) {
        ASSERT_TRUE(symbols.count(name)) << name;
        EXPECT_EQ('T', symbols[name].type) << name;
    }
    for (const auto &object : kObjects) {
        ASSERT_TRUE(symbols.count(object.first)) << object.first;
        char type = symbols[object.first].type;
        EXPECT_TRUE(type == 'B' || type == 'D') << object.first << " has type " << type;
        EXPECT_EQ(object.second, symbols[object.first].size) << object.first;
    }
}

TEST(Exports, EveryOperationOfThePublicHeaderIsExported) {
    // The header and the export list must not drift apart: every declaration marked as part of
    // the interface is one of the exported functions or objects.
    std::string header = qxt::read_file(std::string(QXRT_SOURCE_DIR) + "/include/qx_realtime.h");
    ASSERT_FALSE(header.empty());
    std::regex fn("QX_REALTIME_API\\s+[A-Za-z0-9_]+\\s+\\**\\s*([A-Za-z0-9_]+)\\s*\\(");
    std::regex obj(
        "QX_REALTIME_API\\s+extern\\s+[A-Za-z0-9_]+\\s+\\**\\s*([A-Za-z0-9_]+)\\s*[\\[;]");
    std::set<std::string> declared_functions, declared_objects;
    for (std::sregex_iterator it(header.begin(), header.end(), fn), end; it != end; ++it)
        declared_functions.insert((*it)[1].str());
    for (std::sregex_iterator it(header.begin(), header.end(), obj), end; it != end; ++it)
        declared_objects.insert((*it)[1].str());
    EXPECT_EQ(kFunctions, declared_functions);
    std::set<std::string> objects;
    for (const auto &object : kObjects) objects.insert(object.first);
    EXPECT_EQ(objects, declared_objects);
}
